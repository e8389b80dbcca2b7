// A clock, a cache and hosts in memory, for a refresh that does not wait.
//
//   SimulatedMeans means;
//   means.issuers = {ca};
//   means.answer = [&](const Uri&) { return means.sends(crl); };
//   const CRLRefresh::Entry entry = Refresher(means, {}).refresh(uri);
#pragma once

#include "refresh/RefreshMeans.h"
#include "refresh/Schedule.h"
#include "support/Handles.h"

#include <velantrix/Exception.h>

#include <algorithm>
#include <functional>
#include <list>
#include <map>
#include <string>
#include <vector>

namespace Velantrix::Test {

using namespace Crypto::PKX509;

class SimulatedMeans : public RefreshMeans {
 public:
  struct Spared {
    std::chrono::seconds pause{};
    Time until = {};
  };

  Time now() const override { return time; }
  std::optional<VerifiedCache::Entry> held(const Uri& uri) override {
    mayFail("held");
    const auto found = cache.find(uri.canonicalized());
    if (found == cache.end()) return std::nullopt;
    return found->second;
  }
  // With marks as the desk has them.
  FetchedCRL fetch(const Uri& uri, const LW::HTTP::Validators& validators) override {
    mayFail("fetch");
    if (spareUntil(uri)) return {.result = FetchedCRL::Result::kSpared, .reason = "a moment ago"};
    ++fetches;
    sent = validators;
    FetchedCRL result = answer(uri);
    Spared& mark = spared[uri.canonicalized()];
    if (result.result != FetchedCRL::Result::kFailed) {
      mark = {};
      return result;
    }
    mark.pause = std::clamp<std::chrono::seconds>(mark.pause * 2, FetchDesk::kFirstPause,
                                                  FetchDesk::kLongestPause);
    mark.until = Schedule::after(time, mark.pause);
    return result;
  }
  void withdraw(const Uri& /*uri*/) override { ++withdrawn; }
  std::optional<Time> spareUntil(const Uri& uri) override {
    const auto found = spared.find(uri.canonicalized());
    if (found == spared.end() || found->second.until <= time) return std::nullopt;
    return found->second.until;
  }
  CRLIssuer issuerOf(const Uri& /*uri*/, const RefCertificateRevocationList& crl) override {
    mayFail("issuerOf");
    if (always.isVerified()) return always;
    for (const Issued& issuer : issuers) {
      if (crl->crlInfo().issuer() == handle(issuer)->subject() &&
          crl->isSignedBy(X509_get0_pubkey(issuer.get()))) {
        const auto anchor = anchors.find(issuer.get());
        return {
            .path = {handle(issuer), handle(anchor == anchors.end() ? issuer : anchor->second)}};
      }
    }
    return nobody;
  }
  VerifiedCache::Stored store(const Uri& uri, const RefCertificateRevocationList& crl,
                              const CRLIssuer& /*issuer*/,
                              const VerifiedCache::Notes& notes) override {
    mayFail("store");
    VerifiedCache::Entry& entry = cache[uri.canonicalized()];
    stored = storedAs;
    if (storedAs == VerifiedCache::Stored::kStored) entry = {{crl}, notes, time};
    return storedAs;
  }
  void confirm(const Uri& uri, const LW::HTTP::Validators& /*asked*/,
               const VerifiedCache::Notes& notes) override {
    mayFail("confirm");
    ++confirmed;
    cache.at(uri.canonicalized()).notes = notes;
  }

  FetchedCRL sends(const RefCertificateRevocationList& crl, const std::string& etag = "") const {
    return {.result = FetchedCRL::Result::kFetched,
            .crl = crl,
            .notes = {.validators = {.etag = etag}, .fetched = time}};
  }
  FetchedCRL hasNothingNew() const {
    return {.result = FetchedCRL::Result::kNotModified, .notes = {.fetched = time}};
  }
  static FetchedCRL isDead() {
    return {.result = FetchedCRL::Result::kFailed, .reason = "could not connect"};
  }

  Time time = Time::now();
  std::map<std::string, VerifiedCache::Entry> cache;
  std::map<std::string, Spared> spared;
  std::vector<Issued> issuers;
  CRLIssuer always;  // whoever signed it, where it is verified
  CRLIssuer nobody{.refusal = "nobody knows who issued it"};
  std::map<X509*, Issued> anchors;  // where it is another one
  std::function<FetchedCRL(const Uri&)> answer = [](const Uri&) { return isDead(); };
  VerifiedCache::Stored storedAs = VerifiedCache::Stored::kStored;
  std::optional<VerifiedCache::Stored> stored;
  std::string failing;  // which of the functions throws
  LW::HTTP::Validators sent;
  int fetches = 0;
  int confirmed = 0;
  int withdrawn = 0;

 private:
  void mayFail(const std::string& where) const {
    if (where == failing) {
      throw Exception("Test", Exception::kFailure, nullptr, 0).stringParameter(where + " fails");
    }
  }
};

}  // namespace Velantrix::Test
