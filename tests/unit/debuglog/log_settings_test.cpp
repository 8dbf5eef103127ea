// When the settings are read, and what their values mean.
#include "debuglog/log_settings.h"

#include <gtest/gtest.h>

#include "debuglog/debug_log.h"
#include "platform/clock.h"
#include "platform/file.h"
#include "platform/folders.h"
#include "platform/registry.h"
#include "platform/text.h"
#include "tests/unit/support/temp_folder.h"
#include "tests/unit/support/test_registry.h"

namespace {

using corvid::LogSettings;

constexpr wchar_t kKey[] = L"SOFTWARE\\Veltrane\\Veltrane Keyward\\Corvid";
constexpr std::uint32_t kMask = 16;

std::wstring base_for_test;

std::optional<std::wstring> BaseForTest() {
  return base_for_test;
}
std::optional<std::wstring> NoBase() {
  return std::nullopt;
}

class LogSettingsTest : public testing::Test {
 protected:
  LogSettingsTest() { base_for_test = folder_.Path() + platform::kPathSeparator; }

  [[nodiscard]] LogSettings Read(std::uint32_t mask = kMask,
                                 corvid::DefaultBase base = &BaseForTest) const {
    LogSettings settings;
    settings.enabled = true;  // so that a reset is visible
    settings.folder = L"old";
    settings.size_limit = 1;
    corvid::ReadLogSettings(mask, platform::kRegistryRead, base, settings);
    return settings;
  }

