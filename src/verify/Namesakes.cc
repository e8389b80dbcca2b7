#include "verify/Namesakes.h"

#include "crl/StrangersKeys.h"
#include "foundation/run/VerificationRun.h"
#include "verify/StoreCallbacks.h"

#include <algorithm>
#include <limits>
#include <list>
#include <new>
#include <utility>
#include <vector>

namespace Velantrix::Crypto::PKX509 {

namespace {

// The ex-data slot of a context that leads to its namesakes.
int namesakesIndex() {
  static const int index = newContextIndex();
  return index;
}

bool haveSameKey(const X509* left, const X509* right) {
  X509_ALGOR* ofLeft = nullptr;
  X509_ALGOR* ofRight = nullptr;
  if (X509_PUBKEY_get0_param(nullptr, nullptr, nullptr, &ofLeft, X509_get_X509_PUBKEY(left)) != 1 ||
      X509_PUBKEY_get0_param(nullptr, nullptr, nullptr, &ofRight, X509_get_X509_PUBKEY(right)) !=
          1) {
    return false;
  }
  return X509_ALGOR_cmp(ofLeft, ofRight) == 0 &&
         ASN1_STRING_cmp(X509_get0_pubkey_bitstr(left), X509_get0_pubkey_bitstr(right)) == 0;
}

// The signatures that one outermost run has verified to tell namesakes apart.
class Signatures {
 public:
  // Whether the holder's key signed the certificate; true as well when no more are verified.
  bool fit(X509* certificate, X509* holder) {
    for (const Verified& known : verified_) {
      if (X509_cmp(known.certificate.get(), certificate) == 0 &&
          X509_cmp(known.holder.get(), holder) == 0) {
        return known.fits;
      }
    }
    EVP_PKEY* const key = X509_get0_pubkey(holder);
    if (key == nullptr || verified_.size() >= Namesakes::kMaximumSignatures ||
        !StrangersKeys::isModest(holder)) {
      return true;
    }
    verified_.push_back({hold(certificate), hold(holder), X509_verify(certificate, key) == 1});
    return verified_.back().fits;
  }

 private:
  struct Verified {
    Owned<X509> certificate;
    Owned<X509> holder;
    bool fits;
  };

  static Owned<X509> hold(X509* certificate) {
    if (X509_up_ref(certificate) != 1) throw std::bad_alloc();
    return Owned<X509>(certificate);
  }

