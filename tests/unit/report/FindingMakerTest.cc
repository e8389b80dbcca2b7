#include "report/FindingMaker.h"
#include "support/Handles.h"
#include "unit/report/Findings.h"

#include <gtest/gtest.h>
#include <limits>
#include <string>

namespace Velantrix::Test {
namespace {

using namespace std::string_literals;
using Crypto::PKX509::crlNumberText;
using Crypto::PKX509::FindingMaker;
using Crypto::PKX509::NameTexts;
using Crypto::PKX509::RefCertificate;
using Crypto::PKX509::RefCertificateRevocationList;
using Crypto::PKX509::reportText;
using Crypto::PKX509::serialText;
using Crypto::PKX509::subjectOf;
using Crypto::PKX509::timeOf;

TEST(FindingMaker, Texts_AreCutAtCharacters) {
  EXPECT_EQ(reportText("short"), "short");
  EXPECT_EQ(reportText(std::string(Report::kMaximumText + 1, 'x')).size(), Report::kMaximumText);
  std::string euros = "x";
  while (euros.size() <= Report::kMaximumText) euros += "\xe2\x82\xac";
  const std::string cut = reportText(euros);
  EXPECT_LE(cut.size(), Report::kMaximumText);
  EXPECT_GT(cut.size(), Report::kMaximumText - 4);
  EXPECT_TRUE(isPrintable(cut));

  FindingMaker maker(Rule::kException, 1);
  maker.add(DetailName::kText, euros);
  maker.from({Report::Origin::Kind::kNetwork, "place", "file"});
  const Finding made = std::move(maker).make();
  EXPECT_EQ(*made.find(DetailName::kText), Report::Value(cut));
  EXPECT_EQ(made.origin().file(), "file");
  EXPECT_EQ(made.rule(), Rule::kException);
  EXPECT_EQ(made.code(), 1);
}

TEST(FindingMaker, Absent_IsLeftOut) {
  FindingMaker maker(Rule::kExpired, 10);
  maker.add(DetailName::kIssuer, "").add(DetailName::kNotAfter, std::optional<Time>());
  maker.addUnlessZero(DetailName::kErrorNumber, 0).addUnlessZero(DetailName::kHTTPStatus, 404);
  maker.add(DetailName::kBytes, 0).add(RefCertificateRevocationList());
  maker.about({}, -1).addDistance({}, at(2026, 11, 2));
  const Finding made = std::move(maker).make();
  EXPECT_TRUE(made.certificate().empty());
  ASSERT_EQ(made.details().size(), 3U);
  EXPECT_EQ(made.details()[0].name, DetailName::kHTTPStatus);
  EXPECT_EQ(made.details()[1], (Report::Detail{DetailName::kBytes, std::int64_t{0}}));
  EXPECT_EQ(made.details()[2], (Report::Detail{DetailName::kCheckTime, at(2026, 11, 2)}));
}

TEST(FindingMaker, Distance_IsNegativeBeforeTheCheckTime) {
  FindingMaker maker(Rule::kExpired, 10);
  maker.addDistance(at(2026, 11, 1), at(2026, 11, 2));
  EXPECT_EQ(*std::move(maker).make().find(DetailName::kDistance), Report::Value(-kDay));
}

// RFC 5280 has dates in the years 0 to 9999 only, a check time may be any.
TEST(FindingMaker, Distance_StaysInRange) {
  const Time last = Time::then(std::numeric_limits<long>::max(), true);
  const Time first = Time::then(std::numeric_limits<long>::min(), true);
  FindingMaker maker(Rule::kExpired, 10);
  maker.addDistance(at(1950, 1, 1), last).addDistance(at(9999, 1, 1), first);
  const Finding made = std::move(maker).make();
  EXPECT_LT(std::get<std::int64_t>(made.details()[1].value), 0);
  EXPECT_GT(std::get<std::int64_t>(made.details()[3].value), 0);
}

TEST(FindingMaker, Serials_AreHexadecimalWithTheirSign) {
  const auto text = [](const char* hex) {
    return serialText(X509_get0_serialNumber(issue({.serial = hex}).get()));
  };
  EXPECT_EQ(text("5F01"), "5F01");
  EXPECT_EQ(text("0A"), "0A");
  EXPECT_EQ(text("-0A"), "-0A");
  EXPECT_EQ(text("00"), "00");
  EXPECT_EQ(text(("01" + std::string(64, 'A')).c_str()), "01" + std::string(62, 'A'));
  EXPECT_EQ(serialText(nullptr), "");
}

TEST(FindingMaker, Subject_IsNamesAndSerial) {
  const Issued root = issueCA("CN=Root");
  const Report::Subject subject =
      subjectOf(handle(issue({.subject = "C=DE,CN=Anna", .issuer = &root, .serial = "5F01"})));
  EXPECT_EQ(subject, Report::Subject("CN=Anna,C=DE", "CN=Root", "5F01"));
  EXPECT_TRUE(subjectOf({}).empty());
  const Report::Subject large =
      subjectOf(handle(issue({.subject = "CN=" + std::string(600, 'x')})));
  EXPECT_EQ(large.subject().size(), Report::kMaximumText);
}

TEST(FindingMaker, Times_OutOfTheCalendarAreNone) {
  const auto read = [](const char* text) {
    const Owned<ASN1_TIME> time(ASN1_TIME_new());
    // As a stranger's DER has it, not looked at.
    ASN1_STRING_set(time.get(), text, -1);
    time->type = V_ASN1_GENERALIZEDTIME;
    return timeOf(time.get());
  };
  EXPECT_EQ(read("20261102000000Z"), at(2026, 11, 2));
  EXPECT_EQ(read("00000101000000Z"), at(0, 1, 1));
  EXPECT_EQ(read("99991231000000Z"), at(9999, 12, 31));
  for (const char* const wrong : {"", "x", "20261302000000Z", "20261102", "99999999999999Z"}) {
    EXPECT_EQ(read(wrong), std::nullopt) << wrong;
  }
  EXPECT_EQ(timeOf(nullptr), std::nullopt);
  EXPECT_EQ(ERR_peek_error(), 0U);
}

TEST(FindingMaker, CRL_IsToldByItsFacts) {
  const Issued root = issueCA("CN=Root");
  FindingMaker maker(Rule::kCRLExpired, 12);
  maker.add(crlHandle({.issuer = &root,
                       .lastUpdate = "20260901000000Z",
                       .nextUpdate = "20261001000000Z",
                       .number = 0x412,
                       .deltaBase = 0x410,
                       .revoked = {{.serial = 1}, {.serial = 2}}}));
  const Finding made = std::move(maker).make();
  EXPECT_EQ(made.details(), (Details{{DetailName::kCRLIssuer, "CN=Root"s},
                                     {DetailName::kCRLNumber, "1042"s},
                                     {DetailName::kBaseCRLNumber, "1040"s},
                                     {DetailName::kThisUpdate, at(2026, 9, 1)},
                                     {DetailName::kNextUpdate, at(2026, 10, 1)},
                                     {DetailName::kEntries, std::int64_t{2}}}));
}

TEST(FindingMaker, CRLNumbers_AreDecimalUnlessTheyAreTooLong) {
  const Issued root = issueCA("CN=Root");
  const auto number = [&root](const char* hex) {
    return crlNumberText(crlHandle({.issuer = &root, .number = hex})->crlNumber());
  };
  EXPECT_EQ(number("0412"), "1042");
  EXPECT_EQ(number("-0412"), "-1042");
  EXPECT_EQ(number(std::string(40, 'F').c_str()),
            "1461501637330902918203684832716283019655932542975");
  EXPECT_EQ(number(("01" + std::string(40, 'F')).c_str()), "0x01" + std::string(40, 'F'));
  EXPECT_EQ(crlNumberText(crlHandle({.issuer = &root, .number = std::nullopt})->crlNumber()), "");
}

// Also of two that OpenSSL takes for one name.
TEST(FindingMaker, NameTexts_AreThoseOfTheNamesTheyAreAskedFor) {
  const RefCertificate small = handle(issue({.subject = "CN=anna"}));
  const RefCertificate large = handle(issue({.subject = "CN=ANNA"}));
  ASSERT_EQ(small->subject(), large->subject());
  NameTexts texts;
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(texts.of(small->subject()), "CN=anna");
    EXPECT_EQ(texts.of(large->subject()), "CN=ANNA");
  }
}

}  // namespace
}  // namespace Velantrix::Test
