// The tool that writes credential files, run as a process.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <thread>

#include "companion/corvid/corvid.h"
#include "tests/unit/companion/harness.h"

namespace companion_test {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

constexpr const char* kJson = R"({"apikey":"k","idp_session":"s"})";
constexpr const wchar_t* kJsonText = LR"({"apikey":"k","idp_session":"s"})";

class KeywardSeal : public testing::Test {
 protected:
  ToolResult Run(const std::vector<fs::path>& arguments, const std::string& input = kJson) {
    return RunSeal(folder_, arguments, input);
  }

  // Returns the plaintext that the library decrypts, or "<refused>".
  std::wstring Opened(const fs::path& file) {
    const Library library(folder_ / kCorvidName);
    const auto decrypt = library.Find<decltype(&Corvid_CmpCphr_Decrypt)>("Corvid_CmpCphr_Decrypt");
    const Bytes sealed = ReadFile(file);
    std::wstring text;
    return decrypt(sealed.data(), sealed.size(), &text) == 0 ? text : L"<refused>";
  }

  // Checks that the folder holds only the modules and these files.
  void ExpectFolder(std::vector<std::string> names) {
    for (const char* name : {kCorvidName, kPelhamName, kSealName}) {
      names.emplace_back(name);
    }
    EXPECT_THAT(folder_.Names(), testing::UnorderedElementsAreArray(names));
  }

