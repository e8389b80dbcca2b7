#include "revocation/CRLStatus.h"

#include "foundation/model/CRLParts.h"
#include "foundation/openssl/OpenSSLOwners.h"
#include "foundation/run/VerificationRun.h"

#include <velantrix/CRLDistributionPoint.h>

#include <openssl/x509v3.h>

#include <algorithm>
#include <string_view>

namespace Velantrix::Crypto::PKX509::Revocation {

namespace {

constexpr int kRemoveFromCRL = 8;  // 5.3.1

using Candidates = std::vector<const CRLCandidate*>;

const CertificateRevocationList& listOf(const CRLCandidate& candidate) {
  return *static_cast<const RefCertificateRevocationList&>(candidate.crl).operator->();
}

// 5.2.4 (a) and (b), 6.3.3 (c)(1) and (2). An extension that is there is never empty: it is decoded when the
// CRL is read.
bool haveOneScope(const CRLCandidate& a, const CRLCandidate& b) {
  return listOf(a).crlInfo().issuer() == listOf(b).crlInfo().issuer() &&
         extensionOf(listOf(a), NID_issuing_distribution_point) ==
             extensionOf(listOf(b), NID_issuing_distribution_point);
}

// 5.2.4 and 6.3.3 (c): whether the delta CRL updates the complete one.
bool haveOneKey(const CRLCandidate& delta, const CRLCandidate& complete) {
  // 6.3.3 (c)(3)
  return extensionOf(listOf(delta), NID_authority_key_identifier) ==
             extensionOf(listOf(complete), NID_authority_key_identifier) &&
         // 6.3.3 (h): by the key that was validated for the complete CRL
         EVP_PKEY_eq(delta.key(), complete.key()) == 1;
}

bool updates(const CRLCandidate& delta, const CRLCandidate& complete) {
  const ASN1::Integer number = listOf(complete).crlNumber();
  const ASN1::Integer deltaNumber = listOf(delta).crlNumber();
  // 5.2.4 (c) and (d)
  return haveOneKey(delta, complete) && listOf(delta).baseCRLNumber() <= number &&
         number <= deltaNumber && number != deltaNumber;
}

// Why none of the complete CRLs is what the delta CRL updates.
const char* whyNoBase(const CRLCandidate& delta, const Candidates& bases) {
  if (bases.empty()) return "there is no complete CRL of its issuer and scope";
  const bool sameKey = std::any_of(bases.begin(), bases.end(), [&delta](const CRLCandidate* base) {
    return haveOneKey(delta, *base);
  });
  return sameKey ? "the complete CRL is older than its base, or not older than itself"
                 : "the complete CRL is signed with another key";
}

// A complete CRL, and what 5.2.4 makes of it with a delta CRL: the number and times are the delta's.
struct Combined {
  const CertificateRevocationList& newest() const { return listOf(*(delta ? delta : complete)); }

  const CRLCandidate* complete;
  const CRLCandidate* delta = nullptr;
};

// By number, where both have one (5.2.3), and then by time. Negative: `a` is the older one.
int compareAge(const CertificateRevocationList& a, const CertificateRevocationList& b) {
  const ASN1::Integer left = a.crlNumber();
  const ASN1::Integer right = b.crlNumber();
  if (!left.isNull() && !right.isNull() && left != right) return left <= right ? -1 : 1;
  const ASN1::RefGeneralizedTime then = a.lastUpdate();
  const ASN1::RefGeneralizedTime other = b.lastUpdate();
  return then < other ? -1 : other < then ? 1 : 0;
}

bool isOlder(const CRLCandidate* a, const CRLCandidate* b) {
  return compareAge(listOf(*a), listOf(*b)) < 0;
}

bool isOlder(const Combined& a, const Combined& b) {
  const int age = compareAge(a.newest(), b.newest());
  return age != 0 ? age < 0 : isOlder(a.complete, b.complete);
}

// Those that no other is newer than. Lists without a number make a circle possible; then all count.
template <class T>
std::vector<T> newestOf(const std::vector<T>& all) {
  std::vector<T> newest;
  for (const T& one : all) {
    if (std::none_of(all.begin(), all.end(), [&](const T& other) { return isOlder(one, other); })) {
      newest.push_back(one);
    }
  }
  return newest.empty() ? all : newest;
}

bool hold(const std::vector<Combined>& all, const CRLCandidate* candidate) {
  return std::any_of(all.begin(), all.end(), [candidate](const Combined& one) {
    return one.complete == candidate || one.delta == candidate;
  });
}

class Decision {
 public:
  Decision(const RefCertificate& certificate, const Time& time, const RevocationSettings& settings)
      : certificate_(certificate), time_(time), settings_(settings) {}

  void process(const Candidates& oneScope);
  CRLStatus end();

 private:
  void combine(const CRLCandidate* complete, const Candidates& deltas,
               std::vector<Combined>& combined);
  void apply(const Combined& combined);
  bool find(const CRLCandidate& candidate, int& reason);
  void setAside(const CRLCandidate* candidate, Reason reason, const char* detail = "") {
    result_.setAside.push_back({candidate, reason, detail});
  }
  bool isCurrent(const CRLCandidate* candidate) const {
    return isCurrentAt(listOf(*candidate), time_, settings_.maximumCRLAge);
  }

