// Code shared by the library and the tool that their exports cannot exercise.
#include "companion/corvid/aead.h"

#include <gtest/gtest.h>

namespace companion {
namespace {

TEST(Aead, RefusesAKeyOfAnyOtherSize) {
  const std::uint8_t text[] = {1, 2, 3};
  for (const std::size_t size : {0U, 16U, 31U, 33U}) {
    const SecretBytes key(size);
    const Nonce nonce{};
    Tag tag{};
    std::uint8_t output[3] = {};
    EXPECT_FALSE(AeadSeal(key, nonce, {}, {text, 3}, output, &tag)) << size;
    EXPECT_FALSE(AeadOpen(key, nonce, {}, {text, 3}, tag, output)) << size;
  }
}

TEST(Aead, OpensOnlyWhatItSealed) {
  const SecretBytes key(kKeySize, 7);
  const Nonce nonce{1};
  const std::uint8_t associated[] = {9};
  const std::uint8_t text[] = {1, 2, 3};
  std::uint8_t sealed[3] = {};
  std::uint8_t opened[3] = {};
  Tag tag{};
  ASSERT_TRUE(AeadSeal(key, nonce, {associated, 1}, {text, 3}, sealed, &tag));
  EXPECT_TRUE(AeadOpen(key, nonce, {associated, 1}, {sealed, 3}, tag, opened));
  EXPECT_TRUE(std::equal(text, text + 3, opened));
  EXPECT_FALSE(AeadOpen(key, nonce, {}, {sealed, 3}, tag, opened));
  EXPECT_FALSE(AeadOpen(key, Nonce{2}, {associated, 1}, {sealed, 3}, tag, opened));
  tag[0] ^= 1U;
  EXPECT_FALSE(AeadOpen(key, nonce, {associated, 1}, {sealed, 3}, tag, opened));
}

TEST(SecretAllocator, InstancesCanFreeEachOthersMemory) {
  const SecretAllocator<char> one;
  const SecretAllocator<std::uint8_t> other(one);
  EXPECT_TRUE(one == other);
  EXPECT_FALSE(one != other);
}

}  // namespace
}  // namespace companion
