// Wiping through OpenSSL.
#include <openssl/crypto.h>

#include "platform/secret_memory.h"

namespace platform {

void Wipe(void* memory, std::size_t bytes) noexcept {
  OPENSSL_cleanse(memory, bytes);
}

}  // namespace platform
