// The Corvid library as a caller sees it: loaded from its folder, called through its exports.
#include "companion/corvid/corvid.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>

#include "tests/unit/companion/harness.h"

namespace companion_test {
namespace {

using testing::ElementsAre;

// Each test has its own folder and key.
class Corvid : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(library_.IsLoaded());
    decrypt_ = library_.Find<decltype(&Corvid_CmpCphr_Decrypt)>("Corvid_CmpCphr_Decrypt");
    ASSERT_NE(decrypt_, nullptr);
  }

  // Seals the input with the tool in the same folder.
  Bytes Seal(const std::vector<std::filesystem::path>& options, const std::string& input) {
    const std::filesystem::path file = folder_ / "UserData.dat";
    std::vector<std::filesystem::path> arguments = options;
    arguments.push_back(file);
    const ToolResult result = RunSeal(folder_, arguments, input);
    EXPECT_EQ(result.exit_code, 0) << result.errors;
    return ReadFile(file);
  }

  // Calls the library with a plaintext that must be cleared on failure.
  std::int32_t Decrypt(const Bytes& sealed) {
    text_ = L"left over from the account before";
    return decrypt_(sealed.data(), sealed.size(), &text_);
  }

  void ExpectRefused(const Bytes& sealed, const std::string& what) {
    EXPECT_NE(Decrypt(sealed), 0) << what;
    EXPECT_EQ(text_, L"") << what;
  }

  ModuleFolder folder_;
  Library library_{folder_ / kCorvidName};
  decltype(&Corvid_CmpCphr_Decrypt) decrypt_ = nullptr;
  std::wstring text_;
};

TEST_F(Corvid, OpensWhatTheToolSealed) {
  const Bytes sealed = Seal({}, R"({"apikey":"k","idp_session":"s"})");
  EXPECT_EQ(Decrypt(sealed), 0);
  EXPECT_EQ(text_, LR"({"apikey":"k","idp_session":"s"})");
}

TEST_F(Corvid, OpensTextsOfEveryShortLength) {
  std::string text;
  for (int length = 0; length <= 40; length += 5) {
    text.resize(static_cast<std::size_t>(length), 'x');
    EXPECT_EQ(Decrypt(Seal({"--raw"}, text)), 0) << length;
    EXPECT_EQ(text_, std::wstring(text.begin(), text.end())) << length;
  }
}

TEST_F(Corvid, OpensLongText) {
  // Longer than the chunks that are passed to the cipher.
  const std::string text = "\"" + std::string(std::size_t{3} << 20U, 'x') + "\"";
  EXPECT_EQ(Decrypt(Seal({}, text)), 0);
  EXPECT_TRUE(text_ == std::wstring(text.begin(), text.end()));
}

TEST_F(Corvid, KeepsCharactersOutsideTheBasicPlane) {
  EXPECT_EQ(Decrypt(Seal({}, "\"\xC3\xA4 \xE6\x97\xA5 \xF0\x9F\x98\x80\"")), 0);
  EXPECT_EQ(text_, L"\"\u00E4 \u65E5 \U0001F600\"");
}

TEST_F(Corvid, KeepsUnpairedSurrogates) {
  // Low before high, high before a letter, and high at the end.
  const std::string utf16("\x00\xDE\x3D\xD8\x41\x00\x3D\xD8", 8);
  EXPECT_EQ(Decrypt(Seal({"--raw", "--utf16"}, utf16)), 0);
  EXPECT_EQ(text_, (std::wstring{static_cast<wchar_t>(0xDE00), static_cast<wchar_t>(0xD83D), L'A',
                                 static_cast<wchar_t>(0xD83D)}));
}

TEST_F(Corvid, KeepsNulCharacters) {
  EXPECT_EQ(Decrypt(Seal({"--raw"}, std::string("a\0b", 3))), 0);
  EXPECT_EQ(text_, std::wstring(L"a\0b", 3));
}

