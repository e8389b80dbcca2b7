#include "support/LogCapture.h"
#include "unit/verify/World.h"

#include <gtest/gtest.h>

namespace Velantrix::Test {
namespace {

constexpr char kMustContain[] =
    "Certificate contains CRL Issuers. The CRL must contain an Issuing Distribution Point.";
constexpr char kNoMatch[] = "Certificate and CRL distributionPointNames do not match";
constexpr char kNoIssuerMatch[] = "Certificate issuer and CRL distributionPointNames do not match";

// The certificate is issued by O=Test,CN=Root, the CRL by C=DE,CN=Lists.
struct Row {
  const char* name;
  std::optional<Point> point;
  std::optional<Scope> scope;
  bool ca = false;
  bool accepted = false;
  std::vector<std::string> lines = {};
  unsigned int reasons = kAllReasons;  // as they are afterwards
  unsigned int before = kAllReasons;
};

const std::vector<Row>& rows() {
  static const Point kUnnamed{.crlIssuers = {"dirName:C=DE,CN=Lists"}};
  static const Point kURI{.fullNames = {"URI:http://a.test/crl"}};
  static const Point kRelative{.relativeName = "CN=Part"};
  // Relative names are completed by the CRL's issuer: CN=Part,CN=Lists,C=DE in text.
  static const Point kFullOfRelative{.fullNames = {"dirName:C=DE,CN=Lists,CN=Part"}};
  static const Point kFullOfCertificateIssuer{.fullNames = {"dirName:O=Test,CN=Root,CN=Part"}};
  static const std::vector<Row> table = {
      {"no scope, no point", {}, {}, false, true},
      {"no scope, point without CRL issuers", kURI, {}, false, true},
      {"no scope, point with CRL issuers", kUnnamed, {}, false, false, {kMustContain}},

      {"reasons narrowed", {}, Scope{.onlySomeReasons = 0x06}, false, true, {}, 0x06},
      {"reasons narrowed to those in common",
       {},
       Scope{.onlySomeReasons = 0x06},
       false,
       true,
       {},
       0x04,
       0x0c},
      {"no reasons in the scope leave foreign bits", {}, Scope{}, false, true, {}, 0xffff, 0xffff},
      {"all reasons in the scope leave foreign bits",
       {},
       Scope{.onlySomeReasons = 0x807f},
       false,
       true,
       {},
       0xffff,
       0xffff},

      {"only users, a user", {}, Scope{.onlyUser = true}, false, true},
      {"only users, a CA", {}, Scope{.onlyUser = true}, true, false},
      {"only CAs, a CA", {}, Scope{.onlyCA = true}, true, true},
      {"only CAs, a user", {}, Scope{.onlyCA = true}, false, false},
      {"only attributes, a user", {}, Scope{.onlyAttributes = true}, false, false},
      {"only attributes, a CA", {}, Scope{.onlyAttributes = true}, true, false},
      {"indirect", {}, Scope{.indirect = true}, false, true},
      // Meant so, though 6.3.3 (b)(1) wants it to be indirect.
      {"not indirect, point with CRL issuers", kUnnamed, Scope{.onlyUser = true}, false, true},

      {"no point, name of the certificate's issuer",
       {},
       Scope{.fullNames = {"URI:http://a.test/", "dirName:O=Test,CN=Root"}},
       false,
       true},
      {"no point, name of the CRL's issuer",
       {},
       Scope{.fullNames = {"dirName:C=DE,CN=Lists"}},
       false,
       false,
       {kNoIssuerMatch}},
      {"no point, a URI",
       {},
       Scope{.fullNames = {"URI:http://a.test/crl"}},
       false,
       false,
       {kNoIssuerMatch}},
      {"no point, relative name",
       {},
       Scope{.relativeName = "CN=Part"},
       false,
       false,
       {kNoIssuerMatch}},
      {"point without a name, any name", kUnnamed, Scope{.fullNames = {"URI:http://a.test/crl"}},
       false, true},
      {"point with a name, scope without one", kURI, Scope{.onlyUser = true}, false, true},

      {"full names, the same", kURI, Scope{.fullNames = {"URI:http://a.test/crl"}}, false, true},
      {"full names, one shared", kURI,
       Scope{.fullNames = {"URI:http://b.test/crl", "URI:http://a.test/crl"}}, false, true},
      {"full names, none shared",
       kURI,
       Scope{.fullNames = {"URI:http://b.test/crl"}},
       false,
       false,
       {kNoMatch}},
      {"relative names, the same", kRelative, Scope{.relativeName = "CN=part"}, false, true},
      {"relative names, others",
       kRelative,
       Scope{.relativeName = "CN=Other"},
       false,
       false,
       {kNoMatch}},
      {"full in the certificate, relative in the CRL", kFullOfRelative,
       Scope{.relativeName = "CN=Part"}, false, true},
      {"full in the certificate, another relative in the CRL",
       kFullOfRelative,
       Scope{.relativeName = "CN=Other"},
       false,
       false,
       {kNoMatch}},
      {"full in the certificate, completed by the certificate's issuer",
       kFullOfCertificateIssuer,
       Scope{.relativeName = "CN=Part"},
       false,
       false,
       {kNoMatch}},
      {"a URI in the certificate, relative in the CRL",
       kURI,
       Scope{.relativeName = "CN=Part"},
       false,
       false,
       {kNoMatch}},
      {"relative in the certificate, full in the CRL", kRelative,
       Scope{.fullNames = {"dirName:C=DE,CN=Lists,CN=Part"}}, false, true},
      {"relative in the certificate, another full in the CRL",
       kRelative,
       Scope{.fullNames = {"dirName:C=DE,CN=Lists,CN=Other"}},
       false,
       false,
       {kNoMatch}},
      {"relative in the certificate, completed by the certificate's issuer",
       kRelative,
       Scope{.fullNames = {"dirName:O=Test,CN=Root,CN=Part"}},
       false,
       false,
       {kNoMatch}},

      // A rejection does not end the steps.
      {"wrong scope, reasons are narrowed",
       {},
       Scope{.onlyCA = true, .onlySomeReasons = 0x06},
       false,
       false,
       {},
       0x06},
      {"wrong scope, then no point",
       {},
       Scope{.fullNames = {"URI:http://a.test/"}, .onlyCA = true},
       false,
       false,
       {kNoIssuerMatch}},
      {"wrong scope, then names of one type",
       kURI,
       Scope{.fullNames = {"URI:http://b.test/crl"}, .onlyAttributes = true},
       false,
       false,
       {kNoMatch}},
      {"wrong scope, then full and relative that match", kFullOfRelative,
       Scope{.relativeName = "CN=Part", .onlyCA = true}, false, false},
      {"wrong scope, then full and relative that do not",
       kFullOfRelative,
       Scope{.relativeName = "CN=Other", .onlyCA = true},
       false,
       false,
       {kNoMatch}},
      {"wrong scope, then relative and full that match", kRelative,
       Scope{.fullNames = {"dirName:C=DE,CN=Lists,CN=Part"}, .onlyCA = true}, false, false},
      {"wrong scope, then relative and full that do not",
       kRelative,
       Scope{.fullNames = {"dirName:C=DE,CN=Other"}, .onlyCA = true},
       false,
       false,
       {kNoMatch}},
  };
  return table;
}

class CRLContainerScopeTest : public testing::Test {
 protected:
  const Issued root = issueCA("O=Test,CN=Root");
  const Issued lists = issueCA("C=DE,CN=Lists");
  World world;
  Verifier verifier{world.store, handle(root), false};
  LogCapture log;

