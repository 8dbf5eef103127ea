// Moving a file without replacing one, step by step, on file systems of every kind.
#pragma once

#include <string>

namespace platform {

// The three ways to give an entry a new name on the same file system, best first; each either does
// it completely or leaves everything as it was. They give 0 or an errno value: EEXIST for a target
// that is there already, EXDEV for one on another file system.

// renameat2 with RENAME_NOREPLACE. EINVAL or ENOSYS where the file system does not know it.
[[nodiscard]] int MoveByRename(const std::string& source, const std::string& target) noexcept;

// A second link, then the first one goes. EPERM, ENOTSUP or EMLINK where there is no such thing,
// and for a folder.
[[nodiscard]] int MoveByLink(const std::string& source, const std::string& target) noexcept;

// An empty entry of our own reserves the target's name, and the plain rename replaces it. A process
// that dies in between leaves the empty entry behind and the source where it is.
[[nodiscard]] int MoveByReservation(const std::string& source, const std::string& target) noexcept;

// The first of the three that the file system offers.
[[nodiscard]] int MoveOnSameFileSystem(const std::string& source,
                                       const std::string& target) noexcept;

// A regular file's copy under a temporary name beside the target, with mode and times; written to
// the disk, only then given the target's name, and only then is the source removed. Fails, and
// keeps the source, when the source changes meanwhile. False with LastError set.
[[nodiscard]] bool MoveByCopy(const std::string& source, const std::string& target);

// Has the folder of a path written to the disk (fsync). 0 or an errno value; a file system that
// cannot do that for folders has done it.
[[nodiscard]] int SyncFolderOf(const std::string& path);

}  // namespace platform
