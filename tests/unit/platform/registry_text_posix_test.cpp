#include "platform/registry_text_posix.h"

#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <cerrno>

#include "platform/error.h"
#include "platform/registry.h"
#include "platform/text.h"
#include "tests/unit/support/failing_calls_posix.h"
#include "tests/unit/support/test_sysroot.h"

namespace {

using platform::ReadRegistryText;
using platform::RegistryValues;
using Bytes = std::vector<std::uint8_t>;

constexpr wchar_t kKey[] = L"SOFTWARE\\Maker\\Product";
// The text up to the values of the key.
std::string Head() {
  return "Windows Registry Editor Version 5.00\n\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\Maker\\Product]\n";
}

// Returns type and data of the value "v" of the key, or nothing.
std::optional<std::pair<std::uint32_t, Bytes>> ValueOf(const std::string& text) {
  const std::optional<RegistryValues> values = ReadRegistryText(text, kKey);
  if (!values || values->count(L"v") == 0) {
    return std::nullopt;
  }
  return std::pair(values->at(L"v").type, values->at(L"v").data);
}

bool HasKey(const std::string& text) {
  return ReadRegistryText(text, kKey).has_value();
}

std::pair<std::uint32_t, Bytes> Seven() {
  return {platform::kRegistryDword, {7, 0, 0, 0}};
}

TEST(RegistryText, ReadsEveryFormOfAValue) {
  const struct {
    const char* line;
    std::uint32_t type;
    Bytes data;
  } cases[] = {
      {R"("v"="")", 1, {0, 0}},
      {R"("v"="a")", 1, {'a', 0, 0, 0}},
      {R"("v"="\\\"")", 1, {'\\', 0, '"', 0, 0, 0}},
      {R"("v"="a;b")", 1, {'a', 0, ';', 0, 'b', 0, 0, 0}},
      {R"("v"="a" ; comment)", 1, {'a', 0, 0, 0}},
      {R"("V"="a")", 1, {'a', 0, 0, 0}},
      {R"(  "v" = "a"  )", 1, {'a', 0, 0, 0}},
      {R"("v"=dword:00000007)", 4, {7, 0, 0, 0}},
      {R"("v"=dword:7)", 4, {7, 0, 0, 0}},
      {R"("v"=dword: 7)", 4, {7, 0, 0, 0}},
      {R"("v"=DWORD:fFeEdDcC)", 4, {0xCC, 0xDD, 0xEE, 0xFF}},
      {R"("v"=dword:00000007;comment)", 4, {7, 0, 0, 0}},
      {R"("v"=hex:)", 3, {}},
      {R"("v"=hex:01)", 3, {1}},
      {R"("v"=hex:01,a,FF)", 3, {1, 10, 255}},
      {R"("v"=hex: 01 , 02 ; comment)", 3, {1, 2}},
      {R"("v"=hex:01,)", 3, {1}},
      {R"("v"=hex(3):01,02)", 3, {1, 2}},
      {R"("v"=HEX(B):01)", 3, {}},
      {R"("v"=hex(1):61,00,00,00)", 3, {}},
      {R"("v"=hex(4):07,00,00,00)", 3, {}},
      {"\"v\"=hex:01,\\\n  02,\\\n\t03", 3, {}},
      {"\"v\"=hex:01,\\\r\n  02\r", 3, {}},
      {"\"v\"=\"\xC3\xA4\xF0\x9F\x98\x80\"", 1, {0xE4, 0, 0x3D, 0xD8, 0x00, 0xDE, 0, 0}},
  };
  for (const auto& one : cases) {
    const auto value = ValueOf(Head() + one.line + "\n\"w\"=dword:1\n");
    ASSERT_TRUE(value) << one.line;
    EXPECT_EQ(value->first, one.type) << one.line;
    EXPECT_EQ(value->second, one.data) << one.line;
  }
}

TEST(RegistryText, IgnoresOnlyInvalidLines) {
  const char* const lines[] = {
      "v=dword:00000008",
      "\"v\"",
      "\"v\"=",
      "\"v=dword:00000008",
      "\"v\" dword:00000008",
      "\"v\"=dword:",
      "\"v\"=dword:x",
      "\"v\"=dword:8x",
      "\"v\"=dword:-8",
      "\"v\"=dword:0x8",
      "\"v\"=dword:000000008",
      "\"v\"=dword 8",
      "\"v\"=qword:8",
      "\"v\"=8",
      R"("v"="a)",
      R"("v"="a\")",
      R"("v"="a"b)",
      R"("v"="a\b")",
      R"("v"="a\)",
      "\"v\"='a'",
      "\"v\"=hex",
      "\"v\"=hex:1 2",
      "\"v\"=hex:100",
      "\"v\"=hex:0g",
      "\"v\"=hex:,01",
      "\"v\"=hex:01,,02",
      "\"v\"=-x",
      "\"v\\=dword:00000008",
      R"("\v"=dword:00000008)",
      "=dword:00000008",
      "; \"v\"=dword:00000008",
      "\"v\"=\"\xE9\"",
      "\"v\xE9\"=dword:00000008",
      "\xFF\xFF\xFF",
      "-",
      "\\",
      "\"",
  };
  for (const char* const line : lines) {
    EXPECT_EQ(ValueOf(Head() + line + "\n"), std::nullopt) << line;
    EXPECT_EQ(ValueOf(Head() + "\"v\"=dword:7\n" + line + "\n"), Seven()) << line;
    EXPECT_EQ(ValueOf(Head() + line + "\n\"v\"=dword:7\n"), Seven()) << line;
    EXPECT_EQ(ValueOf(Head() + line + "\r\n\"v\"=dword:7\r\n"), Seven()) << line;
  }
}

