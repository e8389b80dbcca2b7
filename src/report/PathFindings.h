// Findings of what OpenSSL says against a path.
#pragma once

#include "report/Evidence.h"

#include <pkx509/Rule.h>

namespace Velantrix::Crypto::PKX509 {

// The rule behind an X509_V_ERR_* code; kUnexplained for one that OpenSSL has given no meaning here.
Rule ruleOf(int code) noexcept;

// Whether it is about who issued a certificate, and whether about its revocation.
bool isAboutTheIssuer(int code) noexcept;
bool isAboutRevocation(int code) noexcept;

// The objection with the values that explain it.
VerificationReport::Finding pathFinding(const Objection& objection, const Evidence& evidence,
                                        const Surroundings& surroundings);

}  // namespace Velantrix::Crypto::PKX509