  kyd_test::TempFolder folder_;
  kyd_test::TestRegistry registry_;
};

TEST(SettingsAreDue, EveryTenSecondsWhileEnabled) {
  EXPECT_FALSE(corvid::SettingsAreDue(1009, 1000, true));
  EXPECT_TRUE(corvid::SettingsAreDue(1010, 1000, true));
}

TEST(SettingsAreDue, EveryTwoSecondsWhileDisabled) {
  EXPECT_FALSE(corvid::SettingsAreDue(1001, 1000, false));
  EXPECT_TRUE(corvid::SettingsAreDue(1002, 1000, false));
}

TEST(SettingsAreDue, AlwaysAtTheFirstCall) {
  EXPECT_TRUE(corvid::SettingsAreDue(1'700'000'000, 0, false));
}

TEST(OutputLogEnables, AnyValueForMaskOneOtherwiseItsBit) {
  EXPECT_TRUE(corvid::OutputLogEnables(2, 1));
  EXPECT_FALSE(corvid::OutputLogEnables(0, 1));
  EXPECT_FALSE(corvid::OutputLogEnables(1, 16));
  EXPECT_TRUE(corvid::OutputLogEnables(16, 16));
  EXPECT_TRUE(corvid::OutputLogEnables(0xFFFFFFFF, 16));
}

TEST(LogSurroundings, UsesThePlainRegistryViewInA64BitProcess) {
  const corvid::LogSurroundings system = corvid::LogSurroundings::OfSystem();
  EXPECT_EQ(system.registry_access(), 0x20019U);
  EXPECT_EQ(system.clock, &platform::SystemClock());
  EXPECT_EQ(system.default_base(), platform::DefaultLogBase());
}

TEST_F(LogSettingsTest, IsDisabledAndResetWithoutTheKey) {
  const LogSettings settings = Read();
  EXPECT_FALSE(settings.enabled);
  EXPECT_EQ(settings.folder, L"");
  EXPECT_EQ(settings.size_limit, corvid::kDefaultLogSizeLimit);
}

TEST_F(LogSettingsTest, UsesTheDefaultBaseAndCreatesTheFolder) {
  registry_.SetDword(kKey, L"OutputLog", 16);
  const LogSettings settings = Read();
  EXPECT_TRUE(settings.enabled);
  EXPECT_EQ(settings.folder, folder_ / L"DebugSSO");
  EXPECT_TRUE(platform::IsFolder(settings.folder));
  EXPECT_EQ(settings.size_limit, 10485760U);
}

TEST_F(LogSettingsTest, IsDisabledWithoutOutputLog) {
  registry_.SetText(kKey, L"OutputLogDir", folder_.Path());
  EXPECT_FALSE(Read().enabled);
  EXPECT_EQ(Read().folder, L"");
}

TEST_F(LogSettingsTest, IsDisabledWhenOutputLogIsNotADword) {
  registry_.SetText(kKey, L"OutputLog", L"16");
  EXPECT_FALSE(Read().enabled);
  registry_.SetRaw(kKey, L"OutputLog", platform::kRegistryBinary, {16, 0, 0, 0});
  EXPECT_FALSE(Read().enabled);
}

TEST_F(LogSettingsTest, EveryLoggerIsEnabledByAllBits) {
  registry_.SetDword(kKey, L"OutputLog", 0xFFFFFFFF);
  EXPECT_TRUE(Read(/*mask=*/1).enabled);
  EXPECT_TRUE(Read(/*mask=*/16).enabled);
  EXPECT_TRUE(Read(/*mask=*/0x80000000).enabled);
}

TEST_F(LogSettingsTest, DiscardsValuesOfAnEarlierRead) {
  registry_.SetDword(kKey, L"OutputLog", 16);
  registry_.SetDword(kKey, L"OutputLogSize", 5);
  EXPECT_EQ(Read().size_limit, 5U);
  registry_.Remove(kKey, L"OutputLogSize");
  EXPECT_EQ(Read().size_limit, 10485760U);
  registry_.Remove(kKey, L"OutputLog");
  EXPECT_FALSE(Read().enabled);
  EXPECT_EQ(Read().folder, L"");
}

TEST_F(LogSettingsTest, CreatesNoFolderWhileDisabled) {
  registry_.SetDword(kKey, L"OutputLog", 1);
  EXPECT_FALSE(Read().enabled);
  EXPECT_FALSE(platform::IsFolder(folder_ / L"DebugSSO"));
  EXPECT_TRUE(Read(/*mask=*/1).enabled);
}

TEST_F(LogSettingsTest, AcceptsTheFolderWithAndWithoutTrailingSeparator) {
  registry_.SetDword(kKey, L"OutputLog", 16);
  const std::wstring base = folder_ / L"logs";
  const std::wstring separator(1, platform::kPathSeparator);
  for (const std::wstring& value : {base, base + separator}) {
    registry_.SetText(kKey, L"OutputLogDir", value);
    EXPECT_EQ(Read().folder, base + separator + L"DebugSSO");
  }
}

TEST_F(LogSettingsTest, IgnoresAFolderOfAnotherTypeAndAnEmptyFolder) {
  registry_.SetDword(kKey, L"OutputLog", 16);
  const std::vector<std::uint8_t> text = platform::ToUtf16Le(folder_ / L"elsewhere");
  registry_.SetRaw(kKey, L"OutputLogDir", platform::kRegistryExpandedText, text);
  EXPECT_EQ(Read().folder, folder_ / L"DebugSSO");
  registry_.SetText(kKey, L"OutputLogDir", L"");
  EXPECT_EQ(Read().folder, folder_ / L"DebugSSO");
}

#ifdef _WIN32  // elsewhere every text has its terminator
TEST_F(LogSettingsTest, AcceptsAFolderWithoutTerminator) {
  registry_.SetDword(kKey, L"OutputLog", 16);
  registry_.SetRaw(kKey, L"OutputLogDir", platform::kRegistryText,
                   platform::ToUtf16Le(folder_ / L"bare"));
  const std::wstring separator(1, platform::kPathSeparator);
  EXPECT_EQ(Read().folder, (folder_ / L"bare") + separator + L"DebugSSO");
}

#endif

TEST_F(LogSettingsTest, KeepsTheDefaultSizeForZeroAndForOtherTypes) {
  registry_.SetDword(kKey, L"OutputLog", 16);
  registry_.SetDword(kKey, L"OutputLogSize", 0);
  EXPECT_EQ(Read().size_limit, 10485760U);
  registry_.SetText(kKey, L"OutputLogSize", L"5");
  EXPECT_EQ(Read().size_limit, 10485760U);
  registry_.SetDword(kKey, L"OutputLogSize", 0xFFFFFFFF);
  EXPECT_EQ(Read().size_limit, 0xFFFFFFFFU);
}

TEST_F(LogSettingsTest, IsDisabledWhenTheFolderCannotBeCreated) {
  registry_.SetDword(kKey, L"OutputLog", 16);
  registry_.SetDword(kKey, L"OutputLogSize", 5);
  kyd_test::WriteFileBytes(folder_ / L"file", "in the way");
  registry_.SetText(kKey, L"OutputLogDir", folder_ / L"file");
  const LogSettings settings = Read();
  EXPECT_FALSE(settings.enabled);
  EXPECT_EQ(settings.size_limit, 10485760U);  // not even read
}

TEST_F(LogSettingsTest, StaysEnabledWithAnEmptyFolderWithoutSystemDirectory) {
  registry_.SetDword(kKey, L"OutputLog", 16);
  registry_.SetDword(kKey, L"OutputLogSize", 5);
  const LogSettings settings = Read(kMask, &NoBase);
  EXPECT_TRUE(settings.enabled);
  EXPECT_EQ(settings.folder, L"");
  EXPECT_EQ(settings.size_limit, 10485760U);
}

}  // namespace
