#include "platform/unattended_win32.h"

#include <gtest/gtest.h>
#include <windows.h>

namespace {

constexpr UINT kNoBoxes = SEM_FAILCRITICALERRORS | SEM_NOOPENFILEERRORBOX;

// The error mode that the other static objects see.
const UINT error_mode_at_start = GetErrorMode();

TEST(RunUnattended, RunsBeforeOtherStaticObjects) {
  EXPECT_EQ(error_mode_at_start & kNoBoxes, kNoBoxes);
}

TEST(RunUnattended, SuppressesErrorBoxes) {
  const UINT earlier = SetErrorMode(0);
  platform::RunUnattended();
  EXPECT_EQ(GetErrorMode() & kNoBoxes, kNoBoxes);
  SetErrorMode(earlier);
}

TEST(RunUnattended, KeepsFlagsThatAreAlreadySet) {
  const UINT earlier = SetErrorMode(SEM_NOGPFAULTERRORBOX);
  platform::RunUnattended();
  EXPECT_NE(GetErrorMode() & SEM_NOGPFAULTERRORBOX, 0U);
  SetErrorMode(earlier);
}

TEST(RunUnattended, LoadsNothingFromTheCurrentDirectory) {
  platform::RunUnattended();
  wchar_t folder[MAX_PATH] = L"unchanged";
  EXPECT_EQ(GetDllDirectoryW(MAX_PATH, folder), 0U);
  EXPECT_STREQ(folder, L"");
}

}  // namespace