TEST(RegistryText, UnfinishedListDoesNotSwallowTheNextLine) {
  EXPECT_EQ(ValueOf(Head() + "\"w\"=hex:01,\\\n\"v\"=dword:7\n"), Seven());
  EXPECT_EQ(ValueOf(Head() + "\"w\"=hex:01,\\\n[HKEY_LOCAL_MACHINE\\Other]\n\"v\"=dword:7\n"),
            std::nullopt);
}

TEST(RegistryText, AcceptsEitherEncodingAndLineEnding) {
  const std::string unix_text = Head() + "\"v\"=dword:7\n";
  std::string windows_text;
  for (const char character : unix_text) {
    windows_text.append(character == '\n' ? 1 : 0, '\r').append(1, character);
  }
  for (const std::string& text : {unix_text, windows_text}) {
    EXPECT_EQ(ValueOf(text), Seven());
    EXPECT_EQ(ValueOf(text.substr(0, text.find_last_not_of("\r\n") + 1)), Seven());
    EXPECT_EQ(ValueOf("\xEF\xBB\xBF" + text), Seven());
    const Bytes utf16 = platform::ToUtf16Le(L"\xFEFF" + platform::FromUtf8(text));
    EXPECT_EQ(ValueOf(std::string(utf16.begin(), utf16.end())), Seven());
    EXPECT_EQ(ValueOf(std::string(utf16.begin(), utf16.end()) + "x"), Seven());
  }
}

TEST(RegistryText, AcceptsAKeyDirectlyAfterTheByteOrderMark) {
  EXPECT_TRUE(HasKey("\xEF\xBB\xBF[HKEY_LOCAL_MACHINE\\SOFTWARE\\Maker\\Product]"));
}

