// Reading, parsing and deleting credential files.
#include "credentials/credential_file.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "platform/error.h"
#include "platform/file.h"
#include "platform/text.h"
#include "tests/unit/support/log_capture.h"
#include "tests/unit/support/temp_folder.h"

namespace {

using kyd::UploadAuthData;
using Lines = std::vector<std::string>;

// A companion library whose plaintext is the file's bytes, one character each.
std::int32_t DecryptToBytes(const std::uint8_t* data, std::uint64_t size, std::wstring* plaintext) {
  plaintext->assign(data, data + size);
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
  kyd::CompanionRun run_;
  UploadAuthData record_;
  std::wstring file_;
  kyd_test::LogCapture log_;
};

TEST_F(CredentialFileTest, GivesTheRecordOfAGoodFile) {
  Write(R"({"apikey":"k","idp_session":"s"})");
  EXPECT_EQ(kyd::ReadUploadAuthData(run_, L"alice", record_), 0);
  EXPECT_EQ(record_.apikey, L"k");
  EXPECT_EQ(record_.idp_session, L"s");
  EXPECT_TRUE(log_.Messages().empty());
}

TEST_F(CredentialFileTest, ReportsAMissingFolderWithNumber3) {
  EXPECT_EQ(kyd::ReadUploadAuthData(run_, L"alice", record_), 1);
  EXPECT_EQ(log_.Messages(), Lines{"<Read AuthFile> CreateFile error (3)"});
}

TEST_F(CredentialFileTest, ReportsAMissingFileWithNumber2) {
  Write("x");
  ASSERT_TRUE(platform::RemoveFile(file_));
  EXPECT_EQ(kyd::ReadUploadAuthData(run_, L"alice", record_), 1);
  EXPECT_EQ(log_.Messages(), Lines{"<Read AuthFile> CreateFile error (2)"});
}

TEST_F(CredentialFileTest, ReportsAFileThatSomebodyElseHasOpenWithNumber32) {
  Write("x");
  const platform::File other = platform::File::OpenExclusive(file_);
  ASSERT_TRUE(other.IsOpen());
  EXPECT_EQ(kyd::ReadUploadAuthData(run_, L"alice", record_), 1);
  EXPECT_EQ(log_.Messages(), Lines{"<Read AuthFile> CreateFile error (32)"});
}

TEST_F(CredentialFileTest, ReportsAnEmptyFile) {
  Write("");
  EXPECT_EQ(kyd::ReadUploadAuthData(run_, L"alice", record_), 1);
  const Lines messages = log_.Messages();
  ASSERT_EQ(messages.size(), 1U);
  EXPECT_EQ(messages[0].substr(0, 35), "<Read AuthFile> GetFileSize error (");
}

TEST_F(CredentialFileTest, ReportsWhatCannotBeDecrypted) {
  Write("x");
  run_.decryptEntry = &RefuseToDecrypt;
  EXPECT_EQ(kyd::ReadUploadAuthData(run_, L"alice", record_), 1);
  EXPECT_EQ(log_.Messages(), Lines{"<Read AuthFile> Decrypt error"});
}

TEST_F(CredentialFileTest, ReportsADecryptErrorWithoutTheLibrary) {
  Write("x");
  run_.decryptEntry = nullptr;
  std::wstring plaintext = L"old";
  EXPECT_EQ(kyd::ReadAuthFile(run_, file_, plaintext), 1);
  EXPECT_EQ(plaintext, L"");
  EXPECT_EQ(log_.Messages(), Lines{"<Read AuthFile> Decrypt error"});
}

TEST_F(CredentialFileTest, EndsTheRunForAnExceptionInTheLibrary) {
  Write("x");
  run_.decryptEntry = &ThrowStandard;
  EXPECT_EQ(kyd::ReadUploadAuthData(run_, L"alice", record_), -1);
  run_.decryptEntry = &ThrowNumber;
  EXPECT_EQ(kyd::ReadUploadAuthData(run_, L"alice", record_), -1);
  EXPECT_EQ(log_.Messages(), (Lines{"<Read AuthFile> exception", "<Read AuthFile> exception etc"}));
}

TEST_F(CredentialFileTest, LetsGoOfTheFileOnEveryPath) {
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
  EXPECT_EQ(kyd::DeleteAuthFile(run_, L"alice"), 0);
  EXPECT_FALSE(kyd_test::PathExists(file_));
  EXPECT_EQ(log_.Messages(), Lines{"<DeleteAuthFile> deleted auth file."});
}

TEST_F(CredentialFileTest, CountsAFileThatIsGoneAsDeleted) {
  Write("x");
  ASSERT_TRUE(platform::RemoveFile(file_));
  EXPECT_EQ(kyd::DeleteAuthFile(run_, L"alice"), 0);
  EXPECT_EQ(log_.Messages(), Lines{"<DeleteAuthFile> failed."});
}

TEST_F(CredentialFileTest, FailsToDeleteWithoutTheFolder) {
  EXPECT_EQ(kyd::DeleteAuthFile(run_, L"alice"), 1);
  EXPECT_EQ(log_.Messages(), Lines{"<DeleteAuthFile> failed."});
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
    EXPECT_EQ(kyd::ParseUpldAuthJson(text.json, record), 0) << platform::ToUtf8(text.json);
    EXPECT_EQ(record.apikey, text.record.apikey);
    EXPECT_EQ(record.idp_session, text.record.idp_session);
    EXPECT_EQ(record.cert_base64encoded, text.record.cert_base64encoded);
    EXPECT_EQ(record.cert_hash, text.record.cert_hash);
    EXPECT_EQ(record.cert_store, text.record.cert_store);
  }
}

TEST(ParseUpldAuthJson, KeepsNulsOfTheKeyAndTheSession) {
  UploadAuthData record;
  EXPECT_EQ(kyd::ParseUpldAuthJson(LR"({"apikey":"a\u0000b","idp_session":"c\u0000d"})", record),
            0);
  EXPECT_EQ(record.apikey, std::wstring(L"a\0b", 3));
  EXPECT_EQ(record.idp_session, std::wstring(L"c\0d", 3));
}

struct BadText {
  const wchar_t* json;
  const char* message;
};

TEST(ParseUpldAuthJson, ReportsWhatIsWrong) {
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
    EXPECT_EQ(kyd::ParseUpldAuthJson(text.json, record), 1) << platform::ToUtf8(text.json);
    EXPECT_EQ(log.Messages(), Lines{text.message}) << platform::ToUtf8(text.json);
  }
}

TEST(ParseUpldAuthJson, SurvivesDeepNesting) {
  const std::wstring deep(100'000, L'[');
  UploadAuthData record;
  EXPECT_EQ(kyd::ParseUpldAuthJson(deep, record), 1);
  EXPECT_EQ(kyd::ParseUpldAuthJson(deep + std::wstring(100'000, L']'), record), 1);
  EXPECT_EQ(kyd::ParseUpldAuthJson(LR"({"apikey":"k","idp_session":"s","x":)" + deep +
                                       std::wstring(100'000, L']') + L"}",
                                   record),
            0);
}

}  // namespace
