// The encrypted credential file of an account: LogDir\LogWork\<account>\UserData.dat.
//
// Functions return the outcomes of run/upload_run.h; every failure has been logged. Neither keys,
// sessions nor decrypted text are ever logged.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "credentials/upload_auth_data.h"
#include "run/upload_run.h"

namespace kyd {

// Reads, decrypts and parses the credentials of an account. `record` is valid only if this
// succeeded.
[[nodiscard]] int ReadUploadAuthData(const UploadRun& run, const std::wstring& user,
                                     UploadAuthData& record);

// Reads and decrypts a credential file, which no other process may have open at the same time.
[[nodiscard]] int ReadAuthFile(const UploadRun& run, const std::wstring& path,
                               std::wstring& plaintext);

// The operations on an open file that reading needs; tests substitute their own. Failures set
// platform::LastError. See platform::File.
class CredentialSource {
 public:
  virtual ~CredentialSource() = default;

  [[nodiscard]] virtual std::optional<std::uint64_t> Size() const = 0;
  [[nodiscard]] virtual std::optional<std::size_t> Read(void* buffer, std::size_t size) = 0;
};

// Reads the whole source and decrypts it. Returns kSucceeded or kFailed.
// Throws what the companion library throws, and std::bad_alloc.
[[nodiscard]] int ReadAndDecrypt(const UploadRun& run, CredentialSource& source,
                                 std::wstring& plaintext);

// Fills the record from the decrypted JSON text (RFC 8259), which ends at its first NUL.
[[nodiscard]] int ParseUpldAuthJson(const std::wstring& plaintext, UploadAuthData& record);

// Deletes the account's credential file. A missing file counts as deleted, although the failure is
// logged. Returns kSucceeded or kFailed.
int DeleteAuthFile(const UploadRun& run, const std::wstring& user);

}  // namespace kyd
