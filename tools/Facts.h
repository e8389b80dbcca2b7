// What stands in a certificate or a CRL, as the library sees it, and how it is written.
#pragma once

#include "Value.h"

#include <velantrix/Certificate.h>
#include <velantrix/CertificateRevocationList.h>

#include <string>

namespace Velantrix::Tool {

/// The facts of one object, by the keys of the JSON output, in their order. Every key is always
/// there; what the object does not have is null. Texts are as the library gives them; writers
/// escape.
///
/// What is broken is null as well, and "problems" says why, by the same key.
using Facts = Value;

Facts factsOf(const std::string& file, const Crypto::PKX509::RefCertificate& certificate);
Facts factsOf(const std::string& file, const Crypto::PKX509::RefCertificateRevocationList& crl);

/// Whether a part of the object is broken.
bool hasProblems(const Facts& facts);

/// For people.
std::string factsText(const Facts& facts);

}  // namespace Velantrix::Tool
