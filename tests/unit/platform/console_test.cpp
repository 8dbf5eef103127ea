#include "platform/console.h"

#include <gtest/gtest.h>

namespace {

// Standard error of a test program is a file, a pipe or a terminal; so only what holds for all of
// them is tested here. The end-to-end tests check the output.
TEST(Console, TakesTextOfEveryKind) {
  EXPECT_TRUE(platform::WriteErrors(L""));
  EXPECT_TRUE(platform::WriteErrors(L"console test: \x00E4 \x20AC\n"));
  EXPECT_TRUE(platform::WriteOutput(L"console test\n"));
}

}  // namespace
