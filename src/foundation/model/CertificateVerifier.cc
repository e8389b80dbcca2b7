#include <velantrix/CertificateVerifier.h>

namespace Velantrix::Crypto::PKX509 {

CertificateVerifier* CertificateVerifier::s_instance = nullptr;

CertificateVerifier::CertificateVerifier() = default;
CertificateVerifier::~CertificateVerifier() = default;

}  // namespace Velantrix::Crypto::PKX509
