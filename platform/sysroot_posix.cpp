// Machine-wide paths, which KEYWARD_SYSROOT can relocate.
#include "platform/sysroot_posix.h"

#include <cstdlib>

namespace platform {

std::string UnderSysroot(std::string_view absolute_path) {
  std::string path;
  // Ignored by a program that has more rights than its user.
  if (const char* const root = secure_getenv("KEYWARD_SYSROOT")) {
    path = root;
    while (!path.empty() && path.back() == '/') {
      path.pop_back();
    }
  }
  return path.append(absolute_path);
}

}  // namespace platform
