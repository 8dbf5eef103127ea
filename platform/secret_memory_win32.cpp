// Wiping through the system's function.
#include <windows.h>

#include "platform/secret_memory.h"

namespace platform {

void Wipe(void* memory, std::size_t bytes) noexcept {
  SecureZeroMemory(memory, bytes);
}

}  // namespace platform
