// The line that names a certificate and says why it is not valid.
#pragma once

#include <velantrix/Certificate.h>

#include <string>

namespace Velantrix::Crypto::PKX509 {

// `error` is an X509_V_ERR_* code. An empty handle leaves the names out.
std::string failureText(const RefCertificate& certificate, int error);

}  // namespace Velantrix::Crypto::PKX509
