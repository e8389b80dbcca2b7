#include "model/GroundTruthGenerator.h"

#include "model/GroundTruthPublisher.h"

#include <openssl/x509v3.h>

#include <algorithm>
#include <utility>

namespace Velantrix::Test::Truth {

namespace {

constexpr Minutes kBefore = -1000 * kDay;
constexpr int kCompromise = 0x40 | 0x20 | 0x8000;

class Generator {
 public:
  explicit Generator(std::uint64_t seed) : chance_(seed) {}

  World make() {
    makeAuthority("root", kNobody);
    makeOutsiders();
    for (int i = chance_.below(3); i > 0; --i) {
      makeAuthority("ca" + std::to_string(authorities_.size()), last());
    }
    makeEnds();
    for (Authority& authority : authorities_) makeNoise(authority);
    makeHistory();
    Publisher publisher(world_, chance_);
    for (const Authority& authority : authorities_) publisher.publish(authority);
    world_.made = world_.lists.size();
    world_.born = world_.certificates.size();
    return std::move(world_);
  }

 private:
  int last() const { return static_cast<int>(authorities_.size()) - 1; }
  Certificate& certificate(int index) { return at(world_.certificates, index); }

  int add(Certificate made) {
    world_.certificates.push_back(std::move(made));
    return static_cast<int>(world_.certificates.size()) - 1;
  }

  int newKey() { return nextKey_++; }

  // One certificate by the authority: its revocation can be told as it is with all of them.
  int issueBy(int authority, const std::string& label, const std::string& subject, bool ca) {
    Authority& by = at(authorities_, authority);
    Certificate made{.label = label, .subject = subject};
    made.parent = by.certificate;
    made.key = newKey();
    made.serial = ++by.serials;
    made.ca = ca;
    made.points = pointsOf(by);
    if (by.deltas == Deltas::Certificate) made.freshest = freshestOf(by, made);
    return add(made);
  }

  void makeAuthority(const std::string& tag, int parent) {
    Authority made{.tag = tag};
    made.parent = parent;
    const std::string name = "O=Test,CN=" + tag;
    if (parent == kNobody) {
      made.certificate =
          add({.label = tag, .subject = name, .key = newKey(), .serial = 1, .ca = true});
      made.serials = 1;
    } else {
      made.certificate = issueBy(parent, tag, name, true);
      if (chance_.percent(15)) addResponders(parent, made.certificate);
    }
    world_.path.insert(world_.path.begin(), made.certificate);
    made.listIssuer = name;
    design(made);
    note(made);
    authorities_.push_back(made);
    makeSigner(last());
  }

  void design(Authority& made) {
    made.signing =
        chance_.pick({Signing::Own, Signing::Own, Signing::SeparateByParent,
                      Signing::SeparateBySelf, Signing::SeparateBySelf, Signing::Rollover,
                      Signing::IndirectByParent, Signing::IndirectBySelf});
    if (made.parent == kNobody) {
      if (made.signing == Signing::SeparateByParent) made.signing = Signing::SeparateBySelf;
      if (made.signing == Signing::IndirectByParent) made.signing = Signing::IndirectBySelf;
      if (made.signing == Signing::Rollover) made.signing = Signing::Own;
    }
    made.form = chance_.pick({Form::Full, Form::Full, Form::Full, Form::UsersAndCAs,
                              Form::FullAndUsers, Form::Partition, Form::Reasons});
    made.spelling =
        chance_.pick({Spelling::NoPoint, Spelling::Uri, Spelling::Uri, Spelling::Directory,
                      Spelling::Relative, Spelling::Both, Spelling::TwoPoints});
    made.indirect =
        made.signing == Signing::IndirectByParent || made.signing == Signing::IndirectBySelf;
    if (made.indirect) made.listIssuer = "O=Test,OU=Lists,CN=of " + made.tag;
    const bool namesNeeded = made.form == Form::Partition || made.form == Form::Reasons;
    if (made.spelling == Spelling::NoPoint && namesNeeded) made.spelling = Spelling::Uri;
    if (made.spelling == Spelling::TwoPoints && namesNeeded) made.spelling = Spelling::Both;
    made.forOthers = made.indirect || chance_.percent(15);
    made.deltas = chance_.pick(
        {Deltas::None, Deltas::None, Deltas::Certificate, Deltas::List, Deltas::Unannounced});
    made.numbered = made.deltas != Deltas::None || chance_.percent(75);
    made.capitals = chance_.percent(15);
    made.pointReasons = made.form == Form::Reasons && chance_.percent(50);
    if (chance_.percent(40)) {
      const std::string uri = "http://ocsp." + made.tag + ".test/";
      made.responders.push_back(uri);
      if (chance_.percent(40)) made.responders.push_back(uri + "second");
    }
    makeSeries(made);
  }

