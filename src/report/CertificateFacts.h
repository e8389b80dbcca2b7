// What every report says of a certificate, made once for as long as it is in use: trust anchors and
// intermediates stand on one path after the other, and their fingerprints are the dearest part of a
// report.
#pragma once

#include "report/FindingMaker.h"
#include "report/ReportContent.h"

#include <memory>

namespace Velantrix::Crypto::PKX509 {

// Of a certificate that is not empty. The facts of those read last are remembered in the process, with
// the certificate, by identity: who holds one does not change it any more.
std::shared_ptr<const CertificateFacts> factsAbout(const RefCertificate& certificate,
                                                   NameTexts& texts);

}  // namespace Velantrix::Crypto::PKX509
