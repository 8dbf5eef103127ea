// Atomic creation and replacement of files.
#pragma once

#include <cstddef>
#include <string>

#include "platform/file.h"

namespace platform {

// Writes the bytes to a new file with a temporary name in the same folder, flushes it to the disk
// and renames it. An existing file is replaced in one step. On failure returns false, with
// LastError set; the old file is unchanged and the new one is removed.
[[nodiscard]] bool ReplaceWholeFile(const std::wstring& path, const void* bytes, std::size_t size,
                                    FileReaders readers);

// The same for a file that must not exist yet: kErrorAlreadyExists if it does, even if two
// processes try at the same time.
[[nodiscard]] bool WriteWholeFile(const std::wstring& path, const void* bytes, std::size_t size,
                                  FileReaders readers);

}  // namespace platform
