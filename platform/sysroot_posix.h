// Machine-wide paths, which KEYWARD_SYSROOT can relocate.
#pragma once

#include <string>
#include <string_view>

namespace platform {

// Returns the native path of an absolute machine-wide path, inside the folder that KEYWARD_SYSROOT
// names if it is set and not empty.
[[nodiscard]] std::string UnderSysroot(std::string_view absolute_path);

}  // namespace platform
