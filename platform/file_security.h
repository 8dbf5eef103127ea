// Access rules for files that the program creates.
#pragma once

#include <memory>

namespace platform {

// Owns a security descriptor, the security attributes that point to it, a SID and an access-control
// list. The program itself uses only mode 0: the default security of the folder.
class CFileAccessSecurity {
 public:
  enum Mode : int {
    kDefault = 0,         // no attributes
    kAdministrators = 1,  // S-1-5-32-544
    kLocalSystem = 2,     // S-1-5-18
    kUsers = 3,           // S-1-5-32-545
    kEveryone = 4,        // S-1-1-0
  };

  explicit CFileAccessSecurity(int mode);
  virtual ~CFileAccessSecurity();
  CFileAccessSecurity(const CFileAccessSecurity&) = delete;
  CFileAccessSecurity& operator=(const CFileAccessSecurity&) = delete;

  // Builds the descriptor: one entry that grants the mode's SID full access (GENERIC_ALL),
  // inherited by objects and containers, in a revision 2 list. Mode 0 does nothing and succeeds.
  // Throws std::runtime_error if the SID or the list cannot be created, and for a mode without a
  // SID. Modes other than 0 need Windows.
  bool Build();

  // Returns SECURITY_ATTRIBUTES* for CreateFileW and the like; null in mode 0. Valid for the
  // lifetime of the object.
  [[nodiscard]] void* Attributes() const noexcept;

 private:
  struct Descriptor;
  int mode_;
  std::unique_ptr<Descriptor> descriptor_;
};

}  // namespace platform
