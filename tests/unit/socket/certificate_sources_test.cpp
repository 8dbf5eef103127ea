// Every step and failure of the two sources of a client certificate, with a scripted store.
#include <gtest/gtest.h>

#include <cstdint>
#include <new>
#include <string>
#include <vector>

#include "socket/certificate_selection.h"
#include "tests/unit/socket/certificate_store_double.h"
#include "tests/unit/support/log_capture.h"

namespace {

using Bytes = std::vector<std::uint8_t>;
using Texts = std::vector<std::string>;

std::wstring decoded_text;
std::uint64_t decoded_count = 0;

// Decodes any text to three bytes, and reports a failure, which is ignored.
std::int32_t DecodeThreeBytes(const wchar_t* text, std::uint64_t count, Bytes* bytes) {
  decoded_text.assign(text, count);
  decoded_count = count;
  bytes->assign({1, 2, 3});
  return -1;
}
std::int32_t DecodeStorageWithoutBytes(const wchar_t* /*text*/, std::uint64_t /*count*/,
                                       Bytes* bytes) {
  bytes->reserve(16);
  return 0;
}
std::int32_t DecodeNothing(const wchar_t* /*text*/, std::uint64_t /*count*/, Bytes* /*bytes*/) {
  return 0;
}
std::int32_t DecodeThrowing(const wchar_t* /*text*/, std::uint64_t /*count*/, Bytes* /*bytes*/) {
  throw std::bad_alloc();
}
std::int32_t DecodeThrowingNumber(const wchar_t* /*text*/, std::uint64_t /*count*/,
                                  Bytes* /*bytes*/) {
  throw 1;
}

class CertificateSources : public testing::Test {
 protected:
  void ParsePfx(kyd::Base64DecodeEntry entry = &DecodeThreeBytes) {
    kyd::UploadRun run;
    run.base64DecodeEntry = entry;
    kyd::UploadAuthData credentials;
    credentials.cert_base64encoded = L"AQID";
    CorvidSocket::ParseAuthParam(pair_, credentials, run);
  }

  void Select(const std::wstring& scope, const std::wstring& thumbprint = L"00fF") {
    kyd::UploadAuthData credentials;
    credentials.cert_hash = thumbprint;
    credentials.cert_store = scope;
    CorvidSocket::SelectStoreCert(pair_, credentials);
  }

  void ExpectEmptyPair() const {
    EXPECT_FALSE(pair_.context.IsValid());
    EXPECT_FALSE(pair_.store.IsValid());
  }
  void ExpectNothingOpen() const {
    EXPECT_EQ(script_.open_stores, 0);
    EXPECT_EQ(script_.open_contexts, 0);
  }

