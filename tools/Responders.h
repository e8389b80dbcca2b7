// The OCSP responders of a certificate.
#pragma once

#include <velantrix/Certificate.h>
#include <velantrix/Uri.h>

#include <vector>

namespace Velantrix::Tool {

/// The URIs among the responders that @p certificate names, in their order.
/// @throws Exception when the extension that names them is broken
std::vector<Uri> respondersNamedBy(const Crypto::PKX509::RefCertificate& certificate);

}  // namespace Velantrix::Tool