  std::vector<Verified> verified_;
};

}  // namespace

Namesakes::Namesakes() : stack_(sk_X509_new_null()) {
  if (stack_ == nullptr) throw std::bad_alloc();
}

Namesakes::~Namesakes() = default;

bool Namesakes::insert(X509* certificate) {
  if (certificate == nullptr || known_.contains(certificate)) return false;
  if (X509_add_cert(stack_.get(), certificate, X509_ADD_FLAG_UP_REF) != 1) throw std::bad_alloc();
  known_.insert(certificate);
  Holders& holders = holders_[X509_get_subject_name(certificate)];
  if (holders.first == nullptr) {
    holders.first = certificate;
  } else if (!haveSameKey(holders.first, certificate)) {
    holders.several = true;
  }
  return true;
}

void Namesakes::add(X509* certificate) { static_cast<void>(insert(certificate)); }

void Namesakes::add(const STACK_OF(X509) * certificates) {
  for (int i = 0; i < sk_X509_num(certificates); ++i) add(sk_X509_value(certificates, i));
}

bool Namesakes::gather(const RefCertificate& target, Revocation::RevocationSources& sources,
                       const TrustedOf& trustedOf) {
  gathered_ = true;
  if (target.empty()) return false;
  const ErrorScope errors;
  Names asked;
  Names trusted;
  std::list<RefCertificate> open{target};
  std::list<RefCertificate> askedFor;  // the names are theirs
  std::size_t taken = 0;
  bool any = false;
  for (; !open.empty() && taken < kMaximumCertificates; open.pop_front()) {
    const X509_NAME* const name = X509_get_issuer_name(open.front());
    if (asked.contains(name)) continue;
    if (asked.size() == kMaximumNames || !VerificationRun::admitStep()) break;
    asked.insert(name);
    askedFor.push_back(open.front());
    const Owned<STACK_OF(X509)> ends = trustedOf(name);
    if (sk_X509_num(ends.get()) > 0) trusted.insert(name);
    any = any || trusted.contains(name);
    add(ends.get());
    for (const auto& offer : sources.certificates(DistinguishedName(name)).found) {
      if (taken == kMaximumCertificates) break;
      any = true;
      if (insert(offer.object)) ++taken;
      open.push_back(offer.object);
    }
  }
  arrange(trusted);
  return any;
}

// By their distance from a trusted name; those that are as far from it stay as they are.
void Namesakes::arrange(const Names& trusted) {
  std::multimap<const X509_NAME*, X509*, ByName> byIssuer;
  for (X509* const certificate : known_) {
    byIssuer.emplace(X509_get_issuer_name(certificate), certificate);
  }
  std::map<X509*, std::size_t> distances;
  std::list<std::pair<const X509_NAME*, std::size_t>> open;
  for (const X509_NAME* const name : trusted) open.emplace_back(name, 0);
  Names reached = trusted;
  for (; !open.empty(); open.pop_front()) {
    const auto& [name, distance] = open.front();
    const auto [first, last] = byIssuer.equal_range(name);
    for (auto below = first; below != last; ++below) {
      distances.emplace(below->second, distance);
      const X509_NAME* const subject = X509_get_subject_name(below->second);
      if (reached.insert(subject).second) open.emplace_back(subject, distance + 1);
    }
  }
  std::vector<X509*> order;
  const int count = sk_X509_num(stack_.get());
  for (int i = 0; i < count; ++i) order.push_back(sk_X509_value(stack_.get(), i));
  const auto distanceOf = [&](X509* certificate) {
    const auto found = distances.find(certificate);
    return found == distances.end() ? std::numeric_limits<std::size_t>::max() : found->second;
  };
  std::stable_sort(order.begin(), order.end(),
                   [&](X509* left, X509* right) { return distanceOf(left) < distanceOf(right); });
  for (int i = 0; i < count; ++i) {
    static_cast<void>(sk_X509_set(stack_.get(), i, order[static_cast<std::size_t>(i)]));
  }
}

bool Namesakes::haveOtherKey(X509* certificate) const {
  const auto found = holders_.find(X509_get_subject_name(certificate));
  if (found == holders_.end()) return false;
  return found->second.several || !haveSameKey(found->second.first, certificate);
}

bool Namesakes::handOut(X509* certificate) { return handedOut_.insert(certificate).second; }

Namesakes::Attached::Attached(Namesakes& namesakes, X509_STORE_CTX* context)
    : context_(context), former_(X509_STORE_CTX_get0_untrusted(context)) {
  if (X509_STORE_CTX_set_ex_data(context, namesakesIndex(), &namesakes) != 1)
    throw std::bad_alloc();
  namesakes.handedOut_.clear();
  X509_STORE_CTX_set0_untrusted(context, namesakes.stack());
}

Namesakes::Attached::~Attached() {
  X509_STORE_CTX_set0_untrusted(context_, former_);
  static_cast<void>(X509_STORE_CTX_set_ex_data(context_, namesakesIndex(), nullptr));
}

Namesakes* Namesakes::of(const X509_STORE_CTX* context) {
  return static_cast<Namesakes*>(X509_STORE_CTX_get_ex_data(context, namesakesIndex()));
}

// OpenSSL may hold the lock of the store here: nothing may ask that.
int Namesakes::s_check_issued(X509_STORE_CTX* context, X509* certificate, X509* issuer) {
  return guardedCallback(0, [&] {
    const X509_STORE_CTX_check_issued_fn own =
        X509_STORE_get_check_issued(X509_STORE_CTX_get0_store(context));
    const int result =
        (own == nullptr ? defaultCallbacks().checkIssued : own)(context, certificate, issuer);
    const Namesakes* const namesakes = of(context);
    Signatures* const signatures = VerificationRun::kept<Signatures>();
    if (result == 0 || namesakes == nullptr || signatures == nullptr ||
        !namesakes->haveOtherKey(issuer)) {
      return result;
    }
    const ErrorScope errors;
    return signatures->fit(certificate, issuer) ? result : 0;
  });
}

}  // namespace Velantrix::Crypto::PKX509
