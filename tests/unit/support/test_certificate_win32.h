// A certificate without a key, for a test.
#pragma once

#include "platform/certificate_store.h"

namespace kyd_test {

// Always the same certificate; it is in no store.
[[nodiscard]] platform::CertificateContext MakeCertificate();

}  // namespace kyd_test