  ModuleFolder folder_;
  fs::path file_ = folder_ / "UserData.dat";
};

TEST_F(KeywardSeal, WritesTheFileAndAKeyNextToTheTool) {
  const ToolResult result = Run({file_});
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(result.output, "");
  EXPECT_EQ(result.errors, "");
  ExpectFolder({"Corvid.key", "UserData.dat"});
  EXPECT_EQ(Opened(file_), kJsonText);
}

TEST_F(KeywardSeal, WritesKeyOf64DigitsAndALineFeed) {
  ASSERT_EQ(Run({file_}).exit_code, 0);
  const Bytes key = ReadFile(folder_ / "Corvid.key");
  ASSERT_EQ(key.size(), 65U);
  const std::string text(key.begin(), key.end());
  EXPECT_EQ(text.find_first_not_of("0123456789abcdef"), 64U);
  EXPECT_EQ(text.back(), '\n');
}

TEST_F(KeywardSeal, WritesForTheOwnerOnly) {
  if (!kFilesHaveModes) {
    GTEST_SKIP() << "this platform has no file modes";
  }
  ASSERT_EQ(Run({file_}).exit_code, 0);
  const fs::perms owner = fs::perms::owner_read | fs::perms::owner_write;
  EXPECT_EQ(fs::status(folder_ / "Corvid.key").permissions(), owner);
  EXPECT_EQ(fs::status(file_).permissions(), owner);
}

TEST_F(KeywardSeal, KeepsAnExistingKey) {
  ASSERT_EQ(Run({file_}).exit_code, 0);
  const Bytes key = ReadFile(folder_ / "Corvid.key");
  ASSERT_EQ(Run({folder_ / "other.dat"}).exit_code, 0);
  EXPECT_EQ(ReadFile(folder_ / "Corvid.key"), key);
  EXPECT_NE(Opened(file_), L"<refused>");
  EXPECT_NE(Opened(folder_ / "other.dat"), L"<refused>");
}

TEST_F(KeywardSeal, CreatesANewKeyPerFolder) {
  const ModuleFolder other;
  ASSERT_EQ(Run({file_}).exit_code, 0);
  ASSERT_EQ(RunSeal(other, {other / "UserData.dat"}, kJson).exit_code, 0);
  EXPECT_NE(ReadFile(folder_ / "Corvid.key"), ReadFile(other / "Corvid.key"));
}

TEST_F(KeywardSeal, SealsTheSameTextDifferentlyEachTime) {
  ASSERT_EQ(Run({file_}).exit_code, 0);
  const Bytes first = ReadFile(file_);
  ASSERT_EQ(Run({file_}).exit_code, 0);
  const Bytes second = ReadFile(file_);
  ASSERT_EQ(first.size(), second.size());
  // The magic is the same; nonce, ciphertext and tag differ.
  EXPECT_TRUE(std::equal(first.begin(), first.begin() + 4, second.begin()));
  EXPECT_FALSE(std::equal(first.begin() + 4, first.begin() + 16, second.begin() + 4));
  EXPECT_FALSE(std::equal(first.begin() + 16, first.end() - 16, second.begin() + 16));
  EXPECT_FALSE(std::equal(first.end() - 16, first.end(), second.end() - 16));
}

TEST_F(KeywardSeal, ReplacesAnExistingFile) {
  WriteFile(file_,
            "something else that is longer than the sealed text would be" + std::string(1000, 'x'));
  ASSERT_EQ(Run({file_}).exit_code, 0);
  EXPECT_EQ(Opened(file_), kJsonText);
  ExpectFolder({"Corvid.key", "UserData.dat"});
}

TEST_F(KeywardSeal, DropsAByteOrderMark) {
  ASSERT_EQ(Run({file_}, "\xEF\xBB\xBF{}").exit_code, 0);
  EXPECT_EQ(Opened(file_), L"{}");
}

TEST_F(KeywardSeal, AcceptsAnyJsonDocument) {
  for (const char* text : {"{}", "[]", "null", "1", R"("x")", " {} \r\n", R"({"apikey":1})",
                           R"("\ud83d\ude00")", R"({"a":1,"a":2})"}) {
    EXPECT_EQ(Run({"--check", file_}, text).exit_code, 0) << text;
    EXPECT_EQ(Opened(file_), std::wstring(text, text + std::string(text).size())) << text;
  }
}

TEST_F(KeywardSeal, RefusesWhatIsNotJson) {
  for (const std::string& text :
       {std::string(), std::string(" "), std::string("{"), std::string("{}x"), std::string("{} {}"),
        std::string("apikey"), std::string("{'a':1}"), std::string(R"({"a":1,})"),
        std::string(R"("\x")"), std::string(R"("\ud83d")"), std::string("{}\0", 3),
        std::string("{}\0{}", 5), std::string("\0", 1)}) {
    for (const std::vector<fs::path>& options :
         {std::vector<fs::path>{file_}, std::vector<fs::path>{"--check", file_}}) {
      const ToolResult result = Run(options, text);
      EXPECT_EQ(result.exit_code, 65) << text;
      EXPECT_THAT(result.errors, HasSubstr("keyward-seal: the text is not JSON: ")) << text;
    }
  }
  ExpectFolder({});
}

TEST_F(KeywardSeal, RefusesWhatIsNotUtf8) {
  for (const char* text : {"\"\xFF\"", "\"\xC3\"", "\"\xED\xA0\x80\"", "\"\xC0\x80\""}) {
    EXPECT_EQ(Run({file_}, text).exit_code, 65) << text;
    const ToolResult raw = Run({"--raw", file_}, text);
    EXPECT_EQ(raw.exit_code, 65) << text;
    EXPECT_THAT(raw.errors, HasSubstr("the text is not UTF-8")) << text;
  }
  ExpectFolder({});
}

TEST_F(KeywardSeal, NeverQuotesTheText) {
  const ToolResult result = Run({file_}, R"({"apikey":"hush-hush" "idp_session"})");
  EXPECT_EQ(result.exit_code, 65);
  EXPECT_THAT(result.errors, testing::Not(HasSubstr("hush")));
  EXPECT_THAT(result.errors, HasSubstr("at character 23"));
}

TEST_F(KeywardSeal, SurvivesDeepNesting) {
  const std::string open(1000000, '[');
  EXPECT_EQ(Run({file_}, open).exit_code, 65);
  EXPECT_EQ(Run({file_}, open + std::string(1000000, ']')).exit_code, 0);
}

TEST_F(KeywardSeal, RawSealsAnything) {
  for (const std::string& text : {std::string(), std::string("not JSON"), std::string("{}\0", 3)}) {
    EXPECT_EQ(Run({"--raw", file_}, text).exit_code, 0) << text;
    EXPECT_EQ(Opened(file_), std::wstring(text.begin(), text.end())) << text;
  }
}

TEST_F(KeywardSeal, SealsUtf16ByteForByte) {
  // "\xD800": an unpaired surrogate in a JSON string.
  const std::string utf16("\"\0\x00\xD8\"\0", 6);
  const std::wstring expected{L'"', static_cast<wchar_t>(0xD800), L'"'};
  EXPECT_EQ(Run({"--utf16", file_}, utf16).exit_code, 0);
  EXPECT_EQ(Opened(file_), expected);
  EXPECT_EQ(Run({"--raw", "--utf16", file_}, utf16).exit_code, 0);
  EXPECT_EQ(Opened(file_), expected);
}

TEST_F(KeywardSeal, ChecksUtf16ByDefault) {
  EXPECT_EQ(Run({"--utf16", file_}, std::string("{\0", 2)).exit_code, 65);
  const ToolResult odd = Run({"--utf16", file_}, std::string("{\0}", 3));
  EXPECT_EQ(odd.exit_code, 65);
  EXPECT_THAT(odd.errors, HasSubstr("odd number of bytes"));
  EXPECT_EQ(Run({"--utf16", "--raw", file_}, std::string("{\0}", 3)).exit_code, 0);
}

TEST_F(KeywardSeal, RefusesWrongUsage) {
  const fs::path other = folder_ / "other.dat";
  for (const std::vector<fs::path>& arguments : {
           std::vector<fs::path>{},
           {""},
           {"--raw"},
           {"--"},
           {"--", ""},
           {file_, other},
           {file_, file_},
           {"--check", "--raw", file_},
           {"--unknown", file_},
           {file_, "--unknown"},
           {"-h"},
           {"-", file_},
           {"--utf16=1", file_},
       }) {
    const ToolResult result = Run(arguments);
    EXPECT_EQ(result.exit_code, 64) << testing::PrintToString(arguments.size());
    EXPECT_EQ(result.output, "");
    EXPECT_THAT(result.errors, testing::StartsWith("keyward-seal: "));
    EXPECT_EQ(result.errors.find('\n'), result.errors.size() - 1);
  }
  ExpectFolder({});
}

TEST_F(KeywardSeal, RefusesTextAboveTheSizeLimit) {
  const ToolResult result = Run({"--raw", file_}, std::string((std::size_t{64} << 20U) + 1, ' '));
  EXPECT_EQ(result.exit_code, 65);
  EXPECT_THAT(result.errors, HasSubstr("the text is longer than 64 MiB"));
  ExpectFolder({});
}

TEST_F(KeywardSeal, TwoDashesEndTheOptions) {
  EXPECT_EQ(Run({"--raw", "--", file_}, "x").exit_code, 0);
  EXPECT_EQ(Opened(file_), L"x");
}

TEST_F(KeywardSeal, HelpSaysThatItIsAStandIn) {
  const ToolResult result = Run({"--help"});
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_THAT(result.output, HasSubstr("stand-in"));
  for (const char* option : {"--check", "--raw", "--utf16", "--help", "--version"}) {
    EXPECT_THAT(result.output, HasSubstr(option));
  }
  EXPECT_EQ(result.errors, "");
  ExpectFolder({});
}

TEST_F(KeywardSeal, PrintsItsVersion) {
  const ToolResult result = Run({"--version"});
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_THAT(result.output, testing::StartsWith("keyward-seal "));
  EXPECT_THAT(result.output, HasSubstr("(stand-in)"));
  EXPECT_EQ(result.output.find('\n'), result.output.size() - 1);
  EXPECT_EQ(result.errors, "");
}

TEST_F(KeywardSeal, ReportsAMissingFolder) {
  const ToolResult result = Run({folder_ / "LogWork" / "alice" / "UserData.dat"});
  EXPECT_EQ(result.exit_code, 73);
  EXPECT_THAT(result.errors, HasSubstr("folders are not created"));
  EXPECT_FALSE(fs::exists(folder_ / "LogWork"));
}

TEST_F(KeywardSeal, DoesNotReplaceAFolder) {
  fs::create_directory(file_);
  WriteFile(file_ / "inside", "x");
  const ToolResult result = Run({file_});
  EXPECT_EQ(result.exit_code, 73);
  EXPECT_THAT(result.errors, HasSubstr(R"(UserData.dat" cannot be written)"));
  EXPECT_TRUE(fs::exists(file_ / "inside"));
  ExpectFolder({"Corvid.key", "UserData.dat"});
}

TEST_F(KeywardSeal, RefusesAndKeepsAnInvalidKey) {
  WriteFile(folder_ / "Corvid.key", "not a key\n");
  const ToolResult result = Run({file_});
  EXPECT_EQ(result.exit_code, 78);
  EXPECT_THAT(result.errors, HasSubstr(R"(Corvid.key" cannot be read, or does not hold)"));
  ExpectFolder({"Corvid.key"});
  const Bytes key = ReadFile(folder_ / "Corvid.key");
  EXPECT_EQ(std::string(key.begin(), key.end()), "not a key\n");
}

TEST_F(KeywardSeal, WritesPathsOfAnyAlphabet) {
  const fs::path folder = folder_ / fs::u8path("K\xC3\xA4the \xE6\x97\xA5\xE6\x9C\xAC");
  fs::create_directory(folder);
  EXPECT_EQ(Run({folder / "UserData.dat"}).exit_code, 0);
  EXPECT_EQ(Opened(folder / "UserData.dat"), kJsonText);
  const ToolResult missing = Run({folder / "missing" / "UserData.dat"});
  EXPECT_EQ(missing.exit_code, 73);
  EXPECT_THAT(missing.errors, HasSubstr("K\xC3\xA4the \xE6\x97\xA5\xE6\x9C\xAC"));
}

TEST_F(KeywardSeal, ConcurrentStartsAgreeOnOneKey) {
  std::vector<std::thread> threads;
  std::vector<int> codes(8, -1);
  std::vector<std::string> errors(codes.size());
  for (std::size_t i = 0; i < codes.size(); ++i) {
    threads.emplace_back([this, i, &codes, &errors] {
      const ToolResult result = Run({folder_ / ("user" + std::to_string(i))});
      codes[i] = result.exit_code;
      errors[i] = result.errors;
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_THAT(codes, testing::Each(0)) << testing::PrintToString(errors);
  std::vector<std::string> names = {"Corvid.key"};
  for (std::size_t i = 0; i < codes.size(); ++i) {
    names.push_back("user" + std::to_string(i));
    EXPECT_EQ(Opened(folder_ / names.back()), kJsonText);
  }
  ExpectFolder(names);
}

}  // namespace
}  // namespace companion_test
