// The Linux equivalents of Windows folders.
#include "platform/folders.h"
#include "platform/sysroot_posix.h"
#include "platform/text.h"

namespace platform {

std::optional<std::wstring> DefaultLogBase() {
  return FromNativePath(UnderSysroot("/var/log/"));
}

std::wstring CommonDocumentsFolder() {
  return FromNativePath(UnderSysroot("/var/lib/keyward"));
}

}  // namespace platform
