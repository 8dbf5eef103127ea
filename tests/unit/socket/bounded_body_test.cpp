// What is kept of an answer's body.
#include "socket/bounded_body.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <string>

namespace {

using CorvidSocket::BodyCutOff;
using CorvidSocket::BoundedBody;

std::size_t Write(const BoundedBody& body, const std::string& text) {
  return body.Stream()
      .streambuf()
      .putn_nocopy(reinterpret_cast<const std::uint8_t*>(text.data()), text.size())
      .get();
}

TEST(BoundedBody, KeepsAShortBodyWhole) {
  const BoundedBody body;
  EXPECT_EQ(Write(body, "one "), 4U);
  EXPECT_EQ(Write(body, "two"), 3U);
  EXPECT_EQ(body.Kept(), "one two");
}

TEST(BoundedBody, TakesEverythingAndKeepsTheBeginning) {
  const BoundedBody body;
  EXPECT_EQ(Write(body, std::string(4000, 'a')), 4000U);
  EXPECT_EQ(Write(body, std::string(1'000'000, 'b')), 1'000'000U);
  EXPECT_EQ(Write(body, "c"), 1U);
  EXPECT_EQ(body.Kept(), std::string(4000, 'a') + std::string(96, 'b'));
}

TEST(BoundedBody, CutsABodyOffThatTakesTooLong) {
  auto now = std::chrono::steady_clock::time_point{};
  const BoundedBody body([&now] { return now; });
  EXPECT_EQ(Write(body, "begin"), 5U);
  now += CorvidSocket::kLongestBody;
  EXPECT_EQ(Write(body, ", more"), 6U);
  now += std::chrono::nanoseconds(1);
  EXPECT_THROW(Write(body, "too late"), BodyCutOff);
  EXPECT_EQ(body.Kept(), "begin, more");
}

TEST(BoundedBody, StartsItsTimeWithTheFirstByte) {
  auto now = std::chrono::steady_clock::time_point{};
  const BoundedBody body([&now] { return now; });
  now += 10 * CorvidSocket::kLongestBody;
  EXPECT_EQ(Write(body, "late but quick"), 14U);
}

}  // namespace
