// Layout of the sealed text, and UTF-16LE to the platform's wide string.
#include "companion/corvid/sealed_text.h"

#include <algorithm>
#include <cstddef>

namespace companion {
namespace {

constexpr std::array<std::uint8_t, 4> kMagic = {'K', 'Y', 'D', '1'};
constexpr std::size_t kHeaderSize = kMagic.size() + kNonceSize;

bool IsHighSurrogate(char32_t unit) {
  return unit >= 0xD800 && unit <= 0xDBFF;
}
bool IsLowSurrogate(char32_t unit) {
  return unit >= 0xDC00 && unit <= 0xDFFF;
}

char32_t UnitAt(const SecretBytes& utf16le, std::size_t index) {
  return static_cast<char32_t>(utf16le[index * 2] | (utf16le[index * 2 + 1] << 8U));
}

// Where a wide character holds UTF-16 units they are taken as they are. Where it holds code points
// a surrogate pair becomes one, and an unpaired surrogate keeps its value: what to think of such a
// text is up to its reader.
std::wstring WideText(const SecretBytes& utf16le) {
  constexpr bool kUnitsAreUtf16 = sizeof(wchar_t) == 2;
  const std::size_t count = utf16le.size() / 2;
  std::wstring text;
  // Room for everything at once: growing would leave copies of the text behind on the heap.
  text.reserve(count);
  for (std::size_t i = 0; i < count; ++i) {
    char32_t code = UnitAt(utf16le, i);
    if (!kUnitsAreUtf16 && IsHighSurrogate(code) && i + 1 < count) {
      const char32_t next = UnitAt(utf16le, i + 1);
      if (IsLowSurrogate(next)) {
        code = 0x10000 + ((code - 0xD800) << 10U) + (next - 0xDC00);
        ++i;
      }
    }
    text.push_back(static_cast<wchar_t>(code));
  }
  return text;
}

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
  *text = WideText(plaintext);
  return OpenResult::kOpened;
}

}  // namespace companion
