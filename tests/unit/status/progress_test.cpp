#include "status/progress.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

namespace {

using testing::ElementsAre;

class ProgressTest : public testing::Test {
 protected:
  void Count(unsigned entries) {
    for (unsigned i = 0; i < entries; ++i) {
      progress_.Count();
    }
  }

  std::int64_t now_ = 5000;
  std::vector<std::wstring> written_;
  kyd::Progress progress_{[this] { return now_; },
                          [this](const std::wstring& text) { written_.push_back(text); }};
};

TEST_F(ProgressTest, IsSilentForTheFirstSecond) {
  now_ += 999;
  Count(10'000);
  progress_.End();
  EXPECT_TRUE(written_.empty());
}

TEST_F(ProgressTest, ShowsALineFromTimeToTimeAndErasesIt) {
  const std::wstring after_a_second = L"\rLooked at 64 files ...";
  const std::wstring later = L"\rLooked at 192 files ...";
  const std::wstring erasure = L"\r" + std::wstring(40, L' ') + L"\r";
  now_ += 1000;
  Count(128);
  EXPECT_THAT(written_, ElementsAre(after_a_second));
  now_ += 200;
  Count(64);
  EXPECT_THAT(written_, ElementsAre(after_a_second, later));
  progress_.End();
  progress_.End();
  EXPECT_THAT(written_, ElementsAre(after_a_second, later, erasure));
}

TEST(Progress, WorksWithoutATerminal) {
  kyd::Progress progress;
  for (int i = 0; i < 1000; ++i) {
    progress.Count();
  }
  progress.End();
}

}  // namespace
