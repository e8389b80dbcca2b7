#include "unit/report/Findings.h"

#include <gtest/gtest.h>
#include <limits>
#include <string>
#include <vector>

namespace Velantrix::Test {
namespace {

using namespace std::string_literals;
using Crypto::PKX509::durationText;
using Crypto::PKX509::kRules;
using Crypto::PKX509::lineOf;
using Crypto::PKX509::originText;
using Crypto::PKX509::shortened;
using Crypto::PKX509::timeText;
using OriginKind = Report::Origin::Kind;
using RevocationResult = Report::RevocationResult;

const Details& crlDetails() {
  static const Details details = {{DetailName::kCRLIssuer, "CN=Mail CA"s},
                                  {DetailName::kCRLNumber, "7"s},
                                  {DetailName::kThisUpdate, at(2026, 9, 1)},
                                  {DetailName::kNextUpdate, at(2026, 10, 1)},
                                  {DetailName::kEntries, std::int64_t{12}}};
  return details;
}

Details with(Details details, const Details& more) {
  details.insert(details.end(), more.begin(), more.end());
  return details;
}

struct WantedLine {
  FindingParts parts;
  std::string line;  // without what to do about it
};

const Report::Origin kServer(OriginKind::kNetwork, "http://crl.example/ca.crl");

const std::vector<WantedLine>& pathLines() {
  static const std::vector<WantedLine> lines = {
      {{.rule = Rule::kExpired,
        .details = {{DetailName::kNotBefore, at(2025, 1, 11)},
                    {DetailName::kNotAfter, at(2026, 1, 11)},
                    {DetailName::kCheckTime, at(2026, 11, 22)},
                    {DetailName::kDistance, -315 * kDay}}},
       "expired: CN=Anna (depth 0, serial 5F01) since 2026-01-11T00:00:00Z, 315 days"},
      {{.rule = Rule::kNotYetValid,
        .details = {{DetailName::kNotBefore, at(2026, 12, 1)}, {DetailName::kDistance, 9 * kDay}}},
       "not-yet-valid: CN=Anna (depth 0, serial 5F01) before 2026-12-01T00:00:00Z, in 9 days"},
      {{.rule = Rule::kIssuerUnknown,
        .details = {{DetailName::kIssuer, "CN=Mail CA"s}, {DetailName::kKeyIdentifier, "0A0B"s}}},
       "issuer-unknown: CN=Anna (depth 0, serial 5F01): nobody knows its issuer CN=Mail CA (key "
       "identifier 0A0B)"},
      {{.rule = Rule::kCertificateSignature,
        .details = {{DetailName::kSigner, "CN=Mail CA"s}, {DetailName::kSignerSerial, "02"s}}},
       "certificate-signature: CN=Anna (depth 0, serial 5F01): its signature is not by the key of "
       "CN=Mail CA (serial 02)"},
      {{.rule = Rule::kPathLength,
        .details = {{DetailName::kPathLength, std::int64_t{0}},
                    {DetailName::kCAsBelow, std::int64_t{1}}},
        .certificate = {"CN=Mail CA", "CN=Root", "02"},
        .depth = 2},
       "path-length: CN=Mail CA (depth 2, serial 02) allows 0 CAs below itself and has 1"},
      {{.rule = Rule::kKeyUsage,
        .details = {{DetailName::kKeyUsage, "cRLSign"s}, {DetailName::kNeeded, "keyCertSign"s}}},
       "key-usage: CN=Anna (depth 0, serial 5F01): its key usage is cRLSign, needed is "
       "keyCertSign"},
      {{.rule = Rule::kNameConstraint,
        .details = {{DetailName::kName, "email:anna@example.org"s},
                    {DetailName::kConstraint, "permitted email:example.com"s},
                    {DetailName::kConstrainedBy, "CN=Mail CA"s}}},
       "name-constraint: CN=Anna (depth 0, serial 5F01): email:anna@example.org breaks "
       "\"permitted email:example.com\" of CN=Mail CA"},
      {{.rule = Rule::kPolicy,
        .details = {{DetailName::kPolicies, "1.2.3 1.2.4"s},
                    {DetailName::kRequiredPolicies, "1.2.5"s}}},
       "policy: CN=Anna (depth 0, serial 5F01): its policies are 1.2.3 1.2.4, one is required of "
       "1.2.5"},
      {{.rule = Rule::kKeyTooWeak,
        .details = {{DetailName::kKeyType, "RSA"s},
                    {DetailName::kKeyBits, std::int64_t{1024}},
                    {DetailName::kSecurityBits, std::int64_t{80}},
                    {DetailName::kMinimumBits, std::int64_t{112}}}},
       "key-too-weak: CN=Anna (depth 0, serial 5F01): its key is RSA of 1024 bits, 80 bits of "
       "security, needed are 112"},
      {{.rule = Rule::kDigestTooWeak,
        .details = {{DetailName::kDigest, "sha1"s},
                    {DetailName::kSecurityBits, std::int64_t{63}},
                    {DetailName::kMinimumBits, std::int64_t{112}}}},
       "digest-too-weak: CN=Anna (depth 0, serial 5F01): it is signed with sha1, 63 bits of "
       "security, needed are 112"},
      {{.rule = Rule::kCriticalExtension, .details = {{DetailName::kExtension, "1.2.3.4"s}}},
       "critical-extension: CN=Anna (depth 0, serial 5F01): its critical extension 1.2.3.4 is not "
       "understood"},
      {{.rule = Rule::kChainTooLong, .details = {{DetailName::kMaximumDepth, std::int64_t{100}}}},
       "chain-too-long: CN=Anna (depth 0, serial 5F01): the path is too long, the maximum depth is "
       "100"},
      {{.rule = Rule::kNotACA, .certificate = {"CN=Eve", "CN=Root", "03"}, .depth = 1},
       "not-a-ca: CN=Eve (depth 1, serial 03) is not a CA's and has issued another"},
      {{.rule = Rule::kIssuerSourceFailed,
        .details = {{DetailName::kIssuer, "CN=Mail CA"s},
                    {DetailName::kURI, "ldap://ldap.example"s},
                    {DetailName::kError, "can't contact the server"s}}},
       "issuer-source-failed: CN=Anna (depth 0, serial 5F01): its issuer CN=Mail CA is unknown, "
       "and a source that may have it failed: ldap://ldap.example: can't contact the server"},
      {{.rule = Rule::kTrustDirectoryMissing,
        .details = {{DetailName::kIssuer, "CN=Mail CA"s},
                    {DetailName::kDirectory, "/etc/trust"s},
                    {DetailName::kError, "No such file or directory"s}}},
       "trust-directory-missing: CN=Anna (depth 0, serial 5F01): the directory of trusted "
       "certificates cannot be read: /etc/trust: No such file or directory, wanted for the issuer "
       "CN=Mail CA"},
      {{.rule = Rule::kProfile, .details = {{DetailName::kText, "Path length given for non-CA"s}}},
       "profile: CN=Anna (depth 0, serial 5F01): the certificate breaks a rule of the profile that "
       "is asked for: Path length given for non-CA"}};
  return lines;
}

const std::vector<WantedLine>& revocationLines() {
  static const std::vector<WantedLine> lines = {
      {{.rule = Rule::kRevoked,
        .details = with({{DetailName::kRevocationDate, at(2026, 11, 2)},
                         {DetailName::kReason, "keyCompromise"s}},
                        crlDetails()),
        .origin = kServer},
       "revoked: CN=Anna (depth 0, serial 5F01) by CRL #7 of CN=Mail CA, from "
       "http://crl.example/ca.crl, 2026-11-02T00:00:00Z, keyCompromise"},
      {{.rule = Rule::kOnHold,
        .details = {{DetailName::kRevocationDate, at(2026, 11, 2)},
                    {DetailName::kReason, "certificateHold"s},
                    {DetailName::kResponder, "CN=Responder"s}},
        .origin = {OriginKind::kNetwork, "http://ocsp.example"}},
       "on-hold: CN=Anna (depth 0, serial 5F01) by OCSP answer of CN=Responder, from "
       "http://ocsp.example, 2026-11-02T00:00:00Z, certificateHold"},
      {{.rule = Rule::kCRLExpired,
        .details = with(crlDetails(), {{DetailName::kDistance, -52 * kDay}}),
        .origin = {OriginKind::kMachineCRLs, "/opsadmin/crls", "/opsadmin/crls/4a6481c9.r0"}},
       "crl-expired: CN=Anna (depth 0, serial 5F01): CRL #7 of CN=Mail CA, file "
       "/opsadmin/crls/4a6481c9.r0, nextUpdate 2026-10-01T00:00:00Z, 52 days ago"},
      {{.rule = Rule::kCRLNotYetValid,
        .details = with(crlDetails(), {{DetailName::kDistance, std::int64_t{3600}}}),
        .origin = {OriginKind::kMessage, ""}},
       "crl-not-yet-valid: CN=Anna (depth 0, serial 5F01): CRL #7 of CN=Mail CA, from the message, "
       "thisUpdate 2026-09-01T00:00:00Z, in 1 hour"},
      {{.rule = Rule::kCRLUnreachable,
        .details = {{DetailName::kURI, "http://crl.example/ca.crl"s},
                    {DetailName::kError, "connection refused"s},
                    {DetailName::kErrorNumber, std::int64_t{111}},
                    {DetailName::kMilliseconds, std::int64_t{12}}},
        .origin = kServer},
       "crl-unreachable: CN=Anna (depth 0, serial 5F01): http://crl.example/ca.crl: connection "
       "refused (errno 111, after 12 ms)"},
      {{.rule = Rule::kOCSPUnreachable,
        .details = {{DetailName::kURI, "http://ocsp.example"s},
                    {DetailName::kError, "HTTP status 404"s},
                    {DetailName::kHTTPStatus, std::int64_t{404}}}},
       "ocsp-unreachable: CN=Anna (depth 0, serial 5F01): http://ocsp.example: HTTP status 404"},
      {{.rule = Rule::kCRLSignature,
        .details = crlDetails(),
        .origin = {OriginKind::kMachineCRLs, "/crls", "/crls/4a6481c9.r0"}},
       "crl-signature: CN=Anna (depth 0, serial 5F01): CRL #7 of CN=Mail CA, file "
       "/crls/4a6481c9.r0: its signature is wrong"},
      {{.rule = Rule::kCRLNoBase,
        .details = with(crlDetails(), {{DetailName::kBaseCRLNumber, "5"s}})},
       "crl-no-base: CN=Anna (depth 0, serial 5F01): delta CRL #7 on #5 of CN=Mail CA: its base is "
       "missing"},
      {{.rule = Rule::kCRLIssuerRevoked,
        .details = with(crlDetails(),
                        {{DetailName::kSigner, "CN=Signer"s}, {DetailName::kSignerSerial, "03"s}}),
        .nested = {finding({.rule = Rule::kRevoked,
                            .details = {{DetailName::kReason, "keyCompromise"s}},
                            .certificate = {"CN=Signer", "CN=Root", "03"},
                            .depth = -1})}},
       "crl-issuer-revoked: CN=Anna (depth 0, serial 5F01): CRL #7 of CN=Mail CA: its issuer "
       "CN=Signer (serial 03) is revoked (revoked: CN=Signer (serial 03), keyCompromise)"},
      {{.rule = Rule::kCRLMissing, .details = {{DetailName::kCRLIssuer, "CN=Mail CA"s}}},
       "crl-missing: CN=Anna (depth 0, serial 5F01): no CRL of CN=Mail CA was found"},
      {{.rule = Rule::kRevocationUnsourced, .details = {{DetailName::kCRLIssuer, "CN=Mail CA"s}}},
       "revocation-unsourced: CN=Anna (depth 0, serial 5F01): no source has a CRL of CN=Mail CA or "
       "knows a responder"},
      {{.rule = Rule::kCRLReasons, .details = {{DetailName::kMissingReasons, "keyCompromise"s}}},
       "crl-reasons: CN=Anna (depth 0, serial 5F01): no CRL says whether it is revoked for "
       "keyCompromise"},
      {{.rule = Rule::kCRLMalformed,
        .details = {{DetailName::kURI, "http://crl.example/ca.crl"s},
                    {DetailName::kError, "no CRL"s},
                    {DetailName::kBytes, std::int64_t{9}}}},
       "crl-malformed: CN=Anna (depth 0, serial 5F01): http://crl.example/ca.crl: no CRL (9 "
       "octets)"},
      {{.rule = Rule::kOCSPResponderUnauthorised,
        .details = {{DetailName::kResponder, "CN=Responder"s},
                    {DetailName::kSigner, "CN=Eve"s},
                    {DetailName::kSignerSerial, "04"s}},
        .origin = {OriginKind::kNetwork, "http://ocsp.example"}},
       "ocsp-responder-unauthorised: CN=Anna (depth 0, serial 5F01): OCSP answer of CN=Responder, "
       "from http://ocsp.example: its signer CN=Eve (serial 04) may not speak about the "
       "certificate"},
      {{.rule = Rule::kEarlierFailure, .nested = {finding({.rule = Rule::kSelfSigned})}},
       "earlier-failure: CN=Anna (depth 0, serial 5F01): an earlier failure of this verifier "
       "stands, though it would be valid now (self-signed: CN=Anna (depth 0, serial 5F01) is "
       "signed by itself and not trusted)"},
      {{.rule = Rule::kException,
        .details = {{DetailName::kText, "no key"s}},
        .certificate = {},
        .depth = -1},
       "exception: the verification ended with an exception: no key"}};
  return lines;
}

void expectLine(const WantedLine& wanted) {
  const std::string_view advice = factsOf(wanted.parts.rule).advice;
  EXPECT_EQ(lineOf(failed(wanted.parts)),
            wanted.line + (advice.empty() ? "" : "; ") + std::string(advice));
}

TEST(Line, PathRule_SaysCertificateValuesAndAdvice) {
  for (const WantedLine& wanted : pathLines()) expectLine(wanted);
}

TEST(Line, RevocationRule_SaysStatementSourceValuesAndAdvice) {
  for (const WantedLine& wanted : revocationLines()) expectLine(wanted);
}

TEST(Line, EveryRuleWithoutAnyValue_IsASentence) {
  for (const RuleFacts& facts : kRules) {
    const std::string line = lineOf(failed({.rule = facts.rule}));
    const std::string start = std::string(facts.name) + ": CN=Anna (depth 0, serial 5F01)";
    EXPECT_TRUE(line.starts_with(start)) << line;
    EXPECT_TRUE(line.ends_with(facts.advice)) << line;
    for (const char* const gap : {"  ", ": :", ", ,", "::", ",,", "()", ": ;", " ,", " ;"}) {
      EXPECT_EQ(line.find(gap), std::string::npos) << line;
    }
  }
}

TEST(Line, NoCertificate_GoesWithoutItsParentheses) {
  for (const RuleFacts& facts : kRules) {
    const std::string line = lineOf(failed({.rule = facts.rule, .certificate = {}, .depth = -1}));
    EXPECT_TRUE(line.starts_with(std::string(facts.name) + ": ")) << line;
    EXPECT_EQ(line.find("serial"), std::string::npos) << line;
  }
}

// All values that there are, all of the longest, for every rule.
Report filled(Rule rule, const std::string& text, bool nested) {
  FindingParts parts{.rule = rule,
                     .origin = {OriginKind::kNetwork, text, text},
                     .certificate = {text, text, text},
                     .depth = 12345};
  for (const std::string_view name : DetailName::kAll) {
    const bool isTime = name == DetailName::kNotBefore || name == DetailName::kNotAfter ||
                        name == DetailName::kThisUpdate || name == DetailName::kNextUpdate ||
                        name == DetailName::kRevocationDate;
    if (isTime) {
      parts.details.push_back({name, Time::then(std::numeric_limits<std::int64_t>::min(), true)});
    } else if (name == DetailName::kDistance) {
      parts.details.push_back({name, std::numeric_limits<std::int64_t>::min()});
    } else {
      parts.details.push_back({name, text});
    }
  }
  if (nested) parts.nested.push_back(filled(rule, text, false).findings().front());
  return failed(std::move(parts));
}

void expectFit(const Report& report) {
  const std::string line = lineOf(report);
  const Finding& decisive = report.findings().front();
  EXPECT_LE(line.size(), Report::kMaximumLine) << line;
  EXPECT_TRUE(isPrintable(line)) << line;
  EXPECT_TRUE(line.starts_with(std::string(decisive.name()) + ": ")) << line;
  EXPECT_NE(line.find("(depth 12345, serial "), std::string::npos) << line;
  EXPECT_TRUE(line.ends_with(factsOf(decisive.rule()).advice)) << line;
}

TEST(Line, LongValues_RuleDepthAndAdviceStay) {
  const std::string escapes(512, '\x1b');
  std::vector<std::string> others = {std::string(512, 'x'), std::string(512, '\xff'), "", ""};
  while (others[2].size() < 510) others[2] += "\xc3\xbc";
  while (others[3].size() < 510) others[3] += "\xe2\x80\xae";
  std::size_t turn = 0;
  for (const RuleFacts& facts : kRules) {
    expectFit(filled(facts.rule, escapes, turn % 4 == 0));
    expectFit(filled(facts.rule, others[turn++ % others.size()], false));
  }
}

TEST(Line, LongNames_GiveWayBeforeTheSource) {
  const std::string uri = "http://crl.example/" + std::string(120, 'u');
  const std::string line =
      lineOf(failed({.rule = Rule::kCRLUnreachable,
                     .details = {{DetailName::kURI, uri}},
                     .certificate = {"CN=" + std::string(400, 'n'), "", "01"}}));
  EXPECT_NE(line.find(uri), std::string::npos) << line;
  EXPECT_NE(line.find("CN=nnn"), std::string::npos) << line;
  EXPECT_NE(line.find("nnn...nnn"), std::string::npos) << line;
}

TEST(Line, HostileTexts_AreEscaped) {
  const std::string line =
      lineOf(failed({.rule = Rule::kCRLUnreachable,
                     .details = {{DetailName::kError, "\x1b[2Jgone\r\nvalid: \xff"s}},
                     .certificate = {"CN=\xe2\x80\xae"
                                     "annA\xf0\x9f\x99\x82",
                                     "", "0\n1"}}));
  EXPECT_EQ(line.substr(0, line.find(';')),
            "crl-unreachable: CN=\\E2\\80\\AEannA\xf0\x9f\x99\x82 (depth 0, serial 0\\0A1): "
            "\\1B[2Jgone\\0D\\0Avalid: \\FF");
}

Report valid(RevocationResult::Content result, std::vector<Finding> findings = {}) {
  Report::Content content{.code = 0, .findings = std::move(findings)};
  content.path.emplace_back(
      Report::Link::Content{.certificate = certificateFacts({"CN=Anna", "CN=Mail CA", "5F01"}),
                            .revocation = RevocationResult(std::move(result))});
  content.path.emplace_back(
      Report::Link::Content{.certificate = certificateFacts({"CN=Root", "CN=Root", "01"})});
  return Report(std::move(content));
}

TEST(Line, Valid_SaysWhy) {
  const std::string start = "valid: CN=Anna (depth 0, serial 5F01), trusted by CN=Root";
  EXPECT_EQ(valid({}).line(), start + ", revocation not checked");
  EXPECT_EQ(valid({.status = RevocationResult::Status::kGood,
                   .decidedBy = {{.issuer = "CN=Mail CA", .number = "7", .origin = kServer}}})
                .line(),
            start + ", not revoked by CRL #7 of CN=Mail CA, from http://crl.example/ca.crl");
  EXPECT_EQ(
      valid({.status = RevocationResult::Status::kGood,
             .decidedBy = {{.kind = RevocationResult::Statement::Kind::kOCSP, .issuer = "CN=R"}}})
          .line(),
      start + ", not revoked by OCSP answer of CN=R");
  EXPECT_EQ(valid({.status = RevocationResult::Status::kNotNeeded}).line(),
            start + ", nothing is published about its revocation");
  EXPECT_EQ(Report(Report::Content{.code = 0}).line(), "valid");
}

TEST(Line, ValidByTheProgramsWill_SaysSo) {
  const std::string line = valid({.status = RevocationResult::Status::kRevoked},
                                 {finding({.rule = Rule::kOverrideAccepted})})
                               .line();
  EXPECT_EQ(line,
            "valid: CN=Anna (depth 0, serial 5F01), trusted by CN=Root; override-accepted: CN=Anna "
            "(depth 0, serial 5F01): the program's own revocation check let it pass");
  // What did not count is not on the line.
  EXPECT_EQ(valid({}, {finding({.rule = Rule::kCRLExpired})}).line().find("crl-expired"),
            std::string::npos);
}

TEST(Line, ValidWithLongNames_Fits) {
  const std::string text(512, '\x1b');
  Report::Content content{
      .code = 0,
      .findings = {finding({.rule = Rule::kCallbackAccepted, .certificate = {text, text, text}})}};
  content.path.emplace_back(Report::Link::Content{
      .certificate = certificateFacts({text, text, text}),
      .revocation = RevocationResult(
          {.status = RevocationResult::Status::kGood,
           .decidedBy = {
               {.issuer = text, .number = text, .origin = {OriginKind::kNetwork, text, text}}}})});
  const std::string line = Report(std::move(content)).line();
  EXPECT_LE(line.size(), Report::kMaximumLine);
  EXPECT_TRUE(isPrintable(line)) << line;
  EXPECT_TRUE(line.starts_with("valid: ")) << line;
}

TEST(Line, NothingKnown_StillSaysTheVerdict) {
  EXPECT_EQ(Report(Report::Content{.code = 1}).line(), "not valid");
  EXPECT_EQ(
      Report().line(),
      "not-verified: no verification has taken place; the program has to verify before it asks");
}

TEST(Line, Shortened_LosesItsMiddleAtCharacters) {
  EXPECT_EQ(shortened("", 16), "");
  EXPECT_EQ(shortened("0123456789abcdef", 16), "0123456789abcdef");
  EXPECT_EQ(shortened("0123456789abcdefg", 16), "012345678...defg");
  EXPECT_EQ(shortened("a\tb", 16), "a\\09b");
  EXPECT_EQ(shortened("/opsadmin/trusted/crls/4a6481c9.r0", 24), "/opsadmin/trus...81c9.r0");
  for (std::size_t limit = 12; limit < 80; ++limit) {
    std::string text;
    for (int i = 0; i < 40; ++i) text += i % 3 == 0 ? "\xe2\x82\xac" : i % 3 == 1 ? "\x01" : "\xfe";
    const std::string cut = shortened(text, limit);
    EXPECT_LE(cut.size(), limit);
    EXPECT_GE(cut.size() + 8, limit);
    EXPECT_TRUE(isPrintable(cut)) << cut;
    EXPECT_NE(cut.find("..."), std::string::npos);
  }
}

TEST(Line, Durations_HaveTheirLargestUnit) {
  EXPECT_EQ(durationText(0), "0 seconds");
  EXPECT_EQ(durationText(1), "1 second");
  EXPECT_EQ(durationText(-59), "59 seconds");
  EXPECT_EQ(durationText(60), "1 minute");
  EXPECT_EQ(durationText(-7199), "1 hour");
  EXPECT_EQ(durationText(kDay), "1 day");
  EXPECT_EQ(durationText(-315 * kDay), "315 days");
  EXPECT_EQ(durationText(std::numeric_limits<std::int64_t>::min()), "106751991167300 days");
}

TEST(Line, Times_AreUtcAndSecondsWhereTheCalendarEnds) {
  EXPECT_EQ(timeText(at(2026, 11, 2)), "2026-11-02T00:00:00Z");
  EXPECT_EQ(timeText(Time()), "1970-01-01T00:00:00Z");
  EXPECT_EQ(timeText(Time::then(std::numeric_limits<std::int64_t>::max(), true)),
            "@9223372036854775807");
}

TEST(Line, Origins_AreSaidInWords) {
  EXPECT_EQ(originText({}), "");
  EXPECT_EQ(originText({OriginKind::kNetwork, "http://h/"}), "from http://h/");
  EXPECT_EQ(originText({OriginKind::kCache, "http://h/"}), "from the cache, http://h/");
  EXPECT_EQ(originText({OriginKind::kMachineCRLs, "/d"}), "directory /d");
  EXPECT_EQ(originText({OriginKind::kTrustDirectory, "/d", "/d/f.0"}), "file /d/f.0");
  EXPECT_EQ(originText({OriginKind::kLookupMethod, "hash"}), "lookup method hash");
  EXPECT_EQ(originText({OriginKind::kLDAP, "ldap://h"}), "from ldap://h");
  for (const OriginKind kind :
       {OriginKind::kCaller, OriginKind::kMessage, OriginKind::kPath, OriginKind::kStore,
        OriginKind::kAnswer, OriginKind::kSettings, OriginKind::kMemory}) {
    EXPECT_NE(originText({kind, ""}), "");
  }
}

}  // namespace
}  // namespace Velantrix::Test