TEST_F(Corvid, RefusesTextWithAnOddNumberOfBytes) {
  ExpectRefused(Seal({"--raw", "--utf16"}, "{}x"), "odd");
  ExpectRefused(Seal({"--raw", "--utf16"}, "x"), "one byte");
}

TEST_F(Corvid, RefusesEveryTruncation) {
  const Bytes sealed = Seal({}, "{}");
  ASSERT_EQ(sealed.size(), 4U + 12U + 4U + 16U);
  for (std::size_t size = 0; size < sealed.size(); ++size) {
    ExpectRefused(Bytes(sealed.begin(), sealed.begin() + static_cast<std::ptrdiff_t>(size)),
                  "first " + std::to_string(size));
    ExpectRefused(Bytes(sealed.end() - static_cast<std::ptrdiff_t>(size), sealed.end()),
                  "last " + std::to_string(size));
  }
  EXPECT_EQ(Decrypt(sealed), 0);
}

TEST_F(Corvid, RefusesEverySingleBitFlip) {
  const Bytes sealed = Seal({}, "{}");
  for (std::size_t bit = 0; bit < sealed.size() * 8; ++bit) {
    Bytes flipped = sealed;
    flipped[bit / 8] = static_cast<std::uint8_t>(flipped[bit / 8] ^ (1U << (bit % 8)));
    ExpectRefused(flipped, "bit " + std::to_string(bit));
  }
  EXPECT_EQ(Decrypt(sealed), 0);
}

TEST_F(Corvid, RefusesAppendedBytes) {
  Bytes sealed = Seal({}, "{}");
  sealed.push_back(0);
  ExpectRefused(sealed, "one more byte");
}

TEST_F(Corvid, RefusesWhatIsNotSealed) {
  Seal({}, "{}");  // Creates the key.
  const std::string plain = R"({"apikey":"k","idp_session":"this file was never sealed"})";
  ExpectRefused(Bytes(plain.begin(), plain.end()), "plain JSON");
  ExpectRefused(Bytes(1, 0), "one byte");
  ExpectRefused(Bytes(100000, 0), "zeros");
}

TEST_F(Corvid, RefusesOtherKey) {
  const Bytes sealed = Seal({}, "{}");
  std::filesystem::remove(folder_ / "Corvid.key");
  const Bytes sealed_again = Seal({}, "{}");
  ExpectRefused(sealed, "key of before");
  EXPECT_EQ(Decrypt(sealed_again), 0);
}

TEST_F(Corvid, RefusesWithoutKeyFile) {
  const Bytes sealed = Seal({}, "{}");
  std::filesystem::remove(folder_ / "Corvid.key");
  ExpectRefused(sealed, "no key file");
  std::filesystem::create_directory(folder_ / "Corvid.key");
  ExpectRefused(sealed, "a folder in its place");
}

TEST_F(Corvid, RefusesUnusableKeyFiles) {
  const Bytes sealed = Seal({}, "{}");
  const Bytes key_file = ReadFile(folder_ / "Corvid.key");
  const std::string digits(key_file.begin(), key_file.begin() + 64);
  const std::string short_digits = digits.substr(0, 63);
  for (const std::string& contents :
       {std::string(), std::string("\n"), digits.substr(0, 62) + "\n", short_digits,
        short_digits + "\n", short_digits + "g\n", short_digits + " \n", " " + digits + "\n",
        digits + "0\n", digits + "\n\n", digits + "\r", digits + " ", digits + "\nx",
        "\xEF\xBB\xBF" + digits + "\n", std::string(32, '\x01'), std::string(65, '\0'),
        digits + "\n" + std::string(100000, 'x')}) {
    WriteFile(folder_ / "Corvid.key", contents);
    ExpectRefused(sealed, "\"" + contents.substr(0, 80) + "\"");
  }
}

