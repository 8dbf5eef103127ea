// Where the module that asks was loaded from; the stand-ins keep their files beside themselves.
#pragma once

#include <filesystem>

namespace companion {

/// Folder of the module (program or shared library) that this function is linked into, as an
/// absolute path where the loader knows one. Rests on GetModuleHandleExW/GetModuleFileNameW, and on
/// dladdr1 and /proc/self/exe. Throws std::system_error when the system does not tell.
[[nodiscard]] std::filesystem::path ThisModuleFolder();

}  // namespace companion