  void note(const Authority& made) {
    static const char* const signings[] = {"own key",  "separate by parent", "separate by itself",
                                           "rollover", "indirect by parent", "indirect by itself"};
    static const char* const forms[] = {"full", "users and CAs", "full and users", "partition",
                                        "reasons"};
    static const char* const spellings[] = {"no point", "URI",  "directory",
                                            "relative", "both", "two points"};
    static const char* const deltas[] = {"no deltas", "deltas in certificate", "deltas in list",
                                         "deltas unannounced"};
    world_.notes.push_back(
        made.tag + ": " + signings[static_cast<int>(made.signing)] + ", " +
        forms[static_cast<int>(made.form)] + ", " + spellings[static_cast<int>(made.spelling)] +
        ", " + deltas[static_cast<int>(made.deltas)] + (made.forOthers ? ", for others" : ""));
  }

  void addResponders(int authority, int index) {
    const Authority& by = at(authorities_, authority);
    certificate(index).responders = by.responders;
  }

  // What the lists of an authority are about.
  void makeSeries(Authority& made) {
    const bool named = chance_.percent(40) && made.spelling != Spelling::NoPoint;
    const auto addSeries = [&](const char* part, auto limit) {
      Series series{.label = made.tag + " " + part};
      series.covered.insert(certificate(made.certificate).subject);
      series.issuer = made.listIssuer;
      IssuingDistributionPoint scope;
      scope.indirect = made.forOthers;
      const bool split = made.form == Form::Partition || made.form == Form::Reasons;
      const std::string place = split ? part : "all";
      if (named || made.form == Form::Partition) nameScope(made, place, scope);
      limit(scope);
      series.places = namesOf(made, place, made.spelling == Spelling::TwoPoints);
      if (series.places.empty()) series.places = {directory(made.listIssuer)};
      series.deltaPlaces = series.places;
      if (made.deltas == Deltas::Certificate || made.deltas == Deltas::List) {
        series.deltaPlaces = {"URI:http://crl." + made.tag + ".test/delta-" + part};
      }
      if (made.deltas == Deltas::List) series.freshest = {{.fullNames = series.deltaPlaces}};
      if (!sameScope(scope, IssuingDistributionPoint())) series.scope = scope;
      world_.series.push_back(series);
      made.series.push_back(static_cast<int>(world_.series.size()) - 1);
    };
    const auto nothing = [](IssuingDistributionPoint&) {};
    const auto users = [](IssuingDistributionPoint& scope) { scope.onlyUser = true; };
    switch (made.form) {
      case Form::Full:
        addSeries("all", nothing);
        break;
      case Form::FullAndUsers:
        addSeries("all", nothing);
        addSeries("users", users);
        break;
      case Form::UsersAndCAs:
        addSeries("users", users);
        addSeries("cas", [](IssuingDistributionPoint& scope) { scope.onlyCA = true; });
        break;
      case Form::Partition:
        addSeries("first", nothing);
        addSeries("second", nothing);
        break;
      case Form::Reasons:
        // Where the certificate limits what the list is asked for, the list may say more.
        addSeries("first", [&](IssuingDistributionPoint& scope) {
          scope.onlySomeReasons =
              made.pointReasons ? chance_.pick({kCompromise, kAllReasons, kAbsent}) : kCompromise;
        });
        addSeries("second", [](IssuingDistributionPoint& scope) {
          scope.onlySomeReasons = kAllReasons & ~kCompromise;
        });
        break;
    }
  }

  // The names of a distribution point, as places.
  static std::vector<std::string> namesOf(const Authority& authority, const std::string& part,
                                          bool second) {
    const std::string uri = "URI:http://crl." + authority.tag + ".test/" + part;
    const std::string name = directory(authority.listIssuer + ",CN=" + part);
    switch (authority.spelling) {
      case Spelling::NoPoint:
        return {};
      case Spelling::Uri:
        return {uri};
      case Spelling::Directory:
      case Spelling::Relative:
        return {name};
      case Spelling::Both:
        return {uri, name};
      case Spelling::TwoPoints:
        break;
    }
    return second ? std::vector<std::string>{uri, uri + "-again"} : std::vector<std::string>{uri};
  }

  void nameScope(const Authority& authority, const std::string& part,
                 IssuingDistributionPoint& scope) {
    // One name of the certificates' is enough (5.2.5), and a relative one may stand for a full one.
    if (authority.spelling == Spelling::Directory || authority.spelling == Spelling::Relative) {
      if (chance_.percent(50)) {
        scope.relativeName = "CN=" + part;
        return;
      }
    }
    scope.fullNames = namesOf(authority, part, true);
    if (chance_.percent(30))
      scope.fullNames.insert(scope.fullNames.begin(), "URI:http://none.test/");
  }

