#include "revocation/RevocationCheck.h"

#include "foundation/base/Shortfall.h"
#include "foundation/run/VerificationRun.h"
#include "report/SourceRecord.h"
#include "revocation/CRLCollection.h"
#include "revocation/CRLSigners.h"
#include "revocation/CRLStatus.h"
#include "revocation/NoRevocationAvailable.h"
#include "revocation/Responders.h"
#include "revocation/Standings.h"

#include <velantrix/Exception.h>

#include <openssl/x509_vfy.h>

#include <algorithm>
#include <optional>
#include <utility>

namespace Velantrix::Crypto::PKX509::Revocation {

namespace {

// What a failure to find out is called: the first of these that a CRL was set aside for.
int codeOf(const Outcome& outcome) {
  static constexpr std::pair<int, Reason> kTelling[] = {
      {X509_V_ERR_CRL_SIGNATURE_FAILURE, Reason::kWrongSignature},
      {X509_V_ERR_CRL_SIGNATURE_FAILURE, Reason::kTooWeak},
      {X509_V_ERR_DIFFERENT_CRL_SCOPE, Reason::kOtherIssuer},
      {X509_V_ERR_DIFFERENT_CRL_SCOPE, Reason::kOutOfScope},
      {X509_V_ERR_UNHANDLED_CRITICAL_CRL_EXTENSION, Reason::kUnknownCriticalExtension},
      {X509_V_ERR_CRL_HAS_EXPIRED, Reason::kExpired}};
  for (const auto& [code, reason] : kTelling) {
    for (const SetAside& one : outcome.setAside) {
      if (one.reason == reason && one.statement.kind != Statement::Kind::kOCSP) return code;
    }
  }
  return X509_V_ERR_UNABLE_TO_GET_CRL;
}

void beRevoked(Outcome& outcome, const Revoked& how) {
  outcome.status = Status::kRevoked;
  outcome.code = X509_V_ERR_CERT_REVOKED;
  outcome.revoked = how;
}

}  // namespace

class RevocationCheck::Run {
 public:
  Run(RevocationSources& sources, SignerPaths& paths, const RevocationSettings& settings,
      const Moment& moment, const Scope& scope)
      : sources_(sources),
        settings_(settings),
        moment_(moment),
        scope_(scope),
        standings_(paths, scope.wholePath,
                   [this](const RefCertificate& certificate, const Path& path, By by) {
                     return decideOne(certificate, path, by);
                   }) {}

  std::vector<Outcome> decide(const Path& path);

 private:
  // All that is known about one certificate while it is decided.
  struct Subject {
    Subject(const Path& itsPath, Run& run)
        : path(itsPath),
          responders(path, run.sources_, run.settings_, run.moment_),
          crls(path.front(), run.sources_, run.moment_.checked, run.scope_.useDeltas),
          signers(path, run.sources_, run.standings_, run.settings_.securityLevel) {}

    const Path& path;  // from the certificate to the trust anchor
    Responders responders;
    CRLCollection crls;
    CRLSigners signers;
    std::size_t answersLeftOut = 0;  // of what was set aside
  };

  Ruling decideOne(const RefCertificate& certificate, const Path& path, By by);
  Ruling decideBySources(const Path& path, By by);
  Ruling decideOnce(Subject& subject, By by);
  bool settledByOCSP(Subject& subject, Ruling& ruling);
  Standing standingOf(const OCSPReading& answer, const Path& path);
  bool settledByCRLs(Subject& subject, Ruling& ruling);
  void dropListsThatNameTheirSigner(std::list<CRLCandidate>& candidates) const;
  void record(const std::list<CRLCandidate>& candidates, const CRLStatus& found,
              Ruling& ruling) const;

