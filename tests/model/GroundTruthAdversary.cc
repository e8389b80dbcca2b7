#include "model/GroundTruthAdversary.h"

#include "model/GroundTruthGenerator.h"

#include <openssl/x509v3.h>

#include <algorithm>
#include <functional>
#include <utility>

namespace Velantrix::Test::Truth {

namespace {

class Maker {
 public:
  Maker(World& world, std::uint64_t seed) : world_(world), chance_(seed) {
    world_.lists.resize(world_.made);
    world_.certificates.resize(world_.born);
  }

  Offer idle() {
    offer_.idle = true;
    offerCertificates(0);
    for (const Series& series : world_.series) offerNewest(series, true);
    return std::move(offer_);
  }

  Offer active() {
    if (!world_.lists.empty() && chance_.percent(25)) chooseMoment();
    offer_.useDeltas = !chance_.percent(5);
    offer_.useOCSP = !chance_.percent(5);
    offer_.wholePath = !chance_.percent(10);
    offerCertificates(4);
    for (const Series& series : world_.series) offerSome(series);
    for (int i = chance_.below(7); i > 0; --i) attackLists();
    offerAnswers();
    shuffle();
    return std::move(offer_);
  }

 private:
  const Certificate& certificate(int index) const { return at(world_.certificates, index); }
  const List& list(int index) const { return at(world_.lists, index); }
  void note(const std::string& text) { offer_.notes.push_back(text); }

  // A moment in the past, and often the very minute at which something begins or ends.
  void chooseMoment() {
    const List& some = chance_.any(world_.lists);
    const Minutes edge =
        (chance_.percent(50) && some.nextUpdate ? *some.nextUpdate : some.thisUpdate) +
        chance_.between(-1, 1);
    const bool past = edge <= 0 && edge > -2 * kDay;
    offer_.checked = past ? edge : chance_.between(-30 * kHour, 0);
  }

  void offerCertificates(int withheld) {
    for (int i = 0; i < static_cast<int>(world_.certificates.size()); ++i) {
      if (certificate(i).label.rfind("noise", 0) == 0 || chance_.percent(withheld)) continue;
      const bool outside =
          certificate(i).label == kForeignLabel || certificate(i).label == kNamesakeLabel;
      if (outside && (offer_.idle || chance_.percent(70))) continue;
      offer_.certificates.push_back(i);
    }
  }

  void put(const std::string& place, int index) {
    std::vector<int>& there = offer_.lists[place];
    if (std::find(there.begin(), there.end(), index) == there.end()) there.push_back(index);
  }

  // By the name of its issuer every list can be found in a directory.
  static std::string byName(const Series& series) { return directory(series.issuer); }

  int newest(const std::vector<int>& issued) const {
    int found = kNobody;
    for (const int index : issued) {
      if (list(index).thisUpdate <= offer_.checked) found = index;
    }
    return found;
  }

  void offerNewest(const Series& series, bool everywhere) {
    const auto offer = [&](const std::vector<int>& issued, const std::vector<std::string>& places) {
      const int index = newest(issued);
      if (index == kNobody) return;
      for (const std::string& place : places) {
        if (everywhere || chance_.percent(80)) put(place, index);
      }
      if (!everywhere && chance_.percent(20)) put(byName(series), index);
    };
    offer(series.complete, series.places);
    offer(series.deltas, series.deltaPlaces);
  }

  void offerSome(const Series& series) {
    if (chance_.percent(60)) return offerNewest(series, false);
    if (chance_.percent(15)) return;
    std::vector<std::string> places = series.places;
    places.insert(places.end(), series.deltaPlaces.begin(), series.deltaPlaces.end());
    places.push_back(byName(series));
    for (const std::vector<int>* const issued : {&series.complete, &series.deltas}) {
      for (int i = chance_.below(4); i > 0 && !issued->empty(); --i) {
        const int latest = static_cast<int>(issued->size()) - 1;
        const int back = std::min(latest, chance_.below(4));
        put(chance_.any(places), at(*issued, latest - back));
      }
    }
  }

  // Somebody whose status is asked for, and lists that are about it.
  int victim() {
    if (chance_.percent(25)) {
      for (int i = 0; i < 20; ++i) {
        const int index = chance_.below(static_cast<int>(world_.born));
        const std::string& label = certificate(index).label;
        if (label.rfind(kSignerLabel, 0) == 0 || label == kDelegateLabel) return index;
      }
    }
    return at(world_.path, chance_.below(static_cast<int>(world_.path.size()) - 1));
  }

