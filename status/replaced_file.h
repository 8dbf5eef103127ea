// Writes a file for readers who may come at any moment.
#pragma once

#include <string>

namespace kyd {

// Readers find the old content or the new one, never half of one. The old file stays when the new
// one cannot be written (LastError). Anything but a regular file is refused: a device or a pipe
// would be replaced by a file.
[[nodiscard]] bool ReplaceFile(const std::wstring& path, const std::string& bytes);

}  // namespace kyd
