// How much computing a PKCS #12 blob asks of its reader.
#pragma once

#include <openssl/pkcs12.h>

namespace platform {

// Rounds that a blob may name at most, all its key derivations together. Each is made a few times,
// so that an import takes seconds at the very most. Makers of such files name 2048 to 600000, for
// the key, for the certificates and for the check of the whole.
inline constexpr long kMostRounds = 2'000'000;

// The attacker is a user who can write an account's credentials: one file must not keep the run,
// and with it the files of every other account, from ending.
//
// Whether reading the blob without a password takes more than that. A blob names its numbers of
// rounds itself (RFC 7292, RFC 8018), and 2^31 of them keep a run busy for many minutes.
[[nodiscard]] bool AsksForTooManyRounds(PKCS12* pkcs12) noexcept;

}  // namespace platform
