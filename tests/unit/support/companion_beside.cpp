#include "tests/unit/support/companion_beside.h"

#ifdef _WIN32
#include <windows.h>
#else
#include <dlfcn.h>
#endif

#include <filesystem>
#include <system_error>

#include "platform/module.h"
#include "platform/text.h"

namespace kyd_test {

namespace {

namespace fs = std::filesystem;

fs::path ProgramFolder() {
  return fs::path(platform::ToNativePath(platform::ProgramPath())).parent_path();
}

fs::path FileName() {
  return {platform::ToNativePath(std::wstring(L"Corvid") + platform::kLibraryEnding)};
}

}  // namespace

CompanionBeside::CompanionBeside(const std::string& variant) {
  fs::path built = ProgramFolder().parent_path() / "bin";
  if (!variant.empty()) {
    built /= fs::path("variants") / variant;
  }
  fs::copy_file(built / FileName(), ProgramFolder() / FileName(),
                fs::copy_options::overwrite_existing);
}

CompanionBeside::~CompanionBeside() {
  std::error_code ignored;
  fs::remove(ProgramFolder() / FileName(), ignored);
}

bool CompanionBesideIsLoaded() {
  const fs::path path = ProgramFolder() / FileName();
#ifdef _WIN32
  return GetModuleHandleW(path.c_str()) != nullptr;
#else
  void* const library = dlopen(path.c_str(), RTLD_NOW | RTLD_NOLOAD);
  if (library == nullptr) {
    return false;
  }
  dlclose(library);
  return true;
#endif
}

}  // namespace kyd_test