  const Series* seriesAbout(int index) {
    std::vector<const Series*> found;
    for (const Series& series : world_.series) {
      const bool about = series.covered.count(world_.issuerOf(index)) != 0;
      if (about && newest(series.complete) != kNobody) found.push_back(&series);
    }
    return found.empty() ? nullptr : chance_.any(found);
  }

  void toggle(List& forged, int index) {
    const auto about = [&](const Entry& entry) {
      return entry.serial == certificate(index).serial && entry.issuer == world_.issuerOf(index);
    };
    const auto end = std::remove_if(forged.entries.begin(), forged.entries.end(), about);
    if (end != forged.entries.end()) {
      if (forged.base && chance_.percent(50)) {
        end->reason = kRemove;
        *end = {.serial = certificate(index).serial,
                .issuer = world_.issuerOf(index),
                .reason = kRemove};
        forged.entries.erase(end + 1, forged.entries.end());
        return;
      }
      forged.entries.erase(end, forged.entries.end());
      return;
    }
    forged.entries.push_back({.serial = certificate(index).serial,
                              .issuer = world_.issuerOf(index),
                              .reason = chance_.pick({kAbsent, 0, 1, 4, kHold})});
  }

  void makeNewer(List& forged) {
    if (forged.number) *forged.number += chance_.between(1, 40);
    forged.thisUpdate = offer_.checked - chance_.below(kHour);
    if (forged.nextUpdate || chance_.percent(80)) forged.nextUpdate = offer_.checked + kDay;
  }

  void attackLists() {
    const int index = victim();
    const Series* const series = seriesAbout(index);
    if (series == nullptr) return;
    const bool delta = chance_.percent(30) && newest(series->deltas) != kNobody;
    List forged = list(newest(delta ? series->deltas : series->complete));
    makeNewer(forged);
    toggle(forged, index);
    using Move = void (Maker::*)(List&, int, const Series&);
    const Move move = chance_.pick<Move>(
        {&Maker::byStranger, &Maker::byOther, &Maker::byVictim, &Maker::inOwnName,
         &Maker::byNamesake, &Maker::damaged, &Maker::critical, &Maker::ahead, &Maker::stale,
         &Maker::otherScope, &Maker::otherScope, &Maker::asDelta, &Maker::removing,
         &Maker::version1, &Maker::otherCertificates, &Maker::compromised, &Maker::numbered});
    const bool signs = certificate(index).label.rfind(kSignerLabel, 0) == 0;
    if (signs && chance_.percent(30)) {
      byVictim(forged, index, *series);
    } else {
      (this->*move)(forged, index, *series);
    }
    place(std::move(forged), index, *series);
  }

  void place(List forged, int index, const Series& series) {
    forged.label += " about " + std::to_string(index);
    world_.lists.push_back(std::move(forged));
    const int made = static_cast<int>(world_.lists.size()) - 1;
    std::vector<std::string> places = series.places;
    places.insert(places.end(), series.deltaPlaces.begin(), series.deltaPlaces.end());
    places.push_back(byName(series));
    places.push_back(directory(world_.issuerOf(index)));
    for (const DistributionPoint& point : certificate(index).points) {
      const auto own = placesOf(point.fullNames, point.relativeName, series.issuer);
      places.insert(places.end(), own.begin(), own.end());
    }
    for (int i = chance_.between(1, 3); i > 0; --i) put(chance_.any(places), made);
  }

  int offerCertificate(Certificate made) {
    world_.certificates.push_back(std::move(made));
    const int index = static_cast<int>(world_.certificates.size()) - 1;
    offer_.certificates.insert(offer_.certificates.begin(), index);
    return index;
  }

  // Forged, with a certificate that says otherwise.
  void byStranger(List& forged, int index, const Series&) {
    forged.label = "by a stranger";
    forged.key = chance_.pick({kStranger, kOtherStranger});
    if (chance_.percent(30)) return;
    Certificate made{.label = "stranger",
                     .subject = forged.issuer,
                     .parent = kNobody,
                     .key = forged.key,
                     .serial = 99,
                     .ca = chance_.percent(50)};
    if (chance_.percent(60)) {
      made.parent = at(world_.certificates, index).parent;
      made.forger = chance_.percent(50) ? forged.key : certificate(at(world_.path, 0)).key;
    }
    const int stranger = offerCertificate(made);
    if (chance_.percent(50)) forged.authority = stranger;
  }

