// Which logger receives a module's lines.
#include "debuglog/module_logs.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "debuglog/cdebuglog.h"
#include "platform/file.h"
#include "platform/registry.h"
#include "platform/text.h"
#include "tests/unit/support/fake_clock.h"
#include "tests/unit/support/log_capture.h"
#include "tests/unit/support/temp_folder.h"
#include "tests/unit/support/test_registry.h"

namespace {

constexpr wchar_t kKey[] = L"SOFTWARE\\Veltrane\\Veltrane Keyward\\Corvid";

std::uint32_t PlainAccess() {
  return platform::kRegistryRead;
}
std::optional<std::wstring> NoBase() {
  return std::nullopt;
}

platform::ModuleHandle Handle(std::uintptr_t value) {
  // NOLINTNEXTLINE(performance-no-int-to-ptr): a number that stands for a module
  return reinterpret_cast<platform::ModuleHandle>(value);
}

// Tests of the process's own loggers; these run before the tests that change the settings.
TEST(ProgramLog, WritesNarrowAndWideMessagesInOrder) {
  const kyd_test::LogCapture log;
  EXPECT_EQ(kyd::Log().WriteLogA("<DeleteAuthFile> failed."), 1);
  EXPECT_EQ(kyd::Log().WriteLogW(L"<MOVE> UploadFile [%s]", L"a%sb"), 1);
  EXPECT_EQ(kyd::Log().WriteLogA("UTF-8 [%s]", "gr\xC3\xBC\xC3\x9F"), 1);
  EXPECT_EQ(log.Messages(),
            (std::vector<std::string>{"<DeleteAuthFile> failed.", "<MOVE> UploadFile [a%sb]",
                                      "UTF-8 [gr\xC3\xBC\xC3\x9F]"}));
}

TEST(ProgramLog, TruncatesNarrowMessagesAt259BytesAndWideAt1023Characters) {
  const kyd_test::LogCapture log;
  kyd::Log().WriteLogA("%s", std::string(500, 'n'));
  kyd::Log().WriteLogW(L"%s", std::wstring(5000, L'w'));
  EXPECT_EQ(log.Messages(),
            (std::vector<std::string>{std::string(259, 'n'), std::string(1023, 'w')}));
}

TEST(ProgramLog, IgnoresNullAndAFormatThatDoesNotFit) {
  const kyd_test::LogCapture log;
  corvid::WriteModuleLogA(nullptr);
  EXPECT_EQ(kyd::Log().WriteLogA("%s %s", "one"), 1);
  EXPECT_TRUE(log.Messages().empty());
  EXPECT_TRUE(corvid::IsModuleLogEnabled());
}

TEST(ProgramLog, StaysTheSameWhenItIsRegisteredAgain) {
  const kyd_test::LogCapture log;
  corvid::RegisterModuleLog();
  kyd::Log().WriteLogA("once");
  EXPECT_EQ(log.Messages(), std::vector<std::string>{"once"});
}

class ModuleLogsTest : public testing::Test {
 protected:
  ModuleLogsTest() {
    registry_.SetDword(kKey, L"OutputLog", 0xFFFFFFFF);
    registry_.SetText(kKey, L"OutputLogDir", folder_.Path());
  }

  [[nodiscard]] std::unique_ptr<corvid::DebugLog> MakeLog(const wchar_t* name,
                                                          std::uint32_t mask = 16) {
    return std::make_unique<corvid::DebugLog>(
        name, mask, corvid::LogSurroundings{&clock_, &NoBase, &PlainAccess});
  }

  [[nodiscard]] std::wstring Path(const wchar_t* name) const {
    return (folder_ / L"DebugSSO") + platform::kPathSeparator + name;
  }

  kyd_test::FakeClock clock_;
  kyd_test::TempFolder folder_;
  kyd_test::TestRegistry registry_;
};

TEST_F(ModuleLogsTest, ReturnsAModulesOwnLoggerOrTheDefault) {
  const auto default_log = MakeLog(L"kyd.log", 1);
  corvid::ModuleLogs logs(*default_log);
  logs.Register(Handle(1), MakeLog(L"one.log"));
  logs.WriteLine(Handle(2), L"by default");
  EXPECT_TRUE(kyd_test::PathExists(Path(L"kyd.log")));
  EXPECT_FALSE(kyd_test::PathExists(Path(L"one.log")));
  logs.WriteLine(Handle(1), L"own");
  EXPECT_TRUE(kyd_test::PathExists(Path(L"one.log")));
}

TEST_F(ModuleLogsTest, KeepsTheFirstLoggerOfAModule) {
  const auto default_log = MakeLog(L"kyd.log", 1);
  corvid::ModuleLogs logs(*default_log);
  logs.Register(nullptr, MakeLog(L"one.log"));
  logs.Register(nullptr, MakeLog(L"two.log"));
  logs.WriteLine(nullptr, L"x");
  EXPECT_TRUE(kyd_test::PathExists(Path(L"one.log")));
  EXPECT_FALSE(kyd_test::PathExists(Path(L"two.log")));
}

TEST_F(ModuleLogsTest, FormatsTextOnlyForAnEnabledLogger) {
  registry_.SetDword(kKey, L"OutputLog", 1);
  const auto default_log = MakeLog(L"kyd.log", 1);
  corvid::ModuleLogs logs(*default_log);
  logs.Register(Handle(1), MakeLog(L"one.log"));
  int made = 0;
  const corvid::LineMaker make = [&made] {
    ++made;
    return std::wstring(L"text");
  };
  logs.WriteLine(Handle(1), make);
  EXPECT_EQ(made, 0);
  logs.WriteLine(Handle(2), make);
  EXPECT_EQ(made, 1);
  EXPECT_NE(kyd_test::ReadFileBytes(Path(L"kyd.log")).find(", text,\r\n"), std::string::npos);
}

TEST_F(ModuleLogsTest, ChecksWhetherTheLoggerOfTheModuleIsEnabled) {
  registry_.SetDword(kKey, L"OutputLog", 1);
  const auto default_log = MakeLog(L"kyd.log", 1);
  corvid::ModuleLogs logs(*default_log);
  logs.Register(Handle(1), MakeLog(L"one.log"));
  EXPECT_FALSE(logs.IsEnabled(Handle(1)));
  EXPECT_TRUE(logs.IsEnabled(Handle(2)));
}

TEST_F(ModuleLogsTest, WritesPendingLinesInKeyOrderOnDestruction) {
  const auto default_log = MakeLog(L"kyd.log", 1);
  {
    corvid::ModuleLogs logs(*default_log);
    logs.Register(Handle(2), MakeLog(L"same.log"));
    logs.Register(Handle(1), MakeLog(L"same.log"));
    EXPECT_TRUE(logs.IsEnabled(Handle(1)));
    EXPECT_TRUE(logs.IsEnabled(Handle(2)));
    ASSERT_TRUE(platform::CreateFolders(Path(L"same.log")));
    logs.WriteLine(Handle(2), L"of two");
    logs.WriteLine(Handle(1), L"of one");
    ASSERT_TRUE(platform::MoveWithoutReplacing(Path(L"same.log"), folder_ / L"moved away"));
  }
  const std::string text = kyd_test::ReadFileBytes(Path(L"same.log"));
  ASSERT_NE(text.find("of one"), std::string::npos);
  ASSERT_NE(text.find("of two"), std::string::npos);
  EXPECT_LT(text.find("of one"), text.find("of two"));
}

}  // namespace
