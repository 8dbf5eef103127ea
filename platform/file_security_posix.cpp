// Linux supports only the folder's default security.
#include <stdexcept>

#include "platform/file_security.h"

namespace platform {

struct CFileAccessSecurity::Descriptor {};

CFileAccessSecurity::CFileAccessSecurity(int mode) : mode_(mode) {}
CFileAccessSecurity::~CFileAccessSecurity() = default;

bool CFileAccessSecurity::Build() {
  if (mode_ != kDefault) {
    throw std::runtime_error("no security descriptors on this platform");
  }
  return true;
}

void* CFileAccessSecurity::Attributes() const noexcept {
  return nullptr;
}

}  // namespace platform
