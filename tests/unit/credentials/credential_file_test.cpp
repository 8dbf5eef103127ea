// Reading, parsing and deleting credential files.
#include "credentials/credential_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/error.h"
#include "platform/file.h"
#include "platform/text.h"
#include "run/upload_run.h"
#include "tests/unit/support/failing_memory.h"
#include "tests/unit/support/log_capture.h"
#include "tests/unit/support/released_memory.h"
#include "tests/unit/support/temp_folder.h"

namespace {

using kyd::kFailed;
using kyd::kRunMustEnd;
using kyd::kSucceeded;
using kyd::UploadAuthData;
using kyd_test::FailingMemory;
using testing::ElementsAre;
using testing::StartsWith;
using Lines = std::vector<std::string>;

// A companion library whose plaintext is the file's content, one character per byte.
std::int32_t DecryptToBytes(const std::uint8_t* data, std::uint64_t size, std::wstring* plaintext) {
  plaintext->assign(data, data + size);
  return 0;
}
// The same without leaving an unwiped copy of the plaintext.
std::int32_t DecryptInPlace(const std::uint8_t* data, std::uint64_t size, std::wstring* plaintext) {
  plaintext->resize(static_cast<std::size_t>(size));
  std::copy(data, data + size, plaintext->begin());
  return 0;
}
std::int32_t RefuseToDecrypt(const std::uint8_t* /*data*/, std::uint64_t /*size*/,
                             std::wstring* /*plaintext*/) {
  return 7;
}
std::int32_t ThrowStandard(const std::uint8_t* /*data*/, std::uint64_t /*size*/,
                           std::wstring* /*plaintext*/) {
  throw std::runtime_error("out of luck");
}
std::int32_t ThrowNumber(const std::uint8_t* /*data*/, std::uint64_t /*size*/,
                         std::wstring* /*plaintext*/) {
  throw 1;
}

class CredentialFileTest : public testing::Test {
 protected:
  CredentialFileTest() {
    run_.logDir = folder_.Path();
    run_.decryptEntry = &DecryptToBytes;
    const std::wstring separator(1, platform::kPathSeparator);
    file_ = folder_ / (L"LogWork" + separator + L"alice" + separator + L"UserData.dat");
  }

  void Write(const std::string& bytes) {
    folder_.MakeFolder(L"LogWork");
    folder_.MakeFolder(std::wstring(L"LogWork") + platform::kPathSeparator + L"alice");
    kyd_test::WriteFileBytes(file_, bytes);
  }

  kyd_test::TempFolder folder_;
  kyd::UploadRun run_;
  UploadAuthData record_;
  std::wstring file_;
  kyd_test::LogCapture log_;
};

TEST_F(CredentialFileTest, ReturnsTheRecordOfAValidFile) {
  Write(R"({"apikey":"k","idp_session":"s"})");
  EXPECT_EQ(kyd::ReadUploadAuthData(run_, L"alice", record_), kSucceeded);
  EXPECT_EQ(record_.apikey, L"k");
  EXPECT_EQ(record_.idp_session, L"s");
  EXPECT_TRUE(log_.Messages().empty());
}

TEST_F(CredentialFileTest, LeavesNoDecryptedTextInReleasedMemory) {
  run_.decryptEntry = &DecryptInPlace;
  const std::string secret = "a-secret-that-nobody-else-may-find";
  {
    kyd_test::ReleasedMemory released(platform::FromUtf8(secret));
    { const std::wstring unwiped = platform::FromUtf8(secret); }
    ASSERT_EQ(released.Found(), 1U) << "the search does not find the text at all";
  }

  const kyd_test::ReleasedMemory released(platform::FromUtf8(secret));
  // The second file is longer, so that every buffer of the first one is released.
  for (const std::size_t length : {0, 5000}) {
    const std::string value = secret + std::string(length, 'x');
    std::string json = R"({"apikey":")";
    json.append(value).append(R"(","idp_session":")").append(value);
    json.append(R"(","cert":{"hash":")").append(value).append(R"("}})");
    Write(json);
    ASSERT_EQ(kyd::ReadUploadAuthData(run_, L"alice", record_), kSucceeded);
    EXPECT_EQ(record_.cert_hash.size(), value.size());
  }
  Write(R"({"apikey":")" + secret + R"(","idp_session":)");
  ASSERT_EQ(kyd::ReadUploadAuthData(run_, L"alice", record_), kFailed);
  Wipe(record_);
  record_ = UploadAuthData();
  EXPECT_EQ(released.Found(), 0U);
}

