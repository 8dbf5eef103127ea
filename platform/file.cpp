// Shared by both platforms.
#include "platform/file.h"

namespace platform {

bool File::WriteAll(const void* bytes, std::size_t size) {
  std::size_t done = 0;
  while (done < size) {
    const std::optional<std::size_t> count =
        Write(static_cast<const char*>(bytes) + done, size - done);
    if (!count || *count == 0) {
      return false;
    }
    done += *count;
  }
  return IsOpen();
}

}  // namespace platform
