#include "report/Line.h"

#include "foundation/base/Hex.h"
#include "foundation/base/Utf8.h"
#include "report/DetailNames.h"
#include "report/ReportContent.h"

#include <algorithm>
#include <cstdint>
#include <ctime>
#include <initializer_list>
#include <iterator>
#include <utility>
#include <vector>

namespace Velantrix::Crypto::PKX509 {

namespace {

using Report = VerificationReport;
using Finding = Report::Finding;

// How many octets single texts get, in the order in which it is tried: names give way first, then places,
// then what is said about the signer of a CRL.
struct Room {
  std::size_t name;
  std::size_t place;  // a file, a URI, a directory
  std::size_t text;   // what a server, the system or OpenSSL says
  bool nested;
};

constexpr Room kRooms[] = {{200, 300, 200, true}, {96, 300, 200, true}, {64, 200, 160, true},
                           {40, 160, 120, true},  {32, 120, 96, true},  {24, 72, 64, true},
                           {40, 160, 120, false}, {32, 120, 96, false}, {24, 96, 64, false},
                           {24, 48, 48, false},   {16, 32, 24, false}};

constexpr std::size_t kSerial = 41;  // a sign, and the 20 octets of RFC 5280, 4.1.2.2

// With what stands before it, where there is something.
std::string after(std::string_view before, const std::string& text) {
  return text.empty() ? text : std::string(before) + text;
}

// A text as it is shown, and where its characters begin in that.
struct Shown {
  explicit Shown(std::string_view from) {
    text.reserve(from.size());
    starts.reserve(from.size() + 1);
    while (!from.empty()) {
      const Utf8Character character = firstUtf8Character(from);
      const std::string_view octets = from.substr(0, character.length);
      starts.push_back(text.size());
      if (!character.value || isUnfitToShow(*character.value)) {
        appendEscaped(text, octets);
      } else {
        text += octets;
      }
      from.remove_prefix(character.length);
    }
    starts.push_back(text.size());
  }

  std::string text;
  std::vector<std::size_t> starts;  // the end's too
};

// One finding in words.
class Wording {
 public:
  Wording(const Finding& finding, const Room& room) : finding_(finding), room_(room) {}

  // "expired: CN=Anna (depth 0, serial 5F01) since ..."
  std::string sentence() const {
    const std::string certificate = certificateText();
    std::string said = body();
    if (certificate.empty()) said.erase(0, said.find_first_not_of(": "));
    return std::string(finding_.name()) + ": " + certificate + said;
  }

  std::string certificateText() const {
    const Report::Subject& one = finding_.certificate();
    if (one.empty()) return {};
    std::string text = one.subject().empty() ? "a certificate without a name"
                                             : shortened(one.subject(), room_.name);
    text += " (";
    if (finding_.depth() >= 0) text += "depth " + std::to_string(finding_.depth()) + ", ";
    return text + "serial " + shortened(one.serial(), kSerial) + ")";
  }

 private:
  // Empty when there is none.
  std::string value(std::string_view detail, std::size_t limit) const {
    const Report::Value* const found = finding_.find(detail);
    if (found == nullptr) return {};
    if (const auto* const text = std::get_if<std::string>(found)) return shortened(*text, limit);
    if (const auto* const time = std::get_if<Time>(found)) return timeText(*time);
    return std::to_string(std::get<std::int64_t>(*found));
  }
  std::string name(std::string_view detail) const { return value(detail, room_.name); }
  std::string text(std::string_view detail) const { return value(detail, room_.text); }

  // Of the time that decided, from the time that was verified for.
  std::string distance() const {
    const Report::Value* const found = finding_.find(DetailName::kDistance);
    const auto* const seconds = found == nullptr ? nullptr : std::get_if<std::int64_t>(found);
    return seconds == nullptr ? std::string() : durationText(*seconds);
  }

  std::string title() const { return ": " + std::string(factsOf(finding_.rule()).title); }

