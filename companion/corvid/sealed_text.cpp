// Layout of the sealed text.
#include "companion/corvid/sealed_text.h"

#include <algorithm>
#include <cstddef>

#include "platform/text.h"

namespace companion {
namespace {

constexpr std::array<std::uint8_t, 4> kMagic = {'K', 'Y', 'D', '1'};
constexpr std::size_t kHeaderSize = kMagic.size() + kNonceSize;

}  // namespace

bool SealText(const SecretBytes& key, const SecretBytes& plaintext,
              std::vector<std::uint8_t>* sealed) {
  Nonce nonce;
  if (!FillRandom(nonce.data(), nonce.size())) {
    return false;
  }
  std::vector<std::uint8_t> container(kHeaderSize + plaintext.size() + kTagSize);
  const auto after_magic = std::copy(kMagic.begin(), kMagic.end(), container.begin());
  std::copy(nonce.begin(), nonce.end(), after_magic);
  Tag tag{};
  if (!AeadSeal(key, nonce, {kMagic.data(), kMagic.size()}, {plaintext.data(), plaintext.size()},
                container.data() + kHeaderSize, &tag)) {
    return false;
  }
  std::copy(tag.begin(), tag.end(), container.end() - kTagSize);
  *sealed = std::move(container);
  return true;
}

OpenResult OpenText(const SecretBytes& key, ByteView sealed, std::wstring* text) {
  if (sealed.size < kHeaderSize + kTagSize ||
      !std::equal(kMagic.begin(), kMagic.end(), sealed.data)) {
    return OpenResult::kNotSealed;
  }
  Nonce nonce;
  std::copy_n(sealed.data + kMagic.size(), nonce.size(), nonce.begin());
  Tag tag;
  std::copy_n(sealed.data + sealed.size - kTagSize, tag.size(), tag.begin());
  const ByteView ciphertext{sealed.data + kHeaderSize, sealed.size - kHeaderSize - kTagSize};
  SecretBytes plaintext(ciphertext.size);
  if (!AeadOpen(key, nonce, {kMagic.data(), kMagic.size()}, ciphertext, tag, plaintext.data())) {
    return OpenResult::kNotAuthentic;
  }
  if (plaintext.size() % 2 != 0) {
    return OpenResult::kNotUtf16;
  }
  *text = platform::FromUtf16Le(plaintext.data(), plaintext.size());
  return OpenResult::kOpened;
}

}  // namespace companion
