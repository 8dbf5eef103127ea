// Sending with retries, and what becomes of each kind of failure.
#include "socket/http_client.h"

#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "platform/text.h"

namespace {

using CorvidSocket::ErrorNumber;
using CorvidSocket::Exception;
using CorvidSocket::HttpClient;
using CorvidSocket::HttpPostRequest;
using web::http::http_request;
using web::http::http_response;
using web::http::client::http_client_config;

struct OtherBoostException : boost::exception, std::exception {};

http_response Answer(web::http::status_code status) {
  http_response answer(status);
  return answer;
}

// Sends through a transport that calls `attempt` with the number of the attempt, from 1.
class Sender {
 public:
  explicit Sender(std::function<http_response(int)> attempt) : attempt_(std::move(attempt)) {}

  http_response Send(int retry_count, const std::wstring& path = L"",
                     const std::wstring& query = L"") {
    HttpClient client(nullptr, /*has_certificate=*/false,
                      [this](const web::uri& address, const http_client_config& config,
                             const http_request& /*request*/) {
                        ++attempts;
                        addresses.push_back(address.to_string());
                        validations.push_back(config.validate_certificates());
                        redirects.push_back(config.max_redirects());
                        return pplx::task_from_result(attempt_(attempts));
                      });
    HttpPostRequest request({});
    return client.SendRequest(web::uri(platform::ToNative(L"https://host/base")), request, path,
                              query, retry_count);
  }

  int attempts = 0;
  std::vector<utility::string_t> addresses;
  std::vector<bool> validations;
  std::vector<std::size_t> redirects;

 private:
  std::function<http_response(int)> attempt_;
};

std::string MessageOfFailure(Sender& sender, int retry_count) {
  try {
    static_cast<void>(sender.Send(retry_count));
  } catch (const Exception& failure) {
    return failure.what();
  }
  return "no failure";
}

web::http::http_exception TransportFailure(int attempt) {
  return web::http::http_exception(platform::ToNative(L"failure " + std::to_wstring(attempt)));
}

TEST(SendRequest, GivesTheAnswerWhateverItsStatus) {
  for (const auto status : std::vector<web::http::status_code>{200, 302, 401, 500}) {
    Sender sender([status](int) { return Answer(status); });
    EXPECT_EQ(sender.Send(0).status_code(), status);
    EXPECT_EQ(sender.attempts, 1);
  }
}

TEST(SendRequest, SendsToTheAddressUnchangedWithoutPathAndQuery) {
  Sender sender([](int) { return Answer(200); });
  static_cast<void>(sender.Send(0));
  EXPECT_EQ(sender.addresses[0], platform::ToNative(L"https://host/base"));
}

TEST(SendRequest, AppendsPathAsItIsAndQuery) {
  Sender sender([](int) { return Answer(200); });
  static_cast<void>(sender.Send(0, L"a%20b", L"?x=1&y=2"));
  EXPECT_EQ(sender.addresses[0], platform::ToNative(L"https://host/base/a%20b?x=1&y=2"));
}

TEST(SendRequest, NeitherFollowsRedirectsNorValidatesWithoutACertificate) {
  Sender sender([](int) { return Answer(200); });
  static_cast<void>(sender.Send(0));
  EXPECT_FALSE(sender.validations[0]);
  EXPECT_EQ(sender.redirects[0], 0U);
}

TEST(SendRequest, RaisesTheTextOfATransportFailureWithoutANumber) {
  Sender sender([](int attempt) -> http_response { throw TransportFailure(attempt); });
  try {
    static_cast<void>(sender.Send(0));
    FAIL() << "nothing was raised";
  } catch (const Exception& failure) {
    EXPECT_EQ(std::string(failure.what()), "failure 1");
    EXPECT_EQ(boost::get_error_info<ErrorNumber>(failure), nullptr);
  }
  EXPECT_EQ(sender.attempts, 1);
}

TEST(SendRequest, TriesOnceMoreThanItsRetryCountAndRaisesTheLastFailure) {
  Sender sender([](int attempt) -> http_response { throw TransportFailure(attempt); });
  EXPECT_EQ(MessageOfFailure(sender, 2), "failure 3");
  EXPECT_EQ(sender.attempts, 3);
}

TEST(SendRequest, StopsAtTheFirstAnswer) {
  Sender sender([](int attempt) -> http_response {
    if (attempt < 2) {
      throw TransportFailure(attempt);
    }
    return Answer(202);
  });
  EXPECT_EQ(sender.Send(2).status_code(), 202);
  EXPECT_EQ(sender.attempts, 2);
}

TEST(SendRequest, MakesNoAttemptForANegativeRetryCount) {
  Sender sender([](int) { return Answer(200); });
  EXPECT_EQ(MessageOfFailure(sender, -1), "http request failure.");
  EXPECT_EQ(sender.attempts, 0);
}

TEST(SendRequest, KeepsMessageAndNumberOfItsOwnExceptions) {
  Sender sender([](int) -> http_response { throw Exception("refused") << ErrorNumber(12175); });
  try {
    static_cast<void>(sender.Send(0));
    FAIL() << "nothing was raised";
  } catch (const Exception& failure) {
    EXPECT_EQ(std::string(failure.what()), "refused");
    ASSERT_NE(boost::get_error_info<ErrorNumber>(failure), nullptr);
    EXPECT_EQ(*boost::get_error_info<ErrorNumber>(failure), 12175U);
  }
}

TEST(SendRequest, KeepsTheItemsOfOtherBoostExceptionsWithoutTheirText) {
  Sender sender([](int) -> http_response { throw OtherBoostException() << ErrorNumber(5); });
  try {
    static_cast<void>(sender.Send(0));
    FAIL() << "nothing was raised";
  } catch (const Exception& failure) {
    EXPECT_EQ(std::string(failure.what()), std::string(std::exception().what()));
    ASSERT_NE(boost::get_error_info<ErrorNumber>(failure), nullptr);
    EXPECT_EQ(*boost::get_error_info<ErrorNumber>(failure), 5U);
  }
}

TEST(SendRequest, LetsACancelledTaskAndOtherExceptionsPass) {
  Sender cancelled([](int) -> http_response { throw pplx::task_canceled("cancelled"); });
  EXPECT_THROW(static_cast<void>(cancelled.Send(2)), pplx::task_canceled);
  EXPECT_EQ(cancelled.attempts, 1);
  Sender other([](int) -> http_response { throw std::out_of_range("other"); });
  EXPECT_THROW(static_cast<void>(other.Send(2)), std::out_of_range);
  EXPECT_EQ(other.attempts, 1);
}

TEST(HttpPostRequest, CarriesMethodAndHeaders) {
  const HttpPostRequest post({{L"Connection", L"KeepAlive"}, {L"Cookie", L"idp.session=s"}});
  EXPECT_EQ(post.request.method(), web::http::methods::POST);
  utility::string_t value;
  EXPECT_TRUE(post.request.headers().match(platform::ToNative(L"connection"), value));
  EXPECT_EQ(value, platform::ToNative(L"KeepAlive"));
  EXPECT_EQ(post.request.headers().size(), 2U);
}

TEST(HttpPostRequest, JoinsHeadersWhoseNamesDifferInCaseOnly) {
  const HttpPostRequest post({{L"A-name", L"1"}, {L"a-NAME", L"2"}});
  utility::string_t value;
  EXPECT_TRUE(post.request.headers().match(platform::ToNative(L"A-Name"), value));
  EXPECT_EQ(value, platform::ToNative(L"1, 2"));
}

}  // namespace
