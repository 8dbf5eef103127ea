// Limits the computing time that a PKCS #12 blob can demand.
#pragma once

#include <openssl/pkcs12.h>

namespace platform {

// The most rounds that a blob may name for all its key derivations together. Each derivation runs a
// few times, so an import takes a few seconds at most. Common tools write 2048 to 600000 rounds,
// for the key, the certificates and the MAC.
inline constexpr long kMostRounds = 2'000'000;

// The attacker is a user who can write an account's credentials: one file must not block the run,
// and with it the files of every other account.
//
// Whether reading the blob without a password takes more than kMostRounds. A blob names its numbers
// of rounds itself (RFC 7292, RFC 8018), and 2^31 of them keep a run busy for many minutes.
[[nodiscard]] bool NeedsTooManyRounds(PKCS12* pkcs12) noexcept;

}  // namespace platform
