#include "model/GroundTruthOpenSSL.h"

#include <openssl/x509_vfy.h>

#include <algorithm>
#include <memory>
#include <new>
#include <set>

namespace Velantrix::Test::Truth {

namespace {

struct FreeContext {
  void operator()(X509_STORE_CTX* context) const noexcept { X509_STORE_CTX_free(context); }
};

/// Borrows its certificates.
class Stack {
 public:
  Stack() : stack_(sk_X509_new_null()) {
    if (stack_ == nullptr) throw std::bad_alloc();
  }
  ~Stack() { sk_X509_free(stack_); }
  Stack(const Stack&) = delete;
  Stack& operator=(const Stack&) = delete;
  void push(X509* certificate) {
    if (sk_X509_push(stack_, certificate) <= 0) throw std::bad_alloc();
  }
  STACK_OF(X509) * get() const { return stack_; }

 private:
  STACK_OF(X509) * stack_;
};

/// Verifies a certificate below one root.
class Context {
 public:
  Context(const RefCertificate& certificate, const RefCertificate& root,
          const std::vector<RefCertificate>& untrusted, std::time_t time)
      : context_(X509_STORE_CTX_new()) {
    trusted_.push(root->native());
    for (const RefCertificate& one : untrusted) untrusted_.push(one->native());
    if (!context_ || X509_STORE_CTX_init(context_.get(), nullptr, certificate->native(),
                                         untrusted_.get()) != 1) {
      throw std::bad_alloc();
    }
    X509_STORE_CTX_set0_trusted_stack(context_.get(), trusted_.get());
    X509_STORE_CTX_set_time(context_.get(), 0, time);
  }
  X509_STORE_CTX* get() const { return context_.get(); }

 private:
  Stack trusted_;
  Stack untrusted_;
  std::unique_ptr<X509_STORE_CTX, FreeContext> context_;
};

}  // namespace

// OpenSSL takes the first issuer that fits by its name and key identifier. Of those that bear the same
// ones, it gets only those whose signature it is.
std::vector<RefCertificate> Paths::issuersFor(const RefCertificate& signer) {
  std::vector<RefCertificate> offered;
  for (const int index : real_.world().path) offered.push_back(real_.certificate(index));
  for (const int index : offer_.certificates) offered.push_back(real_.certificate(index));
  std::vector<RefCertificate> issuers = {signer};
  for (std::size_t i = 0; i < issuers.size() && i < 10; ++i) {
    for (const RefCertificate& candidate : offered) {
      const auto known = [&](const RefCertificate& one) {
        return one->native() == candidate->native();
      };
      if (std::any_of(issuers.begin(), issuers.end(), known)) continue;
      if (X509_check_issued(candidate->native(), issuers[i]->native()) != X509_V_OK) continue;
      if (real_.signedBy(candidate->native(), issuers[i]->native())) issuers.push_back(candidate);
    }
  }
  return issuers;
}

std::vector<RefCertificate> Paths::pathOf(const RefCertificate& signer) {
  const std::vector<RefCertificate> issuers = issuersFor(signer);
  const RefCertificate root = real_.certificate(kRoot);
  const Context context(signer, root, issuers, real_.timeOf(offer_.checked));
  if (X509_verify_cert(context.get()) != 1) return {};
  std::vector<RefCertificate> path;
  const STACK_OF(X509)* const chain = X509_STORE_CTX_get0_chain(context.get());
  for (int i = 0; i < sk_X509_num(chain); ++i) {
    X509* const native = sk_X509_value(chain, i);
    if (native == root->native()) {
      path.push_back(root);
      continue;
    }
    for (const RefCertificate& issuer : issuers) {
      if (issuer->native() == native) path.push_back(issuer);
    }
  }
  return path;
}

int plainOpenSSL(Realisation& real, const Offer& offer, int depth) {
  const RefCertificate certificate = real.certificate(at(real.world().path, depth));
  Stack untrusted;
  for (const int index : offer.certificates) untrusted.push(real.certificate(index)->native());
  // It verifies the paths of CRL issuers with the store, and without the trusted stack.
  const std::unique_ptr<X509_STORE, void (*)(X509_STORE*)> store(X509_STORE_new(), X509_STORE_free);
  const std::unique_ptr<X509_STORE_CTX, FreeContext> context(X509_STORE_CTX_new());
  if (!store || !context ||
      X509_STORE_add_cert(store.get(), real.certificate(kRoot)->native()) != 1 ||
      X509_STORE_CTX_init(context.get(), store.get(), certificate->native(), untrusted.get()) !=
          1) {
    throw std::bad_alloc();
  }
  X509_STORE_CTX_set_time(context.get(), 0, real.timeOf(offer.checked));
  std::set<int> lists;
  for (const auto& [place, there] : offer.lists) lists.insert(there.begin(), there.end());
  const std::unique_ptr<STACK_OF(X509_CRL), void (*)(STACK_OF(X509_CRL)*)> crls(
      sk_X509_CRL_new_null(), [](STACK_OF(X509_CRL) * stack) { sk_X509_CRL_free(stack); });
  for (const int index : lists) sk_X509_CRL_push(crls.get(), real.list(index)->native());
  X509_STORE_CTX_set0_crls(context.get(), crls.get());
  X509_STORE_CTX_set_flags(context.get(), X509_V_FLAG_CRL_CHECK | X509_V_FLAG_EXTENDED_CRL_SUPPORT |
                                              X509_V_FLAG_USE_DELTAS);
  X509_verify_cert(context.get());
  return X509_STORE_CTX_get_error(context.get());
}

}  // namespace Velantrix::Test::Truth
