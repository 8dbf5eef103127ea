// Files that appear whole or not at all.
#pragma once

#include <filesystem>
#include <system_error>

#include "companion/corvid/aead.h"

namespace companion {

/// Writes the bytes to a new file of a temporary name in the same folder, flushes it to the disk
/// and gives it its name. An existing file of that name is replaced in one step. On Linux the file
/// is for its owner only (mode 0600); on Windows it inherits the folder's access rules. A failure
/// is the system's error, and then nothing has changed. Folders are not created.
[[nodiscard]] std::error_code WriteReplacing(const std::filesystem::path& file, ByteView bytes);

/// The same for a file that must not exist yet: std::errc::file_exists when it does, even when two
/// processes try at the same time.
[[nodiscard]] std::error_code WriteNew(const std::filesystem::path& file, ByteView bytes);

}  // namespace companion
