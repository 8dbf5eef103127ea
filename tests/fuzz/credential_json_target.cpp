// Parsing of decrypted credentials.
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <string>

#include "credentials/credential_file.h"
#include "credentials/credential_json.h"
#include "tests/fuzz/input.h"
#include "tests/fuzz/targets.h"

namespace kyd_fuzz {

namespace {

using WideBuffer = rapidjson::GenericStringBuffer<kyd::JsonEncoding>;
using WideWriter = rapidjson::Writer<WideBuffer, kyd::JsonEncoding, kyd::JsonEncoding>;

void Write(WideWriter& writer, const std::wstring& text) {
  writer.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
}

std::wstring JsonOf(const kyd::UploadAuthData& record) {
  WideBuffer buffer;
  WideWriter writer(buffer);
  writer.StartObject();
  Write(writer, L"cert");
  writer.StartObject();
  Write(writer, L"store");
  Write(writer, record.cert_store);
  Write(writer, L"hash");
  Write(writer, record.cert_hash);
  Write(writer, L"base64encoded");
  Write(writer, record.cert_base64encoded);
  writer.EndObject();
  Write(writer, L"idp_session");
  Write(writer, record.idp_session);
  Write(writer, L"apikey");
  Write(writer, record.apikey);
  writer.EndObject();
  return {buffer.GetString(), buffer.GetSize() / sizeof(wchar_t)};
}

bool AreEqual(const kyd::UploadAuthData& left, const kyd::UploadAuthData& right) {
  return left.apikey == right.apikey && left.idp_session == right.idp_session &&
         left.cert_base64encoded == right.cert_base64encoded && left.cert_hash == right.cert_hash &&
         left.cert_store == right.cert_store;
}

}  // namespace

int FuzzCredentialJson(const std::uint8_t* bytes, std::size_t size) {
  Input input(bytes, size);
  const Kind kind = KindOf(input.Byte());
  const std::wstring text = WideText(kind, input.Rest());
  kyd::UploadAuthData record;
  record.cert_hash = L"of the account before";
  const int status = kyd::ParseUpldAuthJson(text, record);
  Require(status == kyd::kSucceeded || status == kyd::kFailed,
          "no text causes an unexpected error");

  kyd::UploadAuthData again;
  Require(kyd::ParseUpldAuthJson(text.substr(0, text.find(L'\0')), again) == status,
          "the text ends at its first NUL");
  if (status == kyd::kFailed) {
    return 0;
  }
  Require(AreEqual(record, again), "the text ends at its first NUL");
  Require(!record.apikey.empty() && !record.idp_session.empty(), "key and session are required");
  Require(record.cert_hash != L"of the account before", "nothing of the previous record remains");
  Require(kyd::ParseUpldAuthJson(JsonOf(record), again) == kyd::kSucceeded,
          "a written record can be read");
  Require(AreEqual(record, again), "a record survives a round trip");
  return 0;
}

}  // namespace kyd_fuzz