TEST(RegistryText, FindsAKeyByItsPath) {
  const struct {
    const char* line;
    bool expected;
  } cases[] = {
      {R"([HKEY_LOCAL_MACHINE\SOFTWARE\Maker\Product])", true},
      {R"([hkey_local_machine\software\MAKER\product])", true},
      {R"(  [HKEY_LOCAL_MACHINE\SOFTWARE\Maker\Product] ; comment)", true},
      {R"([HKEY_LOCAL_MACHINE\SOFTWARE\Maker\Product\Below])", true},
      {R"([HKEY_LOCAL_MACHINE\SOFTWARE\Maker\Product\Below\Further])", true},
      {R"([HKEY_LOCAL_MACHINE\SOFTWARE\Maker\Product2])", false},
      {"[HKEY_LOCAL_MACHINE\\SOFTWARE\\Maker]", false},
      {"[HKEY_LOCAL_MACHINE\\Maker\\Product]", false},
      {R"([HKEY_CURRENT_USER\SOFTWARE\Maker\Product])", false},
      {R"([HKLM\SOFTWARE\Maker\Product])", false},
      {"[SOFTWARE\\Maker\\Product]", false},
      {R"([HKEY_LOCAL_MACHINE\SOFTWARE\Maker\Product)", false},
      {R"(HKEY_LOCAL_MACHINE\SOFTWARE\Maker\Product])", false},
      {R"([HKEY_LOCAL_MACHINE\SOFTWARE\Maker\Product] x)", false},
      {"[HKEY_LOCAL_MACHINE\\]", false},
      {"[HKEY_LOCAL_MACHINE]", false},
      {"[]", false},
      {"[", false},
      {"", false},
  };
  for (const auto& one : cases) {
    EXPECT_EQ(HasKey(one.line), one.expected) << one.line;
  }
}

TEST(RegistryText, KeyNameMayContainBrackets) {
  EXPECT_TRUE(ReadRegistryText("[HKEY_LOCAL_MACHINE\\a]b[c]", L"a]b[c"));
}

TEST(RegistryText, ValuesBelongToTheKeyAboveThem) {
  const std::string other = "[HKEY_LOCAL_MACHINE\\Other]\n";
  EXPECT_EQ(ValueOf("\"v\"=dword:7\n" + Head()), std::nullopt);
  EXPECT_EQ(ValueOf(Head() + other + "\"v\"=dword:7\n"), std::nullopt);
  EXPECT_EQ(ValueOf(Head() + "\"v\"=dword:7\n" + other + "\"v\"=dword:8\n"), Seven());
  EXPECT_EQ(ValueOf(Head() + other + Head() + "\"v\"=dword:7\n"), Seven());
  EXPECT_EQ(ValueOf(Head() + "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Maker\\Product\\Below]\n" +
                    "\"v\"=dword:7\n"),
            std::nullopt);
}

TEST(RegistryText, ValuesBelowAnInvalidKeyAreIgnored) {
  for (const char* const line : {"[", "[HKEY_LOCAL_MACHINE\\Other", "[] x", "[\xE9]", "  [\xE9"}) {
    EXPECT_EQ(ValueOf(Head() + line + "\n\"v\"=dword:7\n"), std::nullopt) << line;
  }
}

TEST(RegistryText, LaterLinesOverrideEarlierOnes) {
  EXPECT_EQ(ValueOf(Head() + "\"v\"=dword:8\n\"V\"=dword:7\n"), Seven());
  EXPECT_EQ(ValueOf(Head() + "\"v\"=\"a\"\n" + Head() + "\"v\"=dword:7\n"), Seven());
  EXPECT_EQ(ValueOf(Head() + "\"v\"=dword:7\n\"v\"=-\n"), std::nullopt);
  EXPECT_EQ(ValueOf(Head() + "\"v\"=dword:7\n\"V\"=- ; gone\n"), std::nullopt);
  EXPECT_EQ(ValueOf(Head() + "\"v\"=-\n\"v\"=dword:7\n"), Seven());
}

TEST(RegistryText, RemovesAKeyWithEverythingBelowIt) {
  const std::string value = Head() + "\"v\"=dword:7\n";
  const struct {
    const char* line;
    bool expected;
  } cases[] = {
      {R"([-HKEY_LOCAL_MACHINE\SOFTWARE\Maker\Product])", false},
      {"[-HKEY_LOCAL_MACHINE\\SOFTWARE\\Maker]", false},
      {"[-hkey_local_machine\\software]", false},
      {R"([-HKEY_LOCAL_MACHINE\SOFTWARE\Maker\Product\Below])", true},
      {R"([-HKEY_LOCAL_MACHINE\SOFTWARE\Maker\Prod])", true},
      {R"([-HKEY_CURRENT_USER\SOFTWARE\Maker\Product])", true},
      {"[-HKEY_LOCAL_MACHINE]", true},
      {"[-]", true},
  };
  for (const auto& one : cases) {
    std::string text = value;
    text.append(one.line).append("\n");
    EXPECT_EQ(HasKey(text), one.expected) << one.line;
    // A removed key accepts no values.
    EXPECT_EQ(HasKey(text + "\"v\"=dword:8\n"), one.expected) << one.line;
    EXPECT_EQ(ValueOf(text + value), Seven()) << one.line;
  }
  EXPECT_EQ(ValueOf(value + "[-HKEY_LOCAL_MACHINE\\SOFTWARE]\n" + Head()), std::nullopt);
}

