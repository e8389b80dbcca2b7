// A PKI whose maker knows who was revoked by whom and when, and what is offered of what it has said.
//
//   World world = makeWorld(seed);
//   const Offer offer = makeOffer(world, draw);
//   const Verdicts expected = Oracle(world, offer).verdicts(depth);
//
// Plain values; nothing here comes from a parser. Names are texts as `makeName` wants them, places
// are general names ("URI:...", "dirName:..."), certificates and lists are named by their index, times
// are minutes from the moment of the verification.
#pragma once

#include "model/Chance.h"
#include "support/OCSPBuilder.h"
#include "support/Pki.h"

#include <iosfwd>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace Velantrix::Test::Truth {

using Minutes = int;
inline constexpr Minutes kHour = 60;
inline constexpr Minutes kDay = 24 * kHour;
inline constexpr int kNobody = -1;
/// Keys are 0 to kKeys - 1.
inline constexpr int kKeys = 28;
inline constexpr int kAllReasons = 0x807f;
inline constexpr int kRoot = 0;

/// As RFC 5280, 5.3.1.
inline constexpr int kHold = 6;
inline constexpr int kRemove = 8;

struct Certificate {
  std::string label;
  std::string subject;
  int parent = kNobody;  ///< whose key has signed it; nobody's: its own
  int key = 0;
  int serial = 0;
  bool ca = false;
  int keyUsage = kUsual;
  Minutes from = -400 * kDay;
  Minutes until = 400 * kDay;
  std::vector<DistributionPoint> points = {};
  std::vector<DistributionPoint> freshest = {};
  std::vector<std::string> responders = {};  ///< http URIs
  bool ocspSigning = false;                  ///< id-kp-OCSPSigning
  bool noCheck = false;                      ///< id-pkix-ocsp-nocheck
  bool noRevAvail = false;
  int forger = kNobody;  ///< the key that has signed it in place of the parent's
};

struct Entry {
  int serial = 0;
  std::string issuer;  ///< of the certificate
  int reason = kAbsent;
  Minutes date = -kHour;
  bool unknownCritical = false;
};

struct List {
  std::string label;
  std::string issuer;
  int key = 0;
  int authority =
      kNobody;  ///< the certificate that the authority key identifier is of; nobody: none
  std::optional<int> number = {};
  std::optional<int> base = {};
  Minutes thisUpdate = 0;
  std::optional<Minutes> nextUpdate = {};
  std::vector<Entry> entries = {};
  std::optional<IssuingDistributionPoint> scope = {};
  std::vector<DistributionPoint> freshest = {};
  bool unknownCritical = false;
  bool badSignature = false;
  bool version1 = false;
  bool otherSpelling = false;  ///< of the issuer, in capitals
};

/// Lists of one issuer and scope.
struct Series {
  std::string label;
  std::set<std::string> covered = {};  ///< names of the issuers whose certificates it is about
  std::string issuer = {};
  std::optional<IssuingDistributionPoint> scope = {};
  std::vector<std::string> places = {};
  std::vector<std::string> deltaPlaces = {};
  std::vector<DistributionPoint> freshest = {};  ///< announced by the lists
  std::vector<int> complete = {};                ///< by thisUpdate
  std::vector<int> deltas = {};
};

struct Event {
  int certificate = 0;
  Minutes at = 0;
  int reason = kAbsent;  ///< kRemove: no longer on hold
};

struct World {
  std::vector<Certificate> certificates = {};
  std::vector<List> lists = {};
  std::vector<Series> series = {};
  std::vector<Event> events = {};  ///< by time
  std::vector<int> path = {};      ///< from the one in question to the root
  /// For each authority of the path, from the root down: whether OpenSSL can tell as well who is revoked.
  std::vector<bool> plain = {};
  std::vector<std::string> notes = {};
  std::size_t made = 0;  ///< how many of the lists are the authorities' own
  std::size_t born = 0;  ///< and of the certificates

  const std::string& issuerOf(int certificate) const;
  int keyOfIssuer(int certificate) const;
  /// The reason for which it was revoked then.
  std::optional<int> revokedAt(int certificate, Minutes time) const;
};

/// What an OCSP answer says about one certificate.
struct Single {
  int certificate = 0;
  int issuer = 0;
  bool sha256 = false;
  int status = V_OCSP_CERTSTATUS_GOOD;
  Minutes thisUpdate = 0;
  std::optional<Minutes> nextUpdate = {};
};

struct Answer {
  bool genuine = true;
  int signer = 0;
  int key = kNobody;  ///< in place of the signer's
  std::vector<Single> singles = {};
  OCSPNonce nonce = OCSPNonce::Same;
  bool byKey = false;
  bool carries = true;  ///< the signer's certificate
  bool badSignature = false;
  bool unknownCritical = false;
  bool fails = false;  ///< tryLater
  Minutes producedAt = 0;
};

struct Offer {
  Minutes checked = 0;
  bool wholePath = true;
  bool useDeltas = true;
  bool useOCSP = true;
  std::map<std::string, std::vector<int>> lists = {};  ///< by place
  std::vector<int> certificates = {};
  std::map<std::string, Answer> answers = {};  ///< by URI
  std::optional<int> operatorsResponder = {};  ///< a certificate of the settings
  bool idle = false;                           ///< nothing but what is right
  std::vector<std::string> notes = {};
};

enum class Verdict { Good, Revoked, Undetermined, NotNeeded };

/// The places that a distribution point name stands for; a relative one needs the CRL issuer's name.
std::vector<std::string> placesOf(const std::vector<std::string>& fullNames,
                                  const std::string& relativeName, const std::string& issuer);
std::string directory(const std::string& name);
bool sameScope(const std::optional<IssuingDistributionPoint>& a,
               const std::optional<IssuingDistributionPoint>& b);

/// Prints what matters of it.
void print(std::ostream& out, const World& world, const Offer& offer);
const char* text(Verdict verdict);

template <class List>
auto& at(List& list, int index) {
  return list.at(static_cast<std::size_t>(index));
}

}  // namespace Velantrix::Test::Truth
