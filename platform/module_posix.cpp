// Modules of the dynamic loader.
#include "platform/module.h"

#include <dlfcn.h>
#include <link.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

#include "platform/error.h"
#include "platform/fd_posix.h"
#include "platform/text.h"

namespace platform {
namespace {

// Never closed: the program is never unloaded, so callers need no reference.
void* ProgramModule() noexcept {
  static void* const program = dlopen(nullptr, RTLD_NOW | RTLD_LOCAL);
  return program;
}

// The loader reports failures as text, without numbers.
Library Loaded(void* module) noexcept {
  if (module == nullptr) {
    SetLastError(kErrorGeneralFailure);
  }
  return Library(module);
}

}  // namespace

void ModuleCloser::Close(Value module) noexcept {
  if (module != ProgramModule()) {
    dlclose(module);
  }
}

Library LoadLibraryFile(const std::wstring& path) {
  // An empty name would select the program itself.
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

std::wstring FolderOfModule(const void* address) {
  dl_find_object found = {};
  if (_dl_find_object(const_cast<void*>(address), &found) != 0) {
    SetLastError(kErrorGeneralFailure);
    return {};
  }
  // The loader has no name for the program itself, and a relative one for a library that was loaded
  // by a relative path.
  const std::string name = found.dlfo_link_map->l_name;
  if (name.empty()) {
    return FolderOf(ProgramPath());
  }
  std::error_code failure;
  const std::filesystem::path path = std::filesystem::absolute(name, failure);
  if (failure) {
    RecordErrno(failure.value(), name);
  }
  return FolderOf(FromNativePath(path.native()));
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
    path.resize(path.size() * 2);  // It may have been truncated.
  }
}

Library ModuleOfAddress(const void* address) noexcept {
  // Called for every log line: dladdr would search the symbols as well.
  dl_find_object found = {};
  if (_dl_find_object(const_cast<void*>(address), &found) != 0) {
    return Loaded(nullptr);
  }
  if (found.dlfo_link_map == ProgramModule()) {
    return Library(ProgramModule());
  }
  return Loaded(dlopen(found.dlfo_link_map->l_name, RTLD_NOW | RTLD_NOLOAD));
}

}  // namespace platform
