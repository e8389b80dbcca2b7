// Findings of what was found out about a certificate's revocation.
#pragma once

#include "report/Evidence.h"
#include "report/FindingMaker.h"

#include <cstddef>
#include <optional>
#include <vector>

namespace Velantrix::Crypto::PKX509 {

// The rule for which a statement of that kind does not count.
Rule ruleOf(Revocation::Reason reason, Revocation::Statement::Kind kind) noexcept;

// A statement's place, with its file where that is known.
VerificationReport::Origin originOf(const Revocation::Statement& statement,
                                    const ObjectOrigins& origins);

VerificationReport::RevocationResult resultOf(const Revocation::Outcome& outcome,
                                              const ObjectOrigins& origins, NameTexts& texts);

// One certificate and the outcome of its check.
struct Checked {
  const RefCertificate& certificate;
  int depth;
  const Revocation::Outcome& outcome;
};

// What OpenSSL's own check of a certificate's revocation has objected to, and to the path of who signed
// the CRL.
void objected(const Objection& objection, const std::optional<Objection>& toSigner,
              Revocation::Outcome& outcome);

// How many findings about the signers of statements a report makes: signers have statements too, and so on.
struct NestedFindings {
  bool take() noexcept {
    if (left == 0) ++leftOut;
    return left > 0 && left-- > 0;
  }

  std::size_t left = VerificationReport::kMaximumFindings;
  std::size_t leftOut = 0;
};

// Why it is refused, the decisive finding first; of one that is not refused, what did not count.
std::vector<VerificationReport::Finding> revocationFindings(const Checked& checked,
                                                            const Evidence& evidence,
                                                            const Surroundings& surroundings,
                                                            NestedFindings& nested);

}  // namespace Velantrix::Crypto::PKX509
