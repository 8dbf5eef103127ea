// The module's folder on Linux.
#include <dlfcn.h>
#include <link.h>

#include <system_error>

#include "companion/common/module_folder.h"

namespace companion {

std::filesystem::path ThisModuleFolder() {
  Dl_info info{};
  void* extra = nullptr;
  // Any address inside the module will do; the function's own needs no further symbol.
  const auto* address = reinterpret_cast<const void*>(&ThisModuleFolder);
  if (dladdr1(address, &info, &extra, RTLD_DL_LINKMAP) == 0 || extra == nullptr) {
    throw std::system_error(std::make_error_code(std::errc::no_such_file_or_directory), "dladdr1");
  }
  const std::filesystem::path name = static_cast<const link_map*>(extra)->l_name;
  // The loader gives the program itself no name, and dladdr answers with argv[0], which says
  // nothing about the folder when the program was found through PATH.
  if (name.empty()) {
    return std::filesystem::read_symlink("/proc/self/exe").parent_path();
  }
  return std::filesystem::absolute(name).parent_path();
}

}  // namespace companion
