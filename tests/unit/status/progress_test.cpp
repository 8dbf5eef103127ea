#include "status/progress.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

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
  now_ += 1000;
  Count(128);
  ASSERT_EQ(written_.size(), 1U);
  EXPECT_EQ(written_[0], L"\rLooked at 64 files ...");
  now_ += 200;
  Count(64);
  ASSERT_EQ(written_.size(), 2U);
  EXPECT_EQ(written_[1], L"\rLooked at 192 files ...");
  progress_.End();
  progress_.End();
  ASSERT_EQ(written_.size(), 3U);
  EXPECT_EQ(written_[2], L"\r" + std::wstring(40, L' ') + L"\r");
}

TEST(Progress, WorksWithoutATerminal) {
  kyd::Progress progress;
  for (int i = 0; i < 1000; ++i) {
    progress.Count();
  }
  progress.End();
}

}  // namespace
