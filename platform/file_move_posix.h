// The steps of moving a file without replacing one, for file systems of every kind.
#pragma once

#include <string>

namespace platform {

// All of them judge a failure by what the two names refer to afterwards: a completed move that was
// reported as failed counts as done, and nothing is removed that may be the only copy. If in doubt,
// both names stay.

// The three ways to give an entry a new name on the same file system, best first. They return 0 or
// an errno value: EEXIST for a target that already exists, EXDEV for one on another file system.

// renameat2 with RENAME_NOREPLACE. IsUnsupported where the file system does not support it.
[[nodiscard]] int MoveByRename(const std::string& source, const std::string& target) noexcept;

// link, then unlink of the source. EPERM, EMLINK or IsUnsupported where hard links are not
// supported, and for a folder.
[[nodiscard]] int MoveByLink(const std::string& source, const std::string& target) noexcept;

// An empty entry of our own reserves the target's name, and the plain rename replaces it. A process
// that dies in between leaves the empty entry behind and the source in place.
[[nodiscard]] int MoveByReservation(const std::string& source, const std::string& target);

// The first of the three that the file system supports.
[[nodiscard]] int MoveOnSameFileSystem(const std::string& source, const std::string& target);

// A regular file's copy under a temporary name beside the target, if possible with owner, mode and
// times; written to the disk, only then given the target's name, and only then is the source
// removed. Fails, and keeps the source, if the source changes meanwhile. False with LastError set.
[[nodiscard]] bool MoveByCopy(const std::string& source, const std::string& target);

// Moves a file and replaces the target (rename). 0 or an errno value.
[[nodiscard]] int MoveOver(const std::string& source, const std::string& target) noexcept;

// Flushes the folder of a path to the disk (fsync). 0 or an errno value; 0 also if the file system
// cannot sync folders.
[[nodiscard]] int SyncFolderOf(const std::string& path);

}  // namespace platform
