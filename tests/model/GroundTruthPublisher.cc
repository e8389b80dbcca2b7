#include "model/GroundTruthPublisher.h"

#include <algorithm>
#include <optional>
#include <utility>

namespace Velantrix::Test::Truth {

namespace {

/// The bit of a reason in OpenSSL's masks; none of the unspecified ones.
int bitOf(int reason) {
  if (reason == 9) return 0x01;
  if (reason == 10) return 0x8000;
  return reason <= 0 ? 0 : 0x80 >> reason;
}

bool inScope(const Series& series, int reason) {
  if (!series.scope || series.scope->onlySomeReasons == kAbsent) return true;
  return (series.scope->onlySomeReasons & bitOf(reason)) != 0;
}

}  // namespace

int Publisher::signerAt(const Authority& authority, Minutes time) const {
  int signer = kNobody;
  for (const Turn& turn : authority.turns) {
    if (turn.from <= time) signer = turn.certificate;
  }
  if (signer == kNobody || signer == authority.certificate) return signer;
  if (!world_.revokedAt(signer, time)) return signer;
  const bool able = certificate(authority.certificate).keyUsage == kUsual;
  return authority.indirect || !able ? kNobody : authority.certificate;
}

void Publisher::publish(const Authority& authority) {
  const Minutes phase = chance_.between(1, kDay - 1);
  const bool last = chance_.percent(90);
  const Minutes validity = authority.deltas != Deltas::None && chance_.percent(40)
                               ? 8 * kHour
                               : chance_.pick({kDay + kHour, 2 * kDay, 3 * kDay});
  world_.plain.push_back(isPlain(authority, last));
  const Minutes deltaValidity = chance_.pick({8 * kHour, kDay});
  const bool olderBase = chance_.percent(40);
  for (const int index : authority.series) {
    int number = chance_.between(1, 300);
    Series& series = at(world_.series, index);
    for (Minutes time = -phase - 3 * kDay; time <= 4 * kHour; time += 6 * kHour) {
      if ((time + phase) % kDay == 0) {
        issueComplete(authority, series, time, ++number,
                      last ? std::optional(time + validity) : std::nullopt);
      } else if (authority.deltas != Deltas::None) {
        issueDelta(authority, series, time, ++number, time + deltaValidity, olderBase);
      }
    }
  }
}

// OpenSSL applies deltas only where they are announced, does not put reasons together, knows no age, and
// does not ask whether the issuer of a list is revoked.
bool Publisher::isPlain(const Authority& authority, bool untilNext) const {
  const auto signs = [&](const Turn& turn) {
    return turn.certificate != authority.certificate &&
           (certificate(turn.certificate).until < 0 || world_.revokedAt(turn.certificate, kDay));
  };
  return untilNext && authority.form != Form::Reasons && authority.deltas != Deltas::Unannounced &&
         std::none_of(authority.turns.begin(), authority.turns.end(), signs);
}

bool Publisher::covers(const Series& series, int index) const {
  const Certificate& one = at(world_.certificates, index);
  if (one.parent == kNobody || series.covered.count(world_.issuerOf(index)) == 0) return false;
  if (!series.scope) return true;
  if (series.scope->onlyUser && one.ca) return false;
  if (series.scope->onlyCA && !one.ca) return false;
  const auto names = placesOf(series.scope->fullNames, series.scope->relativeName, series.issuer);
  if (names.empty()) return true;
  return std::any_of(one.points.begin(), one.points.end(), [&](const DistributionPoint& point) {
    const auto own = placesOf(point.fullNames, point.relativeName, series.issuer);
    return std::any_of(own.begin(), own.end(), [&](const std::string& name) {
      return std::find(names.begin(), names.end(), name) != names.end();
    });
  });
}

List Publisher::blank(const Authority& authority, const Series& series, Minutes time,
                      int number) const {
  List list{.label = series.label, .issuer = series.issuer};
  const int signer = signerAt(authority, time);
  list.key = certificate(signer).key;
  list.authority = signer;
  if (authority.numbered) list.number = number;
  list.otherSpelling = authority.capitals;
  list.thisUpdate = time;
  list.scope = series.scope;
  return list;
}

void Publisher::issueComplete(const Authority& authority, Series& series, Minutes time, int number,
                              std::optional<Minutes> until) {
  if (signerAt(authority, time) == kNobody) return;
  List list = blank(authority, series, time, number);
  list.nextUpdate = until;
  list.freshest = series.freshest;
  for (int index = 0; index < static_cast<int>(world_.certificates.size()); ++index) {
    const std::optional<int> reason = world_.revokedAt(index, time);
    if (!reason || !covers(series, index) || !inScope(series, *reason)) continue;
    list.entries.push_back(entry(index, *reason, time));
  }
  add(series.complete, list);
}

// 5.2.4: all that has changed since the base.
void Publisher::issueDelta(const Authority& authority, Series& series, Minutes time, int number,
                           Minutes until, bool olderBase) {
  const std::size_t back = olderBase ? 2 : 1;
  if (signerAt(authority, time) == kNobody || series.complete.size() < back) return;
  const List base = at(world_.lists, *(series.complete.end() - static_cast<int>(back)));
  List list = blank(authority, series, time, number);
  if (base.key != list.key) return;
  list.base = base.number;
  list.nextUpdate = until;
  for (int index = 0; index < static_cast<int>(world_.certificates.size()); ++index) {
    if (!covers(series, index)) continue;
    addChange(list, series, index, base.thisUpdate);
  }
  add(series.deltas, list);
}

void Publisher::addChange(List& list, const Series& series, int index, Minutes since) const {
  const auto listed = [&](const std::optional<int>& reason) {
    return reason && inScope(series, *reason);
  };
  bool changed = false;
  bool wasListed = listed(world_.revokedAt(index, since));
  for (const Event& event : world_.events) {
    if (event.certificate != index || event.at <= since || event.at > list.thisUpdate) continue;
    changed = true;
    wasListed = wasListed || listed(world_.revokedAt(index, event.at));
  }
  if (!changed) return;
  const std::optional<int> now = world_.revokedAt(index, list.thisUpdate);
  if (listed(now)) {
    list.entries.push_back(entry(index, *now, list.thisUpdate));
  } else if (wasListed) {
    list.entries.push_back(entry(index, now ? kAbsent : kRemove, list.thisUpdate));
  }
}

Entry Publisher::entry(int index, int reason, Minutes time) const {
  return {.serial = certificate(index).serial,
          .issuer = world_.issuerOf(index),
          .reason = reason,
          .date = time - 1};
}

void Publisher::add(std::vector<int>& issued, List list) {
  // Which entry the name of a certificate issuer stands at, and for which it goes on, is chance.
  for (std::size_t i = list.entries.size(); i > 1; --i) {
    std::swap(list.entries[i - 1], at(list.entries, chance_.below(static_cast<int>(i))));
  }
  world_.lists.push_back(std::move(list));
  issued.push_back(static_cast<int>(world_.lists.size()) - 1);
}

}  // namespace Velantrix::Test::Truth
