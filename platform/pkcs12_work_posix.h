// Limits the computing time that a PKCS #12 blob can cause.
#pragma once

#include <openssl/pkcs12.h>

namespace platform {

// The maximum number of iterations for all key derivations of a blob together. Each derivation runs
// several times, so an import takes a few seconds at most. Common tools write 2048 to 600000
// iterations for the key, the certificates and the MAC.
inline constexpr long kMostRounds = 2'000'000;

// Returns whether reading the blob without a password takes more than kMostRounds iterations.
//
// The blob itself specifies these numbers (RFC 7292, RFC 8018), and 2^31 iterations would keep a
// run busy for many minutes. A user who can write one account's credentials must not be able to
// block the uploads of all other accounts.
[[nodiscard]] bool NeedsTooManyRounds(PKCS12* pkcs12) noexcept;

}  // namespace platform