TEST_F(Corvid, ReadsKeyFilesSavedByAnEditor) {
  const Bytes sealed = Seal({}, "{}");
  const Bytes key_file = ReadFile(folder_ / "Corvid.key");
  const std::string digits(key_file.begin(), key_file.begin() + 64);
  std::string upper = digits;
  for (char& digit : upper) {
    digit = digit >= 'a' ? static_cast<char>(digit - 'a' + 'A') : digit;
  }
  for (const std::string& contents : {digits, digits + "\r\n", upper + "\n"}) {
    WriteFile(folder_ / "Corvid.key", contents);
    EXPECT_EQ(Decrypt(sealed), 0) << contents;
    EXPECT_EQ(text_, L"{}");
  }
}

TEST_F(Corvid, OpensAFileFromAnotherImplementation) {
  // Made with another AES-GCM library, to check the format independently of our own writer.
  WriteFile(folder_ / "Corvid.key",
            "000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f\n");
  const Bytes sealed = {0x4b, 0x59, 0x44, 0x31, 0xa0, 0xa1, 0xa2, 0xa3, 0xa4, 0xa5, 0xa6,
                        0xa7, 0xa8, 0xa9, 0xaa, 0xab, 0x9d, 0x18, 0x5e, 0x2d, 0x2e, 0xcb,
                        0x20, 0xbf, 0x58, 0x65, 0xa5, 0xd3, 0xe3, 0x7a, 0xfd, 0x06, 0x70,
                        0x72, 0x7b, 0x10, 0xef, 0xb7, 0x1b, 0xba, 0xea, 0x13, 0xa4, 0x32,
                        0xef, 0xb4, 0x2f, 0x0a, 0x75, 0xdc, 0xd9, 0x75, 0xe3, 0x74};
  EXPECT_EQ(Decrypt(sealed), 0);
  EXPECT_EQ(text_, L"{\"k\":\"\u00E4\U0001F600\"}");
}

TEST_F(Corvid, RefusesInvalidArguments) {
  const Bytes sealed = Seal({}, "{}");
  EXPECT_NE(decrypt_(sealed.data(), sealed.size(), nullptr), 0);
  text_ = L"old";
  EXPECT_NE(decrypt_(nullptr, 0, &text_), 0);
  EXPECT_EQ(text_, L"");
  text_ = L"old";
  EXPECT_NE(decrypt_(sealed.data(), std::uint64_t{1} << 32U, &text_), 0);
  EXPECT_EQ(text_, L"");
}

TEST(CorvidExports, EventLogExportExistsAndDoesNothing) {
  const ModuleFolder folder;
  const Library library(folder / kCorvidName);
  ASSERT_TRUE(library.IsLoaded());
  const auto write = library.Find<decltype(&Corvid_Write_EventLog)>("Corvid_Write_EventLog");
  ASSERT_NE(write, nullptr);
  EXPECT_EQ(write(), 0);
  EXPECT_THAT(folder.Names(), testing::UnorderedElementsAre(kCorvidName, kPelhamName, kSealName));
}

// Which of the three exports a library has.
std::vector<bool> ExportsOf(const std::filesystem::path& file) {
  const Library library(file);
  EXPECT_TRUE(library.IsLoaded()) << file;
  std::vector<bool> found;
  for (const char* name :
       {"Corvid_CmpCphr_Decrypt", "Corvid_Base64_Decode", "Corvid_Write_EventLog"}) {
    found.push_back(library.IsLoaded() && library.Find<void (*)()>(name) != nullptr);
  }
  return found;
}

TEST(CorvidExports, EachVariantLacksOneExport) {
  const std::filesystem::path variants = BuiltModules() / "variants";
  EXPECT_THAT(ExportsOf(BuiltModules() / kCorvidName), ElementsAre(true, true, true));
  EXPECT_THAT(ExportsOf(variants / "no-decrypt" / kCorvidName), ElementsAre(false, true, true));
  EXPECT_THAT(ExportsOf(variants / "no-base64" / kCorvidName), ElementsAre(true, false, true));
  EXPECT_THAT(ExportsOf(variants / "no-event-log" / kCorvidName), ElementsAre(true, true, false));
}

}  // namespace
}  // namespace companion_test