  // Genuine keys, of those who have no say.
  void byOther(List& forged, int, const Series&) {
    forged.label = "by another's key";
    const int other = find(world_, chance_.pick({kNeighbourLabel, kSiblingLabel, kDelegateLabel,
                                                 kLeafLabel, kForeignLabel}));
    if (other == kNobody) return byStranger(forged, at(world_.path, 0), {});
    forged.key = certificate(other).key;
    if (chance_.percent(50)) forged.authority = other;
  }

  void byVictim(List& forged, int index, const Series&) {
    forged.label = "by the certificate in question";
    forged.key = certificate(index).key;
    if (chance_.percent(50)) forged.authority = index;
  }

  void inOwnName(List& forged, int, const Series&) {
    forged.label = "another CA's own";
    const int sibling =
        chance_.pick({find(world_, kSiblingLabel), find(world_, kNeighbourLabel), kRoot});
    forged.issuer = certificate(sibling).subject;
    forged.key = certificate(sibling).key;
    forged.authority = sibling;
  }

  void byNamesake(List& forged, int, const Series&) {
    forged.label = "by a namesake under another root";
    const int namesake = find(world_, kNamesakeLabel);
    forged.issuer = certificate(namesake).subject;
    forged.key = certificate(namesake).key;
    forged.authority = namesake;
    offer_.certificates.insert(offer_.certificates.begin(), namesake);
    offer_.certificates.push_back(find(world_, kForeignLabel));
  }

  void damaged(List& forged, int, const Series&) {
    forged.label = "damaged";
    forged.badSignature = true;
  }

  // From here on the issuer's own key signs: it is the list itself that is not to be used so.
  void critical(List& forged, int, const Series&) {
    forged.label = "with an unknown critical extension";
    forged.unknownCritical = chance_.percent(60) || forged.entries.empty();
    if (!forged.unknownCritical) chance_.any(forged.entries).unknownCritical = true;
  }

  void ahead(List& forged, int, const Series&) {
    forged.label = "from the future";
    forged.thisUpdate = offer_.checked + chance_.between(1, 2 * kHour);
  }

  void stale(List& forged, int, const Series&) {
    forged.label = "stale";
    forged.thisUpdate = offer_.checked - 2 * kDay;
    forged.nextUpdate = offer_.checked - chance_.between(1, kDay);
    if (chance_.percent(30)) {
      forged.nextUpdate.reset();
      forged.thisUpdate = offer_.checked - kDay - chance_.between(-1, 1);
    }
  }

  void otherScope(List& forged, int index, const Series&) {
    forged.label = "of another scope";
    IssuingDistributionPoint scope = forged.scope.value_or(IssuingDistributionPoint());
    switch (chance_.below(6)) {
      case 0:
        scope.onlyUser = certificate(index).ca;
        scope.onlyCA = !certificate(index).ca;
        break;
      case 1:
        scope.onlyUser = scope.onlyCA = false;
        scope.onlyAttributes = true;
        break;
      case 2:
        scope.indirect = !scope.indirect;
        if (chance_.percent(50)) forged.entries.clear();
        break;
      case 3:
        scope.relativeName.clear();
        scope.fullNames = {"URI:http://other.test/"};
        break;
      case 4:
        scope.onlySomeReasons = chance_.pick({0x40, 0x02, kAllReasons});
        break;
      default:
        scope.fullNames.clear();
        scope.relativeName = "CN=elsewhere";
        break;
    }
    forged.scope.reset();
    if (!sameScope(scope, IssuingDistributionPoint())) forged.scope = scope;
  }

  void asDelta(List& forged, int, const Series&) {
    forged.label = "a delta that fits no base";
    if (forged.base && chance_.percent(40)) {
      forged.authority = chance_.percent(50) ? kNobody : kRoot;
      return;
    }
    const int number = forged.number.value_or(5);
    forged.number = number;
    forged.base = number - chance_.pick({-5, 0, 0, 1, 2});
    if (chance_.percent(30)) forged.authority = kNobody;
  }

  void removing(List& forged, int index, const Series&) {
    forged.label = "complete, with removeFromCRL";
    forged.base.reset();
    forged.entries.push_back({.serial = chance_.percent(50) ? certificate(index).serial : 77,
                              .issuer = world_.issuerOf(index),
                              .reason = kRemove});
  }

