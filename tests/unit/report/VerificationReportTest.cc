#include "unit/report/Findings.h"

#include <openssl/x509_vfy.h>

#include <gtest/gtest.h>
#include <string>
#include <type_traits>
#include <variant>

namespace Velantrix::Test {
namespace {

using namespace std::string_literals;
using Crypto::PKX509::nameOf;

TEST(VerificationReport, OnNothing_IsNeverValid) {
  const Report report;
  EXPECT_EQ(report.code(), X509_V_ERR_UNSPECIFIED);
  EXPECT_FALSE(report.valid());
  EXPECT_EQ(report.outcome(), Outcome::kPermanent);
  ASSERT_EQ(report.findings().size(), 1U);
  EXPECT_EQ(report.findings().front().rule(), Rule::kNotVerified);
  EXPECT_TRUE(report.path().empty());
  EXPECT_TRUE(report.sources().empty());
  EXPECT_EQ(Report(Report::Content()).code(), X509_V_ERR_UNSPECIFIED);
}

// What a copy shows stays when the original takes another value, or goes.
TEST(VerificationReport, Copies_OutliveTheOriginal) {
  static_assert(std::is_nothrow_move_constructible_v<Report>);
  Report kept;
  std::string line;
  {
    Report original = failed({.rule = Rule::kExpired});
    line = original.line();
    kept = original;
    original = Report();
    EXPECT_EQ(original.findings().front().rule(), Rule::kNotVerified);
  }
  EXPECT_EQ(kept.findings().front().rule(), Rule::kExpired);
  EXPECT_EQ(kept.line(), line);
  Report moved = std::move(kept);
  EXPECT_EQ(moved.line(), line);
}

TEST(VerificationReport, Outcome_IsThatOfTheDecisiveFinding) {
  const auto outcome = [](int code, std::vector<Finding> findings) {
    return Report(Report::Content{.code = code, .findings = std::move(findings)}).outcome();
  };
  const Finding expired = finding({.rule = Rule::kCRLExpired});
  const Finding forged = finding({.rule = Rule::kCertificateSignature});
  EXPECT_EQ(outcome(1, {expired, forged}), Outcome::kTemporary);
  EXPECT_EQ(outcome(1, {forged, expired}), Outcome::kPermanent);
  EXPECT_EQ(outcome(1, {finding({.rule = Rule::kTrustDirectoryEmpty}), forged}), Outcome::kLocal);
  EXPECT_EQ(outcome(0, {forged}), Outcome::kValid);
  // Nothing that is known, or that has let it pass, makes what failed valid or worth a retry.
  EXPECT_EQ(outcome(1, {}), Outcome::kPermanent);
  EXPECT_EQ(outcome(1, {finding({.rule = Rule::kCallbackAccepted})}), Outcome::kPermanent);
}

TEST(VerificationReport, OutcomesHaveNames) {
  EXPECT_EQ(nameOf(Outcome::kValid), "valid");
  EXPECT_EQ(nameOf(Outcome::kPermanent), "permanent");
  EXPECT_EQ(nameOf(Outcome::kTemporary), "temporary");
  EXPECT_EQ(nameOf(Outcome::kLocal), "local");
}

TEST(VerificationReport, Finding_IsReadByTheNamesOfItsValues) {
  const Finding one = finding({.rule = Rule::kRevoked,
                               .details = {{DetailName::kReason, "keyCompromise"s},
                                           {DetailName::kEntries, std::int64_t{3}},
                                           {DetailName::kRevocationDate, at(2026, 11, 2)}},
                               .origin = {Report::Origin::Kind::kNetwork, "http://h/"},
                               .nested = {finding({.rule = Rule::kExpired})},
                               .depth = 2,
                               .code = 23});
  EXPECT_EQ(one.name(), "revoked");
  EXPECT_EQ(one.outcome(), Outcome::kPermanent);
  EXPECT_EQ(one.depth(), 2);
  EXPECT_EQ(one.code(), 23);
  EXPECT_EQ(one.certificate().serial(), "5F01");
  EXPECT_EQ(one.origin().place(), "http://h/");
  ASSERT_EQ(one.nested().size(), 1U);
  ASSERT_NE(one.find(DetailName::kReason), nullptr);
  EXPECT_EQ(*one.find(DetailName::kReason), Report::Value("keyCompromise"s));
  EXPECT_EQ(*one.find(DetailName::kEntries), Report::Value(std::int64_t{3}));
  EXPECT_EQ(*one.find(DetailName::kRevocationDate), Report::Value(at(2026, 11, 2)));
  EXPECT_EQ(one.find(DetailName::kURI), nullptr);
}

TEST(VerificationReport, Parts_SayWhatTheyWereMadeOf) {
  using Result = Report::RevocationResult;
  const Result result({.status = Result::Status::kRevoked,
                       .decidedBy = {{.number = "7", .entries = 3}},
                       .date = at(2026, 11, 2),
                       .reason = "superseded"});
  const Report::Link link({.certificate = std::make_shared<Crypto::PKX509::CertificateFacts>(
                               Crypto::PKX509::CertificateFacts{.subject = {"CN=A", "CN=B", "01"},
                                                                .fingerprint = "AB",
                                                                .notBefore = at(2026, 1, 1),
                                                                .notAfter = at(2027, 1, 1)}),
                           .origin = {Report::Origin::Kind::kMessage, ""},
                           .revocation = result});
  EXPECT_EQ(link.certificate().subject(), "CN=A");
  EXPECT_EQ(link.certificate().issuer(), "CN=B");
  EXPECT_EQ(link.fingerprint(), "AB");
  EXPECT_EQ(link.notBefore(), at(2026, 1, 1));
  EXPECT_EQ(link.notAfter(), at(2027, 1, 1));
  EXPECT_EQ(link.origin().kind(), Report::Origin::Kind::kMessage);
  EXPECT_EQ(link.revocation().status(), Result::Status::kRevoked);
  EXPECT_EQ(link.revocation().decidedBy().front().entries, 3U);
  EXPECT_EQ(link.revocation().date(), at(2026, 11, 2));
  EXPECT_EQ(link.revocation().reason(), "superseded");
  EXPECT_EQ(Result().status(), Result::Status::kNotChecked);

  const Report::Source source({.kind = Report::Source::Kind::kCRLServer,
                               .wanted = Report::Source::Wanted::kCRLs,
                               .origin = "http://h/",
                               .fromMemory = true,
                               .result = Report::Source::Result::kFailed,
                               .found = 1,
                               .reason = "refused",
                               .httpStatus = 404,
                               .errorNumber = 111,
                               .bytes = 5,
                               .microseconds = 6,
                               .age = 7});
  EXPECT_EQ(source.kind(), Report::Source::Kind::kCRLServer);
  EXPECT_EQ(source.wanted(), Report::Source::Wanted::kCRLs);
  EXPECT_EQ(source.origin(), "http://h/");
  EXPECT_TRUE(source.fromMemory());
  EXPECT_EQ(source.result(), Report::Source::Result::kFailed);
  EXPECT_EQ(source.found(), 1U);
  EXPECT_EQ(source.reason(), "refused");
  EXPECT_EQ(source.httpStatus(), 404);
  EXPECT_EQ(source.errorNumber(), 111);
  EXPECT_EQ(source.bytes(), 5U);
  EXPECT_EQ(source.microseconds(), 6U);
  EXPECT_EQ(source.age(), 7);
}

}  // namespace
}  // namespace Velantrix::Test
