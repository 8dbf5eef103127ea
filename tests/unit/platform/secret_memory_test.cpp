#include "platform/secret_memory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace {

TEST(Wipe, OverwritesExactlyTheMemory) {
  std::vector<std::uint8_t> memory(100, 7);
  platform::Wipe(memory.data() + 10, 80);
  std::vector<std::uint8_t> expected(100, 7);
  std::fill(expected.begin() + 10, expected.begin() + 90, std::uint8_t{0});
  EXPECT_EQ(memory, expected);
  platform::Wipe(memory.data(), 0);
  EXPECT_EQ(memory, expected);
}

TEST(Wipe, ClearsATextAndItsBuffer) {
  for (const std::size_t length : {std::size_t{3}, std::size_t{1000}}) {
    std::wstring text(length, L'k');
    text.resize(length - 1);  // one character of the secret is now past the end
    const wchar_t* const buffer = text.data();
    platform::Wipe(text);
    EXPECT_TRUE(text.empty());
    ASSERT_TRUE(text.data() == buffer);
    EXPECT_EQ(std::wstring(text.capacity(), L'\0'), std::wstring(text.data(), text.capacity()));
  }
}

TEST(Wipe, HappensAtTheEndOfTheScope) {
  std::wstring text = L"secret";
  {
    const platform::WipeAtEnd wiped(text);
    EXPECT_EQ(text, L"secret");
  }
  EXPECT_TRUE(text.empty());
}

TEST(WipingAllocator, KeepsTheContentWhenABlockGrowsOrShrinks) {
  platform::WipingAllocator allocator;
  auto* memory = static_cast<char*>(allocator.Malloc(4));
  std::memcpy(memory, "abc", 4);
  memory = static_cast<char*>(allocator.Realloc(memory, 4, 100000));
  EXPECT_STREQ(memory, "abc");
  memory = static_cast<char*>(allocator.Realloc(memory, 100000, 2));
  EXPECT_EQ(std::string(memory, 2), "ab");
  EXPECT_EQ(allocator.Realloc(memory, 2, 0), nullptr);
}

TEST(WipingAllocator, AllocatesNothingForZeroElements) {
  platform::WipingAllocator allocator;
  EXPECT_EQ(allocator.Malloc(0), nullptr);
  platform::WipingAllocator::Free(nullptr);
}

}  // namespace
