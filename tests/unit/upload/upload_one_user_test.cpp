// Every outcome of the upload of one account, without a network.
#include "upload/upload_one_user.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <exception>
#include <filesystem>
#include <functional>
#include <iterator>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "platform/file.h"
#include "platform/text.h"
#include "run/upload_run.h"
#include "socket/http_client.h"
#include "tests/unit/support/failing_memory.h"
#include "tests/unit/support/log_capture.h"
#include "tests/unit/support/temp_folder.h"
#include "tests/unit/support/upload_err_info.h"

namespace {

using kyd::kFailed;
using kyd::kRunMustEnd;
using kyd::kSucceeded;
using kyd_test::IsRecord;
using testing::AllOf;
using testing::AnyOfArray;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Property;
using testing::StartsWith;
using web::http::http_request;
using web::http::http_response;
using Lines = std::vector<std::string>;

class UploadOneUser : public testing::Test {
 protected:
  UploadOneUser() {
    run_.tenant = L"tenant.example";
    run_.logDir = folder_.Path();
    run_.userAgent = L"agent";
    credentials_.apikey = L"key";
    credentials_.idp_session = std::wstring(L"session\0rest", 12);
    for (const wchar_t* const name : {L"Upload", L"Archive", L"LogWork"}) {
      folder_.MakeFolder(name);
      folder_.MakeFolder(std::wstring(name) + platform::kPathSeparator + L"alice");
    }
  }

  [[nodiscard]] std::wstring Path(const std::wstring& tree, const std::wstring& name) const {
    const std::wstring separator(1, platform::kPathSeparator);
    return folder_ / (tree + separator + L"alice" + separator + name);
  }

  void MakeLog(const std::wstring& name) const {
    kyd_test::WriteFileBytes(Path(L"Upload", name), "log");
  }

  [[nodiscard]] bool IsWaiting(const std::wstring& name) const {
    return kyd_test::PathExists(Path(L"Upload", name));
  }
  [[nodiscard]] bool IsArchived(const std::wstring& name) const {
    return kyd_test::PathExists(Path(L"Archive", name));
  }

  // Answers each request by its number, from 1.
  int Upload(const std::function<http_response(int)>& answer) {
    return kyd::UploadOneUser(
        run_, L"alice", credentials_,
        [this, answer](const web::uri& address, const web::http::client::http_client_config& config,
                       const http_request& request) {
          requests_.push_back(request);
          validations_.push_back(config.validate_certificates());
          addresses_.push_back(address.to_string());
          http_response response = answer(static_cast<int>(requests_.size()));
          // The library completes a response when its body has ended.
          response._get_impl()->_complete(0, body_failure_);
          return pplx::task_from_result(response);
        });
  }
  int UploadAnswering(web::http::status_code status) {
    return Upload([status](int) { return http_response(status); });
  }

  // Returns a header's value in each request; empty for a request without it.
  [[nodiscard]] std::vector<std::wstring> Headers(const wchar_t* name) const {
    std::vector<std::wstring> values;
    for (const http_request& request : requests_) {
      utility::string_t value;
      request.headers().match(platform::ToNative(name), value);
      values.push_back(platform::FromNative(value));
    }
    return values;
  }