  std::vector<DistributionPoint> pointsOf(const Authority& authority) {
    const std::vector<std::string> crlIssuers =
        authority.indirect ? std::vector<std::string>{directory(authority.listIssuer)}
                           : std::vector<std::string>{};
    const auto point = [&](const std::string& part, int reasons) {
      DistributionPoint made{.reasons = reasons, .crlIssuers = crlIssuers};
      made.fullNames = namesOf(authority, part, false);
      if (authority.spelling == Spelling::Relative) {
        made.fullNames.clear();
        made.relativeName = "CN=" + part;
      }
      return made;
    };
    if (authority.form == Form::Partition) {
      return {point(chance_.percent(50) ? "first" : "second", kAbsent)};
    }
    if (authority.form == Form::Reasons) {
      const int first = authority.pointReasons ? kCompromise : kAbsent;
      const int second = authority.pointReasons ? kAllReasons & ~kCompromise : kAbsent;
      return {point("first", first), point("second", second)};
    }
    if (authority.spelling == Spelling::NoPoint) {
      if (!authority.indirect) return {};
      return {{.crlIssuers = crlIssuers}};
    }
    std::vector<DistributionPoint> points = {point("all", kAbsent)};
    if (authority.spelling == Spelling::TwoPoints) {
      points.push_back(points.front());
      points.back().fullNames.front() += "-again";
    }
    return points;
  }

  std::vector<DistributionPoint> freshestOf(const Authority& authority, const Certificate& made) {
    std::vector<DistributionPoint> points;
    for (const int index : authority.series) {
      const Series& series = at(world_.series, index);
      if (series.scope && series.scope->onlyUser && made.ca) continue;
      if (series.scope && series.scope->onlyCA && !made.ca) continue;
      points.push_back({.fullNames = series.deltaPlaces});
      if (authority.indirect) points.back().crlIssuers = {directory(authority.listIssuer)};
    }
    return points;
  }

  // Who signs the lists.
  void makeSigner(int index) {
    const Authority authority = at(authorities_, index);
    at(authorities_, index).turns = {{kBefore, authority.certificate}};
    if (authority.signing == Signing::Own) return;
    // A new key of the authority itself is its parent's word, or that of the old one.
    const bool ca = authority.signing == Signing::Rollover ||
                    (authority.signing == Signing::SeparateBySelf && chance_.percent(25));
    const int by =
        authority.signing == Signing::SeparateBySelf || authority.signing == Signing::IndirectBySelf
            ? index
            : authority.parent;
    const int signer =
        issueBy(by, kSignerLabel + (" of " + authority.tag), authority.listIssuer, ca);
    if (!ca)
      certificate(signer).keyUsage = chance_.pick(
          {KU_CRL_SIGN, KU_CRL_SIGN, KU_CRL_SIGN, kAbsent, kAbsent, KU_DIGITAL_SIGNATURE});
    if (!ca && chance_.percent(5)) certificate(signer).until = -kHour;
    // The path may as well run over the new one.
    if (authority.signing == Signing::Rollover && chance_.percent(50)) {
      at(authorities_, index).certificate = signer;
      world_.path.front() = signer;
    }
    handOver(at(authorities_, index), signer, !authority.indirect && !ca && index != 0);
  }

  void handOver(Authority& authority, int signer, bool mayBeAllThere) {
    const bool certifiesOnly = mayBeAllThere && chance_.percent(20);
    if (certifiesOnly) certificate(authority.certificate).keyUsage = KU_KEY_CERT_SIGN;
    if (certifiesOnly || authority.indirect || chance_.percent(50)) {
      authority.turns = {{kBefore, signer}};
    } else {
      authority.turns.push_back({chance_.between(-60 * kHour, -6 * kHour), signer});
    }
  }

  void makeOutsiders() {
    sibling_ = issueBy(0, kSiblingLabel, "O=Test,CN=sibling", true);
    const int foreign = add({.label = kForeignLabel,
                             .subject = "O=Foreign,CN=Root",
                             .key = newKey(),
                             .serial = 1,
                             .ca = true});
    foreign_ = foreign;
  }