  void version1(List& forged, int, const Series&) {
    forged.label = "of version 1";
    forged.version1 = true;
    if (chance_.percent(50)) return;
    forged.scope.reset();
    forged.number.reset();
    forged.base.reset();
    forged.freshest.clear();
    forged.authority = kNobody;
    for (Entry& entry : forged.entries) entry.reason = kAbsent;
  }

  void otherCertificates(List& forged, int index, const Series&) {
    forged.label = "about others of the same number";
    forged.entries = {
        {.serial = certificate(index).serial, .issuer = "O=Test,CN=elsewhere", .reason = 1},
        {.serial = certificate(index).serial + 1000, .issuer = world_.issuerOf(index)}};
    if (chance_.percent(50)) std::swap(forged.entries.front(), forged.entries.back());
    IssuingDistributionPoint scope = forged.scope.value_or(IssuingDistributionPoint());
    scope.indirect = true;
    forged.scope = scope;
  }

  // A key that its owner has lost: what it signs counts unless somebody says that it is revoked.
  void compromised(List& forged, int, const Series&) {
    forged.label = "by a stolen key";
    if (chance_.percent(50)) return;
    for (std::size_t i = 0; i < world_.born; ++i) {
      const Certificate& one = world_.certificates[i];
      if (one.subject != forged.issuer || one.label == kNamesakeLabel || chance_.percent(30))
        continue;
      forged.key = one.key;
      // What the list says of its key proves nothing.
      if (chance_.percent(70)) forged.authority = static_cast<int>(i);
    }
  }

  void numbered(List& forged, int, const Series& series) {
    forged.label = "of an older number, or none";
    if (chance_.percent(30) && !forged.base) {
      forged.number.reset();
    } else {
      const int genuine = newest(series.complete);
      forged.number = list(genuine).number.value_or(3) + chance_.pick({-1, 0, 1});
      forged.thisUpdate = list(genuine).thisUpdate + chance_.pick({-1, 1});
    }
    if (forged.base && *forged.base >= *forged.number) forged.base = *forged.number - 1;
  }

  // OCSP.
  void offerAnswers() {
    for (std::size_t i = 0; i < world_.born; ++i) {
      for (const std::string& uri : world_.certificates[i].responders) {
        if (chance_.percent(25)) continue;
        Answer answer = genuineAnswer(static_cast<int>(i));
        if (chance_.percent(55)) attackAnswer(answer, static_cast<int>(i));
        // One responder is asked about all that name it; it answers about the one in question.
        if (offer_.answers.count(uri) == 0 || chance_.percent(50)) offer_.answers[uri] = answer;
      }
    }
    if (offer_.answers.empty() || !chance_.percent(5)) return;
    Answer& answer = offer_.answers.begin()->second;
    offer_.operatorsResponder = chance_.percent(50) ? answer.signer : find(world_, kNeighbourLabel);
  }

  int delegateOf(int index) const {
    for (std::size_t i = 0; i < world_.born; ++i) {
      const Certificate& one = world_.certificates[i];
      if (one.label == kDelegateLabel && one.parent == certificate(index).parent)
        return static_cast<int>(i);
    }
    return certificate(index).parent;
  }

  Single truth(int index, Minutes time) const {
    Single single{.certificate = index, .issuer = certificate(index).parent};
    if (world_.revokedAt(index, time)) single.status = V_OCSP_CERTSTATUS_REVOKED;
    single.thisUpdate = time;
    single.nextUpdate = time + kDay;
    return single;
  }

  Answer genuineAnswer(int index) {
    Answer answer;
    answer.signer = chance_.percent(50) ? certificate(index).parent : delegateOf(index);
    answer.byKey = chance_.percent(50);
    answer.carries = answer.signer != certificate(index).parent || chance_.percent(50);
    answer.singles = {truth(index, offer_.checked - chance_.below(20 * kHour))};
    answer.singles.front().sha256 = chance_.percent(20);
    answer.producedAt = answer.singles.front().thisUpdate;
    if (chance_.percent(20)) answer.nonce = OCSPNonce::Absent;
    return answer;
  }

  void lie(Single& single) {
    single.status = single.status == V_OCSP_CERTSTATUS_GOOD ? V_OCSP_CERTSTATUS_REVOKED
                                                            : V_OCSP_CERTSTATUS_GOOD;
  }

