#include "platform/error.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "platform/file.h"
#include "tests/unit/support/temp_folder.h"

namespace {

TEST(Error, ReturnsTheNumberThatWasSet) {
  platform::SetLastError(183);
  EXPECT_EQ(platform::LastError(), 183U);
  platform::SetLastError(0);
  EXPECT_EQ(platform::LastError(), 0U);
}

TEST(Error, BelongsToTheThread) {
  std::atomic<int> step = 0;
  unsigned other = 112;
  std::thread thread([&] {
    while (step != 1) {
    }
    other = platform::LastError();
    platform::SetLastError(5);
    step = 2;
  });
  // No call in between that could set the number itself.
  platform::SetLastError(112);
  step = 1;
  while (step != 2) {
  }
  const unsigned own = platform::LastError();
  thread.join();
  EXPECT_EQ(own, 112U);
  EXPECT_NE(other, 112U);
}

TEST(Error, OfAFailedOpenSurvivesTheCleanup) {
  const kyd_test::TempFolder folder;
  {
    const platform::File file = platform::File::OpenExclusive(folder / L"missing");
    EXPECT_FALSE(file.IsOpen());
  }
  EXPECT_EQ(platform::LastError(), platform::kErrorFileNotFound);
}

}  // namespace
