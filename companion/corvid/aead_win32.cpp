// AES-256-GCM through Windows CNG.
#include <windows.h>
// bcrypt.h needs the types of windows.h.
#include <bcrypt.h>

#include <limits>
#include <memory>
#include <string>

#include "companion/corvid/aead.h"

namespace companion {
namespace {

struct CloseAlgorithm {
  void operator()(void* handle) const noexcept { BCryptCloseAlgorithmProvider(handle, 0); }
};
struct DestroyKey {
  void operator()(void* handle) const noexcept { BCryptDestroyKey(handle); }
};
using AlgorithmHandle = std::unique_ptr<void, CloseAlgorithm>;
using KeyHandle = std::unique_ptr<void, DestroyKey>;

bool Succeeded(NTSTATUS status) {
  return status >= 0;
}

bool FitsUlong(std::size_t size) {
  return size <= std::numeric_limits<ULONG>::max();
}

// CNG declares its input without const but only reads it.
PUCHAR Input(const std::uint8_t* bytes) {
  return const_cast<PUCHAR>(bytes);
}

// One AES key in GCM mode; the algorithm must outlive the key.
class GcmKey {
 public:
  bool Open(const SecretBytes& key) {
    BCRYPT_ALG_HANDLE algorithm = nullptr;
    if (key.size() != kKeySize ||
        !Succeeded(BCryptOpenAlgorithmProvider(&algorithm, BCRYPT_AES_ALGORITHM, nullptr, 0))) {
      return false;
    }
    algorithm_.reset(algorithm);
    std::wstring mode = BCRYPT_CHAIN_MODE_GCM;
    if (!Succeeded(BCryptSetProperty(algorithm, BCRYPT_CHAINING_MODE,
                                     reinterpret_cast<PUCHAR>(mode.data()),
                                     static_cast<ULONG>((mode.size() + 1) * sizeof(wchar_t)), 0))) {
      return false;
    }
    BCRYPT_KEY_HANDLE handle = nullptr;
    if (!Succeeded(BCryptGenerateSymmetricKey(algorithm, &handle, nullptr, 0, Input(key.data()),
                                              static_cast<ULONG>(key.size()), 0))) {
      return false;
    }
    key_.reset(handle);
    return true;
  }

  [[nodiscard]] BCRYPT_KEY_HANDLE Get() const { return key_.get(); }

 private:
  AlgorithmHandle algorithm_;
  KeyHandle key_;
};

BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO ModeInfo(const Nonce& nonce, ByteView associated,
                                               const Tag& tag) {
  BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO info;
  BCRYPT_INIT_AUTH_MODE_INFO(info);
  info.pbNonce = Input(nonce.data());
  info.cbNonce = static_cast<ULONG>(nonce.size());
  info.pbAuthData = Input(associated.data);
  info.cbAuthData = static_cast<ULONG>(associated.size);
  info.pbTag = Input(tag.data());
  info.cbTag = static_cast<ULONG>(tag.size());
  return info;
}

}  // namespace

bool FillRandom(std::uint8_t* bytes, std::size_t size) noexcept {
  return FitsUlong(size) && Succeeded(BCryptGenRandom(nullptr, bytes, static_cast<ULONG>(size),
                                                      BCRYPT_USE_SYSTEM_PREFERRED_RNG));
}

bool AeadSeal(const SecretBytes& key, const Nonce& nonce, ByteView associated, ByteView plaintext,
              std::uint8_t* ciphertext, Tag* tag) {
  GcmKey cipher;
  if (!FitsUlong(associated.size) || !FitsUlong(plaintext.size) || !cipher.Open(key)) {
    return false;
  }
  // The whole text goes in one call: without the chaining flag GCM takes any length.
  BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO info = ModeInfo(nonce, associated, *tag);
  const ULONG size = static_cast<ULONG>(plaintext.size);
  ULONG written = 0;
  return Succeeded(BCryptEncrypt(cipher.Get(), Input(plaintext.data), size, &info, nullptr, 0,
                                 ciphertext, size, &written, 0)) &&
         written == size;
}

bool AeadOpen(const SecretBytes& key, const Nonce& nonce, ByteView associated, ByteView ciphertext,
              const Tag& tag, std::uint8_t* plaintext) {
  GcmKey cipher;
  if (!FitsUlong(associated.size) || !FitsUlong(ciphertext.size) || !cipher.Open(key)) {
    return false;
  }
  BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO info = ModeInfo(nonce, associated, tag);
  const ULONG size = static_cast<ULONG>(ciphertext.size);
  // Without an output buffer the call only returns the size and checks no tag, so even an empty
  // text gets one.
  std::uint8_t nothing = 0;
  std::uint8_t* const output = plaintext == nullptr ? &nothing : plaintext;
  ULONG written = 0;
  return Succeeded(BCryptDecrypt(cipher.Get(), Input(ciphertext.data), size, &info, nullptr, 0,
                                 output, size, &written, 0)) &&
         written == size;
}

}  // namespace companion
