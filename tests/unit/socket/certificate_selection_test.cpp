// The client certificate that an account's credentials select.
#include "socket/certificate_selection.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/unit/support/log_capture.h"

namespace {

using CorvidSocket::ClientCertificate;
using CorvidSocket::DecodeThumbprint;
using Bytes = std::vector<std::uint8_t>;
using Lines = std::vector<std::string>;

std::int32_t DecodeNothing(const wchar_t* /*text*/, std::uint64_t /*count*/, Bytes* /*bytes*/) {
  return 1;
}
std::int32_t DecodeToCharacters(const wchar_t* text, std::uint64_t count, Bytes* bytes) {
  bytes->assign(text, text + count);
  return 1;  // ignored by the caller
}
std::int32_t DecodeThrowing(const wchar_t* /*text*/, std::uint64_t /*count*/, Bytes* /*bytes*/) {
  throw std::runtime_error("no memory");
}

Lines LinesOfPfx(kyd::Base64DecodeEntry entry) {
  const kyd_test::LogCapture log;
  kyd::UploadRun run;
  run.base64DecodeEntry = entry;
  kyd::UploadAuthData credentials;
  credentials.cert_base64encoded = L"not a PFX";
  ClientCertificate pair;
  CorvidSocket::ParseAuthParam(pair, credentials, run);
  EXPECT_FALSE(pair.context.IsValid());
  EXPECT_FALSE(pair.store.IsValid());
  return log.Messages();
}

TEST(DecodeThumbprint, ReadsHexadecimalInBothCases) {
  EXPECT_EQ(DecodeThumbprint(L"00ff0A9fAb"), (Bytes{0x00, 0xFF, 0x0A, 0x9F, 0xAB}));
}

TEST(DecodeThumbprint, IgnoresATrailingOddCharacter) {
  EXPECT_EQ(DecodeThumbprint(L"123"), Bytes{0x12});
  EXPECT_EQ(DecodeThumbprint(L"1"), Bytes{});
  EXPECT_EQ(DecodeThumbprint(L""), Bytes{});
}

TEST(DecodeThumbprint, ReadsOtherCharactersAsZero) {
  EXPECT_EQ(DecodeThumbprint(L"g1 2/:@G`"), (Bytes{0x01, 0x02, 0x00, 0x00}));
}

TEST(ParseAuthParam, ReportsTextThatDecodesToNothing) {
  EXPECT_EQ(LinesOfPfx(nullptr), Lines{"<ParseAuthParam> memory error"});
  EXPECT_EQ(LinesOfPfx(&DecodeNothing), Lines{"<ParseAuthParam> memory error"});
}

TEST(ParseAuthParam, ReportsBytesThatAreNotPfxAndTriesToImportThem) {
  EXPECT_THAT(
      LinesOfPfx(&DecodeToCharacters),
      testing::ElementsAre("<ParseAuthParam> PFXIsPFXBlob error",
                           testing::StartsWith("<ParseAuthParam> PFXImportCertStore error [")));
}

TEST(ParseAuthParam, LetsNoExceptionEscape) {
  EXPECT_EQ(LinesOfPfx(&DecodeThrowing), Lines{});
}

TEST(SelectStoreCert, SelectsNothingForAnyOtherScope) {
  const kyd_test::LogCapture log;
  for (const wchar_t* const scope : {L"User", L"user ", L"COMP", L"machine"}) {
    kyd::UploadAuthData credentials;
    credentials.cert_hash = L"00";
    credentials.cert_store = scope;
    ClientCertificate pair;
    CorvidSocket::SelectStoreCert(pair, credentials);
    EXPECT_FALSE(pair.context.IsValid());
    EXPECT_FALSE(pair.store.IsValid());
  }
  EXPECT_EQ(log.Messages(), Lines{});
}

}  // namespace
