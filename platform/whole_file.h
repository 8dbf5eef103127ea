// Files that appear whole or not at all.
#pragma once

#include <cstddef>
#include <string>

#include "platform/file.h"

namespace platform {

// Writes the bytes to a new file of a temporary name in the same folder, flushes it to the disk and
// gives it its name. An existing file of that name is replaced in one step. False, with LastError
// set, when that fails: then the old file is still there and the new one is removed again.
[[nodiscard]] bool ReplaceWholeFile(const std::wstring& path, const void* bytes, std::size_t size,
                                    FileReaders readers);

// The same for a file that must not exist yet: kErrorAlreadyExists when it does, even when two
// processes try at the same time.
[[nodiscard]] bool WriteWholeFile(const std::wstring& path, const void* bytes, std::size_t size,
                                  FileReaders readers);

}  // namespace platform