TEST_F(CredentialFileTest, ReportsAMissingFolderWithNumber3) {
  EXPECT_EQ(kyd::ReadUploadAuthData(run_, L"alice", record_), kFailed);
  EXPECT_EQ(log_.Messages(), Lines{"<Read AuthFile> CreateFile error (3)"});
}

TEST_F(CredentialFileTest, ReportsAMissingFileWithNumber2) {
  Write("x");
  ASSERT_TRUE(platform::RemoveFile(file_));
  EXPECT_EQ(kyd::ReadUploadAuthData(run_, L"alice", record_), kFailed);
  EXPECT_EQ(log_.Messages(), Lines{"<Read AuthFile> CreateFile error (2)"});
}

TEST_F(CredentialFileTest, ReportsAFileOpenElsewhereWithNumber32) {
  Write("x");
  const platform::File other = platform::File::OpenExclusive(file_);
  ASSERT_TRUE(other.IsOpen());
  EXPECT_EQ(kyd::ReadUploadAuthData(run_, L"alice", record_), kFailed);
  EXPECT_EQ(log_.Messages(), Lines{"<Read AuthFile> CreateFile error (32)"});
}

TEST_F(CredentialFileTest, IsNotReadWhileAnotherReaderHasItOpen) {
  Write("x");
  const platform::File other = platform::File::OpenShared(file_);
  ASSERT_TRUE(other.IsOpen());
  EXPECT_EQ(kyd::ReadUploadAuthData(run_, L"alice", record_), kFailed);
  EXPECT_EQ(log_.Messages(), Lines{"<Read AuthFile> CreateFile error (32)"});
}

TEST_F(CredentialFileTest, ReportsAnEmptyFile) {
  Write("");
  EXPECT_EQ(kyd::ReadUploadAuthData(run_, L"alice", record_), kFailed);
  EXPECT_THAT(log_.Messages(), ElementsAre(StartsWith("<Read AuthFile> GetFileSize error (")));
  EXPECT_TRUE(platform::File::OpenExclusive(file_).IsOpen());
}

TEST_F(CredentialFileTest, ReportsDecryptionFailure) {
  Write("x");
  run_.decryptEntry = &RefuseToDecrypt;
  EXPECT_EQ(kyd::ReadUploadAuthData(run_, L"alice", record_), kFailed);
  EXPECT_EQ(log_.Messages(), Lines{"<Read AuthFile> Decrypt error"});
}

TEST_F(CredentialFileTest, ReportsADecryptErrorWithoutTheLibrary) {
  Write("x");
  run_.decryptEntry = nullptr;
  std::wstring plaintext = L"old";
  EXPECT_EQ(kyd::ReadAuthFile(run_, file_, plaintext), kFailed);
  EXPECT_EQ(plaintext, L"");
  EXPECT_EQ(log_.Messages(), Lines{"<Read AuthFile> Decrypt error"});
}

TEST_F(CredentialFileTest, EndsTheRunOnAnExceptionInTheLibrary) {
  Write("x");
  run_.decryptEntry = &ThrowStandard;
  EXPECT_EQ(kyd::ReadUploadAuthData(run_, L"alice", record_), kRunMustEnd);
  run_.decryptEntry = &ThrowNumber;
  EXPECT_EQ(kyd::ReadUploadAuthData(run_, L"alice", record_), kRunMustEnd);
  EXPECT_EQ(log_.Messages(), (Lines{"<Read AuthFile> exception", "<Read AuthFile> exception etc"}));
}

TEST_F(CredentialFileTest, ClosesTheFileOnEveryPath) {
  Write("x");
  for (const kyd::DecryptEntry entry :
       {&DecryptToBytes, &RefuseToDecrypt, &ThrowStandard, &ThrowNumber}) {
    run_.decryptEntry = entry;
    std::wstring plaintext;
    static_cast<void>(kyd::ReadAuthFile(run_, file_, plaintext));
    EXPECT_TRUE(platform::File::OpenExclusive(file_).IsOpen());
  }
}

