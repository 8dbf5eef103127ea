// Base64 texts that the Corvid library accepts; the same on both platforms.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <string>

#include "companion/corvid/corvid.h"
#include "tests/unit/companion/harness.h"

namespace companion_test {
namespace {

class Base64 : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(library_.IsLoaded());
    decode_ = library_.Find<decltype(&Corvid_Base64_Decode)>("Corvid_Base64_Decode");
    ASSERT_NE(decode_, nullptr);
  }

  Library library_{BuiltModules() / kCorvidName};
  decltype(&Corvid_Base64_Decode) decode_ = nullptr;
};

std::string Printable(const std::wstring& text) {
  std::string printable;
  for (const wchar_t character : text) {
    printable += character >= L' ' && character <= L'~'
                     ? std::string(1, static_cast<char>(character))
                     : "<" + std::to_string(static_cast<unsigned long>(character)) + ">";
  }
  return printable;
}

Bytes AsBytes(const std::string& text) {
  return {text.begin(), text.end()};
}

// An RFC 4648 encoder, for the round trip; the library only decodes.
std::wstring Encode(const Bytes& bytes) {
  const std::wstring alphabet = L"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::wstring text;
  for (std::size_t i = 0; i < bytes.size(); i += 3) {
    const std::size_t count = std::min<std::size_t>(3, bytes.size() - i);
    unsigned long group = 0;
    for (std::size_t k = 0; k < 3; ++k) {
      group = (group << 8U) | (k < count ? bytes[i + k] : 0UL);
    }
    for (std::size_t k = 0; k < 4; ++k) {
      text += k <= count ? alphabet[(group >> (18 - 6 * k)) & 63U] : L'=';
    }
  }
  return text;
}

TEST_F(Base64, DecodesWellFormedTexts) {
  struct Case {
    std::wstring text;
    std::string bytes;
  };
  const std::vector<Case> cases = {
      {L"Zg==", "f"},
      {L"Zm8=", "fo"},
      {L"Zm9v", "foo"},
      {L"Zm9vYg==", "foob"},
      {L"Zm9vYmE=", "fooba"},
      {L"Zm9vYmFy", "foobar"},
      {L"AAAA", std::string(3, '\0')},
      {L"AA==", std::string(1, '\0')},
      {L"+/+/", "\xFB\xFF\xBF"},
      {L"//8=", "\xFF\xFF"},
      {L" Zm9v", "foo"},
      {L"Zm9v ", "foo"},
      {L"Zm9v\r\n", "foo"},
      {L"Zm9v\n", "foo"},
      {L"\r\n\r\nZm9v\r\n\r\n", "foo"},
      {L"Z m\t9\rv", "foo"},
      {L"Zm9v\r\nYmFy\r\n", "foobar"},
      {L"Zm8\n=", "fo"},
      {L"Zg= =", "f"},
      {L"Zg==\n", "f"},
  };
  for (const Case& entry : cases) {
    Bytes bytes;
    EXPECT_EQ(decode_(entry.text.data(), entry.text.size(), &bytes), 0) << Printable(entry.text);
    EXPECT_EQ(bytes, AsBytes(entry.bytes)) << Printable(entry.text);
  }
}

