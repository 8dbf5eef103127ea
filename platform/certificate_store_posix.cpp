// Certificate stores of PEM files, and PKCS #12 through OpenSSL.
#include "platform/certificate_store.h"

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/pkcs12.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>

#include "platform/certificate_posix.h"
#include "platform/error.h"
#include "platform/file.h"
#include "platform/file_search.h"
#include "platform/pkcs12_work_posix.h"
#include "platform/sysroot_posix.h"
#include "platform/text.h"

namespace platform {

namespace {

// The certificates of one folder or one PKCS #12 blob. They are shared with the contexts found,
// which may outlive the store, as on Windows.
using Certificate = std::shared_ptr<const CertificateWithKey>;
struct Store {
  std::vector<Certificate> certificates;
};

struct Pkcs12Deleter {
  void operator()(PKCS12* pkcs12) const noexcept { PKCS12_free(pkcs12); }
};
struct BioDeleter {
  void operator()(BIO* bio) const noexcept { BIO_free(bio); }
};
using BioPointer = std::unique_ptr<BIO, BioDeleter>;

constexpr std::size_t kLongestPem = std::size_t{1} << 20U;  // bytes; no certificate file is larger

std::wstring PersonalStoreFolder(CertificateScope scope) {
  if (scope == CertificateScope::kLocalMachine) {
    return FromNativePath(UnderSysroot("/etc/keyward/certs/MY"));
  }
  const char* const home = std::getenv("HOME");  // NOLINT(concurrency-mt-unsafe): never set here
  return FromNativePath(std::string(home == nullptr ? "" : home) + "/.config/keyward/certs/MY");
}

std::string ReadWhole(const std::wstring& path) {
  File file = File::OpenShared(path);
  const std::optional<std::uint64_t> size = file.IsOpen() ? file.Size() : std::nullopt;
  if (!size || *size > kLongestPem) {
    return {};
  }
  std::string text(static_cast<std::size_t>(*size), '\0');
  const std::optional<std::size_t> read = file.Read(text.data(), text.size());
  text.resize(read.value_or(0));
  return text;
}

BioPointer BioOf(const std::string& text) {
  return BioPointer(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
}

// Never prompts for the password of an encrypted key.
int NoPassword(char* /*buffer*/, int /*size*/, int /*writing*/, void* /*data*/) {
  return -1;
}

// Returns null unless the text has a certificate with its private key.
Certificate ParsePem(const std::string& text) {
  auto parsed = std::make_shared<CertificateWithKey>();
  const BioPointer certificates = BioOf(text);
  parsed->certificate.reset(PEM_read_bio_X509(certificates.get(), nullptr, &NoPassword, nullptr));
  while (X509Pointer issuer{PEM_read_bio_X509(certificates.get(), nullptr, &NoPassword, nullptr)}) {
    parsed->issuers.push_back(std::move(issuer));
  }
  parsed->key.reset(PEM_read_bio_PrivateKey(BioOf(text).get(), nullptr, &NoPassword, nullptr));
  const bool complete = parsed->certificate && parsed->key &&
                        X509_check_private_key(parsed->certificate.get(), parsed->key.get()) == 1;
  ERR_clear_error();
  return complete ? parsed : nullptr;
}

bool HasThumbprint(const CertificateWithKey& certificate,
                   const std::vector<std::uint8_t>& thumbprint) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned size = 0;
  return X509_digest(certificate.certificate.get(), EVP_sha1(), digest.data(), &size) == 1 &&
         thumbprint == std::vector<std::uint8_t>(digest.begin(), digest.begin() + size);
}

CertificateContext ContextOf(const Certificate& certificate) {
  return CertificateContext(
      new Certificate(certificate));  // NOLINT(cppcoreguidelines-owning-memory)
}

const Store& StoreOf(const CertificateStore& store) {
  return *static_cast<const Store*>(store.Get());
}

std::unique_ptr<PKCS12, Pkcs12Deleter> ParsePfx(const std::vector<std::uint8_t>& bytes) {
  const unsigned char* position = bytes.data();
  std::unique_ptr<PKCS12, Pkcs12Deleter> pkcs12(
      d2i_PKCS12(nullptr, &position, static_cast<long>(bytes.size())));
  ERR_clear_error();
  return pkcs12;
}

}  // namespace

void CertificateStoreCloser::Close(Value store) noexcept {
  delete static_cast<Store*>(store);
}

void CertificateContextCloser::Close(Value context) noexcept {
  delete static_cast<const Certificate*>(context);
}

const CertificateWithKey& CertificateOf(const void* context) noexcept {
  return **static_cast<const Certificate*>(context);
}

CertificateStore OpenPersonalStore(CertificateScope scope) {
  const std::wstring folder = PersonalStoreFolder(scope);
  if (!IsFolder(folder)) {
    SetLastError(kErrorFileNotFound);
    return {};
  }
  auto store = std::make_unique<Store>();
  FileSearch search(folder, L".pem");
  for (bool found = search.First(); found; found = search.Next()) {
    if (const Certificate certificate =
            ParsePem(ReadWhole(JoinPath(folder, search.Current().name)))) {
      store->certificates.push_back(certificate);
    }
  }
  return CertificateStore(store.release());
}

CertificateContext FindByThumbprint(const CertificateStore& store,
                                    const std::vector<std::uint8_t>& thumbprint) {
  for (const Certificate& certificate : StoreOf(store).certificates) {
    if (HasThumbprint(*certificate, thumbprint)) {
      return ContextOf(certificate);
    }
  }
  SetLastError(kErrorCertificateNotFound);
  return {};
}

CertificateContext FindFirstCertificate(const CertificateStore& store) {
  if (StoreOf(store).certificates.empty()) {
    SetLastError(kErrorCertificateNotFound);
    return {};
  }
  return ContextOf(StoreOf(store).certificates.front());
}

bool IsPfx(const std::vector<std::uint8_t>& bytes) {
  return ParsePfx(bytes) != nullptr;
}

CertificateStore ImportPfx(const std::vector<std::uint8_t>& bytes) {
  const auto pkcs12 = ParsePfx(bytes);
  const bool is_usable = pkcs12 && !NeedsTooManyRounds(pkcs12.get());
  ERR_clear_error();
  if (!is_usable) {
    SetLastError(kErrorBadEncoding);
    return {};
  }
  EVP_PKEY* key = nullptr;
  X509* certificate = nullptr;
  STACK_OF(X509)* others = nullptr;
  const int parsed = PKCS12_parse(pkcs12.get(), nullptr, &key, &certificate, &others);
  auto imported = std::make_shared<CertificateWithKey>();
  imported->key.reset(key);
  imported->certificate.reset(certificate);
  while (others != nullptr && sk_X509_num(others) > 0) {
    imported->issuers.emplace_back(sk_X509_shift(others));
  }
  sk_X509_free(others);
  ERR_clear_error();
  if (parsed != 1) {
    SetLastError(kErrorInvalidPassword);
    return {};
  }
  auto store = std::make_unique<Store>();
  if (!imported->certificate && !imported->issuers.empty()) {
    // A certificate without a key is imported as well.
    imported->certificate = std::move(imported->issuers.front());
    imported->issuers.erase(imported->issuers.begin());
  }
  if (imported->certificate) {
    store->certificates.push_back(std::move(imported));
  }
  return CertificateStore(store.release());
}

}  // namespace platform