  RevocationSources& sources_;
  const RevocationSettings& settings_;
  const Moment moment_;
  const Scope scope_;
  Standings standings_;
};

// From the trust anchor down, so that who speaks about a certificate has been decided before.
std::vector<Outcome> RevocationCheck::Run::decide(const Path& path) {
  standings_.verifying(path);
  const std::size_t below = path.empty() ? 0 : path.size() - 1;
  std::vector<Outcome> outcomes(scope_.wholePath ? below : std::min<std::size_t>(below, 1));
  for (std::size_t depth = outcomes.size(); depth-- > 0;) {
    outcomes[depth] = standings_.decide(path[depth], restFrom(path, path[depth]), By::kAll).outcome;
    const Status status = outcomes[depth].status;
    if (status == Status::kRevoked || status == Status::kUndetermined) break;
  }
  return outcomes;
}

Ruling RevocationCheck::Run::decideOne(const RefCertificate& certificate, const Path& path, By by) {
  Ruling ruling;
  switch (noRevocationAvailable(certificate)) {
    case NoRevocation::kAsserted:  // RFC 9608, 3: no revocation checking
      ruling.outcome.status = Status::kNotNeeded;
      return ruling;
    case NoRevocation::kMisused:
      ruling.outcome.code = X509_V_ERR_INVALID_EXTENSION;
      return ruling;
    case NoRevocation::kAbsent:
      break;
  }
  try {
    return decideBySources(path, by);
  } catch (const Exception& broken) {
    ruling.outcome.code = X509_V_ERR_INVALID_EXTENSION;
    ruling.outcome.setAsideFor(Reason::kMalformed, {.kind = Statement::Kind::kCertificate},
                               broken.stringParameter());
    return ruling;
  }
}

Ruling RevocationCheck::Run::decideBySources(const Path& path, By by) {
  const SourceRecord::About about(path.front()->native());
  Subject subject(path, *this);
  Ruling ruling = decideOnce(subject, by);
  if (ruling.outcome.status == Status::kUndetermined && standings_.assumeUnrevoked()) {
    for (CRLCandidate& candidate : subject.crls.candidates()) candidate.forgetSigner();
    subject.answersLeftOut = 0;
    ruling = decideOnce(subject, by);
    // What shows that it is revoked, and holds only if it is not, shows nothing.
    if (ruling.outcome.status == Status::kRevoked) {
      Outcome& outcome = ruling.outcome;
      outcome.status = Status::kUndetermined;
      outcome.code = codeOf(outcome);
      for (const Statement& one : std::exchange(outcome.decidedBy, {})) {
        outcome.setAsideFor(Reason::kRestsOnItself, one,
                            "it revokes what its signer's validity depends on");
      }
      outcome.revoked = {};
    }
  }
  ruling.outcome.cut = subject.crls.wasCut() || subject.responders.wasCut();
  return ruling;
}

Ruling RevocationCheck::Run::decideOnce(Subject& subject, By by) {
  Ruling ruling;
  const bool settled = by == By::kAll && scope_.useOCSP && settledByOCSP(subject, ruling);
  subject.responders.done();
  if (settled) return ruling;
  subject.crls.gatherFromPoints();
  if (settledByCRLs(subject, ruling)) return ruling;
  if (subject.crls.gatherBehindCaches() && settledByCRLs(subject, ruling)) return ruling;
  subject.crls.gatherByIssuer();
  if (!settledByCRLs(subject, ruling)) ruling.outcome.code = codeOf(ruling.outcome);
  return ruling;
}

// RFC 6960: the first answer that counts. False when there is none, or it says "unknown" (2.2): then the
// CRLs are asked.
bool RevocationCheck::Run::settledByOCSP(Subject& subject, Ruling& ruling) {
  Outcome& outcome = ruling.outcome;
  // However many responders a certificate names, there is room left for what becomes of the CRLs.
  const auto setAside = [&](Reason reason, const OCSPReading& answer,
                            const std::shared_ptr<const AboutSigner>& signer) {
    if (outcome.setAside.size() < Outcome::kMaximumSetAside / 2) {
      outcome.setAsideFor(reason, answer.statement, answer.detail, signer);
    } else {
      ++subject.answersLeftOut;
    }
  };
  for (std::size_t i = 0; const OCSPReading* const answer = subject.responders.answer(i); ++i) {
    Standing standing{.refused = answer->refused};
    if (!answer->refused && !answer->delegate.empty()) standing = standingOf(*answer, subject.path);
    if (standing.refused) {
      setAside(*standing.refused, *answer, answer->refused ? answer->aboutSigner : standing.about);
      subject.responders.isOfNoUse(i);
      continue;
    }
    if (answer->status == OCSPReading::Status::kUnknown) {
      setAside(Reason::kStatusUnknown, *answer, {});
      return false;
    }
    subject.responders.isOfUse(i);
    outcome.decidedBy = {answer->statement};
    ruling.restsOn = standing.restsOn;
    if (answer->status == OCSPReading::Status::kRevoked) {
      beRevoked(outcome, answer->revoked);
    } else {
      outcome.status = Status::kGood;
    }
    return true;
  }
  return false;
}

// RFC 6960, 4.2.2.2: the delegate is certified by the CA that has issued the certificate in question, with
// the same key, and 4.2.2.2.1: it is not revoked.
Standing RevocationCheck::Run::standingOf(const OCSPReading& answer, const Path& path) {
  const VerificationRun run(nullptr);
  if (run.refusal() != nullptr) {
    Shortfall::note();
    return {.refused = Reason::kTooManyNested};
  }
  const Path delegates = standings_.pathOf(answer.delegate, path);
  if (delegates.size() < 2) return standings_.withoutPath(answer.delegate);
  if (EVP_PKEY_eq(X509_get0_pubkey(delegates[1]), X509_get0_pubkey(path[1])) != 1) {
    return {.refused = Reason::kSignerNotAllowed, .about = aboutAlone(answer.delegate)};
  }
  if (!answer.delegateNeedsNoCheck) return standings_.of(delegates, By::kCRLsOnly);
  if (!scope_.wholePath) return {};
  return standings_.of(Path(delegates.begin() + 1, delegates.end()), By::kAll);
}

// RFC 5280, 6.3.3, with the CRLs that have been gathered. False when the status has not been determined.
bool RevocationCheck::Run::settledByCRLs(Subject& subject, Ruling& ruling) {
  std::list<CRLCandidate>& candidates = subject.crls.candidates();
  subject.signers.authenticate(candidates);
  subject.crls.gatherAnnouncedDeltas();
  subject.signers.authenticate(candidates);
  dropListsThatNameTheirSigner(candidates);

  std::vector<const CRLCandidate*> all;
  for (const CRLCandidate& candidate : candidates) all.push_back(&candidate);
  const CRLStatus found = statusFrom(all, subject.path.front(), moment_.checked, settings_);
  ruling.outcome.leftOut = subject.answersLeftOut;
  record(candidates, found, ruling);
  return found.status != Status::kUndetermined;
}

// A list that revokes its own signer's certificate takes the word from its key, whatever else that has
// signed.
void RevocationCheck::Run::dropListsThatNameTheirSigner(std::list<CRLCandidate>& candidates) const {
  std::vector<RefCertificate> silenced;
  for (const CRLCandidate& candidate : candidates) {
    const bool authentic = candidate.counts() || candidate.unauthentic == Reason::kNamesItsSigner;
    if (authentic && isCurrentAt(*candidate.crl.get(), moment_.checked, settings_.maximumCRLAge) &&
        revokes(*candidate.crl.get(), candidate.signer)) {
      silenced.push_back(candidate.signer);
    }
  }
  for (CRLCandidate& candidate : candidates) {
    const bool drop = candidate.counts() &&
                      std::any_of(silenced.begin(), silenced.end(), [&](const RefCertificate& one) {
                        return EVP_PKEY_eq(X509_get0_pubkey(one), candidate.key()) == 1;
                      });
    if (!drop) continue;
    candidate.unauthentic = Reason::kNamesItsSigner;
    candidate.aboutSigner = aboutAlone(candidate.signer);
  }
}

// The evidence; what was set aside of CRLs before is said anew.
void RevocationCheck::Run::record(const std::list<CRLCandidate>& candidates, const CRLStatus& found,
                                  Ruling& ruling) const {
  Outcome& outcome = ruling.outcome;
  std::erase_if(outcome.setAside,
                [](const SetAside& one) { return one.statement.kind != Statement::Kind::kOCSP; });
  for (const CRLCandidate& candidate : candidates) {
    const auto reason = candidate.refused ? candidate.refused : candidate.unauthentic;
    if (!reason) continue;
    outcome.setAsideFor(*reason, statementOf(candidate), candidate.detail, candidate.aboutSigner);
  }
  for (const auto& [candidate, reason, detail] : found.setAside) {
    outcome.setAsideFor(reason, statementOf(*candidate), detail);
  }
  outcome.covering.clear();
  for (const CRLCandidate* const candidate : found.decidedBy) {
    if (found.status == Status::kUndetermined) {
      outcome.covering.push_back(statementOf(*candidate));
      continue;
    }
    outcome.decidedBy.push_back(statementOf(*candidate));
    ruling.restsOn.insert(candidate->restsOn.begin(), candidate->restsOn.end());
  }
  outcome.uncoveredReasons = found.uncoveredReasons;
  outcome.status = found.status;
  if (found.status == Status::kRevoked) beRevoked(outcome, found.revoked);
}

RevocationCheck::RevocationCheck(RevocationSources& sources, SignerPaths& paths,
                                 const RevocationSettings& settings, const Moment& moment,
                                 const Scope& scope)
    : run_(std::make_unique<Run>(sources, paths, settings, moment, scope)) {}

RevocationCheck::~RevocationCheck() = default;

std::vector<Outcome> RevocationCheck::decide(const std::vector<RefCertificate>& path) {
  return run_->decide(path);
}

}  // namespace Velantrix::Crypto::PKX509::Revocation
