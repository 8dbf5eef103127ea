// Credential files, as the companion library opens them.
#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "companion/corvid/sealed_text.h"
#include "platform/text.h"
#include "tests/fuzz/input.h"
#include "tests/fuzz/targets.h"

namespace kyd_fuzz {

namespace {

using companion::OpenResult;
using companion::OpenText;
using companion::SecretBytes;

constexpr std::string_view kMagic = "KYD1";
constexpr wchar_t kBefore[] = L"of the caller";

SecretBytes Key() {
  SecretBytes key(companion::kKeySize);
  for (std::size_t i = 0; i < key.size(); ++i) {
    key[i] = static_cast<std::uint8_t>(i * 7);
  }
  return key;
}

OpenResult Open(const std::vector<std::uint8_t>& sealed, std::wstring& text) {
  return OpenText(Key(), {sealed.data(), sealed.size()}, &text);
}

void CheckHostile(std::string_view bytes) {
  std::vector<std::uint8_t> sealed(bytes.begin(), bytes.end());
  std::wstring text = kBefore;
  Require(Open(sealed, text) != OpenResult::kOpened, "no file is accepted without the key");
  // The same input after a valid header.
  sealed.insert(sealed.begin(), kMagic.begin(), kMagic.end());
  Require(Open(sealed, text) != OpenResult::kOpened, "no file is accepted without the key");
  Require(text == kBefore, "a failure does not change the text");
}

// As the library does it, but with a fixed nonce, so that runs are reproducible.
std::vector<std::uint8_t> Sealed(std::string_view plaintext) {
  const companion::Nonce nonce{1, 2, 3};
  const std::size_t head = kMagic.size() + nonce.size();
  std::vector<std::uint8_t> sealed(head + plaintext.size() + companion::kTagSize);
  companion::Tag tag{};
  Require(companion::AeadSeal(Key(), nonce, {BytesOf(kMagic), kMagic.size()},
                              {BytesOf(plaintext), plaintext.size()}, sealed.data() + head, &tag),
          "any text can be sealed");
  std::copy(nonce.begin(), nonce.end(), std::copy(kMagic.begin(), kMagic.end(), sealed.begin()));
  std::copy(tag.begin(), tag.end(), sealed.end() - companion::kTagSize);
  return sealed;
}

void CheckRoundTrip(std::string_view plaintext, std::uint32_t change) {
  std::vector<std::uint8_t> sealed = Sealed(plaintext);
  std::wstring text = kBefore;
  if (plaintext.size() % 2 == 0) {
    Require(Open(sealed, text) == OpenResult::kOpened, "a sealed file can be opened");
    Require(text == platform::FromUtf16Le(BytesOf(plaintext), plaintext.size()),
            "text survives a round trip");
  } else {
    Require(Open(sealed, text) == OpenResult::kNotUtf16, "an odd number of bytes is refused");
    Require(text == kBefore, "a failure does not change the text");
  }
  const std::size_t position = change % sealed.size();
  sealed[position] = static_cast<std::uint8_t>(sealed[position] ^ (1U << (change >> 16) % 8));
  text = kBefore;
  const OpenResult changed = Open(sealed, text);
  Require(
      changed == (position < kMagic.size() ? OpenResult::kNotSealed : OpenResult::kNotAuthentic),
      "a flipped bit is detected");
  sealed.resize(position);
  const OpenResult cut = Open(sealed, text);
  Require(cut == OpenResult::kNotSealed || cut == OpenResult::kNotAuthentic,
          "truncation is detected");
  Require(text == kBefore, "a failure does not change the text");
}

}  // namespace

// Input: a number that selects the bit to flip, then a plaintext that is also tried as a sealed
// file.
int FuzzSealedText(const std::uint8_t* bytes, std::size_t size) {
  Input input(bytes, size);
  const std::uint32_t change = input.Number();
  const std::string_view rest = input.Rest();
  CheckHostile(rest);
  CheckRoundTrip(rest, change);
  return 0;
}

}  // namespace kyd_fuzz
