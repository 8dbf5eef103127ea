// From the platform's entry to the upload run: single instance, command line, teardown.
#include "uploader/run.h"

#include <gtest/gtest.h>

#ifdef _WIN32
#include <windows.h>
#endif

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "debuglog/cdebuglog.h"
#include "platform/single_instance.h"
#include "platform/text.h"
#include "tests/unit/support/companion_beside.h"
#include "tests/unit/support/log_capture.h"
#include "tests/unit/support/program_texts.h"
#include "tests/unit/support/temp_folder.h"

namespace {

using Arguments = std::vector<std::wstring>;
using Lines = std::vector<std::string>;

constexpr wchar_t kInstanceName[] = L"VeltraneKydLogUploaderMutexString";

class RunUploader : public testing::Test {
 protected:
  RunUploader() { kyd::Log().SetName(L"LogServiceDebug"); }

  // Without a companion library, so the run ends before the first account.
  int Run(const std::optional<Arguments>& arguments) {
    return kyd::RunUploader(kyd_test::ProgramTexts(), [this, &arguments]() {
      ++splits_;
      const platform::SingleInstance other(kInstanceName);
      name_was_held_ = !other.IsOwner();
      return arguments;
    });
  }

  void ExpectNothingDone(const std::optional<Arguments>& arguments) {
    EXPECT_EQ(Run(arguments), 0);
    EXPECT_EQ(log_.Messages(), Lines());
    EXPECT_EQ(std::wstring(kyd::Log().Name()), L"LogServiceDebug");
  }

  static std::string Started(const std::string& tenant, const std::string& log_dir) {
    return "*** EXECUTE LOGUPLOAD *** Tenant [" + tenant + "] LogDir [" + log_dir + "]";
  }

  kyd_test::LogCapture log_;
  int splits_ = 0;
  bool name_was_held_ = false;
};

TEST_F(RunUploader, NamesTheLogAndLogsItsArgumentsUnchanged) {
  EXPECT_EQ(Run(Arguments{L"program", L"host %s\u00E4", L"C:\\a b\\"}), 0);
  EXPECT_EQ(std::wstring(kyd::Log().Name()), L"KydUploaderDebug");
  EXPECT_EQ(log_.Messages(),
            (Lines{Started("host %s\xC3\xA4", "C:\\a b\\"), "DLL Load Error (Corvid.dll)"}));
}

TEST_F(RunUploader, MatchesTheWholeForceArgumentCaseSensitively) {
  const wchar_t* const others[] = {
      L"param_force_flush",  L"Param_Force_Flush ", L" Param_Force_Flush", L"Param_Force_Flus",
      L"Param_Force_Flush2", L"PARAM_FORCE_FLUSH",  L"/Param_Force_Flush", L""};
  for (const wchar_t* const other : others) {
    const kyd_test::LogCapture log;
    EXPECT_EQ(Run(Arguments{L"p", L"t", L"d", other}), 0);
    EXPECT_EQ(log.Messages(), (Lines{Started("t", "d"), "DLL Load Error (Corvid.dll)"}));
  }
  const kyd_test::LogCapture log;
  EXPECT_EQ(Run(Arguments{L"p", L"t", L"d", L"Param_Force_Flush"}), 0);
  EXPECT_EQ(log.Messages(),
            (Lines{Started("t", "d"), "Force Flush", "DLL Load Error (Corvid.dll)"}));
}

TEST_F(RunUploader, DoesNothingForAnyOtherNumberOfArguments) {
  const Arguments all = {L"p", L"t", L"d", L"Param_Force_Flush", L"x", L"y"};
  for (std::size_t count = 0; count <= all.size(); ++count) {
    if (count != 3 && count != 4) {
      SCOPED_TRACE(count);
      ExpectNothingDone(Arguments(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(count)));
    }
  }
}

TEST_F(RunUploader, DoesNothingForACommandLineThatCannotBeSplit) {
  ExpectNothingDone(std::nullopt);
  EXPECT_EQ(splits_, 1);
}

TEST_F(RunUploader, HoldsItsNameFromBeforeTheCommandLineUntilTheEnd) {
  ExpectNothingDone(std::nullopt);
  EXPECT_TRUE(name_was_held_);
  EXPECT_TRUE(platform::SingleInstance(kInstanceName).IsOwner());
  EXPECT_EQ(Run(Arguments{L"p", L"t", L"d"}), 0);
  EXPECT_TRUE(name_was_held_);
  EXPECT_TRUE(platform::SingleInstance(kInstanceName).IsOwner());
}

TEST_F(RunUploader, DoesNothingWhileAnotherCopyRunsAndKeepsItsLock) {
  auto first = std::make_unique<platform::SingleInstance>(kInstanceName);
  ASSERT_TRUE(first->IsOwner());
  ExpectNothingDone(Arguments{L"p", L"t", L"d"});
  EXPECT_EQ(splits_, 0);
  EXPECT_FALSE(platform::SingleInstance(kInstanceName).IsOwner());
  first.reset();
  // The refused copy holds no handle of its own.
  EXPECT_TRUE(platform::SingleInstance(kInstanceName).IsOwner());
}

#ifdef _WIN32

TEST_F(RunUploader, UsesAMachineWideMutex) {
  const HANDLE mutex = CreateMutexW(nullptr, FALSE, L"Global\\VeltraneKydLogUploaderMutexString");
  ASSERT_NE(mutex, nullptr);
  ExpectNothingDone(Arguments{L"p", L"t", L"d"});
  EXPECT_EQ(splits_, 0);
  CloseHandle(mutex);
}

// An object of another type has the name, so the mutex cannot be created.
TEST_F(RunUploader, DoesNothingWithoutItsMutex) {
  const HANDLE event =
      CreateEventW(nullptr, FALSE, FALSE, L"Global\\VeltraneKydLogUploaderMutexString");
  ASSERT_NE(event, nullptr);
  ExpectNothingDone(Arguments{L"p", L"t", L"d"});
  EXPECT_EQ(splits_, 0);
  CloseHandle(event);
}

#else

TEST_F(RunUploader, DoesNothingWithoutItsLockFile) {
  // The log capture has given the test program a sysroot of its own.
  const std::filesystem::path root(
      std::getenv("KEYWARD_SYSROOT"));  // NOLINT(concurrency-mt-unsafe)
  std::filesystem::rename(root / "run", root / "away");
  ExpectNothingDone(Arguments{L"p", L"t", L"d"});
  std::filesystem::rename(root / "away", root / "run");
  EXPECT_EQ(splits_, 0);
}

#endif

TEST_F(RunUploader, UnloadsTheCompanionLibraryAtTheEnd) {
  const kyd_test::CompanionBeside companion;
  const kyd_test::TempFolder folder;
  EXPECT_EQ(Run(Arguments{L"p", L"t", folder.Path(), L"Param_Force_Flush"}), 0);
  const Lines lines = log_.Messages();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "<< SearchUploadDir >> end"), 1);
  EXPECT_FALSE(kyd_test::CompanionBesideIsLoaded());
}

}  // namespace
