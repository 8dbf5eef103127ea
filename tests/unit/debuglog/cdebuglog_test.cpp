// The legacy settings, which are read and kept, but not used by any writer.
#include "debuglog/cdebuglog.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/folders.h"
#include "platform/registry.h"
#include "platform/text.h"
#include "tests/unit/support/failing_memory.h"
#include "tests/unit/support/log_capture.h"
#include "tests/unit/support/test_registry.h"

namespace {

constexpr wchar_t kKey[] = L"SOFTWARE\\Veltrane\\Veltrane Keyward";
constexpr wchar_t kValue[] = L"OutputLogDebug";

TEST(CDebugLog, HasItsDefaultNameAndFolder) {
  const kyd::CDebugLog log;
  EXPECT_EQ(std::wstring(log.Name()), L"LogServiceDebug");
  EXPECT_EQ(std::wstring(log.Folder()),
            platform::CommonDocumentsFolder() + platform::kPathSeparator + L"DebugKydLog");
  EXPECT_GE(log.StartTime().year, 2024);
}

TEST(CDebugLog, TruncatesItsNameTo63Characters) {
  kyd::CDebugLog log;
  log.SetName(std::wstring(64, L'n').c_str());
  EXPECT_EQ(std::wstring(log.Name()), std::wstring(63, L'n'));
  log.SetName(L"KydUploaderDebug");
  EXPECT_EQ(std::wstring(log.Name()), L"KydUploaderDebug");
}

TEST(CDebugLog, ReadsTheDebugFlagAsFourBytesOfAnyType) {
  kyd_test::TestRegistry registry;
  EXPECT_FALSE(kyd::CDebugLog().IsDebug());
  registry.SetDword(kKey, kValue, 0);
  EXPECT_FALSE(kyd::CDebugLog().IsDebug());
  registry.SetDword(kKey, kValue, 2);
  EXPECT_TRUE(kyd::CDebugLog().IsDebug());
  registry.SetRaw(kKey, kValue, platform::kRegistryBinary, {0, 0, 0, 1});
  EXPECT_TRUE(kyd::CDebugLog().IsDebug());
  registry.SetRaw(kKey, kValue, platform::kRegistryBinary, {1, 0, 0, 0, 0});
  EXPECT_FALSE(kyd::CDebugLog().IsDebug());
}

TEST(CDebugLog, NeverThrows) {
  using kyd_test::FailingMemory;
  const kyd_test::LogCapture log;
  // Read the settings now, not while allocations fail: that would disable the log.
  ASSERT_TRUE(corvid::IsModuleLogEnabled());
  const std::string text(200, 't');
  const std::wstring wide(200, L't');
  for (const FailingMemory::Thrown& thrown : FailingMemory::kBoth) {
    for (const std::size_t size : {1, 100, 500, 1000}) {
      const FailingMemory failing(thrown.what, size);
      EXPECT_EQ(kyd::Log().WriteLogA("%s", text), 1);
      EXPECT_EQ(kyd::Log().WriteLogW(L"%s", wide), 1);
      corvid::WriteModuleLog(wide.c_str());
      corvid::WriteModuleLogA(text.c_str());
      static_cast<void>(corvid::IsModuleLogEnabled());
    }
  }
  kyd::Log().WriteLogA("the end");  // Also flushes the pending lines.
}

}  // namespace