  void attackAnswer(Answer& answer, int index) {
    Single& single = answer.singles.front();
    if (chance_.percent(60)) lie(single);
    answer.genuine = false;
    switch (chance_.below(20)) {
      case 0:
      case 1:
      case 15:
      case 16:
        return signAnswer(answer, index);
      case 2:
        answer.badSignature = true;
        return;
      case 3:
        answer.nonce = OCSPNonce::Other;
        return;
      case 4:  // about another certificate
        single.certificate = find(world_, kNeighbourLabel);
        if (single.certificate == index) single.certificate = find(world_, kSiblingLabel);
        return;
      case 5:  // by the same number, of another issuer
        single.issuer = find(world_, kSiblingLabel);
        return;
      case 6:
        single.nextUpdate = offer_.checked - chance_.between(0, kHour);
        return;
      case 7:
        single.thisUpdate = offer_.checked + chance_.pick({4, 5, 6, 60});
        answer.producedAt = std::min(0, single.thisUpdate);
        return;
      case 8:
        single.nextUpdate.reset();
        single.thisUpdate = offer_.checked - kDay + chance_.between(-1, 1);
        answer.producedAt = single.thisUpdate;
        return;
      case 9:
        answer.unknownCritical = true;
        return;
      case 10:
        answer.fails = true;
        return;
      case 11:
        single.status = V_OCSP_CERTSTATUS_UNKNOWN;
        return;
      case 12:
      case 17:
      case 18:
      case 19:
        return addSingles(answer);
      case 13:
        answer.producedAt = chance_.pick({4, 5, 6, 60});
        return;
      default:
        answer.producedAt = single.thisUpdate - chance_.pick({4, 5, 6, 60});
        return;
    }
  }

  void addSingles(Answer& answer) {
    Single other = answer.singles.front();
    lie(other);
    other.thisUpdate += chance_.pick({-30, 0, 30});
    other.sha256 = chance_.percent(30);
    if (chance_.percent(40)) other.status = V_OCSP_CERTSTATUS_UNKNOWN;
    if (chance_.percent(30)) other.certificate = find(world_, kNeighbourLabel);
    if (chance_.percent(20)) other.nextUpdate = offer_.checked - 1;
    answer.singles.push_back(other);
    if (chance_.percent(50)) std::swap(answer.singles.front(), answer.singles.back());
  }

  void signAnswer(Answer& answer, int index) {
    answer.carries = true;
    const int sibling = find(world_, kSiblingLabel);
    std::vector<int> delegates = {delegateOf(sibling)};
    for (int i = 0; i < static_cast<int>(world_.born); ++i) {
      if (certificate(i).ocspSigning) delegates.push_back(i);
    }
    switch (chance_.below(8)) {
      case 0:
      case 1:
        answer.signer = index;
        return;
      case 2:
        answer.signer = find(world_, kNeighbourLabel);
        return;
      case 3:
        answer.signer = sibling;
        return;
      case 4:
        answer.signer = find(world_, kNamesakeLabel);
        return;
      case 5:  // a delegate, but perhaps of another CA, or of another key of this one
        answer.signer = chance_.any(delegates);
        return;
      case 6:  // in the CA's name
        answer.signer = certificate(index).parent;
        answer.key = kStranger;
        return;
      default:
        break;
    }
    Certificate made{.label = "stranger",
                     .subject = world_.issuerOf(index),
                     .parent = certificate(index).parent,
                     .key = kStranger,
                     .serial = 98};
    made.ocspSigning = true;
    made.noCheck = chance_.percent(50);
    made.forger = kStranger;
    if (chance_.percent(50)) made.subject = "O=Test,CN=responder";
    world_.certificates.push_back(made);
    answer.signer = static_cast<int>(world_.certificates.size()) - 1;
  }

  void shuffle() {
    for (auto& [place, there] : offer_.lists) {
      for (std::size_t i = there.size(); i > 1; --i) {
        std::swap(there[i - 1], at(there, chance_.below(static_cast<int>(i))));
      }
    }
  }

  World& world_;
  Chance chance_;
  Offer offer_;
};

}  // namespace

Offer makeOffer(World& world, std::uint64_t seed, Adversary adversary) {
  Maker maker(world, seed);
  return adversary == Adversary::Idle ? maker.idle() : maker.active();
}

}  // namespace Velantrix::Test::Truth