  std::string placeInDetails() const {
    for (const std::string_view detail :
         {DetailName::kFile, DetailName::kURI, DetailName::kDirectory, DetailName::kLookupMethod}) {
      std::string place = value(detail, room_.place);
      if (!place.empty()) return place;
    }
    return {};
  }
  std::string place() const {
    const std::string origin = originText(finding_.origin());
    return origin.empty() ? placeInDetails() : shortened(origin, room_.place);
  }

  // "(HTTP status 404, after 12 ms)", but for what the text of the error has already.
  std::string numbers(const std::string& error) const {
    std::string all;
    const auto add = [&](std::string_view before, std::string_view detail, std::string_view unit) {
      const std::string number = text(detail);
      if (number.empty() || error.find(number) != std::string::npos) return;
      all += (all.empty() ? "" : ", ") + std::string(before) + number + std::string(unit);
    };
    add("HTTP status ", DetailName::kHTTPStatus, "");
    add("errno ", DetailName::kErrorNumber, "");
    add("", DetailName::kBytes, " octets");
    add("after ", DetailName::kMilliseconds, " ms");
    return all.empty() ? all : " (" + all + ")";
  }

  // ": http://crl.example/ca.crl: connection refused (errno 111)"
  std::string failure() const {
    const std::string error = text(DetailName::kError);
    return after(": ", placeInDetails()) + after(": ", text(DetailName::kResource)) +
           after(": ", error) + after(": ", text(DetailName::kText)) + numbers(error);
  }
  std::string failureOrTitle() const {
    std::string said = failure();
    return said.empty() ? title() : said;
  }

  // Why, in the words of the first finding below, or by its name where there is no room for them.
  std::string because() const {
    if (finding_.nested().empty()) return {};
    if (!room_.nested) return " (" + std::string(finding_.nested().front().name()) + ")";
    Room room = room_;
    room.nested = false;
    return " (" + Wording(finding_.nested().front(), room).sentence() + ")";
  }

  // "CRL #7 of CN=Mail CA, from http://..."
  std::string crl() const {
    const std::string base = name(DetailName::kBaseCRLNumber);
    return (base.empty() ? "CRL" : "delta CRL") + after(" #", name(DetailName::kCRLNumber)) +
           after(" on #", base) + after(" of ", name(DetailName::kCRLIssuer)) +
           after(", ", place());
  }
  std::string answer() const {
    return "OCSP answer" + after(" of ", name(DetailName::kResponder)) + after(", ", place());
  }
  // Of what the finding speaks.
  std::string statement() const {
    return finding_.name().starts_with("ocsp-") || finding_.find(DetailName::kResponder) != nullptr
               ? answer()
               : crl();
  }
  std::string statement(std::string_view wrong) const {
    return ": " + statement() + ": " + std::string(wrong) + after(": ", text(DetailName::kText)) +
           after(": ", text(DetailName::kError)) + because();
  }
  // "CRL #7 of CN=Mail CA, from http://..., nextUpdate 2026-10-01T00:00:00Z, 52 days ago"
  std::string statementInTime(std::string_view detail, bool ahead) const {
    const std::string time = text(detail);
    if (time.empty()) return title() + ": " + statement() + after(": ", text(DetailName::kText));
    const std::string far = distance();
    return ": " + statement() + ", " + std::string(detail) + " " + time +
           (ahead ? after(", in ", far) : after(", ", far.empty() ? far : far + " ago"));
  }

  std::string signer() const {
    const std::string serial = value(DetailName::kSignerSerial, kSerial);
    return name(DetailName::kSigner) + (serial.empty() ? "" : " (serial " + serial + ")");
  }
  // "its issuer CN=Signer (serial 12) is revoked"
  std::string aboutSigner(std::string_view role, std::string_view wrong) const {
    return statement("its " + std::string(role) + after(" ", signer()) + " " + std::string(wrong));
  }