TEST_F(CredentialFileTest, DeletesTheFile) {
  Write("x");
  EXPECT_EQ(kyd::DeleteAuthFile(run_, L"alice"), kSucceeded);
  EXPECT_FALSE(kyd_test::PathExists(file_));
  EXPECT_EQ(log_.Messages(), Lines{"<DeleteAuthFile> deleted auth file."});
}

TEST_F(CredentialFileTest, CountsAMissingFileAsDeleted) {
  Write("x");
  ASSERT_TRUE(platform::RemoveFile(file_));
  EXPECT_EQ(kyd::DeleteAuthFile(run_, L"alice"), kSucceeded);
  EXPECT_EQ(log_.Messages(), Lines{"<DeleteAuthFile> failed."});
}

TEST_F(CredentialFileTest, FailsToDeleteWithoutTheFolder) {
  EXPECT_EQ(kyd::DeleteAuthFile(run_, L"alice"), kFailed);
  EXPECT_EQ(log_.Messages(), Lines{"<DeleteAuthFile> failed."});
}

TEST_F(CredentialFileTest, LogsAnyExceptionOutsideReadingAndParsing) {
  run_.logDir = std::wstring(FailingMemory::kLongText, L'd');
  for (const auto& one : FailingMemory::kBoth) {
    const kyd_test::LogCapture log;
    {
      const FailingMemory failing(one.what, FailingMemory::kBeyondTheLog);
      EXPECT_EQ(kyd::ReadUploadAuthData(run_, L"alice", record_), kRunMustEnd);
      EXPECT_EQ(kyd::DeleteAuthFile(run_, L"alice"), kFailed);
    }
    EXPECT_EQ(log.Messages(), (Lines{std::string("<ReadUploadAuthData> exception") + one.ending,
                                     std::string("<DeleteAuthFile> exception") + one.ending}));
  }
}

// Any result other than 0 is a failure.
template <std::int32_t result>
std::int32_t DecryptTo(const std::uint8_t* /*data*/, std::uint64_t /*size*/,
                       std::wstring* plaintext) {
  *plaintext = LR"({"apikey":"k","idp_session":"s"})";
  return result;
}

TEST_F(CredentialFileTest, OnlyZeroMeansSuccess) {
  Write("x");
  for (const kyd::DecryptEntry entry : {&DecryptTo<1>, &DecryptTo<-1>, &DecryptTo<256>}) {
    const kyd_test::LogCapture log;
    run_.decryptEntry = entry;
    EXPECT_EQ(kyd::ReadUploadAuthData(run_, L"alice", record_), kFailed);
    EXPECT_EQ(log.Messages(), Lines{"<Read AuthFile> Decrypt error"});
  }
  run_.decryptEntry = &DecryptTo<0>;
  EXPECT_EQ(kyd::ReadUploadAuthData(run_, L"alice", record_), kSucceeded);
}

// The folder can be opened, but its name is taken: deletion fails with a number other than 2.
TEST_F(CredentialFileTest, FailsToDeleteAFolder) {
  ASSERT_TRUE(platform::CreateFolders(file_));
  EXPECT_EQ(kyd::DeleteAuthFile(run_, L"alice"), kFailed);
  EXPECT_EQ(log_.Messages(), Lines{"<DeleteAuthFile> failed."});
  EXPECT_TRUE(platform::IsFolder(file_));
}

// A file whose size and reads the test controls; bytes that are not read stay zero.
class ScriptedSource : public kyd::CredentialSource {
 public:
  [[nodiscard]] std::optional<std::uint64_t> Size() const override {
    if (!size) {
      platform::SetLastError(1234);
    }
    return size;
  }
  [[nodiscard]] std::optional<std::size_t> Read(void* buffer, std::size_t wanted) override {
    asked.push_back(wanted);
    if (!bytes) {
      platform::SetLastError(1117);
      return std::nullopt;
    }
    return bytes->copy(static_cast<char*>(buffer), wanted);
  }

  std::optional<std::uint64_t> size = 1;
  std::optional<std::string> bytes = "x";
  std::vector<std::size_t> asked;
};

class ReadAndDecrypt : public testing::Test {
 protected:
  ReadAndDecrypt() { run_.decryptEntry = &DecryptToBytes; }

  int Read() { return kyd::ReadAndDecrypt(run_, source_, plaintext_); }

