// The stand-in libraries and the tool when system calls fail.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <string>

#include "companion/corvid/corvid.h"
#include "tests/unit/companion/harness.h"
#include "tests/unit/support/failing_calls_posix.h"

namespace companion_test {
namespace {

namespace fs = std::filesystem;
using kyd_test::CallArgument;
using kyd_test::FailingCall;
using kyd_test::RunWithout;
using testing::HasSubstr;

// ---- The library

class CorvidFailures : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(library_.IsLoaded());
    decrypt_ = library_.Find<decltype(&Corvid_CmpCphr_Decrypt)>("Corvid_CmpCphr_Decrypt");
    decode_ = library_.Find<decltype(&Corvid_Base64_Decode)>("Corvid_Base64_Decode");
    WriteFile(folder_ / "Corvid.key", std::string(64, '0'));
  }

  ModuleFolder folder_;
  Library library_{folder_ / kCorvidName};
  decltype(&Corvid_CmpCphr_Decrypt) decrypt_ = nullptr;
  decltype(&Corvid_Base64_Decode) decode_ = nullptr;
};

TEST_F(CorvidFailures, OpensNothingWithoutAReadableKey) {
  const Bytes sealed(100);
  std::wstring text = L"old";
  EXPECT_TRUE(RunWithout({{SYS_read, EIO, std::nullopt}}, [&] {
    return decrypt_(sealed.data(), sealed.size(), &text) == kCorvidBadKey;
  }));
  EXPECT_EQ(text, L"");
}

TEST_F(CorvidFailures, ThrowsNothingWithoutMemory) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "a sanitizer's allocator terminates the process instead";
#endif
  // Blocks of this size are always requested from the system. A failing brk returns a lower break.
  constexpr std::size_t kLarge = std::size_t{80} << 20U;
  Bytes sealed(kLarge);
  const std::string magic = "KYD1";
  std::copy(magic.begin(), magic.end(), sealed.begin());
  const std::wstring base64(kLarge / 4, L'A');
  std::wstring text = L"old";
  Bytes bytes{1};
  const std::vector<FailingCall> memory = {{SYS_mmap, ENOMEM, std::nullopt},
                                           {SYS_brk, 0, std::nullopt}};
  EXPECT_TRUE(RunWithout(
      memory, [&] { return decrypt_(sealed.data(), sealed.size(), &text) == kCorvidUnexpected; }));
  EXPECT_TRUE(RunWithout(
      memory, [&] { return decode_(base64.data(), base64.size(), &bytes) == kCorvidUnexpected; }));
  EXPECT_EQ(text, L"");
  EXPECT_EQ(bytes, Bytes{1});
}

// ---- The tool

constexpr const char* kJson = R"({"apikey":"k","idp_session":"s"})";

// A child process inherits the filter of the thread, which does nothing else.
ToolResult RunSealWithout(const std::vector<FailingCall>& calls, const ModuleFolder& folder) {
  const ModuleFolder streams;
  WriteFile(streams / "input", kJson);
  ToolResult result;
  EXPECT_TRUE(RunWithout(calls, [&] {
    result.exit_code = RunProgram(folder / kSealName, {folder / "UserData.dat"}, streams / "input",
                                  streams / "output", streams / "errors");
    return true;
  }));
  const Bytes errors = ReadFile(streams / "errors");
  result.errors.assign(errors.begin(), errors.end());
  EXPECT_FALSE(fs::exists(folder / "UserData.dat"));
  return result;
}

// Neither the kernel nor the devices, which are opened without flags, supply random numbers.
std::vector<FailingCall> NoRandom() {
  return {{SYS_getrandom, EIO, std::nullopt}, {SYS_openat, EACCES, CallArgument{2, O_RDONLY}}};
}

TEST(KeywardSealFailures, MakesNoKeyWithoutRandomNumbers) {
  const ModuleFolder folder;
  const ToolResult result = RunSealWithout(NoRandom(), folder);
  EXPECT_EQ(result.exit_code, 78);
  EXPECT_THAT(result.errors, HasSubstr("random number generator failed"));
  EXPECT_FALSE(fs::exists(folder / "Corvid.key"));
}

TEST(KeywardSealFailures, SealsNothingWithoutRandomNumbers) {
  const ModuleFolder folder;
  WriteFile(folder / "Corvid.key", std::string(64, '0'));
  const ToolResult result = RunSealWithout(NoRandom(), folder);
  EXPECT_EQ(result.exit_code, 70);
  EXPECT_THAT(result.errors, HasSubstr("the cryptographic library failed"));
}

TEST(KeywardSealFailures, ReportsThatTheKeyCannotBeStored) {
  const ModuleFolder folder;
  const ToolResult result = RunSealWithout({{SYS_fsync, EIO, std::nullopt}}, folder);
  EXPECT_EQ(result.exit_code, 78);
  EXPECT_THAT(result.errors, HasSubstr(R"(Corvid.key" cannot be written (error )"));
  EXPECT_THAT(folder.Names(), testing::UnorderedElementsAre(kCorvidName, kPelhamName, kSealName));
}

TEST(KeywardSealFailures, ReportsThatItsOwnPathIsUnknown) {
  const ModuleFolder folder;
  const ToolResult result = RunSealWithout({{SYS_readlink, EACCES, std::nullopt}}, folder);
  EXPECT_EQ(result.exit_code, 70);
  EXPECT_THAT(result.errors, HasSubstr("keyward-seal: "));
  EXPECT_THAT(result.errors, HasSubstr("the folder of this program is unknown (error 5)"));
}

TEST(KeywardSealFailures, ReportsUnreadableInput) {
  const ModuleFolder folder;
  const fs::path errors = folder / "errors";
  EXPECT_EQ(RunProgram(folder / kSealName, {folder / "UserData.dat"}, folder / ".",
                       folder / "output", errors),
            74);
  const Bytes text = ReadFile(errors);
  EXPECT_EQ(std::string(text.begin(), text.end()), "keyward-seal: standard input cannot be read\n");
  EXPECT_FALSE(fs::exists(folder / "UserData.dat"));
}

}  // namespace
}  // namespace companion_test