  // A clause for each rule that has values of its own; the title where they are not known.
  std::string issuerUnknown() const;
  std::string issuerSourceFailed() const;
  std::string trustSource() const;
  std::string signature() const;
  std::string expired() const;
  std::string notYetValid() const;
  std::string pathLength() const;
  std::string keyUsage() const;
  std::string criticalExtension() const;
  std::string nameConstraint() const;
  std::string policy() const;
  std::string securityBits() const;
  std::string keyTooWeak() const;
  std::string digestTooWeak() const;
  std::string revoked() const;
  std::string crlMissing() const;
  std::string crlReasons() const;

  std::string body() const;  // what follows the certificate

  const Finding& finding_;
  const Room& room_;
};

std::string Wording::issuerUnknown() const {
  const std::string issuer = name(DetailName::kIssuer);
  const std::string key = name(DetailName::kKeyIdentifier);
  return issuer.empty() ? title()
                        : ": nobody knows its issuer " + issuer +
                              (key.empty() ? "" : " (key identifier " + key + ")") +
                              after(": ", text(DetailName::kText));
}

std::string Wording::issuerSourceFailed() const {
  return ": its issuer" + after(" ", name(DetailName::kIssuer)) +
         " is unknown, and a source that may have it failed" + failure();
}

std::string Wording::trustSource() const {
  return title() + failure() + after(", wanted for the issuer ", name(DetailName::kIssuer));
}

std::string Wording::signature() const {
  const std::string by = signer();
  return by.empty() ? title() + failure() : ": its signature is not by the key of " + by;
}

std::string Wording::expired() const {
  const std::string end = text(DetailName::kNotAfter);
  return end.empty() ? title() : " since " + end + after(", ", distance());
}

std::string Wording::notYetValid() const {
  const std::string start = text(DetailName::kNotBefore);
  return start.empty() ? title() : " before " + start + after(", in ", distance());
}

std::string Wording::pathLength() const {
  const std::string allowed = text(DetailName::kPathLength);
  const std::string below = text(DetailName::kCAsBelow);
  return allowed.empty() || below.empty()
             ? title()
             : " allows " + allowed + " CAs below itself and has " + below;
}

std::string Wording::keyUsage() const {
  const std::string usage = text(DetailName::kKeyUsage);
  return usage.empty()
             ? title()
             : ": its key usage is " + usage + after(", needed is ", text(DetailName::kNeeded));
}

std::string Wording::criticalExtension() const {
  const std::string extension = name(DetailName::kExtension);
  return extension.empty() ? title()
                           : ": its critical extension " + extension + " is not understood";
}

std::string Wording::nameConstraint() const {
  const std::string broken = name(DetailName::kName);
  const std::string constraint = name(DetailName::kConstraint);
  if (broken.empty()) return title() + failure();
  return ": " + broken + " breaks " +
         (constraint.empty() ? "a name constraint" : '"' + constraint + '"') +
         after(" of ", name(DetailName::kConstrainedBy));
}

std::string Wording::policy() const {
  const std::string own = text(DetailName::kPolicies);
  return own.empty() ? title()
                     : ": its policies are " + own +
                           after(", one is required of ", text(DetailName::kRequiredPolicies));
}

std::string Wording::securityBits() const {
  const std::string bits = text(DetailName::kSecurityBits);
  return (bits.empty() ? bits : ", " + bits + " bits of security") +
         after(", needed are ", text(DetailName::kMinimumBits));
}

std::string Wording::keyTooWeak() const {
  const std::string type = name(DetailName::kKeyType);
  const std::string bits = text(DetailName::kKeyBits);
  return (type.empty() ? title()
                       : ": its key is " + type + (bits.empty() ? "" : " of " + bits + " bits")) +
         securityBits();
}

std::string Wording::digestTooWeak() const {
  const std::string digest = name(DetailName::kDigest);
  return (digest.empty() ? title() : ": it is signed with " + digest) + securityBits();
}

// " by CRL #1042 of CN=Mail CA, from http://..., 2026-11-02T00:00:00Z, keyCompromise"
std::string Wording::revoked() const {
  const bool known = finding_.find(DetailName::kResponder) != nullptr ||
                     finding_.find(DetailName::kCRLIssuer) != nullptr;
  return (known ? " by " + statement() : "") + after(", ", text(DetailName::kRevocationDate)) +
         after(", ", text(DetailName::kReason)) + after(": ", text(DetailName::kText));
}

std::string Wording::crlMissing() const {
  const std::string issuer = name(DetailName::kCRLIssuer);
  if (issuer.empty()) return title() + failure();
  const std::string directory = text(DetailName::kDirectory);
  return finding_.rule() == Rule::kCRLMissing
             ? ": no CRL of " + issuer + " was found" + after(", nor in ", directory) + failure()
             : ": no source has a CRL of " + issuer + " or knows a responder" +
                   after(", and there is no ", directory);
}

std::string Wording::crlReasons() const {
  const std::string reasons = text(DetailName::kMissingReasons);
  if (reasons.empty()) return title();
  return ": no CRL says whether it is revoked for " + reasons +
         (finding_.find(DetailName::kCRLIssuer) == nullptr ? "" : ", beside " + statement());
}

// No default: a new rule does not go without.
std::string Wording::body() const {
  switch (finding_.rule()) {
    case Rule::kIssuerUnknown:
      return issuerUnknown();
    case Rule::kSelfSigned:
      return " is signed by itself and not trusted";
    case Rule::kRootUntrusted:
      return " ends the path and is not trusted";
    case Rule::kChainTooLong:
      return title() + after(", the maximum depth is ", text(DetailName::kMaximumDepth));
    case Rule::kCertificateSignature:
      return signature();
    case Rule::kExpired:
      return expired();
    case Rule::kNotYetValid:
      return notYetValid();
    case Rule::kNotACA:
      return " is not a CA's and has issued another";
    case Rule::kPathLength:
      return pathLength();
    case Rule::kKeyUsage:
      return keyUsage();
    case Rule::kCriticalExtension:
      return criticalExtension();
    case Rule::kNameConstraint:
    case Rule::kNameConstraintUnsupported:
      return nameConstraint();
    case Rule::kPolicy:
      return policy();
    case Rule::kKeyTooWeak:
      return keyTooWeak();
    case Rule::kDigestTooWeak:
      return digestTooWeak();
    case Rule::kIssuerSourceFailed:
      return issuerSourceFailed();
    case Rule::kTrustDirectoryMissing:
    case Rule::kTrustDirectoryEmpty:
    case Rule::kTrustFileUnreadable:
      return trustSource();

    case Rule::kRevoked:
    case Rule::kOnHold:
      return revoked();
    case Rule::kRevocationUnsourced:
    case Rule::kCRLMissing:
      return crlMissing();
    case Rule::kCRLUnreachable:
    case Rule::kCRLSourceFailed:
    case Rule::kCRLFileUnreadable:
    case Rule::kOCSPUnreachable:
      return failureOrTitle();
    case Rule::kCRLMalformed:
      // One that was found, or what a source has in place of one.
      return finding_.find(DetailName::kCRLIssuer) == nullptr ? failureOrTitle()
                                                              : statement("it is malformed");
    case Rule::kCRLExpired:
    case Rule::kOCSPExpired:
      return statementInTime(DetailName::kNextUpdate, false);
    case Rule::kCRLNotYetValid:
    case Rule::kOCSPNotYetValid:
      return statementInTime(DetailName::kThisUpdate, true);
    case Rule::kCRLSignature:
    case Rule::kOCSPSignature:
      return statement("its signature is wrong");
    case Rule::kCRLTooWeak:
    case Rule::kOCSPTooWeak:
      return statement("its signature is too weak");
    case Rule::kCRLCriticalExtension:
    case Rule::kOCSPCriticalExtension:
      return statement("a critical extension is not understood");
    case Rule::kCRLScope:
      return statement("it does not speak about this certificate") +
             after(", needed is one of ", name(DetailName::kIssuer));
    case Rule::kCRLReasons:
      return crlReasons();
    case Rule::kCRLNoBase:
      return statement("its base is missing");
    case Rule::kCRLSuperseded:
      return statement("a newer one decides");
    case Rule::kCRLIssuerUnknown:
      return statement("nobody knows its issuer's certificate");
    case Rule::kCRLIssuerInvalid:
      return aboutSigner("issuer", "is not valid");
    case Rule::kCRLIssuerRevoked:
      return aboutSigner("issuer", "is revoked");
    case Rule::kCRLIssuerUndetermined:
      return aboutSigner("issuer", "may be revoked, nothing says");
    case Rule::kCRLIssuerNotAllowed:
      return aboutSigner("issuer", "may not sign CRLs");
    case Rule::kCRLCircle:
      return aboutSigner("issuer", "is valid only if it is believed");
    case Rule::kOCSPMalformed:
      return statement("it is malformed");
    case Rule::kOCSPNotSuccessful:
      return statement("it says that there is none");
    case Rule::kOCSPUnknown:
      return statement("the certificate is unknown there");
    case Rule::kOCSPNonce:
      return statement("it is to another question");
    case Rule::kOCSPOtherCertificate:
      return statement("it is about other certificates only");
    case Rule::kOCSPResponderUnknown:
      return statement("nobody knows its signer's certificate");
    case Rule::kOCSPResponderUnauthorised:
      return aboutSigner("signer", "may not speak about the certificate");
    case Rule::kOCSPResponderInvalid:
      return aboutSigner("signer", "is not valid");
    case Rule::kOCSPResponderRevoked:
      return aboutSigner("signer", "is revoked");
    case Rule::kOCSPResponderUndetermined:
      return aboutSigner("signer", "may be revoked, nothing says");

    case Rule::kCertificateMalformed:
    case Rule::kPurpose:
    case Rule::kTrustSettings:
    case Rule::kNameMismatch:
    case Rule::kExtensionInvalid:
    case Rule::kProfile:
    case Rule::kNoRevocationMisused:
    case Rule::kAddressRefused:
    case Rule::kSchemeNotSpoken:
    case Rule::kClientIdentity:
    case Rule::kCacheUnusable:
    case Rule::kBudgetSpent:
    case Rule::kNestedTooDeep:
    case Rule::kOutOfResources:
    case Rule::kCallbackAccepted:
    case Rule::kCallbackRefused:
    case Rule::kOverrideAccepted:
    case Rule::kOverrideRefused:
    case Rule::kEarlierFailure:
    case Rule::kException:
    case Rule::kUnexplained:
    case Rule::kNotVerified:
      break;
  }
  return title() + failure() + because();
}

std::string statusText(const Report::RevocationResult& result, const Room& room) {
  using Result = Report::RevocationResult;
  switch (result.status()) {
    case Result::Status::kNotChecked:
      return ", revocation not checked";
    case Result::Status::kNotNeeded:
      return ", nothing is published about its revocation";
    case Result::Status::kRevoked:
    case Result::Status::kUndetermined:
      return {};  // somebody has decided otherwise, and a finding says who
    case Result::Status::kGood:
      break;
  }
  if (result.decidedBy().empty()) return ", not revoked";
  const Result::Statement& by = result.decidedBy().front();
  return std::string(", not revoked by ") +
         (by.kind == Result::Statement::Kind::kOCSP ? "OCSP answer" : "CRL") +
         after(" #", shortened(by.number, room.name)) +
         after(" of ", shortened(by.issuer, room.name)) +
         after(", ", shortened(originText(by.origin), room.place));
}

// "valid: CN=Anna (depth 0, serial 5F01), trusted by CN=Root, not revoked by CRL #7 of CN=Mail CA, ..."
std::string validText(const Report& report, const Room& room) {
  std::string line = "valid";
  if (!report.path().empty()) {
    const Report::Link& first = report.path().front();
    const Finding about({.depth = 0, .certificate = first.certificate()});
    line += ": " + Wording(about, room).certificateText() + ", trusted by " +
            shortened(report.path().back().certificate().subject(), room.name) +
            statusText(first.revocation(), room);
  }
  const std::vector<Finding>& findings = report.findings();
  const bool decidedElsewhere = !findings.empty() && findings.front().outcome() == Outcome::kValid;
  if (decidedElsewhere) line += "; " + Wording(findings.front(), room).sentence();
  return line;
}

std::string findingText(const Finding& finding, const Room& room) {
  return Wording(finding, room).sentence() +
         after("; ", std::string(factsOf(finding.rule()).advice));
}

std::string lineIn(const Report& report, const Room& room) {
  if (report.valid()) return validText(report, room);
  return report.findings().empty() ? "not valid" : findingText(report.findings().front(), room);
}

}  // namespace

std::string shortened(std::string_view text, std::size_t limit) {
  static constexpr std::string_view kGap = "...";
  // Of a long text no more is looked at than could be shown.
  std::string ends;
  if (text.size() / 4 > limit) {
    ends =
        std::string(text.substr(0, 2 * limit)) + std::string(text.substr(text.size() - 2 * limit));
    text = ends;
  }
  Shown shown(text);
  if (shown.text.size() <= limit) return std::move(shown.text);

  // The start gets two thirds: what a name, a file or a URI begins with tells the most.
  const std::size_t room = limit - std::min(limit, kGap.size());
  const auto next = std::upper_bound(shown.starts.begin(), shown.starts.end(), room - room / 3);
  const std::size_t first = *std::prev(next);
  const std::size_t last =
      *std::lower_bound(next, shown.starts.end(), shown.text.size() - (room - first));
  return shown.text.substr(0, first) + std::string(kGap) + shown.text.substr(last);
}

std::string timeText(const Time& time) {
  const std::time_t seconds = time.seconds();
  std::tm parts{};
  char text[64] = {};
  if (::gmtime_r(&seconds, &parts) == nullptr ||
      std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts) == 0) {
    return "@" + std::to_string(time.seconds());
  }
  return text;
}

