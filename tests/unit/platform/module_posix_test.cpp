#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>

#include "platform/error.h"
#include "platform/module.h"
#include "platform/text.h"
#include "tests/unit/support/failing_calls_posix.h"
#include "tests/unit/support/temp_folder.h"

namespace {

constexpr char kExpected[] = "KYD_EXPECTED_PROGRAM_PATH";

// Runs one test of this program in a new process; returns its exit code.
int RunTest(const std::string& program, const std::string& test) {
  std::string name = program;
  std::string filter = "--gtest_filter=" + test;
  char* const arguments[] = {name.data(), filter.data(), nullptr};
  pid_t process = 0;
  int status = -1;
  if (posix_spawn(&process, program.c_str(), nullptr, nullptr, arguments, environ) != 0 ||
      waitpid(process, &status, 0) != process) {
    return -1;
  }
  return status;
}

std::filesystem::path PathOfSize(std::filesystem::path folder, std::size_t size) {
  while (size > folder.native().size() + 200) {
    folder /= std::string(100, 'x');
  }
  return folder / std::string(size - folder.native().size() - 1, 'z');
}

TEST(ProgramPath, IsEmptyIfTheSystemFails) {
  EXPECT_TRUE(kyd_test::RunWithout({{SYS_readlink, EACCES, std::nullopt}}, [] {
    return platform::ProgramPath().empty() && platform::LastError() == platform::kErrorAccessDenied;
  }));
}

// The environment changes while no other thread runs.
// NOLINTBEGIN(concurrency-mt-unsafe)
TEST(ProgramPath, MayBeLong) {
  if (const char* const expected = std::getenv(kExpected)) {
    EXPECT_EQ(platform::ToNativePath(platform::ProgramPath()), expected);
    return;
  }
  const kyd_test::TempFolder temporary;
  // Exactly the first buffer size that is tried, and beyond the second one.
  for (const std::size_t size : {std::size_t{256}, std::size_t{600}}) {
    const std::filesystem::path program =
        PathOfSize(platform::ToNativePath(temporary.Path()), size);
    std::filesystem::create_directories(program.parent_path());
    std::filesystem::copy_file("/proc/self/exe", program);
    setenv(kExpected, program.c_str(), /*overwrite=*/1);
    EXPECT_EQ(RunTest(program, "ProgramPath.MayBeLong"), 0) << program;
    unsetenv(kExpected);
  }
}
// NOLINTEND(concurrency-mt-unsafe)

}  // namespace