TEST(RegistryText, UnnamedValueHasAnEmptyName) {
  const std::optional<RegistryValues> values = ReadRegistryText(Head() + "@=\"a\"\n", kKey);
  ASSERT_TRUE(values);
  EXPECT_EQ(values->count(L""), 1U);
  EXPECT_TRUE(ReadRegistryText(Head() + "@=\"a\"\n@=-\n", kKey)->empty());
}

TEST(RegistryText, NulCharactersAreOrdinary) {
  const std::string text = Head() + std::string("\"v\"=\"a\0b\"\n", 10) + "\n\"w\"=dword:1\n";
  EXPECT_EQ(ValueOf(text)->second, (Bytes{'a', 0, 0, 0, 'b', 0, 0, 0}));
}

TEST(RegistryText, TakesLinearTime) {
  // Takes a fraction of a second; a quadratic algorithm would take minutes.
  constexpr std::size_t kSize = std::size_t{1} << 20;
  std::string values = Head();
  std::string list = Head() + "\"v\"=hex:";
  while (values.size() < kSize) {
    values += "\"" + std::to_string(values.size()) + "\"=dword:1\n";
    list += "01,\\\n";
  }
  EXPECT_GT(ReadRegistryText(values, kKey)->size(), 10'000U);
  EXPECT_EQ(ValueOf(list + "\n\"v\"=dword:7"), Seven());
  EXPECT_FALSE(HasKey("[HKEY_LOCAL_MACHINE" + std::string(kSize, '\\') + "]"));
  EXPECT_EQ(ValueOf(Head() + std::string(kSize, '\n') + "\"v\"=dword:7"), Seven());
  EXPECT_EQ(ValueOf(Head() + std::string(kSize, '"') + "\n\"v\"=dword:7"), Seven());
  EXPECT_EQ(ValueOf(Head() + "\"v\"=\"" + std::string(kSize, '\\')), std::nullopt);
}

// ---- The file

class RegistryFile : public testing::Test {
 protected:
  [[nodiscard]] static bool Opens() {
    return platform::RegistryKey::OpenLocalMachine(kKey, platform::kRegistryRead).has_value();
  }

  kyd_test::TestSysroot sysroot_;
  std::wstring path_ = sysroot_.Folder() / L"etc/keyward/registry.reg";
};

TEST_F(RegistryFile, MissingHasNoKeys) {
  EXPECT_FALSE(Opens());
}

TEST_F(RegistryFile, IsReadAgainForEveryKey) {
  kyd_test::WriteFileBytes(path_, Head());
  EXPECT_TRUE(Opens());
  kyd_test::WriteFileBytes(path_, "");
  EXPECT_FALSE(Opens());
}

TEST_F(RegistryFile, AboveTheSizeLimitHasNoKeys) {
  constexpr std::size_t kMost = std::size_t{16} << 20;
  kyd_test::WriteFileBytes(path_, Head() + std::string(kMost - Head().size(), ';'));
  EXPECT_TRUE(Opens());
  kyd_test::WriteFileBytes(path_, Head() + std::string(kMost - Head().size() + 1, ';'));
  EXPECT_FALSE(Opens());
}

TEST_F(RegistryFile, ThatCannotBeReadHasNoKeys) {
  kyd_test::WriteFileBytes(path_, Head());
  EXPECT_TRUE(kyd_test::RunWithout({{SYS_read, EIO, std::nullopt}}, [] {
    return !Opens() && platform::LastError() == platform::kErrorGeneralFailure;
  }));
}

TEST_F(RegistryFile, FolderInItsPlaceHasNoKeys) {
  sysroot_.Folder().MakeFolder(L"etc/keyward/registry.reg");
  EXPECT_FALSE(Opens());
}

}  // namespace
