// Findings of sources that failed.
#pragma once

#include "report/FindingMaker.h"
#include "report/SourceRecord.h"

#include <string>
#include <vector>

namespace Velantrix::Crypto::PKX509 {

// The source of certificates that failed while the path was built; borrowed, null when there is none.
const SourceRecord::Use* failedIssuerSource(const SourceRecord& sources);

// What failed for the revocation of the certificate, borrowed from the record.
std::vector<const SourceRecord::Use*> failedFor(const X509* certificate,
                                                const SourceRecord& sources);

// For people.
std::string reasonOf(const UseFacts& facts);
Rule ruleOf(const SourceRecord::Use& failed) noexcept;
// What happened, with the values that explain it.
void addUse(FindingMaker& maker, const SourceRecord::Use& use);
VerificationReport::Finding sourceFinding(const SourceRecord::Use& failed,
                                          const RefCertificate& certificate, int depth, int code);

}  // namespace Velantrix::Crypto::PKX509
