// Modules through the dynamic loader.
#include "platform/module.h"

#include <dlfcn.h>
#include <link.h>
#include <unistd.h>

#include <cerrno>

#include "platform/errno_posix.h"
#include "platform/error.h"
#include "platform/text.h"

namespace platform {
namespace {

// The loader has texts for its failures, but no numbers.
Library Loaded(void* module) noexcept {
  if (module == nullptr) {
    SetLastError(kErrorGeneralFailure);
  }
  return Library(module);
}

}  // namespace

void ModuleCloser::Close(Value module) noexcept {
  dlclose(module);
}

Library LoadLibraryFile(const std::wstring& path) {
  // An empty name would be the program itself.
  return Loaded(path.empty() ? nullptr : dlopen(ToNativePath(path).c_str(), RTLD_NOW | RTLD_LOCAL));
}

void* FindExport(const Library& library, const char* name) noexcept {
  // A null handle would search the whole program.
  void* const address = library ? dlsym(library.Get(), name) : nullptr;
  if (address == nullptr) {
    SetLastError(kErrorGeneralFailure);
  }
  return address;
}

std::wstring ProgramPath() {
  std::string path(256, '\0');
  for (;;) {
    const ssize_t length = readlink("/proc/self/exe", path.data(), path.size());
    if (length < 0) {
      RecordErrno(errno, "/proc/self/exe");
      return {};
    }
    if (static_cast<std::size_t>(length) < path.size()) {
      path.resize(static_cast<std::size_t>(length));
      return FromNativePath(path);
    }
    path.resize(path.size() * 2);  // It may have been cut.
  }
}

Library ModuleOfAddress(const void* address) noexcept {
  Dl_info info = {};
  void* extra = nullptr;
  if (dladdr1(address, &info, &extra, RTLD_DL_LINKMAP) == 0 || extra == nullptr) {
    return Loaded(nullptr);
  }
  const char* const name = static_cast<const link_map*>(extra)->l_name;
  // The program itself has an empty name here and cannot be opened by its path.
  const bool is_program = name == nullptr || *name == '\0';
  return Loaded(dlopen(is_program ? nullptr : name, RTLD_NOW | RTLD_NOLOAD));
}

}  // namespace platform
