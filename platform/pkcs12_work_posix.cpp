// Adds up the iterations of a PKCS #12 blob, and decrypts nothing that needs too many.
#include "platform/pkcs12_work_posix.h"

#include <openssl/objects.h>
#include <openssl/pkcs7.h>
#include <openssl/x509.h>

#include <initializer_list>
#include <memory>

namespace platform {
namespace {

struct Deleter {
  void operator()(PBE2PARAM* parameters) const noexcept { PBE2PARAM_free(parameters); }
  void operator()(PBKDF2PARAM* parameters) const noexcept { PBKDF2PARAM_free(parameters); }
  void operator()(PBEPARAM* parameters) const noexcept { PBEPARAM_free(parameters); }
  void operator()(STACK_OF(PKCS7) * parts) const noexcept { sk_PKCS7_pop_free(parts, PKCS7_free); }
  void operator()(STACK_OF(PKCS12_SAFEBAG) * bags) const noexcept {
    sk_PKCS12_SAFEBAG_pop_free(bags, PKCS12_SAFEBAG_free);
  }
};
template <class Type>
using Owned = std::unique_ptr<Type, Deleter>;
using Bags = STACK_OF(PKCS12_SAFEBAG);

template <class Type>
Owned<Type> Unpack(const ASN1_ITEM* item, const X509_ALGOR* algorithm) {
  return Owned<Type>(static_cast<Type*>(ASN1_TYPE_unpack_sequence(item, algorithm->parameter)));
}

// A missing number counts as 1; a negative one, or one that does not fit a `long`, as too many.
long NumberOf(const ASN1_INTEGER* rounds) {
  const long number = rounds == nullptr ? 1 : ASN1_INTEGER_get(rounds);
  return number < 0 ? kMostRounds + 1 : number;
}

// Returns the iterations of a password-based encryption algorithm; 0 for invalid parameters, with
// which the import fails before any computation.
long RoundsOf(const X509_ALGOR* algorithm) {
  if (OBJ_obj2nid(algorithm->algorithm) != NID_pbes2) {
    const auto parameters = Unpack<PBEPARAM>(ASN1_ITEM_rptr(PBEPARAM), algorithm);
    return parameters ? NumberOf(parameters->iter) : 0;
  }
  const auto parameters = Unpack<PBE2PARAM>(ASN1_ITEM_rptr(PBE2PARAM), algorithm);
  if (!parameters || OBJ_obj2nid(parameters->keyfunc->algorithm) != NID_id_pbkdf2) {
    return 0;  // the library itself limits the others
  }
  const auto derivation = Unpack<PBKDF2PARAM>(ASN1_ITEM_rptr(PBKDF2PARAM), parameters->keyfunc);
  return derivation ? NumberOf(derivation->iter) : 0;
}

class Rounds {
 public:
  [[nodiscard]] bool AreTooMany() const { return sum_ > kMostRounds; }

  void Add(long rounds) {
    if (!AreTooMany()) {
      sum_ += rounds > kMostRounds ? kMostRounds + 1 : rounds;
    }
  }

  void AddPart(PKCS7* part) {
    if (PKCS7_type_is_data(part)) {
      AddBags(Owned<Bags>(PKCS12_unpack_p7data(part)).get());
      return;
    }
    if (!PKCS7_type_is_encrypted(part) || part->d.encrypted == nullptr) {
      return;
    }
    Add(RoundsOf(part->d.encrypted->enc_data->algorithm));
    // "No password" is null or empty, depending on the tool that wrote the file.
    for (const char* const password : {static_cast<const char*>(nullptr), ""}) {
      if (!AreTooMany()) {
        AddBags(Owned<Bags>(PKCS12_unpack_p7encdata(part, password, 0)).get());
      }
    }
  }

 private:
  void AddBags(const Bags* bags) {
    for (int i = 0; bags != nullptr && i < sk_PKCS12_SAFEBAG_num(bags); ++i) {
      AddBag(sk_PKCS12_SAFEBAG_value(bags, i));
    }
  }

  void AddBag(const PKCS12_SAFEBAG* bag) {
    const int kind = PKCS12_SAFEBAG_get_nid(bag);
    if (kind == NID_safeContentsBag) {
      AddBags(PKCS12_SAFEBAG_get0_safes(bag));
    } else if (kind == NID_pkcs8ShroudedKeyBag) {
      const X509_ALGOR* algorithm = nullptr;
      X509_SIG_get0(PKCS12_SAFEBAG_get0_pkcs8(bag), &algorithm, nullptr);
      Add(RoundsOf(algorithm));
    }
  }

  long sum_ = 0;
};

}  // namespace

bool NeedsTooManyRounds(PKCS12* pkcs12) noexcept {
  Rounds rounds;
  const ASN1_INTEGER* of_mac = nullptr;
  PKCS12_get0_mac(nullptr, nullptr, nullptr, &of_mac, pkcs12);
  if (PKCS12_mac_present(pkcs12) != 0) {
    rounds.Add(NumberOf(of_mac));
  }
  const Owned<STACK_OF(PKCS7)> parts(PKCS12_unpack_authsafes(pkcs12));
  for (int i = 0; parts && i < sk_PKCS7_num(parts.get()) && !rounds.AreTooMany(); ++i) {
    rounds.AddPart(sk_PKCS7_value(parts.get(), i));
  }
  return rounds.AreTooMany();
}

}  // namespace platform