  kyd::UploadRun run_;
  ScriptedSource source_;
  std::wstring plaintext_ = L"old";
  kyd_test::LogCapture log_;
};

TEST_F(ReadAndDecrypt, ReportsAnUnknownSize) {
  source_.size = std::nullopt;
  EXPECT_EQ(Read(), kFailed);
  EXPECT_EQ(log_.Messages(), Lines{"<Read AuthFile> GetFileSize error (1234)"});
  EXPECT_TRUE(source_.asked.empty());
}

TEST_F(ReadAndDecrypt, UsesTheLow32BitsOfTheSizeAndRefusesZeroAndAllOnes) {
  for (const std::uint64_t size : {0x0ULL, 0xFFFFFFFFULL, 0x100000000ULL, 0x1FFFFFFFFULL}) {
    const kyd_test::LogCapture log;
    platform::SetLastError(77);
    source_.size = size;
    EXPECT_EQ(Read(), kFailed) << size;
    EXPECT_EQ(log.Messages(), Lines{"<Read AuthFile> GetFileSize error (77)"});
  }
  EXPECT_TRUE(source_.asked.empty());
  source_.size = 0x100000003ULL;
  source_.bytes = "abcdef";
  EXPECT_EQ(Read(), kSucceeded);
  EXPECT_EQ(plaintext_, L"abc");
}

TEST_F(ReadAndDecrypt, ReportsAReadFailure) {
  source_.size = 5;
  source_.bytes = std::nullopt;
  EXPECT_EQ(Read(), kFailed);
  EXPECT_EQ(log_.Messages(), Lines{"<Read AuthFile> ReadFile error (1117)"});
  EXPECT_EQ(source_.asked, std::vector<std::size_t>{5});
  EXPECT_EQ(plaintext_, L"old");
}

TEST_F(ReadAndDecrypt, DoesNotCompareTheBytesReadWithTheSize) {
  source_.size = 4;
  source_.bytes = "ab";
  EXPECT_EQ(Read(), kSucceeded);
  EXPECT_EQ(plaintext_, std::wstring(L"ab\0\0", 4));
  EXPECT_TRUE(log_.Messages().empty());
}

struct GoodText {
  const wchar_t* json;
  UploadAuthData record;
};

TEST(ParseUpldAuthJson, FillsTheRecord) {
  const GoodText texts[] = {
      {LR"({"apikey":"k","idp_session":"s"})", {L"k", L"s", L"", L"", L""}},
      {LR"({"idp_session":"s","other":[1,{}],"apikey":"k"})", {L"k", L"s", L"", L"", L""}},
      {LR"({"apikey":"k","idp_session":"s","cert":{"hash":"ab","store":"user"}})",
       {L"k", L"s", L"", L"ab", L"user"}},
      {LR"({"apikey":"k","idp_session":"s","cert":{"base64encoded":"QQ=="}})",
       {L"k", L"s", L"QQ==", L"", L""}},
      {LR"({"apikey":"k","idp_session":"s","cert.hash":"ab"})", {L"k", L"s", L"", L"", L""}},
      {LR"({"apikey":"k","idp_session":"s","cert":"none"})", {L"k", L"s", L"", L"", L""}},
      {LR"({"apikey":"k","idp_session":"s","cert":{"hash":5,"store":""}})",
       {L"k", L"s", L"", L"", L""}},
      {LR"({"apikey":"first","apikey":"second","idp_session":"s"})",
       {L"first", L"s", L"", L"", L""}},
      {L"\r\n {\"apikey\":\"\u00E4\\u20ac\",\"idp_session\":\"s\"} \n",
       {L"\u00E4\u20AC", L"s", L"", L"", L""}},
  };
  for (const GoodText& text : texts) {
    UploadAuthData record{L"old", L"old", L"old", L"old", L"old"};
    EXPECT_EQ(kyd::ParseUpldAuthJson(text.json, record), kSucceeded) << platform::ToUtf8(text.json);
    EXPECT_EQ(record.apikey, text.record.apikey);
    EXPECT_EQ(record.idp_session, text.record.idp_session);
    EXPECT_EQ(record.cert_base64encoded, text.record.cert_base64encoded);
    EXPECT_EQ(record.cert_hash, text.record.cert_hash);
    EXPECT_EQ(record.cert_store, text.record.cert_store);
  }
}

