// AES-256-GCM through OpenSSL 3.
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <algorithm>
#include <array>
#include <limits>
#include <memory>

#include "companion/corvid/aead.h"

namespace companion {
namespace {

struct FreeContext {
  void operator()(EVP_CIPHER_CTX* context) const noexcept { EVP_CIPHER_CTX_free(context); }
};
using Context = std::unique_ptr<EVP_CIPHER_CTX, FreeContext>;

enum class Direction : int { kOpen = 0, kSeal = 1 };

Context MakeContext(const SecretBytes& key, const Nonce& nonce, Direction direction) {
  if (key.size() != kKeySize) {
    return nullptr;
  }
  // The nonce has GCM's own default length, so no control call sets it.
  static_assert(kNonceSize == 12);
  Context context(EVP_CIPHER_CTX_new());
  if (context == nullptr ||
      EVP_CipherInit_ex2(context.get(), EVP_aes_256_gcm(), key.data(), nonce.data(),
                         static_cast<int>(direction), nullptr) != 1) {
    return nullptr;
  }
  return context;
}

// EVP counts in int, so that long input is processed in pieces. `output` null: associated data.
bool Update(EVP_CIPHER_CTX* context, ByteView input, std::uint8_t* output) {
  constexpr std::size_t kPiece = std::size_t{1} << 20U;
  for (std::size_t done = 0; done < input.size;) {
    const std::size_t piece = std::min(kPiece, input.size - done);
    int written = 0;
    if (EVP_CipherUpdate(context, output == nullptr ? nullptr : output + done, &written,
                         input.data + done, static_cast<int>(piece)) != 1 ||
        written != static_cast<int>(piece)) {
      return false;
    }
    done += piece;
  }
  return true;
}

bool Finish(EVP_CIPHER_CTX* context) {
  // GCM produces no more output here; the call computes or checks the tag.
  std::array<std::uint8_t, EVP_MAX_BLOCK_LENGTH> rest{};
  int written = 0;
  return EVP_CipherFinal_ex(context, rest.data(), &written) == 1 && written == 0;
}

}  // namespace

bool FillRandom(std::uint8_t* bytes, std::size_t size) noexcept {
  return size <= std::numeric_limits<int>::max() &&
         RAND_priv_bytes(bytes, static_cast<int>(size)) == 1;
}

bool AeadSeal(const SecretBytes& key, const Nonce& nonce, ByteView associated, ByteView plaintext,
              std::uint8_t* ciphertext, Tag* tag) {
  const Context context = MakeContext(key, nonce, Direction::kSeal);
  return context != nullptr && Update(context.get(), associated, nullptr) &&
         Update(context.get(), plaintext, ciphertext) && Finish(context.get()) &&
         EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_GET_TAG, static_cast<int>(tag->size()),
                             tag->data()) == 1;
}

bool AeadOpen(const SecretBytes& key, const Nonce& nonce, ByteView associated, ByteView ciphertext,
              const Tag& tag, std::uint8_t* plaintext) {
  const Context context = MakeContext(key, nonce, Direction::kOpen);
  // The control call is declared without const and copies the tag.
  return context != nullptr && Update(context.get(), associated, nullptr) &&
         Update(context.get(), ciphertext, plaintext) &&
         EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_SET_TAG, static_cast<int>(tag.size()),
                             const_cast<std::uint8_t*>(tag.data())) == 1 &&
         Finish(context.get());
}

}  // namespace companion