  void makeEnds() {
    const int leaf = issueBy(last(), kLeafLabel, "O=Test,CN=leaf", false);
    world_.path.insert(world_.path.begin(), chance_.percent(25) ? signerBy(last(), leaf) : leaf);
    certificate(leaf).responders = at(authorities_, last()).responders;
    certificate(leaf).ocspSigning = chance_.percent(20);  // for others than itself
    if (chance_.percent(4)) {
      certificate(leaf).noRevAvail = true;
      // RFC 9608: beside places where revocation can be looked up it is a mistake.
      if (chance_.percent(60)) certificate(leaf).points.clear();
      if (chance_.percent(80)) certificate(leaf).freshest.clear();
      if (chance_.percent(80)) certificate(leaf).responders.clear();
    }
    issueBy(last(), kNeighbourLabel, "O=Test,CN=neighbour", false);
    for (int i = 0; i <= last(); ++i) {
      if (at(authorities_, i).responders.empty()) continue;
      const int delegate =
          issueBy(i, kDelegateLabel, "O=Test,CN=responder of " + at(authorities_, i).tag, false);
      certificate(delegate).ocspSigning = true;
      // Certified by the key that the authority had before, or will have.
      const Turn& turn = chance_.any(at(authorities_, i).turns);
      if (certificate(turn.certificate).ca && chance_.percent(30)) {
        certificate(delegate).parent = turn.certificate;
      }
      certificate(delegate).noCheck = chance_.percent(40);
      if (chance_.percent(30)) {
        certificate(delegate).responders = {at(authorities_, i).responders.front() + "delegates"};
      }
    }
    // The authority's own name, below a root that is trusted for other paths.
    const Certificate real = certificate(at(authorities_, last()).certificate);
    add({.label = kNamesakeLabel,
         .subject = real.subject,
         .parent = foreign_,
         .key = newKey(),
         .serial = 7,
         .ca = true});
  }

  // An issuer of lists may be in question himself: perhaps they are about him.
  int signerBy(int authority, int otherwise) {
    for (int index = 0; index < otherwise; ++index) {
      const Certificate& one = certificate(index);
      const bool signs = one.label.rfind(kSignerLabel, 0) == 0;
      if (signs && one.parent == at(authorities_, authority).certificate && one.until > 0) {
        return index;
      }
    }
    return otherwise;
  }

  // Others' certificates, that bear the same serial numbers as the path's.
  void makeNoise(Authority& authority) {
    for (int i = chance_.below(4); i > 0; --i) {
      Certificate made{.label = "noise", .subject = "O=Test,CN=noise"};
      made.parent = authority.certificate;
      made.serial = ++authority.serials;
      made.points = pointsOf(authority);
      revoke(add(made), true);
    }
    if (!authority.forOthers) return;
    for (const int series : authority.series) {
      at(world_.series, series).covered.insert(certificate(sibling_).subject);
    }
    for (int serial = 1; serial < 6; ++serial) {
      if (chance_.percent(60)) continue;
      Certificate made{.label = "noise of the sibling", .subject = "O=Test,CN=noise"};
      made.parent = sibling_;
      made.serial = serial;
      made.points = pointsOf(authority);
      revoke(add(made), true);
    }
  }

  // What really happened.
  void makeHistory() {
    for (const int index : world_.path) {
      if (index != kRoot && chance_.percent(index == world_.path.front() ? 40 : 12)) {
        revoke(index, true);
      }
    }
    for (int index = 1; index < static_cast<int>(world_.certificates.size()); ++index) {
      const std::string& label = certificate(index).label;
      if (std::find(world_.path.begin(), world_.path.end(), index) != world_.path.end()) continue;
      if (label.rfind(kSignerLabel, 0) == 0 && chance_.percent(25)) revoke(index, false);
      if (label == kDelegateLabel && chance_.percent(25)) revoke(index, false);
    }
    std::stable_sort(world_.events.begin(), world_.events.end(),
                     [](const Event& a, const Event& b) { return a.at < b.at; });
  }

  void revoke(int index, bool hold) {
    const Minutes at = chance_.between(-90 * kHour, -5);
    if (hold && chance_.percent(30)) {
      world_.events.push_back({index, at, kHold});
      if (chance_.percent(30)) return;
      const int then = chance_.percent(80) ? kRemove : 1;
      world_.events.push_back({index, at + chance_.between(1, -at + kHour), then});
      return;
    }
    const bool byReason =
        std::any_of(authorities_.begin(), authorities_.end(),
                    [](const Authority& one) { return one.form == Form::Reasons; });
    const int reason =
        byReason ? chance_.pick({1, 2, 3, 4, 5, 9, 10}) : chance_.pick({kAbsent, 0, 1, 3, 4, 5, 9});
    world_.events.push_back({index, at, reason});
  }

  Chance chance_;
  World world_;
  std::vector<Authority> authorities_;
  int nextKey_ = 0;
  int sibling_ = kNobody;
  int foreign_ = kNobody;
};

}  // namespace

World makeWorld(std::uint64_t seed) { return Generator(seed).make(); }

int find(const World& world, const char* label) {
  for (std::size_t i = 0; i < world.certificates.size(); ++i) {
    if (world.certificates[i].label.rfind(label, 0) == 0) return static_cast<int>(i);
  }
  return kNobody;
}

}  // namespace Velantrix::Test::Truth