TEST_F(Base64, RefusesEverythingElseAndAllocatesNothing) {
  const std::vector<std::wstring> cases = {
      L"",
      L" ",
      L" \t\r\n",
      L"=",
      L"==",
      L"====",
      L"Z",
      L"Zg",
      L"Zg=",
      L"Zm9",
      L"Zm9vY",
      L"Zm9vYg",
      L"Zm9vYg=",
      L"Zg===",
      L"Zm8==",
      L"Zm9v=",
      L"Zm9v==",
      L"Zm9v====",
      L"Z===",
      L"=Zg=",
      L"Z=g=",
      L"Zg=A",
      L"Zg==Zg==",
      L"Zm8=Zm9v",
      L"Zg==Zm9v",
      L"Zh==",  // Non-zero padding bits.
      L"Zm9=",
      L"//9=",
      L"Zm-_",  // The URL-safe alphabet.
      L"Zm9v!",
      L"Zm9!",
      L"Zm9v.Zm9",
      L"Zm9\"",
      L"Zm9,",
      L"Zm9v-",
      L"\vZm9v",
      L"\fZm9v",
      L"Zm9v\x85",
      L"\u00A0Zm9v",
      L"\uFEFFZm9v",
      L"Zm9\uFF36",   // A full-width letter.
      L"Zm9\u0176",   // Its low byte is a letter of the alphabet.
      L"Zm9\u3000v",  // White space, but not in the table of skipped characters.
      std::wstring(L"Zm9\0", 4),
      std::wstring(L"Zm9v\0", 5),
      std::wstring(L"\0\0\0\0", 4),
      L"-----BEGIN CERTIFICATE-----\nZm9v\n-----END CERTIFICATE-----\n",
      L"0x66:6f6f",
  };
  for (const std::wstring& text : cases) {
    Bytes bytes;
    EXPECT_NE(decode_(text.data(), text.size(), &bytes), 0) << Printable(text);
    EXPECT_TRUE(bytes.empty()) << Printable(text);
    EXPECT_EQ(bytes.capacity(), 0U) << Printable(text);
  }
}

TEST_F(Base64, RefusesEveryCharacterOutsideTheAlphabet) {
  const std::wstring alphabet = L"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  for (unsigned code = 0; code <= 0xFFFF; ++code) {
    const auto character = static_cast<wchar_t>(code);
    const std::wstring text{L'Z', L'm', character, L'v'};
    Bytes bytes;
    const bool accepted = decode_(text.data(), text.size(), &bytes) == 0;
    ASSERT_EQ(accepted, alphabet.find(character) != std::wstring::npos) << code;
  }
}

TEST_F(Base64, KeepsTheCallersBytesOnFailure) {
  Bytes bytes = {1, 2, 3};
  EXPECT_NE(decode_(L"Zm9", 3, &bytes), 0);
  EXPECT_EQ(bytes, (Bytes{1, 2, 3}));
}

TEST_F(Base64, ReplacesTheCallersBytesOnSuccess) {
  Bytes bytes = {1, 2, 3, 4, 5};
  EXPECT_EQ(decode_(L"Zg==", 4, &bytes), 0);
  EXPECT_EQ(bytes, (Bytes{'f'}));
}

TEST_F(Base64, UsesTheCountInsteadOfATerminator) {
  Bytes bytes;
  EXPECT_EQ(decode_(L"Zm9vYmFy", 4, &bytes), 0);
  EXPECT_EQ(bytes, AsBytes("foo"));
}

TEST_F(Base64, RefusesInvalidArguments) {
  Bytes bytes;
  EXPECT_NE(decode_(nullptr, 4, &bytes), 0);
  EXPECT_NE(decode_(L"Zm9v", 4, nullptr), 0);
  EXPECT_NE(decode_(L"Zm9v", std::uint64_t{1} << 32U, &bytes), 0);
  EXPECT_EQ(bytes.capacity(), 0U);
}

TEST_F(Base64, DecodesEveryLengthAndEveryByte) {
  // Covers the decoder's chunk sizes as well.
  for (const std::size_t size : {1, 2, 3, 255, 256, 257, 3071, 3072, 3073, 3074, 10000}) {
    Bytes expected(size);
    for (std::size_t i = 0; i < size; ++i) {
      expected[i] = static_cast<std::uint8_t>(i * 7 + i / 256);
    }
    const std::wstring text = Encode(expected);
    std::wstring lines;
    for (std::size_t i = 0; i < text.size(); i += 64) {
      lines += text.substr(i, 64) + L"\r\n";
    }
    Bytes bytes;
    EXPECT_EQ(decode_(text.data(), text.size(), &bytes), 0) << size;
    EXPECT_EQ(bytes, expected) << size;
    EXPECT_EQ(decode_(lines.data(), lines.size(), &bytes), 0) << size;
    EXPECT_EQ(bytes, expected) << size;
  }
}

}  // namespace
}  // namespace companion_test