TEST(ParseUpldAuthJson, KeepsNulsInTheKeyAndTheSession) {
  UploadAuthData record;
  EXPECT_EQ(kyd::ParseUpldAuthJson(LR"({"apikey":"a\u0000b","idp_session":"c\u0000d"})", record),
            kSucceeded);
  EXPECT_EQ(record.apikey, std::wstring(L"a\0b", 3));
  EXPECT_EQ(record.idp_session, std::wstring(L"c\0d", 3));
}

struct BadText {
  const wchar_t* json;
  const char* message;
};

TEST(ParseUpldAuthJson, ReportsInvalidContent) {
  const char* const conversion = "<ParseUpldAuthJson> json conversion(from) error";
  const char* const apikey = "<ParseUpldAuthJson> apikey error";
  const char* const session = "<ParseUpldAuthJson> idp_session error";
  const BadText texts[] = {
      {L"", conversion},
      {L"{", conversion},
      {L"{'apikey':'k'}", conversion},
      {LR"({"apikey":"k","idp_session":"s"} x)", conversion},
      {LR"({"apikey":"\ud800","idp_session":"s"})", conversion},
      {L"{}", apikey},
      {L"[]", apikey},
      {L"null", apikey},
      {LR"("apikey")", apikey},
      {LR"({"apikey":5,"idp_session":"s"})", apikey},
      {LR"({"apikey":"","idp_session":"s"})", apikey},
      {LR"({"APIKEY":"k","idp_session":"s"})", apikey},
      {LR"({"apikey":null,"apikey":"k","idp_session":"s"})", apikey},
      {LR"({"apikey":"k"})", session},
      {LR"({"apikey":"k","idp_session":""})", session},
      {LR"({"apikey":"k","idp_session":["s"]})", session},
  };
  for (const BadText& text : texts) {
    const kyd_test::LogCapture log;
    UploadAuthData record;
    EXPECT_EQ(kyd::ParseUpldAuthJson(text.json, record), kFailed) << platform::ToUtf8(text.json);
    EXPECT_EQ(log.Messages(), Lines{text.message}) << platform::ToUtf8(text.json);
  }
}

TEST(ParseUpldAuthJson, SurvivesDeepNesting) {
  const std::wstring deep(100'000, L'[');
  UploadAuthData record;
  EXPECT_EQ(kyd::ParseUpldAuthJson(deep, record), kFailed);
  EXPECT_EQ(kyd::ParseUpldAuthJson(deep + std::wstring(100'000, L']'), record), kFailed);
  EXPECT_EQ(kyd::ParseUpldAuthJson(LR"({"apikey":"k","idp_session":"s","x":)" + deep +
                                       std::wstring(100'000, L']') + L"}",
                                   record),
            kSucceeded);
}

TEST(ParseUpldAuthJson, ClearsTheRecordAndKeepsValuesBeforeTheFault) {
  const struct {
    const wchar_t* json;
    const wchar_t* apikey;
  } cases[] = {{L"{", L""},
               {LR"({"idp_session":"s","cert":{"hash":"ab"}})", L""},
               {LR"({"apikey":"k","cert":{"hash":"ab"}})", L"k"}};
  for (const auto& one : cases) {
    UploadAuthData record{L"old", L"old", L"old", L"old", L"old"};
    EXPECT_EQ(kyd::ParseUpldAuthJson(one.json, record), kFailed);
    EXPECT_EQ(record.apikey, one.apikey);
    EXPECT_EQ(record.idp_session, L"");
    EXPECT_EQ(record.cert_base64encoded, L"");
    EXPECT_EQ(record.cert_hash, L"");
    EXPECT_EQ(record.cert_store, L"");
  }
}

TEST(ParseUpldAuthJson, LogsAnyException) {
  const std::wstring text =
      LR"({"idp_session":"s","apikey":")" + std::wstring(FailingMemory::kLongText, L'k') + L"\"}";
  for (const auto& one : FailingMemory::kBoth) {
    const kyd_test::LogCapture log;
    UploadAuthData record;
    {
      const FailingMemory failing(one.what, FailingMemory::kBeyondTheLog);
      EXPECT_EQ(kyd::ParseUpldAuthJson(text, record), kRunMustEnd);
    }
    EXPECT_EQ(log.Messages(), Lines{std::string("<ParseUpldAuthJson> exception") + one.ending});
  }
}

}  // namespace
