#include "model/GroundTruthOracle.h"

#include <openssl/x509v3.h>

#include <algorithm>

namespace Velantrix::Test::Truth {

namespace {

constexpr Minutes kTolerance = 5;
constexpr Minutes kMaximumAge = kDay;

template <class List, class T>
bool contains(const List& list, const T& value) {
  return std::find(list.begin(), list.end(), value) != list.end();
}

template <class List>
bool meet(const List& a, const List& b) {
  return std::any_of(a.begin(), a.end(), [&](const auto& one) { return contains(b, one); });
}

std::set<int> with(std::set<int> set, int one) {
  set.insert(one);
  return set;
}

}  // namespace

Verdict Oracle::verdict(int depth, int reading) {
  settled_.clear();
  for (int i = depth + 1; i < static_cast<int>(world_.path.size()); ++i) {
    settled_.insert(at(world_.path, i));
  }
  const int index = at(world_.path, depth);
  if (certificate(index).noRevAvail) {
    const Certificate& one = certificate(index);
    const bool misused =
        one.ca || !one.points.empty() || !one.freshest.empty() || !one.responders.empty();
    return misused ? Verdict::Undetermined : Verdict::NotNeeded;
  }
  reading_ = {.pooled = (reading & 1) == 0,
              .firstOfEqual = (reading & 2) != 0,
              .lazy = (reading & 4) != 0,
              .named = (reading & 8) != 0,
              .unordered = (reading & 16) != 0,
              .late = (reading & 32) != 0};
  known_.clear();
  return decide(index, {}, true);
}

Verdict Oracle::decide(int index, const Assumptions& assumptions, bool useOCSP) {
  const auto key = std::make_tuple(index, assumptions, useOCSP);
  const auto known = known_.find(key);
  if (known != known_.end()) return known->second;
  return known_[key] = decideAnew(index, assumptions, useOCSP);
}

// OCSP first; good and revoked end it.
Verdict Oracle::decideAnew(int index, const Assumptions& assumptions, bool useOCSP) {
  if (useOCSP && offer_.useOCSP) {
    const std::optional<Verdict> verdict = byAnswers(index, assumptions);
    if (verdict && *verdict != Verdict::Undetermined) return *verdict;
  }
  // What does not rest on the certificate itself has the first word.
  Assumptions firm = assumptions;
  firm.barred.insert(index);
  Verdict verdict = Verdict::Undetermined;
  for (const bool byName : {false, true}) {
    verdict = byLists(index, firm, byName);
    if (verdict != Verdict::Undetermined) return verdict;
  }
  Assumptions hypothesis = assumptions;
  hypothesis.unrevoked.insert(index);
  for (const bool byName : {false, true}) {
    if (!byName && !reading_.lazy) continue;
    const Verdict then = byLists(index, hypothesis, byName);
    if (then == Verdict::Good) return then;
    // What shows that it is revoked, and holds only if it is not, shows nothing.
    if (then == Verdict::Revoked) return reading_.late ? then : Verdict::Undetermined;
  }
  return Verdict::Undetermined;
}

Verdict Oracle::byLists(int index, const Assumptions& assumptions, bool byName) {
  std::vector<Found> usables;
  const auto take = [&](const std::vector<Found>& all) {
    for (const Found& one : all) {
      if (usable(one.list, assumptions)) usables.push_back(one);
    }
  };
  take(found(index, byName));
  for (std::size_t i = 0; i < usables.size() && offer_.useDeltas; ++i) {
    if (list(usables[i].list).base || !covered(usables[i].list, index, byName)) continue;
    take(announcedBy(usables[i].list, usables));
  }
  std::set<int> silenced;
  for (const Found& one : usables) {
    if (namesItsSigner(one.list, index, byName)) silenced.insert(list(one.list).key);
  }
  std::erase_if(usables, [&](const Found& one) { return silenced.count(list(one.list).key) != 0; });
  return judge(index, usables, byName);
}

bool Oracle::covered(int number, int index, bool byName) const {
  const std::vector<DistributionPoint> points = pointsOf(index, byName);
  return std::any_of(points.begin(), points.end(), [&](const DistributionPoint& point) {
    return inScope(list(number), point, index);
  });
}

// A list that names the certificate of its own key: nothing by that key counts.
bool Oracle::namesItsSigner(int number, int index, bool byName) const {
  const List& by = list(number);
  if (!current(by) || (reading_.named && by.base)) return false;
  if (!covered(number, index, byName)) return false;
  for (int signer = 1; signer < static_cast<int>(world_.certificates.size()); ++signer) {
    const Certificate& one = certificate(signer);
    if (one.key != by.key || one.subject != by.issuer) continue;
    const std::optional<int> reason = reasonIn(by, signer);
    if (reason && *reason != kRemove) return true;
  }
  return false;
}

// Lists.

std::vector<DistributionPoint> Oracle::pointsOf(int index, bool byName) const {
  std::vector<DistributionPoint> points = certificate(index).points;
  // 6.3.3, the end: a point with the name of the certificate issuer.
  if (byName) points.push_back({.fullNames = {directory(world_.issuerOf(index))}});
  return points;
}

std::vector<Oracle::Found> Oracle::found(int index, bool byName) const {
  std::vector<Found> all;
  const auto look = [&](const std::vector<std::string>& places, int point) {
    for (const std::string& place : places) {
      const auto there = offer_.lists.find(place);
      if (there == offer_.lists.end()) continue;
      for (const int list : there->second) all.push_back({list, point});
    }
  };
  const std::vector<DistributionPoint> points = pointsOf(index, byName);
  for (int i = 0; i < static_cast<int>(points.size()); ++i) {
    const DistributionPoint& point = at(points, i);
    const std::string issuer = point.crlIssuers.empty()
                                   ? world_.issuerOf(index)
                                   : point.crlIssuers.front().substr(directory("").size());
    const auto names = placesOf(point.fullNames, point.relativeName, issuer);
    look(names, i);
    if (names.empty() || reading_.pooled) look(point.crlIssuers, i);
  }
  if (!offer_.useDeltas) return all;
  for (const DistributionPoint& point : certificate(index).freshest) look(point.fullNames, -1);
  return all;
}

// 5.2.6: what lies where a list says that its deltas are, but for what is known.
std::vector<Oracle::Found> Oracle::announcedBy(int by, const std::vector<Found>& known) const {
  std::vector<Found> all;
  for (const DistributionPoint& point : list(by).freshest) {
    for (const std::string& place : point.fullNames) {
      const auto there = offer_.lists.find(place);
      if (there == offer_.lists.end()) continue;
      for (const int list : there->second) {
        const auto same = [&](const Found& one) { return one.list == list && one.point == -1; };
        if (std::none_of(known.begin(), known.end(), same)) all.push_back({list, -1});
      }
    }
  }
  return all;
}

bool Oracle::wellMade(const List& list) const {
  if (list.badSignature || list.unknownCritical) return false;
  for (const Entry& entry : list.entries) {
    if (entry.unknownCritical || (entry.reason == kRemove && !list.base)) return false;
    // 5.3.3: the extension is one of indirect CRLs.
    if (entry.issuer != list.issuer && !(list.scope && list.scope->indirect)) return false;
  }
  if (!list.version1) return true;
  // 5.1.2.1: extensions are those of version 2.
  const auto extended = [](const Entry& entry) { return entry.reason != kAbsent; };
  return !list.number && !list.base && !list.scope && list.freshest.empty() &&
         list.authority == kNobody &&
         std::none_of(list.entries.begin(), list.entries.end(), extended);
}

bool Oracle::usable(int index, const Assumptions& assumptions) {
  const List& one = list(index);
  if (!wellMade(one) || one.thisUpdate > offer_.checked) return false;
  // Whoever has the key and the name, and may.
  std::vector<int> signers = offer_.certificates;
  signers.insert(signers.end(), world_.path.begin(), world_.path.end());
  return std::any_of(signers.begin(), signers.end(), [&](int signer) {
    const Certificate& by = certificate(signer);
    if (by.subject != one.issuer || by.key != one.key) return false;
    const int usual = by.ca ? KU_KEY_CERT_SIGN | KU_CRL_SIGN : KU_DIGITAL_SIGNATURE;
    const int usage = by.keyUsage == kUsual ? usual : by.keyUsage;
    if (usage != kAbsent && (usage & KU_CRL_SIGN) == 0) return false;
    return vouchedFor(signer, assumptions, false);
  });
}

/// Up to the root, empty where there is no way.
std::vector<int> Oracle::pathOf(int index) const {
  std::vector<int> path;
  for (int at = index; path.size() < 10; at = certificate(at).parent) {
    if (at == kRoot) return path;
    if (at == kNobody || certificate(at).forger != kNobody) return {};
    const bool known =
        at == index || contains(offer_.certificates, at) || contains(world_.path, at);
    const Certificate& one = certificate(at);
    if (!known || one.from > offer_.checked || one.until < offer_.checked) return {};
    if (at != index && !one.ca) return {};
    path.push_back(at);
  }
  return {};
}

bool Oracle::vouchedFor(int index, const Assumptions& assumptions, bool byListsOnly) {
  if (index == kRoot) return true;
  std::vector<int> path = pathOf(index);
  if (path.empty()) return false;
  if (!offer_.wholePath) path.resize(1);  // its own revocation, as that of the leaf
  std::reverse(path.begin(), path.end());
  for (const int one : path) {
    if (settled_.count(one) != 0) continue;
    if (assumptions.barred.count(one) != 0) return false;
    if (assumptions.unrevoked.count(one) != 0) continue;
    if (decide(one, assumptions, !(byListsOnly && one == index)) != Verdict::Good) return false;
  }
  return true;
}

// 6.3.3 (b)
bool Oracle::inScope(const List& one, const DistributionPoint& point, int index) const {
  const bool byOther = !point.crlIssuers.empty();
  if (byOther) {
    if (!contains(point.crlIssuers, directory(one.issuer))) return false;
    if (!one.scope || !one.scope->indirect) return false;
  } else if (one.issuer != world_.issuerOf(index)) {
    return false;
  }
  if (!one.scope) return true;
  if (one.scope->onlyUser && certificate(index).ca) return false;
  if (one.scope->onlyCA && !certificate(index).ca) return false;
  if (one.scope->onlyAttributes) return false;
  // (d) and (e)
  if (one.scope->onlySomeReasons != kAbsent && point.reasons != kAbsent &&
      (one.scope->onlySomeReasons & point.reasons) == 0) {
    return false;
  }
  const auto names = placesOf(one.scope->fullNames, one.scope->relativeName, one.issuer);
  if (names.empty()) return true;
  const auto own = placesOf(point.fullNames, point.relativeName, one.issuer);
  return meet(names, own.empty() ? point.crlIssuers : own);
}

bool Oracle::current(const List& one) const {
  if (one.nextUpdate) return offer_.checked <= *one.nextUpdate;
  return offer_.checked - one.thisUpdate <= kMaximumAge;
}

// 5.2.4
bool Oracle::fits(const List& delta, const List& complete) const {
  return offer_.useDeltas && delta.base && delta.number && complete.number && current(delta) &&
         delta.issuer == complete.issuer && delta.key == complete.key &&
         delta.authority == complete.authority && sameScope(delta.scope, complete.scope) &&
         *delta.base <= *complete.number && *complete.number < *delta.number;
}

bool Oracle::newer(const List& a, const List& b) const {
  if (a.number && b.number && *a.number != *b.number) return *a.number > *b.number;
  if (a.thisUpdate != b.thisUpdate) return a.thisUpdate > b.thisUpdate;
  return !reading_.firstOfEqual;
}

// 5.2.4: a complete list and its delta are one that has the delta's number and time.
bool Oracle::newer(const std::vector<Found>& found, int point, const List& a, const List& b) const {
  const List* const deltaOfA = deltaFor(a, found, point);
  const List* const deltaOfB = deltaFor(b, found, point);
  if (deltaOfA == deltaOfB) return newer(a, b);
  return newer(deltaOfA == nullptr ? a : *deltaOfA, deltaOfB == nullptr ? b : *deltaOfB);
}

const List* Oracle::deltaFor(const List& complete, const std::vector<Found>& found,
                             int point) const {
  const List* best = nullptr;
  for (const Found& one : found) {
    const List& delta = list(one.list);
    if (!reading_.pooled && one.point != point && one.point != -1) continue;
    if (fits(delta, complete) && (best == nullptr || newer(delta, *best))) best = &delta;
  }
  return best;
}

std::optional<int> Oracle::reasonIn(const List& one, int index) const {
  for (const Entry& entry : one.entries) {
    if (entry.serial == certificate(index).serial && entry.issuer == world_.issuerOf(index)) {
      return entry.reason;
    }
  }
  return {};
}

// Of each issuer and scope.
std::vector<const List*> Oracle::newestOf(std::vector<const List*> candidates,
                                          const std::vector<Found>& found, int point) const {
  std::vector<const List*> newest;
  while (!candidates.empty()) {
    const List& first = *candidates.front();
    const auto others =
        std::stable_partition(candidates.begin(), candidates.end(), [&](const List* other) {
          return other->issuer == first.issuer && sameScope(other->scope, first.scope);
        });
    const auto numbered = [](const List* one) { return one->number.has_value(); };
    const auto count = std::count_if(candidates.begin(), others, numbered);
    if (reading_.unordered && count != 0 && count != others - candidates.begin()) {
      newest.insert(newest.end(), candidates.begin(), others);
    } else {
      newest.push_back(*std::max_element(
          candidates.begin(), others,
          [&](const List* a, const List* b) { return newer(found, point, *b, *a); }));
    }
    candidates.erase(candidates.begin(), others);
  }
  return newest;
}

// 6.3.3 (d), (e), (i) to (l), and the newest of each issuer and scope
Verdict Oracle::judge(int index, const std::vector<Found>& found, bool byName) const {
  const std::vector<DistributionPoint> points = pointsOf(index, byName);
  int reasons = 0;
  for (int i = 0; i < static_cast<int>(points.size()); ++i) {
    const DistributionPoint& point = at(points, i);
    std::vector<const List*> candidates;
    for (const Found& one : found) {
      const List& candidate = list(one.list);
      if (candidate.base || (!reading_.pooled && one.point != i)) continue;
      if (!inScope(candidate, point, index)) continue;
      if (!current(candidate) && deltaFor(candidate, found, i) == nullptr) continue;
      candidates.push_back(&candidate);
    }
    for (const List* const complete : newestOf(candidates, found, i)) {
      const List* const delta = deltaFor(*complete, found, i);
      std::optional<int> reason;
      if (delta != nullptr) reason = reasonIn(*delta, index);
      if (!reason) reason = reasonIn(*complete, index);
      if (reason && *reason != kRemove) return Verdict::Revoked;
      int interim = point.reasons == kAbsent ? kAllReasons : point.reasons;
      if (complete->scope && complete->scope->onlySomeReasons != kAbsent) {
        interim &= complete->scope->onlySomeReasons;
      }
      reasons |= interim;
    }
  }
  return reasons == kAllReasons ? Verdict::Good : Verdict::Undetermined;
}

// OCSP.

std::optional<Verdict> Oracle::byAnswers(int index, const Assumptions& assumptions) {
  for (const std::string& uri : certificate(index).responders) {
    const auto there = offer_.answers.find(uri);
    if (there == offer_.answers.end()) continue;
    const std::optional<Verdict> verdict = byAnswer(index, there->second, assumptions);
    if (verdict) return verdict;
  }
  return {};
}

// RFC 6960, 4.2.2.2
bool Oracle::mayAnswer(int index, const Answer& answer, const Assumptions& assumptions) {
  const Certificate& by = certificate(answer.signer);
  if (answer.key != kNobody && answer.key != by.key) return false;
  if (by.key == certificate(index).key) return false;
  if (offer_.operatorsResponder == answer.signer) return true;
  if (by.key == world_.keyOfIssuer(index) && by.subject == world_.issuerOf(index)) return true;
  if (!answer.carries || !by.ocspSigning || by.forger != kNobody) return false;
  if (by.parent == kNobody || world_.keyOfIssuer(answer.signer) != world_.keyOfIssuer(index))
    return false;
  if (pathOf(answer.signer).empty()) return false;
  if (by.noCheck) return true;
  Assumptions more = assumptions;
  more.unrevoked = with(more.unrevoked, index);
  return vouchedFor(answer.signer, more, true);
}

std::optional<Verdict> Oracle::byAnswer(int index, const Answer& answer,
                                        const Assumptions& assumptions) {
  if (answer.fails || answer.badSignature || answer.unknownCritical) return {};
  if (answer.nonce == OCSPNonce::Other || answer.producedAt > kTolerance) return {};
  if (!mayAnswer(index, answer, assumptions)) return {};
  const Single* best = nullptr;
  for (const Single& single : answer.singles) {
    if (single.certificate != index || single.issuer != certificate(index).parent) continue;
    const bool timely = single.thisUpdate <= offer_.checked + kTolerance &&
                        single.thisUpdate <= answer.producedAt + kTolerance &&
                        (single.nextUpdate ? offer_.checked <= *single.nextUpdate
                                           : offer_.checked - single.thisUpdate <= kMaximumAge);
    if (!timely) continue;
    if (single.status == V_OCSP_CERTSTATUS_REVOKED) return Verdict::Revoked;
    if (best == nullptr || single.thisUpdate > best->thisUpdate) best = &single;
  }
  if (best == nullptr) return {};
  return best->status == V_OCSP_CERTSTATUS_GOOD ? Verdict::Good : Verdict::Undetermined;
}

}  // namespace Velantrix::Test::Truth
