// How much of a response body is kept.
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

TEST(BoundedBody, KeepsAllOfAShortBody) {
  const BoundedBody body;
  EXPECT_EQ(Write(body, "one "), 4U);
  EXPECT_EQ(Write(body, "two"), 3U);
  EXPECT_EQ(body.Kept(), "one two");
}

TEST(BoundedBody, AcceptsSingleBytesUntilItsTimeLimit) {
  auto now = std::chrono::steady_clock::time_point{};
  const BoundedBody body([&now] { return now; });
  auto buffer = body.Stream().streambuf();
  EXPECT_EQ(buffer.putc('a').get(), 'a');
  EXPECT_EQ(buffer.putc('b').get(), 'b');
  now += CorvidSocket::kLongestBody + std::chrono::nanoseconds(1);
  EXPECT_THROW(buffer.putc('c').get(), BodyCutOff);
  EXPECT_EQ(body.Kept(), "ab");
}

TEST(BoundedBody, SupportsNeitherReadingNorSeeking) {
  const BoundedBody body;
  auto buffer = body.Stream().streambuf();
  const auto nowhere = static_cast<decltype(buffer)::pos_type>(decltype(buffer)::traits::eof());
  EXPECT_FALSE(buffer.can_read());
  EXPECT_FALSE(buffer.can_seek());
  EXPECT_FALSE(buffer.has_size());
  EXPECT_EQ(buffer.in_avail(), 0U);
  EXPECT_EQ(buffer.buffer_size(std::ios_base::out), 0U);
  EXPECT_EQ(buffer.getpos(std::ios_base::out), nowhere);
  EXPECT_EQ(buffer.seekpos(0, std::ios_base::out), nowhere);
  EXPECT_EQ(buffer.seekoff(0, std::ios_base::cur, std::ios_base::out), nowhere);
  EXPECT_EQ(buffer.alloc(10), nullptr);
}

TEST(BoundedBody, AcceptsEverythingAndKeepsTheBeginning) {
  const BoundedBody body;
  EXPECT_EQ(Write(body, std::string(4000, 'a')), 4000U);
  EXPECT_EQ(Write(body, std::string(1'000'000, 'b')), 1'000'000U);
  EXPECT_EQ(Write(body, "c"), 1U);
  EXPECT_EQ(body.Kept(), std::string(4000, 'a') + std::string(96, 'b'));
}

TEST(BoundedBody, CutsOffABodyThatTakesTooLong) {
  auto now = std::chrono::steady_clock::time_point{};
  const BoundedBody body([&now] { return now; });
  EXPECT_EQ(Write(body, "begin"), 5U);
  now += CorvidSocket::kLongestBody;
  EXPECT_EQ(Write(body, ", more"), 6U);
  now += std::chrono::nanoseconds(1);
  EXPECT_THROW(Write(body, "too late"), BodyCutOff);
  EXPECT_EQ(body.Kept(), "begin, more");
}

TEST(BoundedBody, TimeLimitStartsWithTheFirstByte) {
  auto now = std::chrono::steady_clock::time_point{};
  const BoundedBody body([&now] { return now; });
  now += 10 * CorvidSocket::kLongestBody;
  EXPECT_EQ(Write(body, "late but quick"), 14U);
}

}  // namespace
