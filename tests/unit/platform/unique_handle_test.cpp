#include "platform/unique_handle.h"

#include <gtest/gtest.h>

#include <utility>
#include <vector>

namespace {

std::vector<int>& Closed() {
  static std::vector<int> closed;
  return closed;
}

struct RecordingCloser {
  using Value = int;
  static constexpr Value kInvalid = -1;
  static void Close(Value value) noexcept { Closed().push_back(value); }
};
using Handle = platform::UniqueHandle<RecordingCloser>;

class UniqueHandle : public testing::Test {
 protected:
  UniqueHandle() { Closed().clear(); }
};

TEST_F(UniqueHandle, IsInvalidByDefaultAndClosesNothing) {
  {
    const Handle handle;
    EXPECT_FALSE(handle.IsValid());
    EXPECT_FALSE(handle);
    EXPECT_EQ(handle.Get(), -1);
  }
  EXPECT_TRUE(Closed().empty());
}

TEST_F(UniqueHandle, ClosesOnceAtTheEnd) {
  {
    const Handle handle(7);
    EXPECT_TRUE(handle.IsValid());
    EXPECT_TRUE(handle);
  }
  EXPECT_EQ(Closed(), std::vector<int>{7});
}

TEST_F(UniqueHandle, ClosesAHandleThatIsZero) {
  { const Handle handle(0); }
  EXPECT_EQ(Closed(), std::vector<int>{0});
}

// These tests use moved-from handles deliberately.
// NOLINTBEGIN(bugprone-use-after-move,clang-analyzer-cplusplus.Move)
TEST_F(UniqueHandle, MovesWithoutClosing) {
  {
    Handle first(7);
    const Handle second(std::move(first));
    EXPECT_FALSE(first.IsValid());
    EXPECT_EQ(second.Get(), 7);
    EXPECT_TRUE(Closed().empty());
  }
  EXPECT_EQ(Closed(), std::vector<int>{7});
}

TEST_F(UniqueHandle, ClosesTheOldOneWhenOverwritten) {
  {
    Handle first(7);
    Handle second(8);
    first = std::move(second);
    EXPECT_EQ(Closed(), std::vector<int>{7});
    EXPECT_FALSE(second.IsValid());
  }
  EXPECT_EQ(Closed(), (std::vector<int>{7, 8}));
}

TEST_F(UniqueHandle, SurvivesAMoveToItself) {
  {
    Handle handle(7);
    Handle& same = handle;
    handle = std::move(same);
    EXPECT_EQ(handle.Get(), 7);
    EXPECT_TRUE(Closed().empty());
  }
  EXPECT_EQ(Closed(), std::vector<int>{7});
}
// NOLINTEND(bugprone-use-after-move,clang-analyzer-cplusplus.Move)

TEST_F(UniqueHandle, ReleasesWithoutClosing) {
  {
    Handle handle(7);
    EXPECT_EQ(handle.Release(), 7);
    EXPECT_FALSE(handle.IsValid());
    EXPECT_EQ(handle.Release(), -1);
  }
  EXPECT_TRUE(Closed().empty());
}

TEST_F(UniqueHandle, ResetsToAnotherHandleOrToNone) {
  Handle handle(7);
  handle.Reset(8);
  EXPECT_EQ(Closed(), std::vector<int>{7});
  EXPECT_EQ(handle.Get(), 8);
  handle.Reset();
  EXPECT_EQ(Closed(), (std::vector<int>{7, 8}));
  EXPECT_FALSE(handle.IsValid());
  handle.Reset();
  EXPECT_EQ(Closed().size(), 2U);
}

}  // namespace
