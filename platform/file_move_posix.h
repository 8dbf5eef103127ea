// Moving a file without replacing one, step by step, on file systems of every kind.
#pragma once

#include <string>

namespace platform {

// All of them judge a failure by what lies under the two names afterwards: a move that was done but
// reported as failed counts as done, and nothing is removed while it may be all that is left. When
// that cannot be told, both names stay.

// The three ways to give an entry a new name on the same file system, best first. They give 0 or an
// errno value: EEXIST for a target that is there already, EXDEV for one on another file system.

// renameat2 with RENAME_NOREPLACE. IsUnsupported where the file system does not know it.
[[nodiscard]] int MoveByRename(const std::string& source, const std::string& target) noexcept;

// A second link, then the first one goes. EPERM, EMLINK or IsUnsupported where there is no such
// thing, and for a folder.
[[nodiscard]] int MoveByLink(const std::string& source, const std::string& target) noexcept;

// An empty entry of our own reserves the target's name, and the plain rename replaces it. A process
// that dies in between leaves the empty entry behind and the source where it is.
[[nodiscard]] int MoveByReservation(const std::string& source, const std::string& target);

// The first of the three that the file system offers.
[[nodiscard]] int MoveOnSameFileSystem(const std::string& source, const std::string& target);

// A regular file's copy under a temporary name beside the target, if possible with owner, mode and
// times; written to the disk, only then given the target's name, and only then is the source
// removed. Fails, and keeps the source, when the source changes meanwhile. False with LastError
// set.
[[nodiscard]] bool MoveByCopy(const std::string& source, const std::string& target);

// Moves over whatever has the target's name (rename). 0 or an errno value.
[[nodiscard]] int MoveOver(const std::string& source, const std::string& target) noexcept;

// Has the folder of a path written to the disk (fsync). 0 or an errno value; a file system that
// cannot do that for folders has done it.
[[nodiscard]] int SyncFolderOf(const std::string& path);

}  // namespace platform
