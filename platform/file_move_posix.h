// The steps of moving a file without replacing one, for any kind of file system.
#pragma once

#include <string>

namespace platform {

// All of them judge a failure by what the two names refer to afterwards: a completed move that was
// reported as failed counts as done, and nothing is removed that may be the only copy. If in doubt,
// both names stay.

// The three ways to rename an entry on the same file system, best first. They return 0 or an errno
// value: EEXIST for a target that already exists, EXDEV for one on another file system.

// renameat2 with RENAME_NOREPLACE. IsUnsupported where the file system does not support it.
[[nodiscard]] int MoveByRename(const std::string& source, const std::string& target) noexcept;

// link, then unlink of the source. EPERM, EMLINK or IsUnsupported where hard links are not
// supported, and for a folder.
[[nodiscard]] int MoveByLink(const std::string& source, const std::string& target) noexcept;

// Reserves the target's name with an empty entry, which the plain rename replaces. A process that
// dies in between leaves the empty entry behind and the source in place.
[[nodiscard]] int MoveByReservation(const std::string& source, const std::string& target);

// Uses the first of the three that the file system supports.
[[nodiscard]] int MoveOnSameFileSystem(const std::string& source, const std::string& target);

// Copies a regular file to a temporary name in the target's folder, if possible with owner, mode
// and times; writes it to the disk, renames it to the target, and only then removes the source.
// Fails and keeps the source if the source changes in the meantime. False with LastError set.
[[nodiscard]] bool MoveByCopy(const std::string& source, const std::string& target);

// Moves a file and replaces the target (rename). Returns 0 or an errno value.
[[nodiscard]] int MoveOver(const std::string& source, const std::string& target) noexcept;

// Flushes the folder of a path to the disk (fsync). Returns 0 or an errno value; 0 also if the file
// system cannot sync folders.
[[nodiscard]] int SyncFolderOf(const std::string& path);

}  // namespace platform
