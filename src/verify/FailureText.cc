#include "verify/FailureText.h"

#include "foundation/base/Log.h"

#include <velantrix/Exception.h>

#include <openssl/x509_vfy.h>

#include <sstream>

namespace Velantrix::Crypto::PKX509 {

std::string failureText(const RefCertificate& certificate, int error) {
  std::ostringstream text;
  if (!certificate.empty()) {
    text << "Certificate, ( " << certificate->subject().asString() << " / "
         << certificate->issuer().asString();
    try {
      text << " serialNumber: " << certificate->serialNumber();
    } catch (const Exception&) {
      text << " serialNumber: ????";
    }
  }
  text << ") is not valid, " << X509_verify_cert_error_string(error);
  return text.str();
}

void logFailure(const RefCertificate& certificate, int error, std::string_view detail) {
  std::string text = failureText(certificate, error);
  if (!detail.empty()) text.append(": ").append(detail);
  logAlways(kPriorityDebug, text);
}

}  // namespace Velantrix::Crypto::PKX509
