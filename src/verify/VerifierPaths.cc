#include "verify/VerifierPaths.h"

#include "foundation/openssl/MemoryCheck.h"
#include "foundation/openssl/OpenSSLOwners.h"
#include "foundation/run/VerificationRun.h"
#include "verify/BuiltChain.h"
#include "verify/ContextObjection.h"
#include "verify/Namesakes.h"
#include "verify/StoreCallbacks.h"

#include <algorithm>
#include <new>

namespace Velantrix::Crypto::PKX509 {

namespace {

// What the caller has asked of the path that holds for the paths of signers too.
constexpr unsigned long kInheritedFlags = X509_V_FLAG_X509_STRICT | X509_V_FLAG_PARTIAL_CHAIN |
                                          X509_V_FLAG_NO_CHECK_TIME | X509_V_FLAG_SUITEB_128_LOS |
                                          X509_V_FLAG_CHECK_SS_SIGNATURE;

Owned<STACK_OF(X509)> stackOf(X509* certificate) {
  Owned<STACK_OF(X509)> stack(sk_X509_new_null());
  if (stack == nullptr || X509_add_cert(stack.get(), certificate, X509_ADD_FLAG_UP_REF) != 1) {
    throw std::bad_alloc();
  }
  return stack;
}

// A store that has nothing, so that OpenSSL takes the callback from it.
Owned<X509_STORE> storeOfNothing() {
  Owned<X509_STORE> store(X509_STORE_new());
  if (store == nullptr) throw std::bad_alloc();
  return store;
}

void initialize(X509_STORE_CTX* context, X509_STORE* store, const RefCertificate& target) {
  const StoreCallbacks former(store);
  X509_STORE_set_check_issued(store, Namesakes::s_check_issued);
  if (context == nullptr || X509_STORE_CTX_init(context, store, target, nullptr) != 1) {
    throw std::bad_alloc();
  }
}

}  // namespace

int securityLevelOf(X509_STORE_CTX* context, int leastLevel) noexcept {
  return std::max(X509_VERIFY_PARAM_get_auth_level(X509_STORE_CTX_get0_param(context)),
                  std::clamp(leastLevel, 0, 5));
}

VerifierPaths::VerifierPaths(X509_STORE_CTX* context, const std::vector<RefCertificate>& path,
                             Revocation::RevocationSources& sources, const Conditions& conditions)
    : outer_(context), path_(path), sources_(sources), conditions_(conditions) {}

VerifierPaths::~VerifierPaths() = default;

std::vector<RefCertificate> VerifierPaths::pathOf(const RefCertificate& signer) {
  objection_.reset();
  if (signer.empty() || path_.empty() || path_.back().empty()) return {};
  if (conditions_.verified) {
    const auto found = std::find_if(
        path_.begin(), path_.end(),
        [&](const RefCertificate& certificate) { return X509_cmp(certificate, signer) == 0; });
    if (found != path_.end()) return {found, path_.end()};
  }
  VerificationRun shelter{VerificationRun::Shelter{}};
  const ErrorScope errors;
  Namesakes namesakes;
  namesakes.add(X509_STORE_CTX_get0_untrusted(outer_));
  for (const RefCertificate& certificate : path_) namesakes.add(certificate);
  std::vector<RefCertificate> found = build(signer, namesakes);
  shelter.rethrowParked();
  if (!found.empty()) return found;
  X509* const anchor = path_.back();
  namesakes.gather(signer, sources_, [anchor](const X509_NAME* name) {
    return X509_NAME_cmp(X509_get_subject_name(anchor), name) == 0 ? stackOf(anchor)
                                                                   : Owned<STACK_OF(X509)>();
  });
  found = build(signer, namesakes);
  shelter.rethrowParked();
  return found;
}

// RFC 5280, 6.3.3 (f): "The trust anchor for the certification path MUST be the same as the trust
// anchor used to validate the target certificate." So OpenSSL sees no other.
std::vector<RefCertificate> VerifierPaths::build(const RefCertificate& signer,
                                                 Namesakes& namesakes) {
  const MemoryCheck memory;
  const Owned<STACK_OF(X509)> anchor = stackOf(path_.back());
  const Owned<X509_STORE> store = storeOfNothing();
  const Owned<X509_STORE_CTX> context(X509_STORE_CTX_new());
  initialize(context.get(), store.get(), signer);
  X509_STORE_CTX_set0_trusted_stack(context.get(), anchor.get());
  const Namesakes::Attached attached(namesakes, context.get());

  X509_VERIFY_PARAM* const outer = X509_STORE_CTX_get0_param(outer_);
  X509_VERIFY_PARAM* const param = X509_STORE_CTX_get0_param(context.get());
  const unsigned long flags = X509_VERIFY_PARAM_get_flags(outer);
  X509_VERIFY_PARAM_set_flags(param, flags & kInheritedFlags);
  if ((flags & X509_V_FLAG_USE_CHECK_TIME) != 0 || (flags & X509_V_FLAG_NO_CHECK_TIME) == 0) {
    X509_VERIFY_PARAM_set_time(param, conditions_.moment.checked.seconds());
  }
  X509_VERIFY_PARAM_set_depth(param, X509_VERIFY_PARAM_get_depth(outer));
  X509_VERIFY_PARAM_set_auth_level(param, securityLevelOf(outer_, conditions_.securityLevel));

  if (X509_verify_cert(context.get()) == 1) return chainOf(context.get());
  memory.orThrow();
  objection_ = objectionOf(context.get());
  return {};
}

}  // namespace Velantrix::Crypto::PKX509
