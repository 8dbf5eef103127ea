// Folder rules shared by both platforms.
#include "platform/folders.h"

namespace platform {

std::optional<std::wstring> DriveRootOf(std::wstring_view system_directory) {
  const std::size_t backslash = system_directory.find(L'\\');
  if (system_directory.size() < 2 || backslash == std::wstring_view::npos) {
    return std::nullopt;
  }
  return std::wstring(system_directory.substr(0, backslash + 1));
}

}  // namespace platform