  const kyd_test::LogCapture log_;
  kyd_test::StoreScript& script_ = kyd_test::NewScript();
  CorvidSocket::ClientCertificate pair_;
};

// PFX text.

TEST_F(CertificateSources, PfxIsDecodedFromItsCharactersAndTheResultIsIgnored) {
  ParsePfx();
  EXPECT_EQ(decoded_text, L"AQID");
  EXPECT_EQ(decoded_count, 4U);
  EXPECT_EQ(script_.calls, (Texts{"pfx 3", "import 3", "first"}));
}

TEST_F(CertificateSources, ValidPfxLeavesThePairEmptyLogsNothingAndReleasesNothing) {
  ParsePfx();
  ExpectEmptyPair();
  EXPECT_EQ(log_.Messages(), Texts{});
  EXPECT_EQ(script_.open_stores, 1);
  EXPECT_EQ(script_.open_contexts, 1);
}

TEST_F(CertificateSources, OnlyAFailureReleasesAPairThatWasFilledBefore) {
  Select(L"user");
  ASSERT_TRUE(pair_.context.IsValid());
  ParsePfx();
  EXPECT_TRUE(pair_.context.IsValid());
  EXPECT_TRUE(pair_.store.IsValid());
  script_.calls.clear();
  ParsePfx(&DecodeNothing);
  ExpectEmptyPair();
  EXPECT_EQ(script_.calls, (Texts{"free context", "close store"}));
}

TEST_F(CertificateSources, TextThatDecodesToNothingIsAMemoryError) {
  ParsePfx(nullptr);
  ParsePfx(&DecodeNothing);
  EXPECT_EQ(log_.Messages(),
            (Texts{"<ParseAuthParam> memory error", "<ParseAuthParam> memory error"}));
  EXPECT_EQ(script_.calls, Texts{});
  ExpectEmptyPair();
}

TEST_F(CertificateSources, EmptyResultWithStorageIsPassedToTheImport) {
  script_.import_error = 0x80092002;
  ParsePfx(&DecodeStorageWithoutBytes);
  EXPECT_EQ(script_.calls, (Texts{"pfx 0", "import 0"}));
  EXPECT_EQ(log_.Messages(), Texts{"<ParseAuthParam> PFXImportCertStore error [-2146885630]"});
}

TEST_F(CertificateSources, BytesThatAreNotPfxAreLoggedAndTheImportDecides) {
  script_.is_pfx = false;
  ParsePfx();
  EXPECT_EQ(log_.Messages(), Texts{"<ParseAuthParam> PFXIsPFXBlob error"});
  EXPECT_EQ(script_.calls, (Texts{"pfx 3", "import 3", "first"}));
  EXPECT_EQ(script_.open_contexts, 1);
  ExpectEmptyPair();
}

TEST_F(CertificateSources, RefusedImportIsLoggedWithItsNumber) {
  script_.import_error = 86;
  ParsePfx();
  EXPECT_EQ(log_.Messages(), Texts{"<ParseAuthParam> PFXImportCertStore error [86]"});
  ExpectEmptyPair();
  ExpectNothingOpen();
}

TEST_F(CertificateSources, PfxWithoutCertificateIsLoggedWithItsNumber) {
  script_.first_error = 0x80092004;
  ParsePfx();
  EXPECT_EQ(log_.Messages(),
            Texts{"<ParseAuthParam> CertFindCertificateInStore error [-2146885628]"});
  ExpectEmptyPair();
  ExpectNothingOpen();
}

TEST_F(CertificateSources, NoExceptionEscapesFromThePfx) {
  ParsePfx(&DecodeThrowing);
  ParsePfx(&DecodeThrowingNumber);
  EXPECT_EQ(script_.calls, Texts{});
  script_.import_throws = true;
  ParsePfx();
  script_.import_throws = false;
  script_.first_throws = true;
  ParsePfx();
  EXPECT_EQ(script_.calls,
            (Texts{"pfx 3", "import 3", "pfx 3", "import 3", "first", "close store"}));
  ExpectEmptyPair();
  ExpectNothingOpen();
  EXPECT_EQ(log_.Messages(), Texts{});
}

TEST_F(CertificateSources, FailedPfxReleasesWhatThePairHeld) {
  Select(L"user");
  ASSERT_TRUE(pair_.context.IsValid());
  ParsePfx(&DecodeThrowing);
  ExpectEmptyPair();
  ExpectNothingOpen();
}

// Certificate store.

TEST_F(CertificateSources, StoreCertificateIsHeldWithItsStore) {
  Select(L"user");
  EXPECT_TRUE(pair_.store.IsValid());
  EXPECT_TRUE(pair_.context.IsValid());
  EXPECT_EQ(script_.calls, (Texts{"open user", "find 00FF"}));
  EXPECT_EQ(log_.Messages(), Texts{});
}

TEST_F(CertificateSources, PairIsReleasedOnceContextFirst) {
  {
    CorvidSocket::ClientCertificate pair;
    kyd::UploadAuthData credentials;
    credentials.cert_hash = L"01";
    credentials.cert_store = L"comp";
    CorvidSocket::SelectStoreCert(pair, credentials);
    ASSERT_TRUE(pair.context.IsValid());
  }
  EXPECT_EQ(script_.calls, (Texts{"open comp", "find 01", "free context", "close store"}));
  ExpectNothingOpen();
}

TEST_F(CertificateSources, ScopeMustMatchExactly) {
  for (const wchar_t* const scope :
       {L"User", L"USER", L"user ", L" user", L"use", L"users", L"Comp", L"comp ", L"machine"}) {
    Select(scope);
    ExpectEmptyPair();
  }
  EXPECT_EQ(script_.calls, Texts{});
  EXPECT_EQ(log_.Messages(), Texts{});
}

TEST_F(CertificateSources, StoreThatCannotBeOpenedIsLoggedWithItsScope) {
  script_.open_error = 5;
  Select(L"user");
  Select(L"comp");
  EXPECT_EQ(log_.Messages(), (Texts{"<SetUserCert> CertOpenStore error [5]",
                                    "<SetCompCert> CertOpenStore error [5]"}));
  EXPECT_EQ(script_.calls, (Texts{"open user", "open comp"}));
  ExpectEmptyPair();
  ExpectNothingOpen();
}

TEST_F(CertificateSources, MissingCertificateIsLoggedAndClosesTheStore) {
  for (const wchar_t* const scope : {L"user", L"comp"}) {
    script_ = kyd_test::StoreScript();
    script_.find_error = 0x80092004;
    Select(scope);
    ExpectEmptyPair();
    ASSERT_EQ(script_.calls.size(), 3U);
    EXPECT_EQ(script_.calls.back(), "close store");
    ExpectNothingOpen();
  }
  const std::string line = "<SearchContext> CertFindCertificateInStore error [-2146885628]";
  EXPECT_EQ(log_.Messages(), (Texts{line, line}));
}

TEST_F(CertificateSources, SearchUsesInvalidThumbprintsAsDecoded) {
  script_.find_error = 1;
  for (const wchar_t* const thumbprint : {L"", L"1", L"123", L"zz9x"}) {
    Select(L"user", thumbprint);
  }
  EXPECT_EQ(script_.calls, (Texts{"open user", "find ", "close store", "open user", "find ",
                                  "close store", "open user", "find 12", "close store", "open user",
                                  "find 0090", "close store"}));
}

TEST_F(CertificateSources, NoExceptionEscapesFromTheStoreAndTheStoreIsClosed) {
  for (const wchar_t* const scope : {L"user", L"comp"}) {
    script_ = kyd_test::StoreScript();
    script_.open_throws = true;
    Select(scope);
    ExpectEmptyPair();
    EXPECT_EQ(script_.calls.size(), 1U);
    script_ = kyd_test::StoreScript();
    script_.find_throws = true;
    Select(scope);
    ExpectEmptyPair();
    ASSERT_EQ(script_.calls.size(), 3U);
    EXPECT_EQ(script_.calls.back(), "close store");
    ExpectNothingOpen();
  }
  EXPECT_EQ(log_.Messages(), Texts{});
}

}  // namespace
