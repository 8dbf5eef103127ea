// The bytes of an opened credential file, and what is done with them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "credentials/companion_run.h"

namespace kyd {

// What the reading needs of an opened file; tests put their own in its place. Failures leave their
// number in platform::LastError. See platform::File.
class CredentialSource {
 public:
  virtual ~CredentialSource() = default;

  [[nodiscard]] virtual std::optional<std::uint64_t> Size() const = 0;
  [[nodiscard]] virtual std::optional<std::size_t> Read(void* buffer, std::size_t size) = 0;
};

// Reads the whole source and decrypts it. 0, or 1 for a failure that has been logged. Throws what
// the companion library throws, and std::bad_alloc.
[[nodiscard]] int ReadAndDecrypt(const CompanionRun& run, CredentialSource& source,
                                 std::wstring& plaintext);

}  // namespace kyd
