// The pelham library: loaded from its folder and called by the name that the program imports.
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "companion/pelham/pelham/comp_info_ctrl.h"
#include "tests/unit/companion/harness.h"

namespace companion_test {
namespace {

class Pelham : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(library_.IsLoaded());
    user_agent_ = library_.Find<std::wstring (*)()>(pelham::kUserAgentExport);
    ASSERT_NE(user_agent_, nullptr);
  }

  ModuleFolder folder_;
  Library library_{folder_ / kPelhamName};
  std::wstring (*user_agent_)() = nullptr;
};

TEST_F(Pelham, ReturnsTheStandInTextWithoutAFile) {
  EXPECT_EQ(user_agent_(), L"VeltraneKeyward/1.15.0 (KydLogUploader stand-in)");
}

TEST_F(Pelham, ReturnsTheFirstLineOfTheFile) {
  struct Case {
    std::string contents;
    std::wstring user_agent;
  };
  const std::vector<Case> cases = {
      {"Agent/2.0\n", L"Agent/2.0"},
      {"Agent/2.0", L"Agent/2.0"},
      {"Agent/2.0\r\n", L"Agent/2.0"},
      {"Agent/2.0\nsecond line\n", L"Agent/2.0"},
      {"\xEF\xBB\xBF"
       "Agent/2.0\n",
       L"Agent/2.0"},
      {" Agent/2.0 \n", L" Agent/2.0 "},
      {"\xC3\xA4\xE6\x97\xA5\xF0\x9F\x98\x80\n", L"\u00E4\u65E5\U0001F600"},
      {"", L""},
      {"\n", L""},
      {"\r\n", L""},
      {"\n!throw\n", L""},
      {"\xEF\xBB\xBF", L""},
      {"!throw \n", L"!throw "},
      {"!THROW\n", L"!THROW"},
      {std::string(4096, 'x') + "\r\n", std::wstring(4096, L'x')},
      {"\xEF\xBB\xBF" + std::string(4096, 'x') + "\r\n", std::wstring(4096, L'x')},
  };
  for (const Case& entry : cases) {
    WriteFile(folder_ / "pelham.useragent", entry.contents);
    EXPECT_EQ(user_agent_(), entry.user_agent) << entry.contents.substr(0, 80);
  }
}

TEST_F(Pelham, ThrowsWhenTheFileAsksForIt) {
  // The exception crosses the module boundary and is caught here by type.
  for (const char* contents : {"!throw", "!throw\n", "!throw\r\nmore\n"}) {
    WriteFile(folder_ / "pelham.useragent", contents);
    EXPECT_THROW(user_agent_(), std::runtime_error) << contents;
  }
}

TEST_F(Pelham, ThrowsForALineThatIsNotText) {
  for (const std::string& contents :
       {std::string("\xFF\n"), std::string("a\xC3\n"), std::string("\xED\xA0\x80\n"),
        std::string("\xC0\x80\n"), std::string(4097, 'x'), std::string(4097, 'x') + "\r\n",
        std::string(100000, 'x')}) {
    WriteFile(folder_ / "pelham.useragent", contents);
    EXPECT_THROW(user_agent_(), std::runtime_error) << contents.substr(0, 80);
  }
}

TEST_F(Pelham, ThrowsForAFolderInsteadOfAFile) {
  std::filesystem::create_directory(folder_ / "pelham.useragent");
  EXPECT_THROW(user_agent_(), std::runtime_error);
}

}  // namespace
}  // namespace companion_test
