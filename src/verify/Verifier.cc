#include "crl/UnsignedCRL.h"
#include "foundation/base/NoCancellation.h"
#include "foundation/openssl/OpenSSLOwners.h"
#include "foundation/run/VerificationRun.h"
#include "report/PathFindings.h"
#include "verify/BuiltChain.h"
#include "verify/ContextObjection.h"
#include "verify/Examined.h"
#include "verify/FailureText.h"
#include "verify/StoreCallbacks.h"
#include "verify/VerifierState.h"

#include <velantrix/Assert.h>
#include <velantrix/CertificateFactory.h>
#include <velantrix/Exception.h>

#include <utility>

namespace Velantrix::Crypto::PKX509 {

namespace {

constexpr char kAnyPolicy[] = "2.5.29.32.0";

constexpr char kRanOut[] =
    "something that all of the verification shares ran out before its revocation was settled";
constexpr char kStopped[] = "it was asked to stop, or its time was over, before it was settled";

// The ex-data slot that leads from a context back to its verifier.
int contextIndex() {
  static const int index = newContextIndex();
  return index;
}

}  // namespace

Verifier::Config::Config() : Config(std::string()) {}

Verifier::Config::Config(const std::string& label)
    : name(label), policies{kAnyPolicy}, flags(kDefaultFlags) {}

Verifier::Verifier(const RefObjectStore& trustStore, const RefCertificate& target,
                   bool useOpenSSLRevocation)
    : store(trustStore), certificate(target), crls(*this) {
  initialize(useOpenSSLRevocation);
}

Verifier::Verifier(const RefObjectStore& trustStore, const RefCertificate& target,
                   const RefStackOfCertificate& stack, bool useOpenSSLRevocation)
    : store(trustStore), certificate(target), untrusted(stack), crls(*this) {
  initialize(useOpenSSLRevocation);
}

Verifier::Verifier(const RefObjectStore& trustStore, const RefCertificate& target,
                   const RefStackOfCertificate& stack, Config& configuration,
                   bool useOpenSSLRevocation)
    : store(trustStore), certificate(target), untrusted(stack), config(configuration), crls(*this) {
  initialize(useOpenSSLRevocation);
}

Verifier::Verifier(InstallCallbacks* installCallbacks, const RefObjectStore& trustStore,
                   const RefCertificate& target, const RefStackOfCertificate& stack,
                   const Config& configuration)
    : store(trustStore), certificate(target), untrusted(stack), config(configuration), crls(*this) {
  initialize(false, installCallbacks);
}

// The context goes first, while the store and everything it borrows is still held: it is the last
// member. The others follow in the reverse order of their declaration.
Verifier::~Verifier() = default;

void Verifier::initialize(bool useOpenSSLRevocation, InstallCallbacks* installCallbacks) {
  state_ = std::make_unique<State>(useOpenSSLRevocation);
  state_->installCallbacks = installCallbacks;
  // The flags go to the shared store, and every later context on it inherits them.
  const auto flags = static_cast<unsigned long>(static_cast<long>(config.flags));
  state_->context.reset(X509_STORE_CTX_new());
  if (state_->context == nullptr || X509_STORE_set_flags(store, flags) != 1) {
    throw Exception("X509::Verifier", Exception::kFailure, "Verify", __LINE__);
  }
  prepare(untrusted);
  X509_STORE_CTX_set_verify_cb(state_->context.get(), verifyCallback);
  for (const std::string& oid : config.policies) policy(ASN1::RefObjectIdentifier(oid));
}

void Verifier::prepare(STACK_OF(X509) * intermediates) {
  X509_STORE* const x509Store = store;
  int initialized = 0;
  {
    const StoreCallbacks former(x509Store);
    X509_STORE_set_get_crl(x509Store, getCrlCallback);
    if (state_->useOpenSSLRevocation) {
      state_->certCRL =
          former.formerCertCRL() != nullptr ? former.formerCertCRL() : defaultCallbacks().certCRL;
      X509_STORE_set_cert_crl(x509Store, certCRLCallback);
    } else {
      X509_STORE_set_check_revocation(x509Store, checkRevocationCallback);
    }
    if (state_->installCallbacks != nullptr) state_->installCallbacks(x509Store);
    initialized = X509_STORE_CTX_init(state_->context.get(), x509Store, certificate, intermediates);
  }
  // Initialising wipes ex-data, so the way back is attached after it.
  if (initialized != 1 ||
      X509_STORE_CTX_set_ex_data(state_->context.get(), contextIndex(), this) != 1) {
    throw Exception("X509::Verifier", Exception::kFailure, "Verify", __LINE__);
  }
}

// OpenSSL refuses a context that has been used, so it is made new with what the caller set on it.
void Verifier::prepareAgain() {
  X509_STORE_CTX* const context = state_->context.get();
  const X509_STORE_CTX_verify_cb callback = X509_STORE_CTX_get_verify_cb(context);
  STACK_OF(X509)* const intermediates = X509_STORE_CTX_get0_untrusted(context);
  void* const application = X509_STORE_CTX_get_ex_data(context, 0);
  X509_VERIFY_PARAM* const used = X509_STORE_CTX_get0_param(context);
  Owned<X509_VERIFY_PARAM> param(X509_VERIFY_PARAM_new());
  // Copying sets X509_V_FLAG_POLICY_CHECK beside the other policy flags, also where the caller had
  // cleared it.
  if (param == nullptr || used == nullptr || X509_VERIFY_PARAM_set1(param.get(), used) != 1 ||
      X509_VERIFY_PARAM_clear_flags(param.get(), ~X509_VERIFY_PARAM_get_flags(used)) != 1) {
    throw Exception("X509::Verifier", Exception::kFailure, "Verify", __LINE__);
  }

  X509_STORE_CTX_cleanup(context);
  prepare(intermediates);
  X509_STORE_CTX_set_verify_cb(context, callback);
  // Replaces what the store put there, so that its time and flags do not come back over the
  // caller's.
  X509_STORE_CTX_set0_param(context, param.release());
  if (X509_STORE_CTX_set_ex_data(context, 0, application) != 1) {
    throw Exception("X509::Verifier", Exception::kFailure, "Verify", __LINE__);
  }
  lastCertificate = RefCertificate();
  crls.clear();
  setCurrentCRL(0, RefCertificate(), 0);
  state_->used = false;
}

const RefObjectStore& Verifier::objectStore() const { return store; }

int Verifier::isValid() {
  return runs([this] { return X509_verify_cert(state_->context.get()); });
}

int Verifier::runs(const std::function<int()>& verify) {
  const NoCancellation untilReturn;
  ERR_clear_error();
  const auto start = std::chrono::steady_clock::now();
  // First of all, so that an override which verifies again while it is asked for CRLs is refused as
  // a circle before it takes the context away from OpenSSL.
  VerificationRun run(certificate, state_->limits());
  const State::Retrieving retrieving(state_->retrieval, run);
  state_->beginEvidence(*this);
  Evidence& evidence = state_->evidence;
  try {
    evidence.code = runs(verify, run);
  } catch (...) {
    state_->takeThrown(std::current_exception());
    state_->end(*this, run, start);
    throw;
  }
  state_->end(*this, run, start);
  return evidence.code;
}

int Verifier::runs(const std::function<int()>& verify, VerificationRun& run) {
  Evidence& evidence = state_->evidence;
  if (run.refusal() != nullptr) {
    evidence.refusal = run.refusal();
    error = X509_V_ERR_CRL_PATH_VALIDATION_ERROR;
    contextError(error);
    logFailure(certificate, error, run.refusal());
    return error;
  }
  if (state_->used) prepareAgain();
  if (!VerificationRun::mayGoOn()) {
    state_->fetchNotes.clear();
    return leaveUnsettled(kStopped);
  }
  state_->used = true;
  const int result = verify();
  state_->fetchNotes = FetchRecord::notes();
  run.rethrowParked();
  state_->noteCallback(result >= 1);
  if (result < 1) {
    error = contextError();
    // A failure is a failure also where OpenSSL names none.
    if (error == X509_V_OK) error = X509_V_ERR_UNSPECIFIED;
    // What was not looked for any more is not missing.
    const bool isMissing = error == X509_V_ERR_UNABLE_TO_GET_CRL || isAboutTheIssuer(error);
    if (isMissing && run.wasStopped()) return leaveUnsettled(kStopped);
  } else if (run.fellShort() && error == X509_V_OK) {
    return leaveUnsettled(run.wasStopped() ? kStopped : kRanOut);
  } else {
    evidence.earlierStands = error != X509_V_OK;
  }
  return error;
}

// Nothing is known against it, and nothing settled.
int Verifier::leaveUnsettled(const char* why) {
  state_->evidence.fellShort = true;
  error = X509_V_ERR_UNABLE_TO_GET_CRL;
  contextError(error);
  logFailure(certificate, error, why);
  return error;
}

std::vector<Verifier::FetchNote> Verifier::fetchNotes() const {
  std::vector<FetchNote> notes;
  for (const FetchRecord::Note& note : state_->fetchNotes) {
    notes.push_back({std::string(note.what), note.uri, note.reason});
  }
  return notes;
}

void Verifier::policy(const ASN1::RefObjectIdentifier& oid) {
  // An identifier gives its object away once. After that it cannot tell whether the object still
  // lives, so another one is made from its text.
  ASN1::RefObjectIdentifier identifier(oid);
  Owned<ASN1_OBJECT> object(identifier->relinquishOwnerShip());
  if (object == nullptr) object.reset(OBJ_txt2obj(identifier->asString().c_str(), 1));
  // Only a lack of memory makes it fail, and then the policy is not acceptable: nothing is let in.
  if (object != nullptr &&
      X509_VERIFY_PARAM_add0_policy(X509_STORE_CTX_get0_param(state_->context.get()),
                                    object.get()) == 1) {
    static_cast<void>(object.release());
  }
}

Verifier::operator X509_STORE_CTX*() const noexcept { return state_->context.get(); }

X509_STORE_CTX* Verifier::parent() const noexcept { return state_->parent; }

void Verifier::parent(X509_STORE_CTX* outer) noexcept { state_->parent = outer; }

void Verifier::addressPolicy(const AddressPolicy& policy) noexcept { state_->addresses = policy; }

void Verifier::maxNetworkTime(unsigned int seconds) noexcept {
  maxNetworkTime(std::chrono::seconds(seconds));
}

void Verifier::maxNetworkTime(std::chrono::milliseconds time) noexcept {
  state_->networkTime = time;
}

void Verifier::maxTime(unsigned int seconds) noexcept { maxTime(std::chrono::seconds(seconds)); }

void Verifier::maxTime(std::chrono::milliseconds time) noexcept { state_->processorTime = time; }

void Verifier::deadline(std::chrono::milliseconds time) noexcept {
  state_->wholeTime = State::inRange(time);
}

void Verifier::stopToken(std::stop_token token) noexcept { state_->stop = std::move(token); }

void Verifier::retrieval(const RetrievalSettings& settings) { state_->retrieval = settings; }

Verifier::State::Retrieving::Retrieving(const std::optional<RetrievalSettings>& settings,
                                        const VerificationRun& run) {
  if (!settings || !run.isOutermost()) return;
  retriever_.emplace(*settings);
  installed_.emplace(*retriever_);
}

unsigned int Verifier::currentCRLScore() const noexcept { return state_->currentCRLScore; }

unsigned int Verifier::currentReasons() const noexcept { return state_->currentReasons; }

X509* Verifier::currentIssuer() const { return state_->currentIssuer; }

void Verifier::setCurrentCRL(unsigned int score, const RefCertificate& issuer,
                             unsigned int reasons) {
  state_->currentCRLScore = score;
  state_->currentIssuer = issuer;
  state_->currentReasons = reasons;
}

int Verifier::contextError() const noexcept {
  return X509_STORE_CTX_get_error(state_->context.get());
}

void Verifier::contextError(int code) noexcept {
  X509_STORE_CTX_set_error(state_->context.get(), code);
}

Verifier* Verifier::of(const X509_STORE_CTX* context) {
  return static_cast<Verifier*>(X509_STORE_CTX_get_ex_data(context, contextIndex()));
}

// Logs a failure and leaves OpenSSL's verdict as it is. OpenSSL copies the callback into the
// contexts it makes to validate the issuer of a CRL, which belong to no verifier.
int Verifier::verifyCallback(int ok, X509_STORE_CTX* context) {
  if (ok != 0) return State::goOn(ok, context);
  return guardedCallback(0, [&] {
    const int code = X509_STORE_CTX_get_error(context);
    // Such a context asks the store only and may well find no CRL; that is not worth a line.
    if (code == X509_V_ERR_UNABLE_TO_GET_CRL && X509_STORE_CTX_get_get_crl(context) == nullptr) {
      return ok;
    }
    logFailure(CertificateFactory()(X509_STORE_CTX_get0_cert(context), false), code);
    Verifier* const verifier = of(context);
    if (verifier != nullptr) verifier->state_->noteObjection();
    X509_STORE_CTX* const outer = X509_STORE_CTX_get0_parent_ctx(context);
    if (Verifier* const around = verifier == nullptr && outer != nullptr ? of(outer) : nullptr) {
      around->state_->evidence.signer = objectionOf(context);
    }
    if (code == X509_V_ERR_CRL_SIGNATURE_FAILURE && verifier != nullptr) verifier->dropCurrentCRL();
    return ok;
  });
}

// The CRL that OpenSSL is checking is not signed by the issuer on whose path it agreed before.
void Verifier::dropCurrentCRL() {
  X509_STORE_CTX* const context = state_->context.get();
  X509* const current = X509_STORE_CTX_get_current_cert(context);
  X509_CRL* const native = X509_STORE_CTX_get0_current_crl(context);
  if (current == nullptr || native == nullptr) return;
  const ChainSubject subject(current, state_->vouchedChain());
  const RefCertificate target = CertificateFactory()(current, false);
  const RefCertificateRevocationList crl = CertificateRevocationListFactory()(native, false);
  for (const RefCRLDistributionPoint& point : target->crlDistributionPoints()) {
    takeOutOfCache(crl, target, point, store);
  }
}

int Verifier::getCrlCallback(X509_STORE_CTX* context, X509_CRL** crl, X509* x) {
  return guardedCallback(0, [&] {
    Verifier* const verifier = of(context);
    if (verifier == nullptr) return 0;
    const ChainSubject subject(x, verifier->state_->vouchedChain());
    Examined examined(&verifier->state_->evidence, X509_STORE_CTX_get_error_depth(context), x);
    examined.resume();
    const RefCertificateRevocationList found = verifier->getCRL(CertificateFactory()(x, false));
    examined.end(X509_V_OK);
    verifier->state_->handedOut = found;
    X509_CRL* const native = found;
    // OpenSSL frees what it is given.
    if (native == nullptr || X509_CRL_up_ref(native) != 1) return 0;
    *crl = native;
    return 1;
  });
}

// OpenSSL stops asking for CRLs after the first one that covers all reasons. What is left in the
// container must count too, or a revocation that stands only in a delta CRL would be missed.
int Verifier::certCRLCallback(X509_STORE_CTX* context, X509_CRL* crl, X509* x) {
  return guardedCallback(0, [&] {
    Verifier* const verifier = of(context);
    if (verifier == nullptr) return defaultCallbacks().certCRL(context, crl, x);
    const int result = verifier->state_->certCRL(context, crl, x);
    if (result != 0) {
      verifier->state_->noteContent(context, crl, x);
      verifier->keepHandedOut(x);
    }
    return result != 0 && verifier->applyRemaining(x) ? result : 0;
  });
}

// OpenSSL has found its signature right. Its issuer may be one on the path, which is verified later.
void Verifier::keepHandedOut(X509* x) {
  const RefCertificate& issuer = state_->currentIssuer;
  if (Retriever::current() == nullptr || state_->handedOut.empty() || issuer.empty()) return;
  const ChainSubject subject(x, state_->vouchedChain());
  if (!isVouchedFor(issuer)) return;
  const std::vector<RefCertificate> chain = chainOf(state_->context.get());
  for (const RefCRLDistributionPoint& point :
       CertificateFactory()(x, false)->crlDistributionPoints()) {
    keepVerified(state_->handedOut, issuer, point, chain);
  }
}

// Once for a certificate: where CRLs cover some reasons each, OpenSSL comes for the next one, and with
// all that follow applied every time the work would grow with the square of their number.
bool Verifier::applyRemaining(X509* x) {
  if (state_->remainingApplied || lastCertificate.empty() || lastCertificate->native() != x)
    return true;
  state_->remainingApplied = true;
  const X509_STORE_CTX_check_crl_fn checkCRL = X509_STORE_CTX_get_check_crl(state_->context.get());
  // A copy: when the first CRL does not cover all reasons, OpenSSL still comes for the others.
  CRLContainer remaining(crls);
  while (!remaining.empty()) {
    const RefObject next = remaining.getCRL();
    if (next.empty()) break;
    X509_CRL* const crl = next->crl;
    state_->handedOut = next->crl;
    if (checkCRL(state_->context.get(), crl) == 0 ||
        state_->certCRL(state_->context.get(), crl, x) == 0)
      return false;
    state_->noteContent(state_->context.get(), crl, x);
    keepHandedOut(x);
  }
  return true;
}

int Verifier::checkRevocationCallback(X509_STORE_CTX* context) {
  return guardedCallback(0, [&] {
    Verifier* const verifier = of(context);
    PKX509_ASSERT(verifier != nullptr);  // OpenSSL's own contexts do not inherit this callback
    return verifier->checkChain();
  });
}

}  // namespace Velantrix::Crypto::PKX509
