#include "soak/Round.h"

#include <openssl/x509_vfy.h>

#include <algorithm>
#include <array>
#include <sstream>

namespace Velantrix::Test::Soak {

namespace {

constexpr int kDefaultFlags = 0x30AC;  // Verifier::Config's
constexpr int kLeafOnly = kDefaultFlags & ~X509_V_FLAG_CRL_CHECK_ALL;
constexpr int kWithoutRevocation =
    kDefaultFlags & ~(X509_V_FLAG_CRL_CHECK | X509_V_FLAG_CRL_CHECK_ALL);
constexpr int kNotStrict = kDefaultFlags & ~X509_V_FLAG_X509_STRICT;
constexpr int kPlain = X509_V_FLAG_CRL_CHECK | X509_V_FLAG_CRL_CHECK_ALL;

constexpr int kLastCode = 100;  // OpenSSL has some more than 90

Fault drawFault(Dice& dice, Service service, bool slowToo) {
  const auto weightOf = [&](const FaultKind& kind) {
    return kind.slow && !slowToo ? 0 : kind.weight.at(static_cast<std::size_t>(service));
  };
  int all = 0;
  for (const FaultKind& kind : allFaults()) all += weightOf(kind);
  auto left = static_cast<int>(dice.below(static_cast<std::size_t>(all)));
  for (const FaultKind& kind : allFaults()) {
    left -= weightOf(kind);
    if (left < 0) return kind.fault;
  }
  return Fault::None;
}

CacheTrouble drawCacheTrouble(Dice& dice) {
  if (dice.chance(400)) return CacheTrouble::Emptied;
  if (!dice.chance(100)) return CacheTrouble::None;
  return dice.oneOf<CacheTrouble>(
      {CacheTrouble::Garbled, CacheTrouble::CutShort, CacheTrouble::ReadOnly, CacheTrouble::Full});
}

bool isNetwork(Source source) { return source != Source::Machine; }

bool checksRevocation(const Round& round) { return (round.flags & X509_V_FLAG_CRL_CHECK) != 0; }
bool checksAll(const Round& round) { return (round.flags & X509_V_FLAG_CRL_CHECK_ALL) != 0; }

/// The library's own check verifies the issuer of a CRL with default flags, by itself, where it is
/// not among the certificates that are checked.
bool checksIssuers(const Round& round) { return checksAll(round) || !round.openSSLRevocation; }

/// That cannot succeed: what came with the leaf is not known to it.
bool lacksIssuers(const Round& round) {
  return checksRevocation(round) && !checksAll(round) && !round.openSSLRevocation &&
         round.untrusted && round.target->plan.level == Level::Lower;
}

/// The verdict when all is well.
int rightVerdict(const Round& round) {
  const Plan& plan = round.target->plan;
  if (round.demand == Demand::WrongUse) return kNoVerdict;
  if (plan.truth == Truth::UnknownAuthority) return X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY;
  if (round.demand == Demand::WrongAddress) return X509_V_ERR_EMAIL_MISMATCH;
  switch (plan.truth) {
    case Truth::Revoked:
      return checksRevocation(round) ? X509_V_ERR_CERT_REVOKED : X509_V_OK;
    case Truth::RevokedAuthority:
      return checksRevocation(round) && checksIssuers(round) ? X509_V_ERR_CERT_REVOKED : X509_V_OK;
    case Truth::Expired:
      return X509_V_ERR_CERT_HAS_EXPIRED;
    case Truth::NotYetValid:
      return X509_V_ERR_CERT_NOT_YET_VALID;
    case Truth::Forged:
      // Nobody is connected to for its sake, so its CRL is missing before its signature is wrong.
      return checksRevocation(round) && isNetwork(plan.source) ? X509_V_ERR_UNABLE_TO_GET_CRL
                                                               : X509_V_ERR_CERT_SIGNATURE_FAILURE;
    default:
      return X509_V_OK;
  }
}

/// Can the CRLs from there be had, and are they the right ones?
bool isWell(Source source, const Round& round, bool cacheIsRight) {
  switch (source) {
    case Source::Web:
      return cacheIsRight && (round.fault == Fault::None || round.service != Service::Web);
    case Source::OwnWeb:
      return round.fault != Fault::Stopped || round.service != Service::Web;
    case Source::Directory:
      return round.fault == Fault::None || round.service != Service::Directory;
    case Source::Machine:
      break;
  }
  return true;
}

/// Is the verdict certain?
bool isSettled(const Round& round, bool cacheIsRight) {
  const Plan& plan = round.target->plan;
  if (round.demand == Demand::WrongUse) return true;
  const bool disturbed = round.fault != Fault::None;
  if (round.directory && disturbed && round.service == Service::Directory) return false;
  if (plan.truth == Truth::UnknownAuthority || round.demand == Demand::WrongAddress ||
      round.target->anchor || !checksRevocation(round)) {
    return true;
  }

  if (lacksIssuers(round)) return false;
  // Where the leaf alone is checked there is no issuer to make a request with.
  const bool asks = plan.responder != Responder::None && !round.openSSLRevocation &&
                    checksAll(round) && plan.truth != Truth::Forged;
  const bool responderDisturbed =
      disturbed && round.service == Service::Responders &&
      (plan.responder == Responder::Front || round.fault == Fault::Stopped);
  if (asks && !responderDisturbed) return true;

  std::vector<Source> sources = {plan.source};
  if (checksIssuers(round) && plan.level == Level::Lower) sources.push_back(Source::Machine);
  if (checksIssuers(round) && plan.level != Level::Root) sources.push_back(Source::Web);
  const bool timeIsUp = asks && responderDisturbed && kindOf(round.fault).slow;
  return std::all_of(sources.begin(), sources.end(),
                     [&](Source source) {
                       return isWell(source, round, cacheIsRight) &&
                              !(timeIsUp && isNetwork(source));
                     }) &&
         !(timeIsUp && round.directory);
}

}  // namespace

Round drawRound(Dice& dice, const std::vector<Case>& cases) {
  Round round;
  round.target = &dice.oneOf(cases);
  const Plan& plan = round.target->plan;
  const bool good = plan.truth == Truth::Good && !round.target->anchor;

  round.way = dice.oneOf<Way>({Way::Store, Way::Store, Way::Store, Way::Store, Way::Clone,
                               Way::Clone, Way::Simple, Way::Simple, Way::Threads});
  round.directory = plan.source == Source::Directory || dice.chance(100);
  if (round.directory && round.way == Way::Threads) round.way = Way::Store;
  round.decoded = dice.chance(500);
  round.flags = kDefaultFlags;
  if (round.way == Way::Simple) {
    if (dice.chance(300)) round.demand = Demand::RightUse;
    if (good && dice.chance(100)) round.demand = Demand::WrongUse;
  } else {
    round.untrusted = dice.chance(500);
    round.openSSLRevocation = dice.chance(300);
    if (dice.chance(300)) {
      round.flags = dice.oneOf<int>({kLeafOnly, kWithoutRevocation, kNotStrict, kPlain});
      // It connects, and has nothing to ask: `openssl ocsp` goes round in circles then.
      if (round.flags == kLeafOnly && plan.responder == Responder::Own) round.flags = kPlain;
    }
    if (!round.target->anchor && dice.chance(200)) round.demand = Demand::RightAddress;
    if (good && dice.chance(100)) round.demand = Demand::WrongAddress;
  }

  if (dice.chance(400)) {
    round.service = dice.oneOf<Service>(
        {Service::Web, Service::Web, Service::Responders, Service::Responders, Service::Directory});
    round.fault = drawFault(dice, round.service, round.way != Way::Simple);
    // Answers are some 100 bytes to 300 KB long.
    round.random = dice.below(std::size_t{1} << dice.below(17));
  }
  round.cache = drawCacheTrouble(dice);
  return round;
}

std::set<int> possibleVerdicts(const Round& round, bool cacheIsRight, bool timeIsUp) {
  std::set<int> possible = {rightVerdict(round)};
  if (isSettled(round, cacheIsRight) && !timeIsUp) return possible;
  // No CRL, or none that counts.
  possible.insert(
      {X509_V_ERR_UNABLE_TO_GET_CRL, X509_V_ERR_CRL_SIGNATURE_FAILURE, X509_V_ERR_CRL_HAS_EXPIRED});
  // A bit of an authority's certificate: whatever can be wrong with a path then.
  if (round.directory && round.service == Service::Directory && round.fault == Fault::Flipped) {
    for (int code = 1; code <= kLastCode; ++code) {
      if (code != X509_V_ERR_CERT_REVOKED) possible.insert(code);
    }
  }
  if (lacksIssuers(round)) possible.insert(X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY);
  // What LDAP does not give is an exception.
  if (round.directory) possible.insert(kNoVerdict);
  return possible;
}

std::string describe(const Round& round) {
  constexpr std::array<const char*, 4> kWays = {"own store", "clone", "simple verifier", "threads"};
  constexpr std::array<const char*, 5> kDemands = {"", ", right address", ", wrong address",
                                                   ", right use", ", wrong use"};
  constexpr std::array<const char*, kLevels> kLevelNames = {"root", "middle", "lower"};
  constexpr std::array<const char*, 4> kSources = {"machine", "web", "own web", "LDAP"};
  constexpr std::array<const char*, 3> kResponders = {"none", "front", "own"};
  const Plan& plan = round.target->plan;
  std::ostringstream out;
  out << nameOf(plan.truth) << " certificate " << plan.serial << " (issuer "
      << kLevelNames.at(static_cast<std::size_t>(plan.level)) << ", CRL "
      << kSources.at(static_cast<std::size_t>(plan.source)) << ", OCSP "
      << kResponders.at(static_cast<std::size_t>(plan.responder)) << "), "
      << kWays.at(static_cast<std::size_t>(round.way))
      << kDemands.at(static_cast<std::size_t>(round.demand))
      << (round.untrusted ? ", untrusted" : "") << (round.directory ? ", with LDAP" : "")
      << (round.openSSLRevocation ? ", OpenSSL's revocation" : "") << ", flags 0x" << std::hex
      << round.flags << std::dec << "; " << nameOf(round.service) << ": "
      << kindOf(round.fault).name << " (" << round.random << "), cache: " << nameOf(round.cache);
  return out.str();
}

}  // namespace Velantrix::Test::Soak
