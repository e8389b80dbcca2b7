// A finding of each rule as verifications make them, for the example lines of docs/REASONS.md.
#pragma once

#include "unit/report/Findings.h"

#include <string>

namespace Velantrix::Test {

namespace Samples {

using namespace std::string_literals;
using Kind = Report::Origin::Kind;

inline Report::Subject mailCA() { return {"CN=Mail CA", "CN=Root", "02"}; }

inline Details crl() {
  return {{DetailName::kCRLIssuer, "CN=Mail CA"s},
          {DetailName::kCRLNumber, "1042"s},
          {DetailName::kThisUpdate, at(2026, 9, 1)},
          {DetailName::kNextUpdate, at(2026, 10, 1)},
          {DetailName::kEntries, std::int64_t{12}}};
}

inline Details joined(Details details, const Details& more) {
  details.insert(details.end(), more.begin(), more.end());
  return details;
}

inline Report::Origin server() { return {Kind::kNetwork, "http://crl.example.com/ca.crl"}; }
inline Report::Origin file() {
  return {Kind::kMachineCRLs, "/opsadmin/crls", "/opsadmin/crls/4a6481c9.r0"};
}
inline Report::Origin responder() { return {Kind::kNetwork, "http://ocsp.example.com"}; }

/// A CRL that does not count, and why.
inline FindingParts ofCRL(Rule rule, const Details& more = {}) {
  return {.rule = rule, .details = joined(crl(), more), .origin = file()};
}

inline Details signer() {
  return {{DetailName::kSigner, "CN=CRL Signer"s}, {DetailName::kSignerSerial, "0C"s}};
}

inline FindingParts ofSigner(Rule rule, std::vector<Finding> why = {}) {
  FindingParts parts = ofCRL(rule, signer());
  parts.nested = std::move(why);
  return parts;
}

inline FindingParts ofAnswer(Rule rule, const Details& more = {}) {
  return {.rule = rule,
          .details = joined({{DetailName::kResponder, "CN=Responder"s},
                             {DetailName::kThisUpdate, at(2026, 11, 20)},
                             {DetailName::kNextUpdate, at(2026, 11, 21)},
                             {DetailName::kURI, "http://ocsp.example.com"s}},
                            more),
          .origin = responder()};
}

inline FindingParts ofResponder(Rule rule, std::vector<Finding> why = {}) {
  FindingParts parts =
      ofAnswer(rule, {{DetailName::kSigner, "CN=Responder"s}, {DetailName::kSignerSerial, "0D"s}});
  parts.nested = std::move(why);
  return parts;
}

inline FindingParts ofHost(Rule rule, const std::string& uri, const Details& more) {
  return {.rule = rule,
          .details = joined({{DetailName::kURI, uri}}, more),
          .origin = {Kind::kNetwork, uri}};
}

inline Finding about(const std::string& name, const std::string& serial, FindingParts parts) {
  parts.certificate = {name, "CN=Root", serial};
  parts.depth = -1;
  return finding(std::move(parts));
}

inline FindingParts ofTrust(Rule rule, const Details& more) {
  return {.rule = rule,
          .details = joined(
              {{DetailName::kIssuer, "CN=Root"s}, {DetailName::kDirectory, "/opsadmin/trusted"s}},
              more),
          .certificate = mailCA(),
          .depth = 1};
}

inline FindingParts text(Rule rule, const std::string& text) {
  return {.rule = rule, .details = {{DetailName::kText, text}}};
}

}  // namespace Samples

inline FindingParts sampleOf(Rule rule) {
  using namespace Samples;
  const Finding revokedSigner =
      about("CN=CRL Signer", "0C",
            {.rule = Rule::kRevoked, .details = {{DetailName::kReason, "keyCompromise"s}}});
  const Finding expiredSigner = about(
      "CN=CRL Signer", "0C",
      {.rule = Rule::kExpired,
       .details = {{DetailName::kNotAfter, at(2026, 11, 1)}, {DetailName::kDistance, -21 * kDay}}});
  switch (rule) {
    case Rule::kIssuerUnknown:
      return {.rule = rule,
              .details = {{DetailName::kIssuer, "CN=Mail CA"s},
                          {DetailName::kKeyIdentifier, "8D7A0F21"s}}};
    case Rule::kSelfSigned:
      return {.rule = rule, .certificate = {"CN=Anna", "CN=Anna", "5F01"}};
    case Rule::kRootUntrusted:
      return {.rule = rule, .certificate = {"CN=Root", "CN=Root", "01"}, .depth = 2};
    case Rule::kChainTooLong:
      return {.rule = rule, .details = {{DetailName::kMaximumDepth, std::int64_t{100}}}};
    case Rule::kCertificateSignature:
      return {
          .rule = rule,
          .details = {{DetailName::kSigner, "CN=Mail CA"s}, {DetailName::kSignerSerial, "02"s}}};
    case Rule::kCertificateMalformed:
      return text(rule, "format error in certificate's notBefore field");
    case Rule::kExpired:
      return {.rule = rule,
              .details = {{DetailName::kNotBefore, at(2025, 1, 11)},
                          {DetailName::kNotAfter, at(2026, 1, 11)},
                          {DetailName::kCheckTime, at(2026, 11, 22)},
                          {DetailName::kDistance, -315 * kDay}}};
    case Rule::kNotYetValid:
      return {.rule = rule,
              .details = {{DetailName::kNotBefore, at(2026, 12, 1)},
                          {DetailName::kNotAfter, at(2027, 12, 1)},
                          {DetailName::kCheckTime, at(2026, 11, 22)},
                          {DetailName::kDistance, 9 * kDay}}};
    case Rule::kNotACA:
      return {.rule = rule, .certificate = {"CN=Berta", "CN=Mail CA", "5F02"}, .depth = 1};
    case Rule::kPathLength:
      return {.rule = rule,
              .details = {{DetailName::kPathLength, std::int64_t{0}},
                          {DetailName::kCAsBelow, std::int64_t{1}}},
              .certificate = mailCA(),
              .depth = 2};
    case Rule::kKeyUsage:
      return {.rule = rule,
              .details = {{DetailName::kKeyUsage, "digitalSignature"s},
                          {DetailName::kNeeded, "keyCertSign"s}},
              .certificate = mailCA(),
              .depth = 1};
    case Rule::kCriticalExtension:
      return {.rule = rule, .details = {{DetailName::kExtension, "1.2.3.4"s}}};
    case Rule::kExtensionInvalid:
      return text(rule, "invalid or inconsistent certificate extension");
    case Rule::kNameConstraint:
      return {.rule = rule,
              .details = {{DetailName::kName, "email:anna@example.org"s},
                          {DetailName::kConstraint, "permitted email:example.com"s},
                          {DetailName::kConstrainedBy, "CN=Mail CA"s}}};
    case Rule::kNameConstraintUnsupported:
      return {.rule = rule,
              .details = {{DetailName::kName, "email:anna"s},
                          {DetailName::kConstraint, "permitted email:example.com"s},
                          {DetailName::kConstrainedBy, "CN=Mail CA"s}}};
    case Rule::kPolicy:
      return {.rule = rule,
              .details = {{DetailName::kPolicies, "1.2.3.4"s},
                          {DetailName::kRequiredPolicies, "1.2.3.5 1.2.3.6"s}}};
    case Rule::kKeyTooWeak:
      return {.rule = rule,
              .details = {{DetailName::kKeyType, "RSA"s},
                          {DetailName::kKeyBits, std::int64_t{1024}},
                          {DetailName::kSecurityBits, std::int64_t{80}},
                          {DetailName::kMinimumBits, std::int64_t{112}}}};
    case Rule::kDigestTooWeak:
      return {.rule = rule,
              .details = {{DetailName::kDigest, "sha1"s},
                          {DetailName::kSecurityBits, std::int64_t{63}},
                          {DetailName::kMinimumBits, std::int64_t{112}}},
              .certificate = mailCA(),
              .depth = 1};
    case Rule::kProfile:
      return text(rule, "Missing Authority Key Identifier");
    case Rule::kIssuerSourceFailed:
      return {.rule = rule,
              .details = {{DetailName::kIssuer, "CN=Mail CA"s},
                          {DetailName::kURI, "ldap://ldap.example.com"s},
                          {DetailName::kError, "Can't contact LDAP server"s},
                          {DetailName::kMilliseconds, std::int64_t{15000}}}};
    case Rule::kTrustDirectoryMissing:
      return ofTrust(rule, {{DetailName::kError, "No such file or directory"s}});
    case Rule::kTrustDirectoryEmpty:
      return ofTrust(rule, {});
    case Rule::kTrustFileUnreadable:
      return ofTrust(rule, {{DetailName::kFile, "/opsadmin/trusted/0a6481c9.0"s},
                            {DetailName::kError, "it holds no certificate"s}});

    case Rule::kRevoked:
      return {.rule = rule,
              .details = joined({{DetailName::kRevocationDate, at(2026, 11, 2)},
                                 {DetailName::kReason, "keyCompromise"s}},
                                crl()),
              .origin = server()};
    case Rule::kOnHold:
      return {.rule = rule,
              .details = {{DetailName::kRevocationDate, at(2026, 11, 2)},
                          {DetailName::kReason, "certificateHold"s},
                          {DetailName::kResponder, "CN=Responder"s}},
              .origin = responder()};
    case Rule::kNoRevocationMisused:
      return {.rule = rule, .certificate = mailCA(), .depth = 1};
    case Rule::kRevocationUnsourced:
    case Rule::kCRLMissing:
      return {.rule = rule, .details = {{DetailName::kCRLIssuer, "CN=Mail CA"s}}};

    case Rule::kCRLUnreachable:
      return ofHost(rule, server().place(),
                    {{DetailName::kError, "could not connect: Connection refused"s},
                     {DetailName::kErrorNumber, std::int64_t{111}},
                     {DetailName::kMilliseconds, std::int64_t{12}}});
    case Rule::kCRLSourceFailed:
      return ofHost(rule, "ldap://ldap.example.com",
                    {{DetailName::kError, "Can't contact LDAP server"s}});
    case Rule::kCRLFileUnreadable:
      return {.rule = rule,
              .details = {{DetailName::kDirectory, "/opsadmin/crls"s},
                          {DetailName::kFile, "/opsadmin/crls/4a6481c9.r1"s},
                          {DetailName::kError, "Permission denied"s},
                          {DetailName::kErrorNumber, std::int64_t{13}}}};
    case Rule::kCRLMalformed:
      return ofHost(rule, server().place(),
                    {{DetailName::kError, "what came is not a CRL"s},
                     {DetailName::kBytes, std::int64_t{5120}}});
    case Rule::kCRLExpired:
      return ofCRL(
          rule, {{DetailName::kCheckTime, at(2026, 11, 22)}, {DetailName::kDistance, -52 * kDay}});
    case Rule::kCRLNotYetValid:
      return ofCRL(rule,
                   {{DetailName::kCheckTime, at(2026, 8, 31)}, {DetailName::kDistance, kDay}});
    case Rule::kCRLReasons:
      return {.rule = rule,
              .details = {{DetailName::kMissingReasons, "keyCompromise CACompromise"s}}};
    case Rule::kCRLNoBase:
      return ofCRL(rule, {{DetailName::kBaseCRLNumber, "1040"s}});
    case Rule::kCRLSignature:
    case Rule::kCRLTooWeak:
    case Rule::kCRLScope:
    case Rule::kCRLCriticalExtension:
    case Rule::kCRLSuperseded:
    case Rule::kCRLIssuerUnknown:
      return ofCRL(rule);
    case Rule::kCRLIssuerInvalid:
      return ofSigner(rule, {expiredSigner});
    case Rule::kCRLIssuerRevoked:
      return ofSigner(rule, {revokedSigner});
    case Rule::kCRLIssuerUndetermined:
      return ofSigner(
          rule,
          {about("CN=CRL Signer", "0C",
                 {.rule = Rule::kCRLMissing, .details = {{DetailName::kCRLIssuer, "CN=Root"s}}})});
    case Rule::kCRLIssuerNotAllowed:
    case Rule::kCRLCircle:
      return ofSigner(rule);

    case Rule::kOCSPUnreachable:
      return ofHost(rule, responder().place(),
                    {{DetailName::kError, "HTTP status 404 Not Found"s},
                     {DetailName::kHTTPStatus, std::int64_t{404}},
                     {DetailName::kMilliseconds, std::int64_t{34}}});
    case Rule::kOCSPNotSuccessful:
      return ofAnswer(rule, {{DetailName::kText, "trylater"s}});
    case Rule::kOCSPExpired:
      return ofAnswer(rule, {{DetailName::kDistance, -kDay}});
    case Rule::kOCSPNotYetValid:
      return ofAnswer(rule, {{DetailName::kDistance, 2 * kDay}});
    case Rule::kOCSPMalformed:
    case Rule::kOCSPUnknown:
    case Rule::kOCSPNonce:
    case Rule::kOCSPOtherCertificate:
    case Rule::kOCSPSignature:
    case Rule::kOCSPTooWeak:
    case Rule::kOCSPCriticalExtension:
    case Rule::kOCSPResponderUnknown:
      return ofAnswer(rule);
    case Rule::kOCSPResponderInvalid:
      return ofResponder(rule, {about("CN=Responder", "0D",
                                      {.rule = Rule::kExpired,
                                       .details = {{DetailName::kNotAfter, at(2026, 11, 1)},
                                                   {DetailName::kDistance, -21 * kDay}}})});
    case Rule::kOCSPResponderRevoked:
      return ofResponder(
          rule,
          {about("CN=Responder", "0D",
                 {.rule = Rule::kRevoked, .details = {{DetailName::kReason, "keyCompromise"s}}})});
    case Rule::kOCSPResponderUndetermined:
      return ofResponder(rule, {about("CN=Responder", "0D",
                                      {.rule = Rule::kCRLMissing,
                                       .details = {{DetailName::kCRLIssuer, "CN=Mail CA"s}}})});
    case Rule::kOCSPResponderUnauthorised:
      return ofResponder(rule);

    case Rule::kAddressRefused:
      return ofHost(
          rule, "http://192.168.7.1/ca.crl",
          {{DetailName::kError, "the address policy refuses a private address: 192.168.7.1"s}});
    case Rule::kSchemeNotSpoken:
      return ofHost(rule, "ldap://ldap.example.com/cn=Mail%20CA", {});
    case Rule::kClientIdentity:
      return {.rule = rule,
              .details = {{DetailName::kFile, "/opsadmin/client.pem"s},
                          {DetailName::kError, "No such file or directory"s}}};
    case Rule::kCacheUnusable:
      return {.rule = rule,
              .details = {{DetailName::kURI, server().place()},
                          {DetailName::kFile, "/var/cache/pkx509/4a6481c9.r0"s},
                          {DetailName::kError, "Permission denied"s},
                          {DetailName::kErrorNumber, std::int64_t{13}}}};
    case Rule::kBudgetSpent:
      return ofHost(rule, server().place(),
                    {{DetailName::kError, "the time for the network is spent"s},
                     {DetailName::kMilliseconds, std::int64_t{60000}}});
    case Rule::kOutOfResources:
      return text(rule, "std::bad_alloc");
    case Rule::kEarlierFailure:
      return {.rule = rule, .nested = {finding(sampleOf(Rule::kExpired))}};
    case Rule::kException:
      return text(rule, "the look-up method has lost its server");
    case Rule::kUnexplained:
      return text(rule, "unspecified certificate verification error");
    case Rule::kNotVerified:
      return {.rule = rule, .certificate = {}, .depth = -1};
    case Rule::kPurpose:
    case Rule::kTrustSettings:
    case Rule::kNameMismatch:
    case Rule::kNestedTooDeep:
    case Rule::kCallbackAccepted:
    case Rule::kCallbackRefused:
    case Rule::kOverrideAccepted:
    case Rule::kOverrideRefused:
      break;
  }
  return {.rule = rule};
}

/// The line that says it.
inline std::string lineOfSample(Rule rule) {
  if (Crypto::PKX509::factsOf(rule).outcome != Outcome::kValid)
    return failed(sampleOf(rule)).line();
  Report::Content content{.code = 0, .findings = {finding(sampleOf(rule))}};
  content.path.emplace_back(Report::Link::Content{
      .certificate = certificateFacts({"CN=Anna", "CN=Mail CA", "5F01"}),
      .revocation =
          Report::RevocationResult({.status = Report::RevocationResult::Status::kUndetermined})});
  content.path.emplace_back(
      Report::Link::Content{.certificate = certificateFacts({"CN=Root", "CN=Root", "01"})});
  return Report(std::move(content)).line();
}

}  // namespace Velantrix::Test
