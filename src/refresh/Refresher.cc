#include "refresh/Refresher.h"

#include "foundation/model/CRLParts.h"
#include "refresh/Schedule.h"

#include <velantrix/Exception.h>

#include <openssl/evp.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <string_view>
#include <utility>

namespace Velantrix::Crypto::PKX509 {

namespace {

using Result = CRLRefresh::Result;
using Stored = VerifiedCache::Stored;

// A CRL, who issued it, and how long it lives.
struct Known {
  RefCertificateRevocationList crl = {};
  CRLIssuer issuer = {};
  Schedule::Life life = {};

  bool isGood(const Time& now) const noexcept {
    return issuer.isVerified() && life.thisUpdate <= now && now < life.nextUpdate;
  }
};

std::string_view distributionPointOf(const RefCertificateRevocationList& crl) noexcept {
  return extensionOf(*crl.get(), NID_issuing_distribution_point);
}

bool isSameAnchor(X509* one, X509* other) noexcept {
  return X509_NAME_cmp(X509_get_subject_name(one), X509_get_subject_name(other)) == 0 &&
         EVP_PKEY_eq(X509_get0_pubkey(one), X509_get0_pubkey(other)) == 1;
}

// Why one that is verified must not stand in the place of one that is good; empty when it may. Whoever
// answers for the host has CRLs of other CAs at hand, and of another one with the same name below another
// trust anchor: each would be good for its whole life, and of no use to who asks for this one.
std::string misplaced(const Known& good, const Known& next) {
  if (!(good.crl->crlInfo().issuer() == next.crl->crlInfo().issuer())) {
    return "what the host has is of another issuer than the good one of the cache";
  }
  if (good.crl->isDeltaCRL() != next.crl->isDeltaCRL() ||
      distributionPointOf(good.crl) != distributionPointOf(next.crl)) {
    return "what the host has is of another scope than the good one of the cache";
  }
  if (!isSameAnchor(good.issuer.path.back(), next.issuer.path.back())) {
    return "the issuer of what the host has ends at another trust anchor than that of the good one "
           "of "
           "the cache";
  }
  return {};
}

std::string untimely(const Known& next, const Time& now) {
  if (now < next.life.thisUpdate) return "what the host has is not valid yet";
  if (next.life.nextUpdate <= now) return "what the host has has run out";
  return {};
}

class Attempt {
 public:
  Attempt(RefreshMeans& means, const Refresher::Terms& terms, const Uri& uri)
      : means_(means), terms_(terms), uri_(uri), now_(means.now()) {}

  CRLRefresh::Entry run() {
    try {
      readHeld();
      if (!isDue()) return end(Result::kKept, held_);
      return ask();
    } catch (const Exception& failure) {
      return fail(failure.stringParameter().empty() ? failure.context()
                                                    : failure.stringParameter());
    }
  }

 private:
  bool holdsGood() const noexcept { return held_.isGood(now_); }

  bool isDue() const {
    return terms_.all || !holdsGood() || Schedule::isDue(uri_, held_.life, terms_.share, now_);
  }

  // Of what the cache holds that which is verified, the newest. A file that cannot be read is as good as
  // none, and replaced.
  void readHeld() {
    std::optional<VerifiedCache::Entry> entry;
    try {
      entry = means_.held(uri_);
    } catch (const Exception&) {
      return;
    }
    if (!entry) return;
    for (const RefCertificateRevocationList& crl : entry->crls) {
      Known one = known(crl, entry->notes.fetched);
      if (!one.issuer.isVerified()) continue;
      if (held_.crl.empty() || held_.life.thisUpdate < one.life.thisUpdate) held_ = std::move(one);
    }
    // What "not modified" would be about has to be what is verified.
    if (!held_.crl.empty() && entry->crls.size() == 1) validators_ = entry->notes.validators;
  }

  Known known(const RefCertificateRevocationList& crl, const std::optional<Time>& confirmed) {
    return {.crl = crl,
            .issuer = means_.issuerOf(uri_, crl),
            .life = Schedule::lifeOf(*crl.get(), confirmed)};
  }

  CRLRefresh::Entry ask() {
    FetchedCRL answer = means_.fetch(uri_, validators_);
    now_ = means_.now();
    // What is of no use may have come by its validators from anybody.
    if (answer.result == FetchedCRL::Result::kNotModified && !holdsGood()) {
      answer = means_.fetch(uri_, {});
      now_ = means_.now();
    }
    switch (answer.result) {
      case FetchedCRL::Result::kFetched:
        return take(answer);
      case FetchedCRL::Result::kNotModified:
        return isConfirmed(answer.notes);
      case FetchedCRL::Result::kFailed:
      case FetchedCRL::Result::kSpared:
      case FetchedCRL::Result::kRefused:
        break;
    }
    return fail(answer.reason);
  }

  CRLRefresh::Entry isConfirmed(const VerifiedCache::Notes& notes) {
    if (!holdsGood()) return fail("the host has not sent what it was asked for");
    means_.confirm(uri_, validators_, notes);
    held_.life.confirmed = notes.fetched;
    return end(Result::kNotModified, held_);
  }

  CRLRefresh::Entry take(const FetchedCRL& answer) {
    Known next = known(answer.crl, answer.notes.fetched);
    if (!next.issuer.isVerified()) {
      if (!next.issuer.cut) means_.withdraw(uri_);
      return fail(next.issuer.refusal);
    }
    std::string objection = untimely(next, now_);
    if (objection.empty() && holdsGood()) objection = misplaced(held_, next);
    if (!objection.empty()) return fail(objection);
    switch (means_.store(uri_, next.crl, next.issuer, answer.notes)) {
      case Stored::kStored:
        return end(Result::kUpdated, next);
      case Stored::kSame:
        return end(Result::kNotModified, next);
      case Stored::kOlder:
        return fail("what the host has is older than what the cache has");
      case Stored::kOther:
        return fail("what the host has is of another scope than what the cache has");
      case Stored::kRefused:
        break;
    }
    return fail("what the host has is not signed by its issuer");
  }

  CRLRefresh::Entry end(Result result, const Known& current) const {
    Time due = Schedule::dueAt(uri_, current.life, terms_.share, now_);
    if (result != Result::kKept) due = std::max(due, Schedule::after(now_, Schedule::kLeastPause));
    return {.uri = uri_, .result = result, .nextUpdate = current.life.nextUpdate, .due = due};
  }

  CRLRefresh::Entry fail(const std::string& reason) {
    CRLRefresh::Entry entry{.uri = uri_, .reason = reason};
    if (holdsGood()) {
      entry.result = Result::kFailedOldIsGood;
      entry.nextUpdate = held_.life.nextUpdate;
    }
    const std::optional<Time> spared = means_.spareUntil(uri_);
    entry.due = spared.value_or(Schedule::after(now_, Schedule::kRound));
    return entry;
  }

  RefreshMeans& means_;
  const Refresher::Terms& terms_;
  const Uri& uri_;
  Time now_;
  Known held_;  // without a CRL where nothing is there that is verified
  LW::HTTP::Validators validators_;
};

}  // namespace

CRLRefresh::Entry Refresher::refresh(const Uri& uri) { return Attempt(means_, terms_, uri).run(); }

}  // namespace Velantrix::Crypto::PKX509
