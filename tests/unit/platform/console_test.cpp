#include "platform/console.h"

#include <gtest/gtest.h>

namespace {

// Standard error of a test program can be a file, a pipe or a terminal, so this only checks what
// holds for all of them. The end-to-end tests check the output.
TEST(Console, AcceptsAnyText) {
  EXPECT_TRUE(platform::WriteErrors(L""));
  EXPECT_TRUE(platform::WriteErrors(L"console test: \x00E4 \x20AC\n"));
  EXPECT_TRUE(platform::WriteOutput(L"console test\n"));
}

}  // namespace
