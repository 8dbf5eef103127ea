#include "platform/unattended_win32.h"

#include <gtest/gtest.h>
#include <windows.h>

namespace {

TEST(RunUnattended, OpensNoErrorBoxes) {
  const UINT earlier = SetErrorMode(0);
  platform::RunUnattended();
  EXPECT_EQ(GetErrorMode() & (SEM_FAILCRITICALERRORS | SEM_NOOPENFILEERRORBOX),
            UINT{SEM_FAILCRITICALERRORS | SEM_NOOPENFILEERRORBOX});
  SetErrorMode(earlier);
}

TEST(RunUnattended, KeepsWhatIsSwitchedOffAlready) {
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
