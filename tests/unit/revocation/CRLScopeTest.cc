#include "foundation/run/VerificationRun.h"
#include "revocation/CRLScope.h"
#include "support/Handles.h"

#include <velantrix/Exception.h>

#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <vector>

namespace Velantrix::Test {
namespace {

using namespace std::string_literals;
using namespace Crypto::PKX509;
using Crypto::PKX509::Revocation::CRLScope;
using Crypto::PKX509::Revocation::Place;
using Crypto::PKX509::Revocation::Reason;
using Through = CRLScope::Through;
using Points = std::vector<DistributionPoint>;
using IDP = Velantrix::Test::IssuingDistributionPoint;

constexpr unsigned int kAll = 0x807f;
constexpr unsigned int kSome = 0x60;

const Issued& authority() {
  static const Issued made = issueCA("O=Test,CN=CA");
  return made;
}

const Issued& another() {
  static const Issued made = issueCA("O=Test,CN=Other");
  return made;
}

RefCertificate certificateWith(const Points& points, CertificateOptions options = {}) {
  options.subject = "O=Test,CN=Person";
  options.issuer = &authority();
  options.crlDistributionPoints = points;
  return handle(issue(options));
}

std::vector<std::string> placesOf(const RefCertificate& certificate, std::size_t most = 99) {
  std::vector<std::string> places;
  CRLScope(certificate).forEachPlace([&](const Place& place) {
    EXPECT_NE(place.uri.has_value(), place.name.has_value());
    places.push_back(place.uri ? place.uri->asString() : place.name->asString());
    return places.size() < most;
  });
  return places;
}

std::vector<std::string> placesOf(const Points& points, std::size_t most = 99) {
  return placesOf(certificateWith(points), most);
}

// A list of the issuer, or of the other one, with that scope.
CRLScope::Verdict verdict(const RefCertificate& certificate, const std::optional<IDP>& idp,
                          Through through = Through::kNamed, const Issued& issuer = authority()) {
  return CRLScope(certificate).of(*crlHandle({.issuer = &issuer, .idp = idp}).get(), through);
}

std::string words(const CRLScope::Verdict& verdict) {
  if (!verdict.refused) return "counts for " + std::to_string(verdict.interim_reasons_mask);
  EXPECT_EQ(verdict.interim_reasons_mask, 0U);
  EXPECT_EQ(*verdict.refused == Reason::kOtherIssuer, verdict.detail == "it is of another issuer"s);
  EXPECT_TRUE(*verdict.refused == Reason::kOtherIssuer || *verdict.refused == Reason::kOutOfScope);
  return verdict.detail;
}

const std::string kCounts = "counts for " + std::to_string(kAll);
const std::string kOtherIssuer = "it is of another issuer";
const std::string kOtherPoint = "it is of another distribution point";
const std::string kNoCAs = "it is not about certificates of CAs";
const std::string kOnlyCAs = "it is about certificates of CAs only";
const std::string kOnlyAttributes = "it is about attribute certificates only";
const std::string kOnlyVersion3 = "it is not about certificates of version 1 or 2";
const std::string kOtherReasons = "it is about other reasons";

// Where lists are to be found: 4.2.1.13.

TEST(CRLScope, Places_AreTheNamesOfThePointsInTheirOrder) {
  EXPECT_EQ(placesOf(Points{}), std::vector<std::string>{});
  EXPECT_EQ(placesOf({{.fullNames = {"URI:http://a.test/1", "dirName:O=Test,CN=List", "DNS:a.test",
                                     "URI:http://a.test/2"}},
                      {.fullNames = {"URI:http://b.test/"},
                       .crlIssuers = {"DNS:b.test", "dirName:O=Test,CN=Other"}},
                      {.crlIssuers = {"dirName:O=Test,CN=Third"}}}),
            (std::vector<std::string>{"http://a.test/1", "CN=List,O=Test", "http://a.test/2",
                                      "http://b.test/", "CN=Other,O=Test", "CN=Third,O=Test"}));
}

TEST(CRLScope, PlacesOfARelativeName_AreCompletedByTheIssuerOfTheList) {
  EXPECT_EQ(placesOf({{.relativeName = "CN=List"}}),
            std::vector<std::string>{"CN=List,CN=CA,O=Test"});
  EXPECT_EQ(
      placesOf({{.relativeName = "CN=List",
                 .crlIssuers = {"DNS:x.test", "dirName:O=Test,CN=Other", "dirName:CN=Third"}}}),
      (std::vector<std::string>{"CN=List,CN=Other,O=Test", "CN=List,CN=Third", "CN=Other,O=Test",
                                "CN=Third"}));
}

TEST(CRLScope, PlacesThatCannotBeRead_ArePassedOver) {
  EXPECT_EQ(placesOf({{.fullNames = {"URI:", "URI:http://a.test/"}}}),
            std::vector<std::string>{"http://a.test/"});
  // A relative name without attributes completes nothing, alone and with a CRL issuer.
  const std::string alone = "\x30\x06\x30\x04\xa0\x02\xa1\x00"s;
  const std::string withIssuer =
      "\x30\x19\x30\x17\xa0\x02\xa1\x00\xa2\x11\xa4\x0f\x30\x0d\x31\x0b\x30\x09\x06\x03\x55\x04\x03"
      "\x0c\x02\x43\x41"s;
  const auto with = [](const std::string& der) {
    return certificateWith({}, {.rawExtensions = {{.oid = "2.5.29.31", .der = der}}});
  };
  EXPECT_EQ(placesOf(with(alone)), std::vector<std::string>{});
  EXPECT_EQ(placesOf(with(withIssuer)), std::vector<std::string>{"CN=CA"});
}

TEST(CRLScope, VisitorThatWantsNoMore_EndsIt) {
  const Points points = {
      {.fullNames = {"URI:http://a.test/1", "URI:http://a.test/2"}},
      {.relativeName = "CN=List"},
      {.relativeName = "CN=List", .crlIssuers = {"dirName:CN=Third", "dirName:CN=Fourth"}},
      {.crlIssuers = {"dirName:CN=Fifth"}}};
  const std::size_t all = placesOf(points).size();
  ASSERT_EQ(all, 8U);
  for (std::size_t most = 1; most <= all; ++most) EXPECT_EQ(placesOf(points, most).size(), most);
}

// 6.3.3 (b)(1)

TEST(CRLScope, IssuerOfTheList_IsThatOfTheCertificateOrTheCRLIssuer) {
  const Points plain = {{.fullNames = {"URI:http://a.test/"}}};
  const Points indirect = {{.crlIssuers = {"DNS:x.test", "dirName:O=Test,CN=Other"}}};
  const IDP whole{.indirect = true};
  const struct {
    Points points;
    const Issued& issuer;
    std::optional<IDP> idp;
    std::string expected;
  } rows[] = {{plain, authority(), std::nullopt, kCounts},
              {plain, another(), std::nullopt, kOtherIssuer},
              {plain, another(), whole, kOtherIssuer},
              {indirect, another(), whole, kCounts},
              {indirect, another(), std::nullopt, kOtherIssuer},
              {indirect, another(), IDP{.onlyUser = true}, kOtherIssuer},
              {indirect, authority(), whole, kOtherIssuer}};
  for (const auto& row : rows) {
    EXPECT_EQ(words(verdict(certificateWith(row.points), row.idp, Through::kNamed, row.issuer)),
              row.expected)
        << &row - rows;
  }
}

// 6.3.3 (b)(2)(i), in both spellings of a name.

TEST(CRLScope, NameOfTheList_IsOneOfThePoint) {
  const std::vector<std::string> full = {"URI:http://a.test/", "dirName:O=Test,CN=CA,CN=List"};
  const struct {
    const char* what;
    DistributionPoint point;
    IDP idp;
    std::string expected;
  } rows[] = {
      {"one in common", {.fullNames = full}, {.fullNames = {"DNS:x", full[0]}}, kCounts},
      {"none in common", {.fullNames = full}, {.fullNames = {"URI:http://b.test/"}}, kOtherPoint},
      {"list without a name", {.fullNames = full}, {.onlyUser = true}, kCounts},
      {"relative, the same", {.relativeName = "CN=List"}, {.relativeName = "CN=List"}, kCounts},
      {"relative, other", {.relativeName = "CN=List"}, {.relativeName = "CN=Lost"}, kOtherPoint},
      {"full and relative", {.fullNames = full}, {.relativeName = "CN=List"}, kCounts},
      {"full and relative, other", {.fullNames = full}, {.relativeName = "CN=L"}, kOtherPoint},
      {"relative and full", {.relativeName = "CN=List"}, {.fullNames = full}, kCounts},
      {"relative and full, other", {.relativeName = "CN=L"}, {.fullNames = full}, kOtherPoint}};
  for (const auto& row : rows) {
    EXPECT_EQ(words(verdict(certificateWith({row.point}), row.idp)), row.expected) << row.what;
  }
}

// The relative name is completed by the issuer of the list also where that is not the certificate's.
TEST(CRLScope, NameOfAnIndirectList_IsCompletedByItsIssuer) {
  const std::string issuer = "dirName:O=Test,CN=Other";
  const std::string ofOther = "dirName:O=Test,CN=Other,CN=List";
  const std::string ofCA = "dirName:O=Test,CN=CA,CN=List";
  const struct {
    const char* what;
    DistributionPoint point;
    IDP idp;
    std::string expected;
  } rows[] = {{"relative and full",
               {.relativeName = "CN=List", .crlIssuers = {issuer}},
               {.fullNames = {ofOther}, .indirect = true},
               kCounts},
              {"relative and full, of the certificate's issuer",
               {.relativeName = "CN=List", .crlIssuers = {issuer}},
               {.fullNames = {ofCA}, .indirect = true},
               kOtherPoint},
              {"full and relative",
               {.fullNames = {ofOther}, .crlIssuers = {issuer}},
               {.relativeName = "CN=List", .indirect = true},
               kCounts},
              {"full and relative, of the certificate's issuer",
               {.fullNames = {ofCA}, .crlIssuers = {issuer}},
               {.relativeName = "CN=List", .indirect = true},
               kOtherPoint},
              // The distribution field is omitted: the names in the cRLIssuer.
              {"none and full",
               {.crlIssuers = {issuer, "URI:http://a.test/"}},
               {.fullNames = {"URI:http://a.test/"}, .indirect = true},
               kCounts},
              {"none and full, other",
               {.crlIssuers = {issuer}},
               {.fullNames = {ofCA}, .indirect = true},
               kOtherPoint},
              {"none and relative",
               {.crlIssuers = {issuer, ofOther}},
               {.relativeName = "CN=List", .indirect = true},
               kCounts},
              {"none and relative, other",
               {.crlIssuers = {issuer, ofCA}},
               {.relativeName = "CN=List", .indirect = true},
               kOtherPoint}};
  for (const auto& row : rows) {
    EXPECT_EQ(words(verdict(certificateWith({row.point}), row.idp, Through::kNamed, another())),
              row.expected)
        << row.what;
  }
}

// 6.3.3 (b)(2)(ii) to (iv), and 5.2.5.

TEST(CRLScope, KindOfCertificate_IsThatOfTheList) {
  const Points points = {{.fullNames = {"URI:http://a.test/"}}};
  const RefCertificate person = certificateWith(points);
  const RefCertificate ca = certificateWith(points, {.ca = true});
  EXPECT_EQ(words(verdict(person, IDP{.onlyUser = true})), kCounts);
  EXPECT_EQ(words(verdict(ca, IDP{.onlyUser = true})), kNoCAs);
  EXPECT_EQ(words(verdict(person, IDP{.onlyCA = true})), kOnlyCAs);
  EXPECT_EQ(words(verdict(ca, IDP{.onlyCA = true})), kCounts);
  EXPECT_EQ(words(verdict(person, IDP{.onlyAttributes = true})), kOnlyAttributes);
  EXPECT_EQ(words(verdict(ca, IDP{.onlyAttributes = true})), kOnlyAttributes);
}

RefCertificate withoutVersion(const Issued& issued) {
  X509_set_version(issued.get(), X509_VERSION_1);
  return handle(issued);
}

TEST(CRLScope, CertificateWithoutVersion_IsOnNoListOfOneKind) {
  const RefCertificate person =
      withoutVersion(issue({.issuer = &authority(), .basicConstraints = false}));
  const Through through = Through::kNamedAndAssumed;
  EXPECT_EQ(words(verdict(person, std::nullopt, through)), kCounts);
  EXPECT_EQ(words(verdict(person, IDP{.indirect = true}, through)), kCounts);
  EXPECT_EQ(words(verdict(person, IDP{.onlyUser = true}, through)), kOnlyVersion3);
  const RefCertificate ca = withoutVersion(issue({.issuer = &authority(), .ca = true}));
  EXPECT_EQ(words(verdict(ca, IDP{.onlyCA = true}, through)), kOnlyVersion3);
}

// 6.3.3 (d)

TEST(CRLScope, Reasons_AreThoseOfBoth) {
  const auto at = [](const char* uri, int reasons = kAbsent) {
    return DistributionPoint{.fullNames = {uri}, .reasons = reasons};
  };
  const char* const a = "URI:http://a.test/";
  const struct {
    const char* what;
    Points points;
    std::optional<IDP> idp;
    std::string expected;
  } rows[] = {
      {"(1) both",
       {at(a, 0x60)},
       IDP{.onlySomeReasons = 0x30},
       "counts for " + std::to_string(0x20)},
      {"(1) none in common", {at(a, 0x60)}, IDP{.onlySomeReasons = 0x18}, kOtherReasons},
      {"(2) the list's",
       {at(a)},
       IDP{.onlySomeReasons = 0x60},
       "counts for " + std::to_string(0x60)},
      {"(3) the point's", {at(a, kSome)}, std::nullopt, "counts for " + std::to_string(kSome)},
      {"(3) with a scope",
       {at(a, kSome)},
       IDP{.onlyUser = true},
       "counts for " + std::to_string(kSome)},
      {"(4) all", {at(a)}, std::nullopt, kCounts},
      {"of two points",
       {at(a, 0x60), at(a, 0x18), at("URI:http://b.test/", 0x06)},
       IDP{.fullNames = {a}},
       "counts for " + std::to_string(0x78)}};
  for (const auto& row : rows) {
    EXPECT_EQ(words(verdict(certificateWith(row.points), row.idp)), row.expected) << row.what;
  }
}

// 6.3.3, the last paragraph.

TEST(CRLScope, AssumedPoint_IsForAllReasonsOfTheIssuersLists) {
  const RefCertificate bare = certificateWith({});
  const RefCertificate some =
      certificateWith({{.fullNames = {"URI:http://a.test/"}, .reasons = static_cast<int>(kSome)}});
  const std::string counted = "counts for " + std::to_string(kSome);
  EXPECT_EQ(words(verdict(bare, std::nullopt)), kOtherIssuer) << "there is no point";
  EXPECT_EQ(words(verdict(bare, std::nullopt, Through::kNamedElseAssumed)), kCounts);
  EXPECT_EQ(words(verdict(bare, std::nullopt, Through::kNamedAndAssumed)), kCounts);
  EXPECT_EQ(words(verdict(some, std::nullopt)), counted);
  EXPECT_EQ(words(verdict(some, std::nullopt, Through::kNamedElseAssumed)), counted);
  EXPECT_EQ(words(verdict(some, std::nullopt, Through::kNamedAndAssumed)), kCounts);
  EXPECT_EQ(words(verdict(bare, IDP{.indirect = true}, Through::kNamedAndAssumed, another())),
            kOtherIssuer);
}

TEST(CRLScope, NameOfTheAssumedPoint_IsTheIssuers) {
  const RefCertificate plain = certificateWith({});
  const RefCertificate alternative =
      certificateWith({}, {.extensions = {{"issuerAltName", "URI:http://ca.test/"},
                                          {"subjectAltName", "URI:http://person.test/"}}});
  const RefCertificate ofList = handle(issue({.subject = "O=Test,CN=Person",
                                              .issuer = &authority(),
                                              .issuerName = "O=Test,CN=CA,CN=List"}));
  const auto assumed = [](const RefCertificate& certificate, const IDP& idp,
                          const std::string& issuer = {}) {
    const auto crl = crlHandle({.issuer = &authority(), .issuerName = issuer, .idp = idp});
    return words(CRLScope(certificate).of(*crl.get(), Through::kNamedAndAssumed));
  };
  EXPECT_EQ(assumed(plain, {.fullNames = {"dirName:O=Test,CN=CA"}}), kCounts);
  EXPECT_EQ(assumed(plain, {.fullNames = {"dirName:O=Test,CN=Other"}}), kOtherPoint);
  EXPECT_EQ(assumed(plain, {.fullNames = {"URI:http://ca.test/"}}), kOtherPoint);
  EXPECT_EQ(assumed(alternative, {.fullNames = {"URI:http://ca.test/"}}), kCounts);
  EXPECT_EQ(assumed(alternative, {.fullNames = {"URI:http://person.test/"}}), kOtherPoint);
  EXPECT_EQ(assumed(plain, {.relativeName = "CN=List"}), kOtherPoint);
}

// What a list is set aside for is the most that can be said of it.
TEST(CRLScope, RefusalOfSeveralPoints_TellsMoreThanTheIssuer) {
  const DistributionPoint ofOther{.crlIssuers = {"dirName:O=Test,CN=Other"}};
  const DistributionPoint named{.fullNames = {"URI:http://a.test/"}};
  const IDP elsewhere{.fullNames = {"URI:http://b.test/"}, .indirect = true};
  for (const Points& points : {Points{ofOther, named}, Points{named, ofOther}}) {
    EXPECT_EQ(words(verdict(certificateWith(points), elsewhere)), kOtherPoint);
  }
  // The first that is more is kept.
  const DistributionPoint reasons{.fullNames = {"URI:http://b.test/"}, .reasons = 0x20};
  EXPECT_EQ(words(verdict(certificateWith({named, reasons}),
                          IDP{.fullNames = {"URI:http://b.test/"}, .onlySomeReasons = 0x40})),
            kOtherPoint);
}

TEST(CRLScope, ProcessorTimeUsedUp_NoPointIsLookedAt) {
  const VerificationRun run(nullptr, {.processorTime = std::chrono::nanoseconds(0)});
  EXPECT_EQ(words(verdict(certificateWith({{.fullNames = {"URI:http://a.test/"}}}), std::nullopt)),
            kOtherIssuer);
  EXPECT_TRUE(run.fellShort());
}

TEST(CRLScope, BrokenExtensionThatDecides_Throws) {
  const RefCertificate broken =
      certificateWith({}, {.rawExtensions = {{.oid = "2.5.29.18", .der = "\x30\x01"s}}});
  EXPECT_THROW(CRLScope{broken}, Exception);
}

}  // namespace
}  // namespace Velantrix::Test
