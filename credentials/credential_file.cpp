// Reads, parses and deletes the credential files of the accounts.
#include "credentials/credential_file.h"

#include <cstdint>
#include <exception>
#include <limits>
#include <optional>
#include <utility>
#include <vector>

#include "credentials/credential_json.h"
#include "debuglog/cdebuglog.h"
#include "logtree/log_tree.h"
#include "platform/error.h"
#include "platform/file.h"
#include "platform/secret_memory.h"
#include "platform/text.h"

namespace kyd {

namespace {

constexpr std::size_t kJsonPoolChunk = std::size_t{64} * 1024;  // bytes

class OpenedFile : public CredentialSource {
 public:
  explicit OpenedFile(platform::File file) : file_(std::move(file)) {}

  [[nodiscard]] std::optional<std::uint64_t> Size() const override { return file_.Size(); }
  [[nodiscard]] std::optional<std::size_t> Read(void* buffer, std::size_t size) override {
    return file_.Read(buffer, size);
  }

 private:
  platform::File file_;
};

// Uses the low 32 bits of the size; 0 and INVALID_FILE_SIZE are failures.
std::optional<std::uint32_t> CredentialSize(const CredentialSource& source) {
  const std::optional<std::uint64_t> size = source.Size();
  const std::uint32_t low = size ? static_cast<std::uint32_t>(*size) : 0;
  if (low == 0 || low == std::numeric_limits<std::uint32_t>::max()) {
    return std::nullopt;
  }
  return low;
}

// Copies a non-empty string, including NULs; returns false for anything else.
bool CopyText(const wchar_t* path, const JsonDocument& document, std::wstring& field) {
  const JsonValue* value = FindJsonValueByPath(path, document);
  if (value == nullptr || !value->IsString() || value->GetStringLength() == 0) {
    return false;
  }
  field.assign(value->GetString(), value->GetStringLength());
  return true;
}

int ParseRecord(const std::wstring& plaintext, UploadAuthData& record) {
  Wipe(record);
  JsonDocument::AllocatorType pool(kJsonPoolChunk);
  JsonDocument document(&pool);
  // Iterative: deeply nested text must not exhaust the stack.
  document.Parse<rapidjson::kParseIterativeFlag>(plaintext.c_str());
  if (document.HasParseError()) {
    Log().WriteLogA("<ParseUpldAuthJson> json conversion(from) error");
    return kFailed;
  }
  if (!CopyText(L"apikey", document, record.apikey)) {
    Log().WriteLogA("<ParseUpldAuthJson> apikey error");
    return kFailed;
  }
  if (!CopyText(L"idp_session", document, record.idp_session)) {
    Log().WriteLogA("<ParseUpldAuthJson> idp_session error");
    return kFailed;
  }
  // The certificate is optional: a missing member is not an error.
  CopyText(L"cert.base64encoded", document, record.cert_base64encoded);
  CopyText(L"cert.hash", document, record.cert_hash);
  CopyText(L"cert.store", document, record.cert_store);
  return kSucceeded;
}

}  // namespace

int ReadAndDecrypt(const UploadRun& run, CredentialSource& source, std::wstring& plaintext) {
  const std::optional<std::uint32_t> size = CredentialSize(source);
  if (!size) {
    const unsigned error = platform::LastError();
    Log().WriteLogA("<Read AuthFile> GetFileSize error (%d)", error);
    return kFailed;
  }
  std::vector<std::uint8_t> encrypted(*size);
  // The number of bytes read is not compared with the size: a file that shrank does not decrypt.
  if (!source.Read(encrypted.data(), encrypted.size())) {
    const unsigned error = platform::LastError();
    Log().WriteLogA("<Read AuthFile> ReadFile error (%d)", error);
    return kFailed;
  }
  plaintext.clear();
  if (run.decryptEntry == nullptr ||
      run.decryptEntry(encrypted.data(), encrypted.size(), &plaintext) != 0) {
    Log().WriteLogA("<Read AuthFile> Decrypt error");
    return kFailed;
  }
  return kSucceeded;
}

int ReadUploadAuthData(const UploadRun& run, const std::wstring& user, UploadAuthData& record) {
  try {
    std::wstring plaintext;
    const platform::WipeAtEnd wiped(plaintext);
    const int status = ReadAuthFile(run, LogTree(run.logDir).CredentialPath(user), plaintext);
    return status == kSucceeded ? ParseUpldAuthJson(plaintext, record) : status;
  } catch (const std::exception&) {
    Log().WriteLogA("<ReadUploadAuthData> exception");
  } catch (...) {
    Log().WriteLogA("<ReadUploadAuthData> exception etc");
  }
  return kRunMustEnd;
}

int ReadAuthFile(const UploadRun& run, const std::wstring& path, std::wstring& plaintext) {
  try {
    platform::File file = platform::File::OpenExclusive(path);
    if (!file.IsOpen()) {
      const unsigned error = platform::LastError();
      Log().WriteLogA("<Read AuthFile> CreateFile error (%d)", error);
      return kFailed;
    }
    OpenedFile source(std::move(file));
    return ReadAndDecrypt(run, source, plaintext);
  } catch (const std::exception&) {
    Log().WriteLogA("<Read AuthFile> exception");
  } catch (...) {
    Log().WriteLogA("<Read AuthFile> exception etc");
  }
  return kRunMustEnd;
}

int ParseUpldAuthJson(const std::wstring& plaintext, UploadAuthData& record) {
  try {
    return ParseRecord(plaintext, record);
  } catch (const std::exception&) {
    Log().WriteLogA("<ParseUpldAuthJson> exception");
  } catch (...) {
    Log().WriteLogA("<ParseUpldAuthJson> exception etc");
  }
  return kRunMustEnd;
}

int DeleteAuthFile(const UploadRun& run, const std::wstring& user) {
  try {
    if (platform::RemoveFile(LogTree(run.logDir).CredentialPath(user))) {
      Log().WriteLogA("<DeleteAuthFile> deleted auth file.");
      return kSucceeded;
    }
    const unsigned error = platform::LastError();
    Log().WriteLogA("<DeleteAuthFile> failed.");
    return error == platform::kErrorFileNotFound ? kSucceeded : kFailed;
  } catch (const std::exception&) {
    Log().WriteLogA("<DeleteAuthFile> exception");
  } catch (...) {
    Log().WriteLogA("<DeleteAuthFile> exception etc");
  }
  return kFailed;
}

}  // namespace kyd
