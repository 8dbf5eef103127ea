// The search for the companion library.
#include "credentials/companion_library.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/module.h"
#include "platform/text.h"
#include "run/upload_run.h"
#include "tests/unit/support/companion_beside.h"
#include "tests/unit/support/failing_memory.h"
#include "tests/unit/support/log_capture.h"

namespace {

using kyd_test::FailingMemory;

TEST(GetCompanionLibraryPath, ReturnsTheProgramsFolder) {
  std::wstring path;
  ASSERT_EQ(kyd::GetCompanionLibraryPath(path), 1);
  const std::wstring program = platform::ProgramPath();
  const std::wstring folder = program.substr(0, program.rfind(platform::kPathSeparator) + 1);
  EXPECT_EQ(path, folder + L"Corvid" + platform::kLibraryEnding);
}

TEST(GetCompanionLibraryPath, FailsOnAnyException) {
  for (const auto what : {FailingMemory::Throwing::kBadAlloc, FailingMemory::Throwing::kNumber}) {
    std::wstring path;
    int result = 1;
    {
      const FailingMemory failing(what, /*size=*/1);
      result = kyd::GetCompanionLibraryPath(path);
    }
    EXPECT_EQ(result, 0);
  }
}

// The test programs' folder has no companion library. One that the system's search order would find
// is not used.
TEST(LoadCompanionLibrary, FailsAndLogsWithoutTheLibrary) {
  const kyd_test::LogCapture log;
  kyd::UploadRun run;
  EXPECT_FALSE(kyd::LoadCompanionLibrary(run));
  EXPECT_FALSE(run.companionModule.IsValid());
  EXPECT_EQ(run.userAgent, L"");
  EXPECT_EQ(log.Messages(), std::vector<std::string>{"DLL Load Error (Corvid.dll)"});
}

TEST(LoadCompanionLibrary, UsesTheBareNameIfThePathCannotBeBuilt) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the sanitizer intercepts dlopen, which then ignores the run path";
#endif
  const kyd_test::LogCapture log;
  kyd::UploadRun run;
  bool is_bound = false;
  {
    const FailingMemory failing(FailingMemory::Throwing::kBadAlloc, /*size=*/1, /*times=*/1);
    is_bound = kyd::LoadCompanionLibrary(run);
  }
  EXPECT_TRUE(is_bound);
  EXPECT_TRUE(run.companionModule.IsValid());
  EXPECT_TRUE(log.Messages().empty());
}

TEST(LoadCompanionLibrary, BindsAllExportsAndSetsTheUserAgent) {
  const kyd_test::CompanionBeside companion;
  const kyd_test::LogCapture log;
  {
    kyd::UploadRun run;
    EXPECT_TRUE(kyd::LoadCompanionLibrary(run));
    EXPECT_EQ(run.userAgent, L"VeltraneKeyward/1.15.0 (KydLogUploader stand-in)");
    EXPECT_NE(run.decryptEntry, nullptr);
    EXPECT_NE(run.base64DecodeEntry, nullptr);
    EXPECT_NE(run.eventLogEntry, nullptr);
    // The run object frees it.
    EXPECT_TRUE(kyd_test::CompanionBesideIsLoaded());
  }
  EXPECT_FALSE(kyd_test::CompanionBesideIsLoaded());
  EXPECT_TRUE(log.Messages().empty());
}

TEST(LoadCompanionLibrary, FreesALibraryThatLacksAnExport) {
  for (const char* const variant : {"no-decrypt", "no-base64", "no-event-log"}) {
    SCOPED_TRACE(variant);
    const kyd_test::CompanionBeside companion(variant);
    const kyd_test::LogCapture log;
    kyd::UploadRun run;
    EXPECT_FALSE(kyd::LoadCompanionLibrary(run));
    EXPECT_FALSE(run.companionModule.IsValid());
    EXPECT_FALSE(kyd_test::CompanionBesideIsLoaded());
    EXPECT_EQ(run.userAgent, L"");
    EXPECT_EQ(log.Messages(), std::vector<std::string>{"DLL Load Error (Corvid.dll)"});
  }
}

}  // namespace
