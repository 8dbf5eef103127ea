// Adds certificates to the system stores of the test's Windows machine and removes them again, as
// an administrator would.
//
//   certificate-import authority FILE          trusts an authority, on the whole machine
//   certificate-import user-authority FILE     trusts it as this user, about which Windows asks
//   certificate-import user|comp FILE          adds a certificate to the user's or to the machine's
//                                              "MY" store, with its key from FILE.key
//   certificate-import remove NAME             removes everything issued by the authority NAME
//
// A certificate is DER, a key a PRIVATEKEYBLOB. The exit code is 0 on success.
#include <windows.h>

#include <wincrypt.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "platform/certificate_store.h"

namespace {

using platform::CertificateContext;
using platform::CertificateStore;
using Bytes = std::vector<std::uint8_t>;

constexpr DWORD kEncoding = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;

struct Failure {
  const char* call;
  DWORD error;
};

void Require(bool done, const char* call) {
  if (!done) {
    throw Failure{call, GetLastError()};
  }
}

Bytes ReadWhole(const std::wstring& path) {
  std::ifstream file(std::filesystem::path(path), std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(file), {});
}

// The store itself, without the machine certificates that appear in a user's store.
CertificateStore OpenStore(DWORD location, const wchar_t* name) {
  CertificateStore store(CertOpenStore(CERT_STORE_PROV_SYSTEM_REGISTRY_W, 0, 0, location, name));
  Require(static_cast<bool>(store), "CertOpenStore");
  return store;
}

CertificateContext Parse(const Bytes& der) {
  CertificateContext certificate(
      CertCreateCertificateContext(kEncoding, der.data(), static_cast<DWORD>(der.size())));
  Require(static_cast<bool>(certificate), "CertCreateCertificateContext");
  return certificate;
}

PCCERT_CONTEXT Native(const CertificateContext& certificate) {
  return static_cast<PCCERT_CONTEXT>(certificate.Get());
}

void Add(const CertificateStore& store, const CertificateContext& certificate) {
  Require(CertAddCertificateContextToStore(store.Get(), Native(certificate),
                                           CERT_STORE_ADD_REPLACE_EXISTING, nullptr) != FALSE,
          "CertAddCertificateContextToStore");
}

// Wine imports the keys of all PKCS #12 files into one container, where a key replaces the one
// before, and looks for the keys of both scopes among the user's. So each certificate gets a
// container of its own, with its name, among the user's keys.
void AttachKey(const CertificateContext& certificate, Bytes key, std::wstring container) {
  HCRYPTPROV provider = 0;
  CryptAcquireContextW(&provider, container.c_str(), MS_ENHANCED_PROV_W, PROV_RSA_FULL,
                       CRYPT_DELETEKEYSET);
  Require(CryptAcquireContextW(&provider, container.c_str(), MS_ENHANCED_PROV_W, PROV_RSA_FULL,
                               CRYPT_NEWKEYSET) != FALSE,
          "CryptAcquireContext");
  HCRYPTKEY imported = 0;
  const bool done = CryptImportKey(provider, key.data(), static_cast<DWORD>(key.size()), 0,
                                   CRYPT_EXPORTABLE, &imported) != FALSE;
  CryptDestroyKey(imported);
  CryptReleaseContext(provider, 0);
  Require(done, "CryptImportKey");
  wchar_t provider_name[] = MS_ENHANCED_PROV_W;
  const CRYPT_KEY_PROV_INFO info{container.data(), provider_name, PROV_RSA_FULL, 0, 0,
                                 nullptr,          AT_KEYEXCHANGE};
  Require(CertSetCertificateContextProperty(Native(certificate), CERT_KEY_PROV_INFO_PROP_ID, 0,
                                            &info) != FALSE,
          "CertSetCertificateContextProperty");
}

void AddWithKey(const std::wstring& path, DWORD location) {
  const CertificateContext certificate = Parse(ReadWhole(path));
  AttachKey(certificate, ReadWhole(path + L".key"), std::filesystem::path(path).stem().wstring());
  Add(OpenStore(location, L"MY"), certificate);
}

// A key container outlives the certificates that refer to it.
void RemoveKey(PCCERT_CONTEXT certificate) {
  DWORD size = 0;
  if (!CertGetCertificateContextProperty(certificate, CERT_KEY_PROV_INFO_PROP_ID, nullptr, &size)) {
    return;
  }
  Bytes buffer(size);
  Require(CertGetCertificateContextProperty(certificate, CERT_KEY_PROV_INFO_PROP_ID, buffer.data(),
                                            &size) != FALSE,
          "CertGetCertificateContextProperty");
  const auto* const key = reinterpret_cast<const CRYPT_KEY_PROV_INFO*>(buffer.data());
  HCRYPTPROV none = 0;
  CryptAcquireContextW(&none, key->pwszContainerName, key->pwszProvName, key->dwProvType,
                       CRYPT_DELETEKEYSET);
}

void RemoveIssuedBy(const std::wstring& authority, DWORD location, const wchar_t* store_name) {
  const CertificateStore store = OpenStore(location, store_name);
  while (const PCCERT_CONTEXT found = CertFindCertificateInStore(
             store.Get(), kEncoding, 0, CERT_FIND_ISSUER_STR_W, authority.c_str(), nullptr)) {
    RemoveKey(found);
    Require(CertDeleteCertificateFromStore(found) != FALSE, "CertDeleteCertificateFromStore");
  }
}

int Run(const std::wstring& command, const std::wstring& argument) {
  if (command == L"authority") {
    Add(OpenStore(CERT_SYSTEM_STORE_LOCAL_MACHINE, L"Root"), Parse(ReadWhole(argument)));
  } else if (command == L"user-authority") {
    Add(OpenStore(CERT_SYSTEM_STORE_CURRENT_USER, L"Root"), Parse(ReadWhole(argument)));
  } else if (command == L"user") {
    AddWithKey(argument, CERT_SYSTEM_STORE_CURRENT_USER);
  } else if (command == L"comp") {
    AddWithKey(argument, CERT_SYSTEM_STORE_LOCAL_MACHINE);
  } else if (command == L"remove") {
    RemoveIssuedBy(argument, CERT_SYSTEM_STORE_CURRENT_USER, L"MY");
    RemoveIssuedBy(argument, CERT_SYSTEM_STORE_LOCAL_MACHINE, L"MY");
    RemoveIssuedBy(argument, CERT_SYSTEM_STORE_CURRENT_USER, L"Root");
    RemoveIssuedBy(argument, CERT_SYSTEM_STORE_LOCAL_MACHINE, L"Root");
  } else {
    return 64;
  }
  return 0;
}

}  // namespace

int wmain(int count, wchar_t** arguments) {
  if (count != 3) {
    std::fputs("usage: certificate-import authority|user-authority|user|comp|remove FILE|NAME\n",
               stderr);
    return 64;
  }
  try {
    return Run(arguments[1], arguments[2]);
  } catch (const Failure& failure) {
    std::fprintf(stderr, "%s failed with %lu\n", failure.call, failure.error);
    return 1;
  }
}
