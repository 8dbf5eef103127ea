// Implements every function of platform/certificate_store.h as the script says.
#include "tests/unit/socket/certificate_store_double.h"

#include <new>

#include "platform/certificate_store.h"
#include "platform/error.h"

namespace {

// Gives a handle something to point to.
char the_store = 's';
char the_context = 'c';

kyd_test::StoreScript script;

constexpr char kDigits[] = "0123456789ABCDEF";

std::string Hexadecimal(const std::vector<std::uint8_t>& bytes) {
  std::string text;
  for (const std::uint8_t byte : bytes) {
    text += kDigits[byte / 16];
    text += kDigits[byte % 16];
  }
  return text;
}

// Returns true if the call succeeds.
bool Answer(const std::string& call, bool throws, unsigned error) {
  script.calls.push_back(call);
  if (throws) {
    throw std::bad_alloc();
  }
  if (error != 0) {
    platform::SetLastError(error);
  }
  return error == 0;
}

platform::CertificateStore StoreIf(bool success) {
  if (!success) {
    return {};
  }
  ++script.open_stores;
  return platform::CertificateStore(&the_store);
}

platform::CertificateContext ContextIf(bool success) {
  if (!success) {
    return {};
  }
  ++script.open_contexts;
  return platform::CertificateContext(&the_context);
}

}  // namespace

namespace kyd_test {

StoreScript& NewScript() {
  script = StoreScript();
  return script;
}

}  // namespace kyd_test

namespace platform {

void CertificateStoreCloser::Close(Value store) noexcept {
  script.calls.emplace_back(store == &the_store ? "close store" : "close of a strange store");
  --script.open_stores;
  // The system's function may do so as well.
  SetLastError(0);
}

void CertificateContextCloser::Close(Value context) noexcept {
  script.calls.emplace_back(context == &the_context ? "free context" : "strange context freed");
  --script.open_contexts;
  SetLastError(0);
}

CertificateStore OpenPersonalStore(CertificateScope scope) {
  const char* const call = scope == CertificateScope::kCurrentUser ? "open user" : "open comp";
  return StoreIf(Answer(call, script.open_throws, script.open_error));
}

CertificateContext FindByThumbprint(const CertificateStore& store,
                                    const std::vector<std::uint8_t>& thumbprint) {
  const std::string call = store.Get() == &the_store ? "find " : "find in a strange store ";
  return ContextIf(Answer(call + Hexadecimal(thumbprint), script.find_throws, script.find_error));
}

CertificateContext FindFirstCertificate(const CertificateStore& store) {
  const char* const call = store.Get() == &the_store ? "first" : "first of a strange store";
  return ContextIf(Answer(call, script.first_throws, script.first_error));
}

bool IsPfx(const std::vector<std::uint8_t>& bytes) {
  return Answer("pfx " + std::to_string(bytes.size()), false, script.is_pfx ? 0 : 13);
}

CertificateStore ImportPfx(const std::vector<std::uint8_t>& bytes) {
  return StoreIf(
      Answer("import " + std::to_string(bytes.size()), script.import_throws, script.import_error));
}

}  // namespace platform
