// The line that names a certificate and says why it is not valid.
#pragma once

#include <velantrix/Certificate.h>

#include <string>
#include <string_view>

namespace Velantrix::Crypto::PKX509 {

// `error` is an X509_V_ERR_* code. An empty handle leaves the names out.
std::string failureText(const RefCertificate& certificate, int error);

// Logs it, with what is known beyond the code. It is written however many lines the run has logged:
// every rejection is explained.
void logFailure(const RefCertificate& certificate, int error, std::string_view detail = {});

}  // namespace Velantrix::Crypto::PKX509
