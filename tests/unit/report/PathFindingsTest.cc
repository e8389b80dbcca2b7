#include "report/PathFindings.h"
#include "support/Handles.h"
#include "unit/report/Findings.h"

#include <openssl/x509_vfy.h>

#include <gtest/gtest.h>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace Velantrix::Test {
namespace {

using namespace std::string_literals;
using Crypto::PKX509::Evidence;
using Crypto::PKX509::Objection;
using Crypto::PKX509::pathFinding;
using Crypto::PKX509::ruleOf;
using Crypto::PKX509::Surroundings;

// A root, a CA and a leaf, unless a test has others.
const Issued& root() {
  static const Issued made = issueCA("CN=Root");
  return made;
}
const Issued& authority() {
  static const Issued made =
      issue({.subject = "CN=CA", .issuer = &root(), .serial = "02", .ca = true});
  return made;
}

Finding findingOf(const Issued& certificate, int depth, int code, const Surroundings& surroundings,
                  const Evidence& evidence = {}) {
  return pathFinding({.certificate = handle(certificate), .depth = depth, .code = code}, evidence,
                     surroundings);
}

Finding findingOf(const CertificateOptions& options, int code, Surroundings surroundings = {}) {
  const Issued leaf = issue(options);
  surroundings.path = {handle(leaf), handle(authority()), handle(root())};
  return findingOf(leaf, 0, code, surroundings);
}

CertificateOptions leafOptions() {
  return {.subject = "CN=Anna", .issuer = &authority(), .serial = "5F01"};
}

std::string textOf(const Finding& finding, std::string_view name) {
  const Report::Value* const value = finding.find(name);
  if (value == nullptr) return "absent";
  if (const auto* const text = std::get_if<std::string>(value)) return *text;
  if (const auto* const number = std::get_if<std::int64_t>(value)) return std::to_string(*number);
  return Crypto::PKX509::timeText(std::get<Time>(*value));
}

// Codes that no path ends with, and why there is nothing to explain.
const std::map<int, std::string>& withoutARule() {
  static const std::map<int, std::string> codes = {
      {X509_V_ERR_UNSPECIFIED, "says nothing"},
      {X509_V_ERR_APPLICATION_VERIFICATION, "for programs to use as they like"},
      {X509_V_ERR_INVALID_CALL, "a mistake of the library's own"},
      {X509_V_ERR_OCSP_VERIFY_NEEDED, "OpenSSL's TLS for its callbacks"},
      {X509_V_ERR_OCSP_VERIFY_FAILED, "OpenSSL's TLS for its callbacks"},
      {X509_V_ERR_OCSP_CERT_UNKNOWN, "OpenSSL's TLS for its callbacks"},
#ifdef X509_V_ERR_RPK_UNTRUSTED  // since OpenSSL 3.2
      {X509_V_ERR_RPK_UNTRUSTED, "of TLS without certificates"},
#endif
  };
  return codes;
}

// What OpenSSL has a text for is a code of its.
bool isCode(int code) {
  return X509_verify_cert_error_string(code) !=
         std::string_view("unknown certificate verification error");
}

TEST(PathFindings, EveryCodeOfOpenSSLHasARule) {
  int found = 0;
  for (int code = 1; code < 256; ++code) {
    if (!isCode(code)) continue;
    ++found;
    const bool listed = withoutARule().contains(code);
    EXPECT_EQ(ruleOf(code) == Rule::kUnexplained, listed)
        << code << ' ' << X509_verify_cert_error_string(code);
  }
  EXPECT_GT(found, 80);
  EXPECT_EQ(ruleOf(100000), Rule::kUnexplained);
}

TEST(PathFindings, Rules_AreThoseOfTheirCodes) {
  const std::pair<int, Rule> rows[] = {
      {X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY, Rule::kIssuerUnknown},
      {X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE, Rule::kIssuerUnknown},
      {X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT, Rule::kSelfSigned},
      {X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN, Rule::kRootUntrusted},
      {X509_V_ERR_CERT_SIGNATURE_FAILURE, Rule::kCertificateSignature},
      {X509_V_ERR_CERT_HAS_EXPIRED, Rule::kExpired},
      {X509_V_ERR_CERT_NOT_YET_VALID, Rule::kNotYetValid},
      {X509_V_ERR_INVALID_CA, Rule::kNotACA},
      {X509_V_ERR_PATH_LENGTH_EXCEEDED, Rule::kPathLength},
      {X509_V_ERR_INVALID_PURPOSE, Rule::kPurpose},
      {X509_V_ERR_UNHANDLED_CRITICAL_EXTENSION, Rule::kCriticalExtension},
      {X509_V_ERR_PERMITTED_VIOLATION, Rule::kNameConstraint},
      {X509_V_ERR_EXCLUDED_VIOLATION, Rule::kNameConstraint},
      {X509_V_ERR_NO_EXPLICIT_POLICY, Rule::kPolicy},
      {X509_V_ERR_CA_MD_TOO_WEAK, Rule::kDigestTooWeak},
      {X509_V_ERR_EE_KEY_TOO_SMALL, Rule::kKeyTooWeak},
      {X509_V_ERR_CERT_REVOKED, Rule::kRevoked},
      {X509_V_ERR_CRL_HAS_EXPIRED, Rule::kCRLExpired},
      {X509_V_ERR_CRL_SIGNATURE_FAILURE, Rule::kCRLSignature}};
  for (const auto& [code, rule] : rows) EXPECT_EQ(ruleOf(code), rule) << code;
}

TEST(PathFindings, Expired_HasDatesAndDistance) {
  CertificateOptions options = leafOptions();
  options.notBefore = "20250111000000Z";
  options.notAfter = "20260111000000Z";
  const Finding late =
      findingOf(options, X509_V_ERR_CERT_HAS_EXPIRED, {.checked = at(2026, 11, 22)});
  EXPECT_EQ(late.rule(), Rule::kExpired);
  EXPECT_EQ(late.code(), X509_V_ERR_CERT_HAS_EXPIRED);
  EXPECT_EQ(late.certificate(), Report::Subject("CN=Anna", "CN=CA", "5F01"));
  EXPECT_EQ(textOf(late, DetailName::kNotBefore), "2025-01-11T00:00:00Z");
  EXPECT_EQ(textOf(late, DetailName::kNotAfter), "2026-01-11T00:00:00Z");
  EXPECT_EQ(textOf(late, DetailName::kCheckTime), "2026-11-22T00:00:00Z");
  EXPECT_EQ(textOf(late, DetailName::kDistance), std::to_string(-315 * kDay));
  const Finding early =
      findingOf(options, X509_V_ERR_CERT_NOT_YET_VALID, {.checked = at(2025, 1, 10)});
  EXPECT_EQ(textOf(early, DetailName::kDistance), std::to_string(kDay));
}

TEST(PathFindings, PathLength_CountsCAsThatAreNotSelfIssued) {
  const Issued top = issue({.subject = "CN=Top", .issuer = &root(), .ca = true, .pathLength = 0});
  const Issued rolled = issue({.subject = "CN=Top", .issuer = &top, .ca = true});
  const Issued below = issueCA("CN=Below", &rolled);
  const Issued leaf = issue({.subject = "CN=Anna", .issuer = &below});
  const Finding made = findingOf(
      top, 3, X509_V_ERR_PATH_LENGTH_EXCEEDED,
      {.path = {handle(leaf), handle(below), handle(rolled), handle(top), handle(root())}});
  EXPECT_EQ(made.certificate().subject(), "CN=Top");
  EXPECT_EQ(made.depth(), 3);
  EXPECT_EQ(textOf(made, DetailName::kPathLength), "0");
  EXPECT_EQ(textOf(made, DetailName::kCAsBelow), "1");
}

TEST(PathFindings, ChainTooLong_HasTheMaximum) {
  const Finding made =
      findingOf(leafOptions(), X509_V_ERR_CERT_CHAIN_TOO_LONG, {.maximumDepth = 7});
  EXPECT_EQ(textOf(made, DetailName::kMaximumDepth), "7");
}

TEST(PathFindings, Key_HasItsSizeAndWhatIsAskedFor) {
  const Finding made = findingOf(leafOptions(), X509_V_ERR_EE_KEY_TOO_SMALL, {.securityLevel = 4});
  EXPECT_EQ(textOf(made, DetailName::kKeyType), "EC");
  EXPECT_EQ(textOf(made, DetailName::kKeyBits), "256");
  EXPECT_EQ(textOf(made, DetailName::kSecurityBits), "128");
  EXPECT_EQ(textOf(made, DetailName::kMinimumBits), "192");
}

TEST(PathFindings, Digest_HasItsStrengthAndWhatIsAskedFor) {
  const Finding made = findingOf(leafOptions(), X509_V_ERR_CA_MD_TOO_WEAK, {.securityLevel = 9});
  EXPECT_EQ(textOf(made, DetailName::kDigest), "sha256");
  EXPECT_EQ(textOf(made, DetailName::kSecurityBits), "128");
  EXPECT_EQ(textOf(made, DetailName::kMinimumBits), "256");
}

TEST(PathFindings, Policy_HasThoseOfTheCertificateAndThoseRequired) {
  CertificateOptions options = leafOptions();
  options.extensions = {{"certificatePolicies", "1.2.3.4,1.2.3.5"}};
  const Surroundings surroundings = {.requiredPolicies = {"1.2.3.6", "1.2.3.7"}};
  const Finding made = findingOf(options, X509_V_ERR_NO_EXPLICIT_POLICY, surroundings);
  EXPECT_EQ(textOf(made, DetailName::kPolicies), "1.2.3.4 1.2.3.5");
  EXPECT_EQ(textOf(made, DetailName::kRequiredPolicies), "1.2.3.6 1.2.3.7");
  const Finding without = findingOf(leafOptions(), X509_V_ERR_NO_EXPLICIT_POLICY, surroundings);
  EXPECT_EQ(textOf(without, DetailName::kPolicies), "none");
}

TEST(PathFindings, CriticalExtension_IsNamed) {
  CertificateOptions options = leafOptions();
  options.rawExtensions = {{.oid = "1.2.3.3", .der = "\x05\0"s},
                           {.oid = "1.2.3.4", .critical = true, .der = "\x05\0"s}};
  const Finding made = findingOf(options, X509_V_ERR_UNHANDLED_CRITICAL_EXTENSION);
  EXPECT_EQ(textOf(made, DetailName::kExtension), "1.2.3.4");
}

TEST(PathFindings, KeyUsage_HasWhatIsAllowedAndNeeded) {
  const Issued weak = issue({.subject = "CN=Weak CA",
                             .issuer = &root(),
                             .ca = true,
                             .keyUsage = KU_CRL_SIGN | KU_DIGITAL_SIGNATURE});
  const Finding made = findingOf(weak, 1, X509_V_ERR_KEYUSAGE_NO_CERTSIGN, {});
  EXPECT_EQ(textOf(made, DetailName::kKeyUsage), "digitalSignature cRLSign");
  EXPECT_EQ(textOf(made, DetailName::kNeeded), "keyCertSign");
}

TEST(PathFindings, Signature_HasWhoseKeyItWasCheckedWith) {
  const Finding made = findingOf(leafOptions(), X509_V_ERR_CERT_SIGNATURE_FAILURE);
  EXPECT_EQ(textOf(made, DetailName::kSigner), "CN=CA");
  EXPECT_EQ(textOf(made, DetailName::kSignerSerial), "02");
  const Finding ofRoot = findingOf(root(), 1, X509_V_ERR_CERT_SIGNATURE_FAILURE,
                                   {.path = {handle(authority()), handle(root())}});
  EXPECT_EQ(textOf(ofRoot, DetailName::kSigner), "CN=Root");
}

TEST(PathFindings, IssuerUnknown_HasItsNameAndKeyIdentifier) {
  const Finding made = findingOf(leafOptions(), X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY);
  EXPECT_EQ(made.rule(), Rule::kIssuerUnknown);
  EXPECT_EQ(textOf(made, DetailName::kIssuer), "CN=CA");
  EXPECT_EQ(textOf(made, DetailName::kKeyIdentifier).size(), 40U);  // SHA-1
  CertificateOptions options = leafOptions();
  options.authorityKeyId = KeyId::Absent;
  EXPECT_EQ(textOf(findingOf(options, X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY),
                   DetailName::kKeyIdentifier),
            "absent");
}

TEST(PathFindings, IssuerUnknown_IsTheFaultOfAMissingDirectory) {
  const TempDir temporary;
  const std::string directory = (temporary / "none").string();
  const Surroundings surroundings = {.trustDirectory = directory};
  for (const int code :
       {X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY, X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN,
        X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT}) {
    const Finding made = findingOf(leafOptions(), code, surroundings);
    EXPECT_EQ(made.rule(), Rule::kTrustDirectoryMissing);
    EXPECT_EQ(made.code(), code);
    EXPECT_EQ(textOf(made, DetailName::kDirectory), directory);
    EXPECT_EQ(textOf(made, DetailName::kIssuer), "CN=CA");
    EXPECT_NE(textOf(made, DetailName::kError), "absent");
  }
  EXPECT_EQ(findingOf(leafOptions(), X509_V_ERR_CERT_HAS_EXPIRED, surroundings).rule(),
            Rule::kExpired);
}

// Who ends with a root of its own had no issuer looked for: no source that failed is to blame.
TEST(PathFindings, IssuerUnknown_IsTheFaultOfASourceThatFailed) {
  using Source = Report::Source;
  Evidence evidence;
  evidence.sources.add({.kind = Source::Kind::kLDAP,
                        .wanted = Source::Wanted::kCertificates,
                        .origin = "ldap://h",
                        .result = Source::Result::kFailed,
                        .facts = {.reason = "no answer"}});
  const Issued leaf = issue(leafOptions());
  const Finding made =
      findingOf(leaf, 0, X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY, {}, evidence);
  EXPECT_EQ(made.rule(), Rule::kIssuerSourceFailed);
  EXPECT_EQ(textOf(made, DetailName::kURI), "ldap://h");
  EXPECT_EQ(textOf(made, DetailName::kError), "no answer");
  EXPECT_EQ(findingOf(leaf, 0, X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN, {}, evidence).rule(),
            Rule::kRootUntrusted);
  EXPECT_EQ(findingOf(leaf, 0, X509_V_ERR_CERT_SIGNATURE_FAILURE, {}, evidence).rule(),
            Rule::kCertificateSignature);
}

TEST(PathFindings, NameConstraint_HasNameConstraintAndCA) {
  const Issued bound = issue({.subject = "CN=CA",
                              .issuer = &root(),
                              .ca = true,
                              .extensions = {{"nameConstraints", "permitted;email:example.com"}}});
  const Issued leaf = issue({.subject = "CN=Anna",
                             .issuer = &bound,
                             .extensions = {{"subjectAltName", "email:anna@example.org"}}});
  const Finding made = findingOf(leaf, 0, X509_V_ERR_PERMITTED_VIOLATION,
                                 {.path = {handle(leaf), handle(bound), handle(root())}});
  EXPECT_EQ(textOf(made, DetailName::kName), "email:anna@example.org");
  EXPECT_EQ(textOf(made, DetailName::kConstraint), "permitted email:example.com");
  EXPECT_EQ(textOf(made, DetailName::kConstrainedBy), "CN=CA");
}

TEST(PathFindings, CRL_IsToldWhereOpenSSLCheckedOne) {
  const Finding made = pathFinding({.certificate = handle(authority()),
                                    .depth = 1,
                                    .code = X509_V_ERR_CRL_HAS_EXPIRED,
                                    .crl = crlHandle({.issuer = &root(), .number = 7})},
                                   {}, {});
  EXPECT_EQ(made.rule(), Rule::kCRLExpired);
  EXPECT_EQ(textOf(made, DetailName::kCRLIssuer), "CN=Root");
  EXPECT_EQ(textOf(made, DetailName::kCRLNumber), "7");
}

TEST(PathFindings, NoCertificate_IsToldWithoutValues) {
  for (int code = 1; code < 256; ++code) {
    const Finding made = pathFinding({.code = code}, {}, {});
    EXPECT_EQ(made.depth(), -1);
    EXPECT_TRUE(made.certificate().empty());
    EXPECT_EQ(made.rule(), ruleOf(code));
  }
}

// Whatever a stranger's certificate is, a finding of it is made for every code.
TEST(PathFindings, BareCertificate_IsToldForEveryCode) {
  const Issued bare = issue({.subject = "CN=Bare",
                             .basicConstraints = false,
                             .keyUsage = kAbsent,
                             .subjectKeyId = KeyId::Absent,
                             .rawExtensions = {{.oid = "2.5.29.32", .der = "\x04\x01x"},
                                               {.oid = "2.5.29.30", .der = "x"},
                                               {.oid = "2.5.29.17", .der = ""}}});
  for (int code = 1; code < 256; ++code) {
    const Finding made = findingOf(bare, 0, code, {.path = {handle(bare)}});
    EXPECT_EQ(made.certificate().subject(), "CN=Bare");
  }
  EXPECT_EQ(ERR_peek_error(), 0U);
}

}  // namespace
}  // namespace Velantrix::Test
