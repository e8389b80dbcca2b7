#include "foundation/base/NoCancellation.h"
#include "foundation/openssl/OpenSSLOwners.h"
#include "foundation/run/VerificationRun.h"
#include "revocation/RevocationCheck.h"
#include "store/TrustSources.h"
#include "verify/ContextObjection.h"
#include "verify/FailureText.h"
#include "verify/Namesakes.h"
#include "verify/StoreCallbacks.h"
#include "verify/TrustedEnd.h"
#include "verify/VerifierPaths.h"
#include "verify/VerifierSources.h"
#include "verify/VerifierState.h"

#include <pkx509/ConformingVerifier.h>
#include <velantrix/CertificateFactory.h>
#include <velantrix/Time.h>

#include <algorithm>
#include <cstddef>
#include <ctime>
#include <optional>
#include <utility>
#include <vector>

namespace Velantrix::Crypto::PKX509 {

namespace {

constexpr unsigned long kCRLFlags = X509_V_FLAG_CRL_CHECK | X509_V_FLAG_CRL_CHECK_ALL;

// One now for all of an outermost run, so that path, CRLs and OCSP answers see the same.
struct Now {
  Time time = Time::now();
};

Time nowOfRun() {
  const Now* const now = VerificationRun::kept<Now>();
  return now == nullptr ? Time::now() : now->time;
}

unsigned long flagsOf(X509_STORE_CTX* context) noexcept {
  return X509_VERIFY_PARAM_get_flags(X509_STORE_CTX_get0_param(context));
}

Revocation::Moment momentOf(X509_STORE_CTX* context) {
  const Time now = nowOfRun();
  if ((flagsOf(context) & X509_V_FLAG_USE_CHECK_TIME) == 0) return {.checked = now, .now = now};
  const std::time_t wanted = X509_VERIFY_PARAM_get_time(X509_STORE_CTX_get0_param(context));
  return {.checked = Time::then(wanted, true), .now = now};
}

// The parameters of a context while OpenSSL builds and verifies the path: without CRLs, at one moment,
// at the least security level. The caller finds them again as they were.
class ForPath {
 public:
  ForPath(X509_STORE_CTX* context, int securityLevel)
      : context_(context),
        flags_(flagsOf(context)),
        time_(X509_VERIFY_PARAM_get_time(param())),
        level_(X509_VERIFY_PARAM_get_auth_level(param())) {
    const Time now = nowOfRun();
    X509_VERIFY_PARAM_clear_flags(param(), kCRLFlags);
    if (ownTime()) X509_VERIFY_PARAM_set_time(param(), now.seconds());
    X509_VERIFY_PARAM_set_auth_level(param(), securityLevelOf(context, securityLevel));
  }
  ~ForPath() {
    if (ownTime()) {
      X509_VERIFY_PARAM_set_time(param(), time_);
      X509_VERIFY_PARAM_clear_flags(param(), X509_V_FLAG_USE_CHECK_TIME);
    }
    X509_VERIFY_PARAM_set_flags(param(), flags_ & kCRLFlags);
    X509_VERIFY_PARAM_set_auth_level(param(), level_);
  }
  ForPath(const ForPath&) = delete;
  ForPath& operator=(const ForPath&) = delete;

 private:
  X509_VERIFY_PARAM* param() const noexcept { return X509_STORE_CTX_get0_param(context_); }
  // The caller says nothing about the time.
  bool ownTime() const noexcept {
    return (flags_ & (X509_V_FLAG_USE_CHECK_TIME | X509_V_FLAG_NO_CHECK_TIME)) == 0;
  }

  X509_STORE_CTX* context_;
  unsigned long flags_;
  std::time_t time_;
  int level_;
};

RefStackOfCertificate untrustedOf(const X509_STORE_CTX* context) {
  const STACK_OF(X509)* const stack = X509_STORE_CTX_get0_untrusted(context);
  std::list<RefCertificate> certificates;
  for (int i = 0; i < sk_X509_num(stack); ++i) {
    certificates.push_back(CertificateFactory()(sk_X509_value(stack, i), false));
  }
  return RefStackOfCertificate(certificates);
}

Verifier::Config withDefaultFlags() {
  Verifier::Config config;
  config.flags = ConformingVerifier::kDefaultFlags;
  return config;
}

// Whether a path could end with it: as it is in a trusted source, and as OpenSSL would have it.
bool isAnchor(X509_STORE_CTX* context, X509* certificate) {
  const bool partial = (flagsOf(context) & X509_V_FLAG_PARTIAL_CHAIN) != 0;
  return (partial || X509_self_signed(certificate, 0) == 1) &&
         TrustSources(context).have(certificate);
}

bool hasEmptyHandle(const std::list<RefCertificate>& chain) {
  return std::any_of(chain.begin(), chain.end(),
                     [](const RefCertificate& certificate) { return certificate.empty(); });
}

// By a lookup method that OpenSSL has asked; it is thrown on at the end.
bool somethingWasThrown() noexcept {
  const VerificationRun* const run = VerificationRun::current();
  return run != nullptr && run->hasParked();
}

bool isFailure(const Revocation::Outcome& outcome) noexcept {
  return outcome.status == Revocation::Status::kRevoked ||
         outcome.status == Revocation::Status::kUndetermined;
}

}  // namespace

struct ConformingVerifier::Part {
  explicit Part(const RevocationSettings& chosen) : settings(chosen) {}

