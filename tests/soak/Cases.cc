#include "soak/Cases.h"

#include <openssl/ocsp.h>

#include <chrono>
#include <utility>

namespace Velantrix::Test::Soak {

namespace {

using namespace std::chrono_literals;
using Point = Velantrix::Test::DistributionPoint;

constexpr std::array<const char*, kLevels> kNames = {"O=Soak,CN=Root", "O=Soak,CN=Middle",
                                                     "O=Soak,CN=Lower"};
// As LDAP has them.
constexpr std::array<const char*, kLevels> kEntries = {"cn=Root,o=Soak", "cn=Middle,o=Soak",
                                                       "cn=Lower,o=Soak"};
// So that the smallest CRL fits a packet and the largest does not fit a socket's buffer.
constexpr std::array<int, kLevels> kOthersRevoked = {0, 400, 8000};
constexpr int kRevokedAuthority = 50;

std::size_t index(Level level) { return static_cast<std::size_t>(level); }

std::string url(std::uint16_t port, const std::string& path) {
  return "http://127.0.0.1:" + std::to_string(port) + path;
}

std::vector<Point> pointsOf(const Plan& plan, const Ports& ports) {
  const std::string path = crlPath(plan.level);
  switch (plan.source) {
    case Source::Web:
      return {{.fullNames = {
                   "URI:" + url(plan.truth == Truth::Forged ? ports.forbidden : ports.web, path)}}};
    case Source::OwnWeb:
      return {
          {.fullNames = {"URI:" +
                         url(plan.truth == Truth::Forged ? ports.forbidden : ports.ownWeb, path)}}};
    case Source::Directory:
      return {{.fullNames = {std::string("dirName:") + kNames.at(index(plan.level))}}};
    case Source::Machine:
      break;
  }
  return {};
}

std::vector<ConfigExtension> extensionsOf(const Plan& plan, const Ports& ports,
                                          const std::string& address) {
  std::vector<ConfigExtension> all = {{"subjectAltName", "email:" + address}};
  if (plan.responder == Responder::None) return all;
  const std::uint16_t responder = plan.truth == Truth::Forged        ? ports.forbidden
                                  : plan.responder == Responder::Own ? ports.ownResponder
                                  : plan.level == Level::Middle      ? ports.responders[0]
                                                                     : ports.responders[1];
  all.push_back({"authorityInfoAccess", "OCSP;URI:" + url(responder, "/")});
  return all;
}

bool hasNumber(const Plan& plan, Level level) {
  return plan.level == level && plan.truth != Truth::RevokedAuthority &&
         plan.truth != Truth::UnknownAuthority;
}

}  // namespace

Authorities::Authorities(const Ports& ports)
    : root(issueCA(kNames[0])),
      middle(
          issue({.subject = kNames[1],
                 .issuer = &root,
                 .ca = true,
                 .crlDistributionPoints = {{.fullNames = {"URI:" + url(ports.web,
                                                                       crlPath(Level::Root))}}}})),
      lower(issueCA(kNames[2], &middle)),
      revoked(issue({.subject = "O=Soak,CN=Withdrawn",
                     .issuer = &root,
                     .serial = kRevokedAuthority,
                     .ca = true})),
      signer(issue({.subject = "O=Soak,CN=Signer",
                    .issuer = &lower,
                    .extensions = {{"extendedKeyUsage", "OCSPSigning"}}})),
      stranger(issueCA("O=Stranger,CN=Root")) {
  for (const char* name : kNames) impostors.push_back(issueCA(name));
}

const char* nameOf(Truth truth) {
  constexpr std::array<const char*, 7> kTexts = {"good",
                                                 "revoked",
                                                 "expired",
                                                 "not yet valid",
                                                 "forged",
                                                 "below a revoked authority",
                                                 "of an unknown authority"};
  return kTexts.at(static_cast<std::size_t>(truth));
}

std::vector<Plan> makePlans() {
  std::vector<Plan> plans;
  int serial = 100;
  const std::array<std::pair<Source, Responder>, 8> ways = {{
      {Source::Machine, Responder::None},
      {Source::Web, Responder::None},
      {Source::OwnWeb, Responder::None},
      {Source::Directory, Responder::None},
      {Source::Machine, Responder::Front},
      {Source::Web, Responder::Front},
      {Source::Machine, Responder::Own},
      {Source::OwnWeb, Responder::Own},
  }};
  for (const Level level : {Level::Root, Level::Middle, Level::Lower}) {
    for (const auto& [source, responder] : ways) {
      if (level == Level::Root && responder != Responder::None) continue;
      if (level == Level::Lower && responder == Responder::Own) continue;
      for (const Truth truth : {Truth::Good, Truth::Revoked, Truth::Expired, Truth::Forged}) {
        plans.push_back({truth, level, source, responder, serial++});
      }
    }
  }
  for (const Truth truth : {Truth::NotYetValid, Truth::RevokedAuthority, Truth::UnknownAuthority}) {
    plans.push_back({truth, Level::Root, Source::Machine, Responder::None, serial++});
  }
  return plans;
}

std::vector<Case> makeCases(const std::vector<Plan>& plans, const Authorities& authorities,
                            const Ports& ports) {
  std::vector<Case> cases;
  for (const Plan& plan : plans) {
    const std::string number = std::to_string(plan.serial);
    Case one{plan, {}, {}, "person" + number + "@soak.test"};
    const Issued* issuer = &authorities.at(plan.level);
    if (plan.truth == Truth::RevokedAuthority) issuer = &authorities.revoked;
    if (plan.truth == Truth::UnknownAuthority) issuer = &authorities.stranger;
    one.leaf = issue({.subject = "O=Soak,CN=Person " + number,
                      .issuer = issuer,
                      .serial = plan.serial,
                      .notBefore = plan.truth == Truth::NotYetValid ? When(24h) : When(-48h),
                      .notAfter = plan.truth == Truth::Expired ? When(-24h) : When(24h * 365),
                      .crlDistributionPoints = pointsOf(plan, ports),
                      .extensions = extensionsOf(plan, ports, one.address),
                      .badSignature = plan.truth == Truth::Forged});
    if (plan.truth == Truth::RevokedAuthority) one.between = {authorities.revoked};
    if (plan.level == Level::Middle) one.between = {authorities.middle};
    if (plan.level == Level::Lower) one.between = {authorities.lower, authorities.middle};
    cases.push_back(one);
  }
  cases.push_back(
      {.plan = {}, .leaf = authorities.root, .between = {}, .address = {}, .anchor = true});
  return cases;
}

Owned<X509_CRL> crlOf(Level level, const Authorities& authorities, const std::vector<Plan>& plans) {
  CRLOptions options{.issuer = &authorities.at(level)};
  if (level == Level::Root) options.revoked.push_back({.serial = kRevokedAuthority});
  for (const Plan& plan : plans) {
    if (hasNumber(plan, level) && plan.truth == Truth::Revoked) {
      options.revoked.push_back({.serial = plan.serial, .reason = CRL_REASON_KEY_COMPROMISE});
    }
  }
  for (int i = 0; i < kOthersRevoked.at(index(level)); ++i) {
    options.revoked.push_back({.serial = 100000 + i});
  }
  return makeCRL(options);
}

std::vector<OCSPEntry> indexOf(Level level, const std::vector<Plan>& plans) {
  std::vector<OCSPEntry> entries;
  for (const Plan& plan : plans) {
    if (!hasNumber(plan, level)) continue;
    entries.push_back(
        {.serial = plan.serial,
         .revoked = plan.truth == Truth::Revoked,
         .reason = plan.truth == Truth::Revoked ? OCSP_REVOKED_STATUS_KEYCOMPROMISE : kAbsent});
  }
  return entries;
}

std::vector<Slapd::Entry> directoryOf(const Authorities& authorities,
                                      const std::vector<Plan>& plans) {
  std::vector<Slapd::Entry> entries = {{"o=Soak", {"organization"}, {}}};
  for (const Level level : {Level::Root, Level::Middle, Level::Lower}) {
    entries.push_back(
        {kEntries.at(index(level)),
         {"device", "pkiCA"},
         {{"cACertificate;binary", der(authorities.at(level).get())},
          {"certificateRevocationList;binary", der(crlOf(level, authorities, plans).get())}}});
  }
  return entries;
}

std::string crlPath(Level level) {
  constexpr std::array<const char*, kLevels> kPaths = {"/root.crl", "/middle.crl", "/lower.crl"};
  return kPaths.at(index(level));
}

}  // namespace Velantrix::Test::Soak
