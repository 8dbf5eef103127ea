// Where the companion library is looked for.
#include "credentials/companion_library.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/module.h"
#include "platform/text.h"
#include "tests/unit/support/log_capture.h"

namespace {

TEST(GetCompanionLibraryPath, NamesTheProgramsOwnFolder) {
  std::wstring path;
  ASSERT_EQ(kyd::GetCompanionLibraryPath(path), 1);
  const std::wstring program = platform::ProgramPath();
  const std::wstring folder = program.substr(0, program.rfind(platform::kPathSeparator) + 1);
  EXPECT_EQ(path, folder + L"Corvid" + platform::kLibraryEnding);
}

// The test programs' folder has no companion library.
TEST(LoadCompanionLibrary, LogsAndStartsNothingWithoutTheLibrary) {
  const kyd_test::LogCapture log;
  kyd::CompanionRun run;
  bool started = false;
  kyd::LoadCompanionLibrary(run, /*forceFlush=*/true, [&started](bool) { started = true; });
  EXPECT_FALSE(started);
  EXPECT_FALSE(run.companionModule.IsValid());
  EXPECT_EQ(run.userAgent, L"");
  EXPECT_EQ(log.Messages(), std::vector<std::string>{"DLL Load Error (Corvid.dll)"});
}

}  // namespace