  RevocationSettings settings;
  std::optional<Namesakes> namesakes;  // for the path
};

ConformingVerifier::ConformingVerifier(const RefObjectStore& trustStore,
                                       const RefCertificate& target)
    : ConformingVerifier(trustStore, target, RefStackOfCertificate()) {}

ConformingVerifier::ConformingVerifier(const RefObjectStore& trustStore,
                                       const RefCertificate& target,
                                       const RefStackOfCertificate& stack)
    : Verifier(TrustedEnd::install, trustStore, target, stack, withDefaultFlags()),
      part_(std::make_unique<Part>(RevocationSettings())) {
  begin();
}

ConformingVerifier::ConformingVerifier(const RefObjectStore& trustStore,
                                       const RefCertificate& target,
                                       const RefStackOfCertificate& stack, Config& configuration)
    : ConformingVerifier(trustStore, target, stack, configuration, RevocationSettings()) {}

ConformingVerifier::ConformingVerifier(const RefObjectStore& trustStore,
                                       const RefCertificate& target,
                                       const RefStackOfCertificate& stack, Config& configuration,
                                       const RevocationSettings& chosen)
    : Verifier(TrustedEnd::install, trustStore, target, stack, configuration),
      part_(std::make_unique<Part>(chosen)) {
  begin();
}

ConformingVerifier::~ConformingVerifier() = default;

void ConformingVerifier::begin() {
  addressPolicy(AddressPolicy::publicAndPrivate());
  retrieval(RetrievalSettings());
  state_->leastSecurityLevel = part_->settings.securityLevel;
  state_->logsLine = true;
}

const RevocationSettings& ConformingVerifier::settings() const noexcept { return part_->settings; }

int ConformingVerifier::isValid() {
  return runs([this] {
    return guardedCallback(0, [this] { return verifyPath() == 1 ? verifyRevocation() : 0; });
  });
}

// Everything but revocation. What came along and what the store has at hand mostly make a path. The
// sources are asked where they do not.
int ConformingVerifier::verifyPath() {
  X509_STORE_CTX* const context = *this;
  const ForPath parameters(context, part_->settings.securityLevel);
  part_->namesakes.emplace();
  part_->namesakes->add(X509_STORE_CTX_get0_untrusted(context));
  // A callback of the caller's is to hear of one attempt only.
  const bool isOurs = X509_STORE_CTX_get_verify_cb(context) == verifyCallback;
  if (isOurs && buildPath(keepObjection) == 1) return 1;
  if (somethingWasThrown()) return 0;
  VerifierSources sources(store, untrustedOf(context));
  const bool haveMore =
      VerificationRun::mayGoOn() &&
      part_->namesakes->gather(certificate, sources, [context](const X509_NAME* subject) {
        return TrustSources(context).certificates(subject);
      });
  if (somethingWasThrown()) return 0;
  if (isOurs && !haveMore) {
    for (const Objection& objection : state_->evidence.objections) {
      logFailure(certificate, objection.code);
    }
    return 0;
  }
  if (isOurs) {
    prepareAgain();
    state_->used = true;
  }
  return buildPath(X509_STORE_CTX_get_verify_cb(context));
}

int ConformingVerifier::buildPath(X509_STORE_CTX_verify_cb callback) {
  X509_STORE_CTX* const context = *this;
  const ErrorScope errors;
  state_->evidence.objections.clear();
  const X509_STORE_CTX_verify_cb former = X509_STORE_CTX_get_verify_cb(context);
  X509_STORE_CTX_set_verify_cb(context, callback);
  const Namesakes::Attached attached(*part_->namesakes, context);
  const int result = X509_verify_cert(context);
  X509_STORE_CTX_set_verify_cb(context, former);
  return somethingWasThrown() ? 0 : result;
}

// Until it is known whether that was the last word.
int ConformingVerifier::keepObjection(int ok, X509_STORE_CTX* context) {
  if (ok != 0) return State::goOn(ok, context);
  return guardedCallback(0, [&] {
    auto* const verifier = static_cast<ConformingVerifier*>(of(context));
    verifier->state_->evidence.objections.push_back(objectionOf(context));
    return ok;
  });
}

int ConformingVerifier::verifyRevocation() {
  X509_STORE_CTX* const context = *this;
  if ((flagsOf(context) & X509_V_FLAG_CRL_CHECK) == 0) return 1;
  const STACK_OF(X509)* const built = X509_STORE_CTX_get0_chain(context);
  std::list<RefCertificate> chain;
  for (int i = 0; i < sk_X509_num(built); ++i) {
    VerificationRun::current()->know(sk_X509_value(built, i));
    chain.push_back(CertificateFactory()(sk_X509_value(built, i), false));
  }
  // A callback of the caller's may have let anything pass.
  if (X509_STORE_CTX_get_verify_cb(context) != verifyCallback ||
      X509_STORE_CTX_get_verify(context) != defaultCallbacks().verify) {
    return checkRevocationStatus(chain);
  }
  state_->evidence.pathVerified = true;
  return decide(chain, Evidence::kVerified);
}

int ConformingVerifier::checkRevocationStatus(const std::list<RefCertificate>& chain) {
  const NoCancellation untilReturn;
  if (VerificationRun::current() != nullptr) return checkList(chain);
  VerificationRun run(nullptr, state_->limits());
  const State::Retrieving retrieving(state_->retrieval, run);
  const int result = checkList(chain);
  run.rethrowParked();
  if (result == 0 || !run.fellShort()) return result;
  contextError(X509_V_ERR_UNABLE_TO_GET_CRL);
  return 0;
}

int ConformingVerifier::checkList(const std::list<RefCertificate>& chain) {
  if (chain.empty() || hasEmptyHandle(chain)) return decide(chain, Evidence::kNone);
  VouchedChain vouched(chain, isAnchor(*this, chain.back()));
  const bool signedDown = vouched.vouchesFor(chain.front());
  if (somethingWasThrown()) return 0;
  return decide(chain, signedDown ? Evidence::kSignatures : Evidence::kNone);
}

int ConformingVerifier::decide(const std::list<RefCertificate>& chain, Evidence evidence) {
  const bool wholePath = (flagsOf(*this) & X509_V_FLAG_CRL_CHECK_ALL) != 0;
  const std::size_t below = chain.empty() ? 0 : chain.size() - 1;
  const std::size_t wanted = wholePath ? below : std::min<std::size_t>(below, 1);
  if (evidence == Evidence::kNone) {
    // Nothing that is not verified is ever asked about.
    Revocation::Outcome unknown;
    unknown.code = X509_V_ERR_UNABLE_TO_GET_CRL;
    state_->evidence.revocation.assign(std::max<std::size_t>(wanted, 1), unknown);
  } else {
    determine(chain, evidence);
    state_->evidence.revocation.resize(wanted);  // none that is missing has passed
  }
  return judge(chain);
}

void ConformingVerifier::determine(const std::list<RefCertificate>& chain, Evidence evidence) {
  X509_STORE_CTX* const context = *this;
  const unsigned long flags = flagsOf(context);
  const std::vector<RefCertificate> path(chain.begin(), chain.end());
  const Revocation::Moment moment = momentOf(context);
  VerifierSources sources(store, untrustedOf(context));
  VerifierPaths paths(context, path, sources,
                      {.securityLevel = part_->settings.securityLevel,
                       .moment = moment,
                       .verified = evidence == Evidence::kVerified});
  Revocation::RevocationCheck check(sources, paths, part_->settings, moment,
                                    {.wholePath = (flags & X509_V_FLAG_CRL_CHECK_ALL) != 0,
                                     .useDeltas = (flags & X509_V_FLAG_USE_DELTAS) != 0});
  state_->evidence.revocation = check.decide(path);
}

// The first failure from the trust anchor down is the verification's.
int ConformingVerifier::judge(const std::list<RefCertificate>& chain) {
  const auto& outcomes = state_->evidence.revocation;
  const auto failed = std::find_if(outcomes.rbegin(), outcomes.rend(), isFailure);
  if (failed == outcomes.rend()) return 1;
  const auto depth = static_cast<std::size_t>(outcomes.rend() - failed) - 1;
  const int code = failed->code == X509_V_OK ? X509_V_ERR_UNSPECIFIED : failed->code;
  contextError(code);
  X509_STORE_CTX_set_error_depth(*this, static_cast<int>(depth));
  state_->evidence.failedDepth = static_cast<int>(depth);
  logFailure(
      depth < chain.size() ? *std::next(chain.begin(), static_cast<long>(depth)) : RefCertificate(),
      code);
  return 0;
}

}  // namespace Velantrix::Crypto::PKX509
