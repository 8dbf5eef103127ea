// Lines of a module without its own logger. A separate program, because nothing may be registered.
#include <gtest/gtest.h>

#include <string>

#include "debuglog/cdebuglog.h"
#include "debuglog/module_logs.h"
#include "platform/text.h"
#include "tests/unit/support/temp_folder.h"
#include "tests/unit/support/test_registry.h"

namespace {

constexpr wchar_t kKey[] = L"SOFTWARE\\Veltrane\\Veltrane Keyward\\Corvid";

TEST(DefaultLog, ReceivesTheLinesOfAnUnregisteredModule) {
  const kyd_test::TempFolder folder;
  kyd_test::TestRegistry registry;
  registry.SetDword(kKey, L"OutputLog", 2);  // any value enables it
  registry.SetText(kKey, L"OutputLogDir", folder.Path());
  EXPECT_TRUE(corvid::IsModuleLogEnabled());
  EXPECT_EQ(kyd::Log().WriteLogA("narrow %d", 1), 1);
  EXPECT_EQ(kyd::Log().WriteLogW(L"wide %s", L"two"), 1);
  const std::wstring separator(1, platform::kPathSeparator);
  const std::wstring log_folder = folder / (L"DebugSSO" + separator);
  const std::string text = kyd_test::ReadFileBytes(log_folder + L"kyd.log");
  EXPECT_NE(text.find(", narrow 1,\r\n"), std::string::npos);
  EXPECT_NE(text.find(", wide two,\r\n"), std::string::npos);
  EXPECT_FALSE(kyd_test::PathExists(log_folder + L"KydLogUploader.log"));
}

}  // namespace
