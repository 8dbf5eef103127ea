// The two roads to a client certificate.
#include "socket/certificate_selection.h"

namespace CorvidSocket {

// Certificates are not selected yet: the pair stays empty.
void ParseAuthParam(ClientCertificate& /*pair*/, const kyd::UploadAuthData& /*credentials*/,
                    const kyd::CompanionRun& /*companion*/) noexcept {}

void SelectStoreCert(ClientCertificate& /*pair*/,
                     const kyd::UploadAuthData& /*credentials*/) noexcept {}

}  // namespace CorvidSocket
