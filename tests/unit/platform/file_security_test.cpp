#include "platform/file_security.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace {

using platform::CFileAccessSecurity;

TEST(FileSecurity, DefaultModeHasNoAttributes) {
  CFileAccessSecurity security(CFileAccessSecurity::kDefault);
  EXPECT_EQ(security.Attributes(), nullptr);
  EXPECT_TRUE(security.Build());
  EXPECT_EQ(security.Attributes(), nullptr);
}

TEST(FileSecurity, ModeWithoutASidThrows) {
  for (const int mode : {5, -1, 1000}) {
    CFileAccessSecurity security(mode);
    EXPECT_THROW(security.Build(), std::runtime_error) << mode;
    EXPECT_EQ(security.Attributes(), nullptr);
  }
}

#ifndef _WIN32
TEST(FileSecurity, OtherModesNeedWindows) {
  for (const int mode : {1, 2, 3, 4}) {
    CFileAccessSecurity security(mode);
    EXPECT_THROW(security.Build(), std::runtime_error) << mode;
  }
}
#endif

}  // namespace
