// A certificate without its key, for a test.
#pragma once

#include "platform/certificate_store.h"

namespace kyd_test {

// Always the same certificate, in no store.
[[nodiscard]] platform::CertificateContext MakeCertificate();

}  // namespace kyd_test