  kyd_test::TempFolder folder_;
  kyd::UploadRun run_;
  kyd::UploadAuthData credentials_;
  kyd_test::LogCapture log_;
  std::vector<http_request> requests_;
  std::vector<utility::string_t> addresses_;
  std::vector<bool> validations_;
  std::exception_ptr body_failure_;  // of the response bodies
};

TEST_F(UploadOneUser, CountsAnAccountWithoutFilesAsNotSubjectToUpload) {
  EXPECT_EQ(UploadAnswering(200), kSucceeded);
  EXPECT_EQ(run_.noSendCount, 1U);
  EXPECT_EQ(run_.sendCount, 0U);
  EXPECT_TRUE(requests_.empty());
  EXPECT_EQ(log_.Messages(),
            (Lines{"<UploadOneUser> in  [alice]", "<UploadOneUser> out  [alice]"}));
}

TEST_F(UploadOneUser, CountsAnAccountWithoutAFolderAsNotSubjectToUpload) {
  run_.logDir = folder_ / L"nowhere";
  EXPECT_EQ(UploadAnswering(200), kSucceeded);
  EXPECT_EQ(run_.noSendCount, 1U);
}

TEST_F(UploadOneUser, SendsTheRequiredPostRequest) {
  MakeLog(L"a.log");
  EXPECT_EQ(UploadAnswering(200), kSucceeded);
  EXPECT_THAT(
      addresses_,
      ElementsAre(platform::ToNative(L"https://tenant.example/idp/api/keyward/v1/log/sso")));
  EXPECT_THAT(requests_,
              ElementsAre(Property("method", &http_request::method, web::http::methods::POST)));
  EXPECT_THAT(Headers(L"Connection"), ElementsAre(L"close"));
  EXPECT_THAT(Headers(L"Cookie"), ElementsAre(L"idp.session=session"));
  EXPECT_THAT(Headers(L"Authorization"), ElementsAre(L"Bearer key"));
  EXPECT_THAT(Headers(L"User-Agent"), ElementsAre(L"agent"));
  EXPECT_THAT(Headers(L"Content-Type"), ElementsAre(L"application/octet-stream"));
}

TEST_F(UploadOneUser, ClosesTheConnectionWithTheLastFileOnly) {
  MakeLog(L"a.log");
  MakeLog(L"b.log");
  MakeLog(L"c.log");
  EXPECT_EQ(UploadAnswering(202), kSucceeded);
  EXPECT_THAT(Headers(L"Connection"), ElementsAre(L"KeepAlive", L"KeepAlive", L"close"));
  EXPECT_EQ(run_.sendCount, 1U);
  EXPECT_EQ(run_.fileOkCount, 3U);
}

TEST_F(UploadOneUser, ArchivesAcceptedFilesOnly) {
  struct Case {
    web::http::status_code status;
    bool accepted;
  };
  const Case cases[] = {{200, true},  {202, true},  {201, false}, {203, false},
                        {204, false}, {206, false}, {299, false}, {301, false},
                        {302, false}, {303, false}, {307, false}, {400, false},
                        {401, false}, {404, false}, {500, false}, {503, false}};
  std::uint32_t ok = 0;
  std::uint32_t failed = 0;
  for (const Case& one : cases) {
    const std::wstring name = std::to_wstring(one.status) + L".log";
    MakeLog(name);
    EXPECT_EQ(UploadAnswering(one.status), kSucceeded);
    EXPECT_EQ(IsArchived(name), one.accepted) << one.status;
    EXPECT_EQ(IsWaiting(name), !one.accepted) << one.status;
    ++(one.accepted ? ok : failed);
    EXPECT_EQ(run_.fileOkCount, ok);
    EXPECT_EQ(run_.fileErrorCount, failed);
    static_cast<void>(platform::RemoveFile(Path(L"Upload", name)));
  }
}

TEST_F(UploadOneUser, LogsTheStepsOfAnAcceptedFile) {
  MakeLog(L"a.log");
  EXPECT_EQ(UploadAnswering(202), kSucceeded);
  const std::string from = platform::ToUtf8(Path(L"Upload", L"a.log"));
  const std::string to = platform::ToUtf8(Path(L"Archive", L"a.log"));
  EXPECT_EQ(
      log_.Messages(),
      (Lines{"<UploadOneUser> in  [alice]", "<UploadOneUser> UploadFile [" + from + "]",
             "<UploadOneUser> Success [202]", "<MOVE> UploadFile [" + from + "]",
             "<MOVE> ArchiveFile [" + to + "]", "<MOVE> Move OK", "<UploadOneUser> out  [alice]"}));
}

TEST_F(UploadOneUser, DeletesTheCredentialsOnEach401AndContinues) {
  MakeLog(L"a.log");
  MakeLog(L"b.log");
  kyd_test::WriteFileBytes(Path(L"LogWork", L"UserData.dat"), "sealed");
  EXPECT_EQ(UploadAnswering(401), kSucceeded);
  EXPECT_EQ(requests_.size(), 2U);
  EXPECT_FALSE(kyd_test::PathExists(Path(L"LogWork", L"UserData.dat")));
  const auto file = StartsWith("<UploadOneUser> UploadFile [");
  EXPECT_THAT(
      log_.Messages(),
      ElementsAre("<UploadOneUser> in  [alice]", file, "<DeleteAuthFile> deleted auth file.",
                  "<UploadOneUser> Error [401, ]", file, "<DeleteAuthFile> failed.",
                  "<UploadOneUser> Error [401, ]", "<UploadOneUser> out  [alice]"));
  EXPECT_EQ(run_.fileErrorCount, 2U);
}

TEST_F(UploadOneUser, RemembersAnAccountWithFailedFilesOnce) {
  MakeLog(L"a.log");
  MakeLog(L"b.log");
  EXPECT_EQ(UploadAnswering(500), kSucceeded);
  EXPECT_THAT(run_.report.errors, ElementsAre(IsRecord(L"alice", 2)));
}

TEST_F(UploadOneUser, LeavesAFileThatIsAlreadyInTheArchive) {
  MakeLog(L"a.log");
  kyd_test::WriteFileBytes(Path(L"Archive", L"a.log"), "older");
  EXPECT_EQ(UploadAnswering(200), kSucceeded);
  EXPECT_TRUE(IsWaiting(L"a.log"));
  EXPECT_EQ(kyd_test::ReadFileBytes(Path(L"Archive", L"a.log")), "older");
  EXPECT_THAT(log_.Messages(), Contains("<MOVE> Move NG [183]"));
  EXPECT_EQ(run_.fileOkCount, 1U);
  EXPECT_EQ(run_.fileErrorCount, 0U);
}

TEST_F(UploadOneUser, EndsTheAccountOnATransportFailure) {
  for (const wchar_t* const name : {L"a.log", L"b.log", L"c.log"}) {
    MakeLog(name);
  }
  EXPECT_EQ(Upload([](int number) -> http_response {
              if (number == 2) {
                throw web::http::http_exception("connection reset");
              }
              return http_response(500);
            }),
            kFailed);
  EXPECT_EQ(requests_.size(), 2U);
  EXPECT_EQ(run_.fileErrorCount, 1U);
  EXPECT_EQ(run_.sendCount, 0U);
  EXPECT_TRUE(run_.report.errors.empty());
  const auto file = StartsWith("<UploadOneUser> UploadFile [");
  EXPECT_THAT(log_.Messages(),
              ElementsAre("<UploadOneUser> in  [alice]", file, "<UploadOneUser> Error [500, ]",
                          file, "<UploadOneUser> exception socket[alice]",
                          AllOf(StartsWith("exception message ["), HasSubstr("connection reset"))));
}

TEST_F(UploadOneUser, EndsTheRunOnAnyOtherException) {
  MakeLog(L"a.log");
  EXPECT_EQ(Upload([](int) -> http_response { throw pplx::task_canceled("cancelled"); }),
            kRunMustEnd);
  EXPECT_EQ(log_.Messages().back(), "<UploadOneUser> exception [alice]");
  EXPECT_EQ(Upload([](int) -> http_response { throw 1; }), kRunMustEnd);
  EXPECT_EQ(log_.Messages().back(), "<UploadOneUser> exception etc[alice]");
  EXPECT_TRUE(IsWaiting(L"a.log"));
  EXPECT_EQ(run_.fileOkCount + run_.fileErrorCount + run_.sendCount + run_.noSendCount, 0U);
}

TEST_F(UploadOneUser, NeedsAnAddressOnlyForFiles) {
  run_.tenant = L"no host at all";
  EXPECT_EQ(UploadAnswering(200), kSucceeded);
  EXPECT_EQ(run_.noSendCount, 1U);
  MakeLog(L"a.log");
  EXPECT_EQ(UploadAnswering(200), kRunMustEnd);
  EXPECT_TRUE(requests_.empty());
  EXPECT_EQ(log_.Messages().back(), "<UploadOneUser> exception [alice]");
}

TEST_F(UploadOneUser, EndsTheRunAtAFolderNamedLikeALogFile) {
  ASSERT_TRUE(platform::CreateFolders(Path(L"Upload", L"x.log")));
  EXPECT_EQ(UploadAnswering(200), kRunMustEnd);
  EXPECT_TRUE(requests_.empty());
  EXPECT_EQ(log_.Messages().back(), "<UploadOneUser> exception [alice]");
}

TEST_F(UploadOneUser, ClosesTheLogFileOnEveryPath) {
  MakeLog(L"a.log");
  const std::function<http_response(int)> ends[] = {
      [](int) { return http_response(500); },
      [](int) -> http_response { throw web::http::http_exception("gone"); },
      [](int) -> http_response { throw 1; }};
  for (const auto& end : ends) {
    static_cast<void>(Upload(end));
    EXPECT_TRUE(platform::File::OpenExclusive(Path(L"Upload", L"a.log")).IsOpen());
  }
}

TEST_F(UploadOneUser, TruncatesTheSessionAtItsFirstNulAndRefusesAKeyWithANul) {
  MakeLog(L"a.log");
  EXPECT_EQ(UploadAnswering(200), kSucceeded);
  EXPECT_THAT(Headers(L"Cookie"), ElementsAre(L"idp.session=session"));
  // Otherwise a truncated key would be sent.
  MakeLog(L"b.log");
  credentials_.apikey = std::wstring(L"ke\0y", 4);
  EXPECT_EQ(UploadAnswering(200), kFailed);
  EXPECT_EQ(requests_.size(), 1U);
  EXPECT_THAT(log_.Messages().back(),
              testing::HasSubstr("The value of the request header Authorization is invalid."));
}

// The log message of each source's failure shows which source is used.
TEST_F(UploadOneUser, UsesTheCertificateSourceNamedInTheCredentials) {
  const Lines none;
  const Lines text = {"<ParseAuthParam> memory error"};  // without a library to decode it
  const Lines store = {"<SetUserCert> CertOpenStore error [",
                       "<SearchContext> CertFindCertificateInStore error ["};
  const struct {
    const wchar_t* base64;
    const wchar_t* hash;
    const wchar_t* store;
    const Lines& messages;  // the start of one of them
  } cases[] = {
      {L"", L"", L"", none},        {L"", L"00", L"", none},   {L"", L"", L"user", none},
      {L"", L"00", L"user", store}, {L"AAAA", L"", L"", text}, {L"AAAA", L"00", L"user", text},
  };
  for (const auto& one : cases) {
    const kyd_test::LogCapture log;
    MakeLog(L"a.log");
    credentials_.cert_base64encoded = one.base64;
    credentials_.cert_hash = one.hash;
    credentials_.cert_store = one.store;
    EXPECT_EQ(UploadAnswering(500), kSucceeded);
    // The certificate is looked up once per account, after the first log line; the files are sent
    // in any case.
    std::vector<testing::Matcher<std::string>> expected = {
        "<UploadOneUser> in  [alice]", StartsWith("<UploadOneUser> UploadFile ["),
        "<UploadOneUser> Error [500, ]", "<UploadOneUser> out  [alice]"};
    if (!one.messages.empty()) {
      std::vector<testing::Matcher<std::string>> any;
      for (const std::string& begin : one.messages) {
        any.emplace_back(StartsWith(begin));
      }
      expected.insert(expected.begin() + 1, AnyOfArray(any));
    }
    EXPECT_THAT(log.Messages(), testing::ElementsAreArray(expected));
    EXPECT_FALSE(validations_.back());
  }
}

TEST_F(UploadOneUser, FindsTheNextFileBeforeItSends) {
  MakeLog(L"a.log");
  EXPECT_EQ(Upload([this](int number) {
              MakeLog(L"late-" + std::to_wstring(number) + L".log");
              return http_response(500);
            }),
            kSucceeded);
  EXPECT_THAT(Headers(L"Connection"), ElementsAre(L"close"));
}

TEST_F(UploadOneUser, RecordsTheFailuresOfThisAccountOnly) {
  MakeLog(L"a.log");
  MakeLog(L"b.log");
  MakeLog(L"c.log");
  run_.fileErrorCount = 5;
  EXPECT_EQ(Upload([](int number) { return http_response(number == 2 ? 200 : 403); }), kSucceeded);
  EXPECT_EQ(run_.fileErrorCount, 7U);
  EXPECT_THAT(run_.report.errors, ElementsAre(IsRecord(L"alice", 2)));
  EXPECT_EQ(run_.sendCount, 1U);

  run_.report.errors.clear();
  EXPECT_EQ(UploadAnswering(200), kSucceeded);
  EXPECT_TRUE(run_.report.errors.empty());
  EXPECT_EQ(run_.sendCount, 2U);
  EXPECT_EQ(run_.noSendCount, 0U);
}

TEST_F(UploadOneUser, EndsTheRunAtABodyThatCannotBeRead) {
  MakeLog(L"a.log");
  body_failure_ = std::make_exception_ptr(web::http::http_exception("broken off"));
  for (const auto status : std::vector<web::http::status_code>{500, 401}) {
    const kyd_test::LogCapture log;
    kyd_test::WriteFileBytes(Path(L"LogWork", L"UserData.dat"), "sealed");
    EXPECT_EQ(UploadAnswering(status), kRunMustEnd);
    EXPECT_EQ(log.Messages().back(), "<UploadOneUser> exception [alice]");
    EXPECT_TRUE(IsWaiting(L"a.log"));
    // The file is deleted before the body is read.
    EXPECT_EQ(kyd_test::PathExists(Path(L"LogWork", L"UserData.dat")), status != 401);
  }
  EXPECT_EQ(run_.fileOkCount + run_.fileErrorCount + run_.sendCount + run_.noSendCount, 0U);
  EXPECT_TRUE(run_.report.errors.empty());
  // After a success status the body is not needed.
  EXPECT_EQ(UploadAnswering(200), kSucceeded);
  EXPECT_TRUE(IsArchived(L"a.log"));
}

TEST_F(UploadOneUser, LogsMessageAndNumberOfAnExceptionOfTheHttpLayer) {
  MakeLog(L"a.log");
  EXPECT_EQ(Upload([](int) -> http_response {
              throw CorvidSocket::Exception("refused") << CorvidSocket::ErrorNumber(12175);
            }),
            kFailed);
  const Lines lines = log_.Messages();
  EXPECT_THAT(
      lines,
      ElementsAre("<UploadOneUser> in  [alice]", StartsWith("<UploadOneUser> UploadFile ["),
                  "<UploadOneUser> exception socket[alice]", StartsWith("exception message [")));
  // The spelling of type names depends on the compiler.
  for (const char* const part :
       {"exception message [Throw location unknown (consider using BOOST_THROW_EXCEPTION)\n",
        "Dynamic exception type: ", "std::exception::what: refused\n", "CorvidSocket::tag_errno",
        "] = 12175\n"}) {
    EXPECT_NE(lines.back().find(part), std::string::npos) << lines.back();
  }
}

TEST_F(UploadOneUser, LogsAnyExceptionBeforeTheFirstFile) {
  using kyd_test::FailingMemory;
  MakeLog(L"a.log");
  run_.tenant = std::wstring(FailingMemory::kLongText, L't');
  const struct {
    FailingMemory::Throwing what;
    std::string line;
  } cases[] = {{FailingMemory::Throwing::kBadAlloc, "<UploadOneUser> exception [alice]"},
               {FailingMemory::Throwing::kNumber, "<UploadOneUser> exception etc[alice]"}};
  for (const auto& one : cases) {
    const kyd_test::LogCapture log;
    int result = kSucceeded;
    {
      const FailingMemory failing(one.what, FailingMemory::kBeyondTheLog);
      result = UploadAnswering(200);
    }
    EXPECT_EQ(result, kRunMustEnd);
    EXPECT_EQ(log.Messages(), (Lines{"<UploadOneUser> in  [alice]", one.line}));
  }
  EXPECT_TRUE(requests_.empty());
  EXPECT_EQ(run_.noSendCount + run_.sendCount, 0U);
}

// Another process that reads the file does not prevent its upload.
TEST_F(UploadOneUser, SendsAFileThatAnotherProcessReads) {
  MakeLog(L"a.log");
  const platform::File reader = platform::File::OpenShared(Path(L"Upload", L"a.log"));
  ASSERT_TRUE(reader.IsOpen());
  EXPECT_EQ(UploadAnswering(200), kSucceeded);
  EXPECT_EQ(run_.fileOkCount, 1U);
#ifdef _WIN32
  // This reader prevents the move.
  EXPECT_THAT(log_.Messages(), Contains("<MOVE> Move NG [32]"));
  EXPECT_TRUE(IsWaiting(L"a.log"));
#else
  EXPECT_TRUE(IsArchived(L"a.log"));
#endif
}

#ifndef _WIN32

std::ptrdiff_t OpenDescriptors() {
  const std::filesystem::directory_iterator open("/proc/self/fd");
  return std::distance(begin(open), end(open));
}

TEST_F(UploadOneUser, KeepsNothingOpenOnAnyPath) {
  const std::function<http_response(int)> ends[] = {
      [](int) { return http_response(200); }, [](int) { return http_response(500); },
      [](int) -> http_response { throw web::http::http_exception("gone"); },
      [](int) -> http_response { throw 1; }};
  MakeLog(L"a.log");
  static_cast<void>(UploadAnswering(500));  // the first upload opens what the library keeps open
  const std::ptrdiff_t before = OpenDescriptors();
  for (const auto& end : ends) {
    MakeLog(L"a.log");
    MakeLog(L"b.log");
    static_cast<void>(Upload(end));
    EXPECT_EQ(OpenDescriptors(), before);
  }
}

#endif

}  // namespace
