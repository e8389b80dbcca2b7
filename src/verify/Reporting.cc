// How a verifier reports: what it has left behind, and what is looked at when somebody reads.
#include "foundation/base/Log.h"
#include "foundation/run/Counters.h"
#include "report/OutcomeRecord.h"
#include "report/PathFindings.h"
#include "report/TrustDirectory.h"
#include "store/StoreRecord.h"
#include "verify/BuiltChain.h"
#include "verify/ContextObjection.h"
#include "verify/PathRecheck.h"
#include "verify/VerifierState.h"

#include <pkx509/FixedPaths.h>
#include <velantrix/CertificateFactory.h>
#include <velantrix/Exception.h>

#include <boost/system/system_error.hpp>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <memory>
#include <new>
#include <system_error>

namespace Velantrix::Crypto::PKX509 {

namespace {

using ReportOrigin = VerificationReport::Origin;

std::atomic<bool> everyVerifierLogs = false;

std::vector<RefCertificate> pathIn(const X509_STORE_CTX* context, const RefCertificate& target) {
  std::vector<RefCertificate> path = chainOf(context);
  if (path.empty() && !target.empty()) path.push_back(target);
  return path;
}

bool holds(const STACK_OF(X509) * stack, const X509* certificate) {
  for (int i = 0; i < sk_X509_num(stack); ++i) {
    if (sk_X509_value(stack, i) == certificate) return true;
  }
  return false;
}

bool holdsIssuer(const STACK_OF(X509) * stack, const X509_NAME* issuer) {
  for (int i = 0; i < sk_X509_num(stack); ++i) {
    if (X509_NAME_cmp(X509_get_subject_name(sk_X509_value(stack, i)), issuer) == 0) return true;
  }
  return false;
}

Evidence::Thrown describe(const std::exception_ptr& thrown) {
  using Kind = Evidence::Thrown::Kind;
  try {
    std::rethrow_exception(thrown);
  } catch (const std::bad_alloc& failure) {
    return {Kind::kMemory, failure.what()};
  } catch (const Exception& failure) {
    return {Kind::kLibrary, failure.asString()};
  } catch (const boost::system::system_error& failure) {
    return {Kind::kClientIdentity, failure.what()};
  } catch (const std::exception& failure) {
    return {Kind::kOther, failure.what()};
  } catch (...) {
    return {Kind::kOther, "an exception of an unknown kind"};
  }
}

std::uint64_t microsecondsOf(std::chrono::nanoseconds duration) noexcept {
  return static_cast<std::uint64_t>(
      std::chrono::duration_cast<std::chrono::microseconds>(duration).count());
}

bool isDirectory(const char* path) {
  std::error_code none;
  return std::filesystem::is_directory(path, none);
}

}  // namespace

void Verifier::logReportLine(bool on) noexcept { everyVerifierLogs = on; }

void Verifier::State::takeThrown(const std::exception_ptr& thrown) noexcept {
  evidence.code = X509_V_ERR_UNSPECIFIED;
  try {
    evidence.thrown = describe(thrown);
  } catch (...) {
    evidence.thrown = Evidence::Thrown();  // without a text
  }
}

void Verifier::State::beginEvidence(const Verifier& verifier) noexcept {
  std::optional<VerificationReport::Finding> earlier;
  try {
    if (verifier.error != X509_V_OK && evidence.verified) {
      const VerificationReport before = verifier.report();
      if (!before.findings().empty()) earlier = before.findings().front();
    }
    if (evidence.earlierStands) earlier = evidence.earlier;
  } catch (const std::exception&) {
    // It is told without.
  }
  evidence = Evidence();
  evidence.verified = true;
  evidence.code = X509_V_ERR_UNSPECIFIED;
  evidence.earlier = std::move(earlier);
  decidedByItself.reset();
  verifiedAt = Time::now();
}

void Verifier::State::noteObjection() {
  Objection objection = objectionOf(context.get());
  if (useOpenSSLRevocation && isAboutRevocation(objection.code)) {
    objection.crl = handedOut;
    X509* const issuer = X509_STORE_CTX_get0_current_issuer(context.get());
    if (objection.code == X509_V_ERR_CRL_SIGNATURE_FAILURE && issuer != nullptr) {
      objection.signer = CertificateFactory()(issuer, false);
    }
  }
  evidence.objections.push_back(std::move(objection));
}

void Verifier::State::noteCallback(bool passed) {
  X509_STORE_CTX* const native = context.get();
  if (X509_STORE_CTX_get_verify_cb(native) != verifyCallback && !evidence.failedDepth) {
    evidence.callbackDecides = true;
    const bool objected = X509_STORE_CTX_get_error(native) != X509_V_OK;
    if (objected) evidence.objections.push_back(objectionOf(native));
    if (objected && passed) evidence.intervention = Evidence::Intervention::kCallbackAccepted;
  }
  if (useOpenSSLRevocation) noteContent(passed);
}

// OpenSSL's own check of revocation, from the certificate itself upwards, says nothing about those that
// it has no objection to.
void Verifier::State::noteContent(bool passed) noexcept {
  std::size_t content = evidence.revocation.size();
  if (!passed && !evidence.objections.empty()) {
    const Objection& last = evidence.objections.back();
    if (isAboutRevocation(last.code) && last.depth >= 0) {
      content = std::min(content, static_cast<std::size_t>(last.depth));
    }
  }
  for (std::size_t i = 0; i < content; ++i) {
    Revocation::Outcome& one = evidence.revocation[i];
    const bool undetermined = one.status == Revocation::Status::kUndetermined;
    if (undetermined && !one.decidedBy.empty()) one.status = Revocation::Status::kGood;
  }
}

void Verifier::State::noteContent(X509_STORE_CTX* native, X509_CRL* crl, X509* target) noexcept {
  const auto depth = static_cast<std::size_t>(X509_STORE_CTX_get_error_depth(native));
  if (handedOut.empty() || handedOut->native() != crl || depth >= evidence.revocation.size())
    return;
  Revocation::Outcome& outcome = evidence.revocation[depth];
  try {
    X509_REVOKED* entry = nullptr;  // borrowed from the CRL
    if (X509_CRL_get0_by_cert(crl, &entry, target) == 1) {
      outcome.status = Revocation::Status::kRevoked;
      outcome.decidedBy = {OutcomeRecord::statementOn(handedOut)};
    } else if (outcome.status == Revocation::Status::kUndetermined &&
               outcome.decidedBy.size() < OutcomeRecord::kMaximumDecisive) {
      outcome.decidedBy.push_back(OutcomeRecord::statementOn(handedOut));
    }
  } catch (const std::exception&) {
    // What is only told must not cost more than the telling.
  }
}

void Verifier::State::noteOverride(bool passed) noexcept {
  if (passed) evidence.failedDepth.reset();
  if (decidedByItself == passed) return;
  evidence.intervention =
      passed ? Evidence::Intervention::kOverrideAccepted : Evidence::Intervention::kOverrideRefused;
}

// What all of the run has left, for the report that outlives it.
void Verifier::State::takeTotals(VerificationRun& run,
                                 std::chrono::steady_clock::time_point start) noexcept {
  VerificationReport::Totals& totals = evidence.totals;
  totals.microseconds = microsecondsOf(std::chrono::steady_clock::now() - start);
  totals.networkMicroseconds = microsecondsOf(run.network().timeSpent());
  totals.networkBytes = run.network().bytesSpent();
  totals.lookups = run.lookups();
  if (!run.isOutermost()) return;
  try {
    evidence.spent = run.spent();
    evidence.sources = std::move(*VerificationRun::kept<SourceRecord>());
    evidence.origins = std::move(*VerificationRun::kept<ObjectOrigins>());
  } catch (const std::exception&) {
    // They explain, and decide nothing.
  }
}

ReportOrigin Verifier::State::originOf(const RefCertificate& one, std::size_t depth,
                                       const Verifier& verifier) const {
  if (depth == 0) return {ReportOrigin::Kind::kCaller, {}};
  if (holds(X509_STORE_CTX_get0_untrusted(context.get()), one))
    return {ReportOrigin::Kind::kMessage, {}};
  if (const auto known = evidence.origins.of(one->native())) return *known;
  for (const RefObject& object : verifier.store->objects()) {
    if (object->type == Object::TypeCertificate && object->certificate == one) {
      return {ReportOrigin::Kind::kStore, {}};
    }
  }
  const std::string& directory = verifier.store->directory();
  std::string file = fileInDirectories(directory, one);
  if (file.empty()) return {};
  return {ReportOrigin::Kind::kTrustDirectory, directory, std::move(file)};
}

// The directory of trusted certificates, where nothing else could have had what ends a path.
std::string Verifier::State::onlyTrustDirectory(const ObjectStore& store) {
  for (const RefLookupMethod& method : store.methods()) {
    if (!method.empty() && method->isTrustSource()) return {};
  }
  const STACK_OF(X509_OBJECT)* const held = X509_STORE_get0_objects(store.native());
  const StoreRecord* const record = StoreRecord::of(store.native());
  for (int i = 0; i < sk_X509_OBJECT_num(held); ++i) {
    X509* const one = X509_OBJECT_get0_X509(sk_X509_OBJECT_value(held, i));
    if (one != nullptr && (record == nullptr || !record->distrusts(one))) return {};
  }
  return store.directory();
}

// Whether there is anything that a finding may be made of.
bool Verifier::State::hasToExplain() const noexcept {
  return evidence.code != X509_V_OK || evidence.callbackDecides || !evidence.objections.empty() ||
         evidence.intervention != Evidence::Intervention::kNone;
}

Surroundings Verifier::State::conditions(const Verifier& verifier) const {
  X509_STORE_CTX* const native = context.get();
  Surroundings all;
  all.path = pathIn(native, verifier.certificate);
  X509_VERIFY_PARAM* const param = X509_STORE_CTX_get0_param(native);
  if (param == nullptr) {  // there was no memory to make the context anew
    all.checked = verifiedAt;
    return all;
  }
  all.checked = (X509_VERIFY_PARAM_get_flags(param) & X509_V_FLAG_USE_CHECK_TIME) != 0
                    ? Time::then(X509_VERIFY_PARAM_get_time(param), true)
                    : verifiedAt;
  if (!hasToExplain()) return all;
  all.securityLevel = securityLevelOf(native, leastSecurityLevel);
  all.maximumDepth = X509_VERIFY_PARAM_get_depth(param);
  all.requiredPolicies = verifier.config.policies;
  all.trustDirectory = onlyTrustDirectory(*verifier.store.get());
  all.issuerCameAlong = !all.path.empty() && holdsIssuer(X509_STORE_CTX_get0_untrusted(native),
                                                         X509_get_issuer_name(all.path.back()));
  all.crlDirectory = kCRLDirectory;
  all.hasCRLSources = !verifier.store->methods().empty() || isDirectory(kCRLDirectory);
  return all;
}

// Whether something may be wrong with the path that the verdict does not say.
bool Verifier::State::pathIsInQuestion() const noexcept {
  if (evidence.callbackDecides) return true;
  if (evidence.code == X509_V_OK || evidence.pathVerified) return false;
  return std::none_of(evidence.objections.begin(), evidence.objections.end(),
                      [this](const Objection& one) {
                        // An issuer that was not looked for any more hides what is wrong besides.
                        if (evidence.fellShort && isAboutTheIssuer(one.code)) return false;
                        return factsOf(ruleOf(one.code)).outcome == Outcome::kPermanent;
                      });
}

Surroundings Verifier::State::surroundings(const Verifier& verifier) const {
  Surroundings all = conditions(verifier);
  for (std::size_t i = 0; i < all.path.size(); ++i) {
    all.origins.push_back(originOf(all.path[i], i, verifier));
  }
  lookAgain(all);
  return all;
}

void Verifier::State::lookAgain(Surroundings& all) const {
  if (X509_STORE_CTX_get0_param(context.get()) == nullptr || !pathIsInQuestion()) return;
  const Recheck extent = evidence.callbackDecides ? Recheck::kEverything : Recheck::kVouchedFor;
  all.again = objectionsToPath(context.get(), leastSecurityLevel, all.checked, extent);
}

VerificationReport Verifier::report() const {
  if (!state_->evidence.verified) return VerificationReport();
  return makeReport(state_->evidence, state_->surroundings(*this));
}

void Verifier::State::end(const Verifier& verifier, VerificationRun& run,
                          std::chrono::steady_clock::time_point start) noexcept {
  takeTotals(run, start);
  if (run.isOutermost()) countRun(verifier, run);
  if (evidence.code == X509_V_OK || !OutcomeRecord::isAwaited()) return;
  try {
    const auto left = std::make_shared<LeftBehind>();
    left->evidence = evidence;
    left->surroundings = conditions(verifier);
    OutcomeRecord::leave(left);
  } catch (const std::exception&) {
    // What is only told must not cost more than the telling.
  }
}

// Of an outermost run, once: by a second look at the path only where a report is made anyway; its line is
// logged where one is wanted. The verdict stands, whatever becomes of either.
Outcome Verifier::State::failureOutcome(const Verifier& verifier) const noexcept {
  try {
    if (logsLine || everyVerifierLogs) {
      const VerificationReport report = verifier.report();
      logAlways(kPriorityNotice, report.line());
      return report.outcome();
    }
    Surroundings all = conditions(verifier);
    all.rulesOnly = true;
    return outcomeOf(evidence, all);
  } catch (const std::exception&) {
    return factsOf(ruleOf(evidence.code))
        .outcome;  // and the lines before it have said what is wrong
  }
}

void Verifier::State::countRun(const Verifier& verifier,
                               const VerificationRun& run) const noexcept {
  countVerification(evidence.code == X509_V_OK ? Outcome::kValid : failureOutcome(verifier));
  // A short run is hardly ever interrupted, and the processor's clock would be a system call more: what it
  // did not wait for hosts, it computed.
  constexpr std::uint64_t kShort = 1000;
  const VerificationReport::Totals& totals = evidence.totals;
  std::uint64_t computed =
      totals.microseconds - std::min(totals.microseconds, totals.networkMicroseconds);
  if (computed > kShort) {
    if (const auto exactly = run.processorTime()) computed = microsecondsOf(*exactly);
  }
  count(Statistics::Counter::kProcessorMicroseconds, computed);
}

}  // namespace Velantrix::Crypto::PKX509
