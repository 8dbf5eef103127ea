#include "platform/console.h"

#include <gtest/gtest.h>

namespace {

// Standard error of a test program is a file, a pipe or somebody's terminal; so only what holds for
// all of them is asked here. What comes out is seen in the end-to-end tests.
TEST(Console, TakesTextOfEveryKind) {
  EXPECT_TRUE(platform::WriteErrors(L""));
  EXPECT_TRUE(platform::WriteErrors(L"console test: \x00E4 \x20AC\n"));
  EXPECT_TRUE(platform::WriteOutput(L"console test\n"));
}

}  // namespace
