#include "model/GroundTruthWorld.h"

#include <algorithm>
#include <ostream>

namespace Velantrix::Test::Truth {

namespace {

void print(std::ostream& out, const char* title, const std::vector<std::string>& texts) {
  if (texts.empty()) return;
  out << " " << title;
  for (const std::string& text : texts) out << " <" << text << ">";
}

void print(std::ostream& out, const char* title, const std::vector<DistributionPoint>& points) {
  for (const DistributionPoint& point : points) {
    out << " " << title << "{";
    print(out, "", point.fullNames);
    if (!point.relativeName.empty()) out << " relative <" << point.relativeName << ">";
    if (point.reasons != kAbsent) out << " reasons " << std::hex << point.reasons << std::dec;
    print(out, "cRLIssuer", point.crlIssuers);
    out << " }";
  }
}

void print(std::ostream& out, const IssuingDistributionPoint& scope) {
  out << " scope{";
  print(out, "", scope.fullNames);
  if (!scope.relativeName.empty()) out << " relative <" << scope.relativeName << ">";
  if (scope.onlyUser) out << " onlyUser";
  if (scope.onlyCA) out << " onlyCA";
  if (scope.onlyAttributes) out << " onlyAttributes";
  if (scope.indirect) out << " indirect";
  if (scope.onlySomeReasons != kAbsent) {
    out << " reasons " << std::hex << scope.onlySomeReasons << std::dec;
  }
  out << " }";
}

void print(std::ostream& out, const World& world, int index) {
  const Certificate& one = at(world.certificates, index);
  out << "  certificate " << index << " " << one.label << " <" << one.subject << "> by "
      << (one.parent == kNobody ? "itself" : at(world.certificates, one.parent).label) << ", key "
      << one.key << ", serial " << one.serial;
  if (one.ca) out << ", ca";
  if (one.keyUsage != kUsual) out << ", keyUsage " << one.keyUsage;
  if (one.forger != kNobody) out << ", forged with key " << one.forger;
  if (one.until < 0) out << ", expired " << one.until;
  if (one.ocspSigning) out << ", ocspSigning";
  if (one.noCheck) out << ", nocheck";
  if (one.noRevAvail) out << ", noRevAvail";
  print(out, "point", one.points);
  print(out, "freshest", one.freshest);
  print(out, "ocsp", one.responders);
  out << "\n";
  for (const Event& event : world.events) {
    if (event.certificate == index) {
      out << "    revoked at " << event.at << " for " << event.reason << "\n";
    }
  }
}

void print(std::ostream& out, const List& list, int index) {
  out << "  list " << index << " " << list.label << " <" << list.issuer << "> key " << list.key;
  if (list.number) out << " number " << *list.number;
  if (list.base) out << " base " << *list.base;
  out << " from " << list.thisUpdate << " until ";
  if (list.nextUpdate) {
    out << *list.nextUpdate;
  } else {
    out << "-";
  }
  if (list.scope) print(out, *list.scope);
  print(out, "freshest", list.freshest);
  if (list.unknownCritical) out << " unknownCritical";
  if (list.badSignature) out << " badSignature";
  if (list.version1) out << " v1";
  if (list.otherSpelling) out << " in capitals";
  for (const Entry& entry : list.entries) {
    out << " [" << entry.serial << " of <" << entry.issuer << "> " << entry.reason
        << (entry.unknownCritical ? " unknownCritical]" : "]");
  }
  out << "\n";
}

void print(std::ostream& out, const std::string& place, const Answer& answer) {
  out << "  at " << place << (answer.genuine ? " genuine" : " attacked")
      << " answer by certificate " << answer.signer;
  if (answer.key != kNobody) out << " with key " << answer.key;
  if (answer.nonce == OCSPNonce::Other) out << " other nonce";
  if (answer.badSignature) out << " badSignature";
  if (answer.unknownCritical) out << " unknownCritical";
  if (answer.fails) out << " tryLater";
  if (!answer.carries) out << " without certificate";
  out << " produced " << answer.producedAt;
  for (const Single& single : answer.singles) {
    out << " [" << single.certificate << " of " << single.issuer << " status " << single.status
        << " from " << single.thisUpdate << " until ";
    if (single.nextUpdate) {
      out << *single.nextUpdate << "]";
    } else {
      out << "-]";
    }
  }
  out << "\n";
}

}  // namespace

const std::string& World::issuerOf(int certificate) const {
  const int parent = at(certificates, certificate).parent;
  return at(certificates, parent == kNobody ? certificate : parent).subject;
}

int World::keyOfIssuer(int certificate) const {
  const int parent = at(certificates, certificate).parent;
  return at(certificates, parent == kNobody ? certificate : parent).key;
}

std::optional<int> World::revokedAt(int certificate, Minutes time) const {
  std::optional<int> reason;
  for (const Event& event : events) {
    if (event.certificate != certificate || event.at > time) continue;
    reason.reset();
    if (event.reason != kRemove) reason = event.reason;
  }
  return reason;
}

std::string directory(const std::string& name) { return "dirName:" + name; }

std::vector<std::string> placesOf(const std::vector<std::string>& fullNames,
                                  const std::string& relativeName, const std::string& issuer) {
  if (!fullNames.empty() || relativeName.empty()) return fullNames;
  return {directory(issuer + "," + relativeName)};
}

bool sameScope(const std::optional<IssuingDistributionPoint>& a,
               const std::optional<IssuingDistributionPoint>& b) {
  if (!a || !b) return a.has_value() == b.has_value();
  return a->fullNames == b->fullNames && a->relativeName == b->relativeName &&
         a->onlyUser == b->onlyUser && a->onlyCA == b->onlyCA &&
         a->onlyAttributes == b->onlyAttributes && a->indirect == b->indirect &&
         a->onlySomeReasons == b->onlySomeReasons;
}

void print(std::ostream& out, const World& world, const Offer& offer) {
  std::set<int> certificates(offer.certificates.begin(), offer.certificates.end());
  certificates.insert(world.path.begin(), world.path.end());
  for (const auto& [place, answer] : offer.answers) {
    certificates.insert(answer.signer);
    for (const Single& single : answer.singles) certificates.insert(single.certificate);
  }
  for (const int certificate : certificates) print(out, world, certificate);
  out << "  path";
  for (const int certificate : world.path) out << " " << certificate;
  out << "; offered certificates";
  for (const int certificate : offer.certificates) out << " " << certificate;
  out << "\n  checked at " << offer.checked << (offer.wholePath ? "" : ", the leaf alone")
      << (offer.useDeltas ? "" : ", without deltas") << (offer.useOCSP ? "" : ", without OCSP");
  if (offer.operatorsResponder) out << ", operator's responder " << *offer.operatorsResponder;
  out << "\n";
  std::set<int> lists;
  for (const auto& [place, there] : offer.lists) {
    lists.insert(there.begin(), there.end());
    out << "  at <" << place << "> lists";
    for (const int list : there) out << " " << list;
    out << "\n";
  }
  for (const int list : lists) print(out, at(world.lists, list), list);
  for (const auto& [place, answer] : offer.answers) print(out, place, answer);
  for (const std::string& note : world.notes) out << "  note: " << note << "\n";
  for (const std::string& note : offer.notes) out << "  offer: " << note << "\n";
}

const char* text(Verdict verdict) {
  switch (verdict) {
    case Verdict::Good:
      return "good";
    case Verdict::Revoked:
      return "revoked";
    case Verdict::NotNeeded:
      return "not needed";
    case Verdict::Undetermined:
      break;
  }
  return "undetermined";
}

}  // namespace Velantrix::Test::Truth