  CRLContainer::Entry entryOf(const Row& row) {
    CertificateOptions options{.subject = "O=Test,CN=Leaf", .issuer = &root, .ca = row.ca};
    if (row.point) options.crlDistributionPoints = {*row.point};
    const RefCertificate target = handle(issue(options));
    CRLContainer::Entry entry = makeEntry(target, crlHandle({.issuer = &lists, .idp = row.scope}),
                                          handle(lists), row.before);
    if (row.point) entry.distributionPoint = target->crlDistributionPoints().front();
    entry.score = 0x80;
    return entry;
  }
};

TEST_F(CRLContainerScopeTest, Check_AcceptsOrRejectsWithItsLine) {
  for (const Row& row : rows()) {
    SCOPED_TRACE(row.name);
    log.clear();
    const CRLContainer::Entry entry = entryOf(row);
    entry.issuingDistributionPointIssuerCheck(verifier);
    EXPECT_EQ(entry.crl.empty(), !row.accepted);
    EXPECT_EQ(entry.score, row.accepted ? 0x80U : 0U);
    EXPECT_EQ(entry.reasons, row.reasons);
    EXPECT_EQ(log.texts(), row.lines);
    for (const LogCapture::Line& line : log.lines()) EXPECT_EQ(line.priority, 7);
    EXPECT_EQ(verifier.contextError(), 0);
  }
}

TEST_F(CRLContainerScopeTest, Container_KeepsWhatIsAcceptedOnly) {
  for (const Row& row : rows()) {
    SCOPED_TRACE(row.name);
    OpenContainer container(verifier);
    const CRLContainer::Entry entry = entryOf(row);
    container.add(entry);
    EXPECT_EQ(container.empty(), !row.accepted);
    if (row.accepted) {
      EXPECT_EQ(container.entries.front().reasons, row.reasons);
    }
  }
}

TEST_F(CRLContainerScopeTest, CACertificateAndACRLForUsers_IsNotStored) {
  OpenContainer container(verifier);
  container.add(makeEntry(
      handle(root), crlHandle({.issuer = &lists, .idp = Scope{.onlyUser = true}}), handle(lists)));
  EXPECT_TRUE(container.empty());
  EXPECT_TRUE(log.lines().empty());
}

}  // namespace
}  // namespace Velantrix::Test