  const RefCertificate& certificate_;
  const Time& time_;
  const RevocationSettings& settings_;
  CRLStatus result_;
  unsigned int reasons_mask_ = 0;  // 6.3.2 (a)
};

// Those of one issuer and scope: the newest decides.
void Decision::process(const Candidates& oneScope) {
  Candidates deltas;
  Candidates bases;
  for (const CRLCandidate* const candidate : oneScope) {
    (listOf(*candidate).isDeltaCRL() ? deltas : bases).push_back(candidate);
  }
  // 6.3.3 (a)(1)(i) and 5.2.4: a delta CRL is current itself.
  const auto expired = std::stable_partition(
      deltas.begin(), deltas.end(), [&](const CRLCandidate* delta) { return isCurrent(delta); });
  for (auto delta = expired; delta != deltas.end(); ++delta) setAside(*delta, Reason::kExpired);
  deltas.erase(expired, deltas.end());

  std::vector<Combined> combined;
  for (const CRLCandidate* const complete : bases) combine(complete, deltas, combined);
  const std::vector<Combined> newest = newestOf(combined);
  for (const CRLCandidate* const delta : deltas) {
    if (std::none_of(bases.begin(), bases.end(),
                     [&](const CRLCandidate* base) { return updates(*delta, *base); })) {
      setAside(delta, Reason::kNoBase, whyNoBase(*delta, bases));
    } else if (!hold(newest, delta)) {
      setAside(delta, Reason::kSuperseded);
    }
  }
  for (const CRLCandidate* const complete : bases) {
    if (hold(combined, complete) && !hold(newest, complete)) {
      setAside(complete, Reason::kSuperseded);
    }
  }
  for (const Combined& one : newest) apply(one);
}

// 6.3.3 (a): the complete CRL with the newest delta CRLs that update it, or as it is while it is current.
void Decision::combine(const CRLCandidate* complete, const Candidates& deltas,
                       std::vector<Combined>& combined) {
  Candidates own;
  std::copy_if(deltas.begin(), deltas.end(), std::back_inserter(own),
               [&](const CRLCandidate* delta) { return updates(*delta, *complete); });
  for (const CRLCandidate* const delta : newestOf(own)) combined.push_back({complete, delta});
  if (!own.empty()) return;
  if (isCurrent(complete)) {
    combined.push_back({complete});
  } else {
    setAside(complete, Reason::kExpired);
  }
}

// 6.3.3 (i) to (l). A CRL that adds no reason (e) is looked at all the same: a revocation wins.
void Decision::apply(const Combined& combined) {
  constexpr int kUnrevoked = -1;
  int cert_status = kUnrevoked;  // 6.3.2 (b)
  const CRLCandidate* source = combined.delta;
  if (combined.delta == nullptr || !find(*combined.delta, cert_status)) {  // (i)
    source = combined.complete;
    find(*combined.complete, cert_status);  // (j)
  }
  if (cert_status == kRemoveFromCRL) cert_status = kUnrevoked;  // (k)
  reasons_mask_ |= combined.complete->interim_reasons_mask;     // (l)
  if (cert_status == kUnrevoked) {
    if (result_.status == Status::kRevoked) return;
    result_.decidedBy.push_back(combined.complete);
    if (combined.delta != nullptr) result_.decidedBy.push_back(combined.delta);
    return;
  }
  if (result_.status != Status::kRevoked) result_.decidedBy.clear();
  result_.status = Status::kRevoked;
  result_.decidedBy.push_back(source);
}

// 6.3.3 (i) and (j): by issuer and serial number (5.3.3). The reason is unspecified, 0, where the entry
// has none, or none that can be read.
bool Decision::find(const CRLCandidate& candidate, int& reason) {
  const ErrorScope errors;
  const ListedEntry entry = entryFor(listOf(candidate), certificate_);
  if (!entry) return false;
  if (entry.removed()) {
    reason = kRemoveFromCRL;
    return true;
  }
  reason = 0;
  Revoked revoked;
  const Owned<ASN1_ENUMERATED> given(static_cast<ASN1_ENUMERATED*>(
      X509_REVOKED_get_ext_d2i(entry.get(), NID_crl_reason, nullptr, nullptr)));
  if (given != nullptr) {
    const long value = ASN1_ENUMERATED_get(given.get());
    if (value > 0 && value <= 10 && value != kRemoveFromCRL) reason = static_cast<int>(value);
    revoked.reason = reason;
  }
  revoked.date =
      ASN1::RefGeneralizedTime(X509_REVOKED_get0_revocationDate(entry.get()), true)->asTime();
  if (result_.status != Status::kRevoked) result_.revoked = revoked;
  return true;
}

// 6.3.3: the status has been determined when the certificate is revoked, or all reasons are covered.
CRLStatus Decision::end() {
  if (result_.status != Status::kRevoked && reasons_mask_ == kAllReasons) {
    result_.status = Status::kGood;
  }
  if (result_.status == Status::kUndetermined && reasons_mask_ != 0) {
    result_.uncoveredReasons = kAllReasons & ~reasons_mask_;
  }
  return std::move(result_);
}

}  // namespace

CRLStatus statusFrom(const std::vector<const CRLCandidate*>& candidates,
                     const RefCertificate& certificate, const Time& time,
                     const RevocationSettings& settings) {
  Decision decision(certificate, time, settings);
  Candidates left;
  for (const CRLCandidate* const candidate : candidates) {
    if (candidate->counts()) left.push_back(candidate);
  }
  while (!left.empty() && VerificationRun::admitStep()) {
    const CRLCandidate& first = *left.front();
    const auto others = std::stable_partition(
        left.begin(), left.end(),
        [&first](const CRLCandidate* candidate) { return haveOneScope(first, *candidate); });
    decision.process(Candidates(left.begin(), others));
    left.erase(left.begin(), others);
  }
  return decision.end();
}

bool revokes(const CertificateRevocationList& crl, const RefCertificate& certificate) {
  const ListedEntry entry = entryFor(crl, certificate);
  return entry && !entry.removed();
}

}  // namespace Velantrix::Crypto::PKX509::Revocation