std::string durationText(std::int64_t seconds) {
  struct Unit {
    std::uint64_t seconds;
    const char* name;
  };
  static constexpr Unit kUnits[] = {{86400, "day"}, {3600, "hour"}, {60, "minute"}, {1, "second"}};
  const std::uint64_t magnitude =
      seconds < 0 ? -static_cast<std::uint64_t>(seconds) : static_cast<std::uint64_t>(seconds);
  for (const Unit& unit : kUnits) {
    const std::uint64_t count = magnitude / unit.seconds;
    if (count > 0) return std::to_string(count) + " " + unit.name + (count == 1 ? "" : "s");
  }
  return "0 seconds";
}

std::string originText(const Report::Origin& origin) {
  using Kind = Report::Origin::Kind;
  if (!origin.file().empty() && origin.kind() != Kind::kCache) return "file " + origin.file();
  switch (origin.kind()) {
    case Kind::kCaller:
      return "from the caller";
    case Kind::kMessage:
      return "from the message";
    case Kind::kPath:
      return "from the path";
    case Kind::kStore:
      return "from the store";
    case Kind::kAnswer:
      return "from the OCSP answer";
    case Kind::kSettings:
      return "from the settings";
    case Kind::kMemory:
      return "known already";
    case Kind::kTrustDirectory:
    case Kind::kMachineCRLs:
      return after("directory ", origin.place());
    case Kind::kLookupMethod:
      return after("lookup method ", origin.place());
    case Kind::kCache:
      return "from the cache" + after(", ", origin.place());
    case Kind::kLDAP:
    case Kind::kNetwork:
      return after("from ", origin.place());
    case Kind::kUnknown:
      break;
  }
  return origin.place();
}

std::string lineOf(const Report& report) {
  std::string line;
  for (const Room& room : kRooms) {
    line = lineIn(report, room);
    if (line.size() <= Report::kMaximumLine) return line;
  }
  return shortened(line, Report::kMaximumLine);
}

}  // namespace Velantrix::Crypto::PKX509
