#include "foundation/OpenSSLOwners.h"
#include "support/Pki.h"

#include <velantrix/CRLDistributionPoint.h>
#include <velantrix/Certificate.h>
#include <velantrix/CertificateFactory.h>
#include <velantrix/CertificateRevocationList.h>
#include <velantrix/IssuingDistributionPoint.h>

#include <gtest/gtest.h>
#include <list>
#include <string>
#include <vector>

namespace Velantrix::Crypto::PKX509 {
namespace {

namespace Pki = Velantrix::Test;

std::list<RefCRLDistributionPoint> pointsOf(const std::vector<Pki::DistributionPoint>& points) {
  const Pki::Issued issued = Pki::issue({.crlDistributionPoints = points});
  return CertificateFactory()(issued.get(), false)->crlDistributionPoints();
}

RefCRLDistributionPointName nameOf(const Pki::DistributionPoint& point) {
  return pointsOf({point}).front()->distributionPointName();
}

RefIssuingDistributionPoint scopeOf(const Pki::IssuingDistributionPoint& idp) {
  const Pki::Issued ca = Pki::issueCa("CN=CA");
  return CertificateRevocationListFactory()(Pki::makeCrl({.issuer = &ca, .idp = idp}).release(),
                                            true)
      ->issuingDistributionPoint();
}

TEST(CRLDistributionPoint, SeveralPoints_InTheOrderOfTheExtension) {
  const std::list<RefCRLDistributionPoint> points =
      pointsOf({{.fullNames = {"URI:http://a/1", "dirName:CN=A", "URI:ldap://b/2"}},
                {.crlIssuers = {"dirName:CN=B", "DNS:c"}},
                {.relativeName = "CN=CRL1+O=x", .crlIssuers = {"dirName:CN=D"}}});
  ASSERT_EQ(points.size(), 3U);
  auto point = points.begin();

  EXPECT_EQ((*point)->distributionPointName()->type(), 0);
  const std::list<RefGeneralName> names = (*point)->distributionPointName()->fullName();
  ASSERT_EQ(names.size(), 3U);
  EXPECT_EQ(names.front()->uri().asString(), "http://a/1");
  EXPECT_EQ((*std::next(names.begin()))->dn().asString(), "CN=A");
  EXPECT_EQ(names.back()->uri().asString(), "ldap://b/2");
  EXPECT_EQ((*point)->distributionPointName()->relativeName(), "");
  EXPECT_TRUE((*point)->issuers().empty());

  ++point;
  EXPECT_TRUE((*point)->distributionPointName().empty());
  ASSERT_EQ((*point)->issuers().size(), 2U);
  EXPECT_EQ((*point)->issuers().front()->dn().asString(), "CN=B");
  EXPECT_EQ((*point)->issuers().back()->type(), GEN_DNS);

  ++point;
  EXPECT_EQ((*point)->distributionPointName()->type(), 1);
  EXPECT_TRUE((*point)->distributionPointName()->fullName().empty());
  EXPECT_EQ(DistinguishedName((*point)->distributionPointName()->relativeName()),
            DistinguishedName("O=x+CN=CRL1"));
}

TEST(CRLDistributionPoint, Reasons_CutToThoseDefinedAndAllWhenAbsent) {
  struct Row {
    int given;
    unsigned int expected;
  };
  const Row rows[] = {
      {Pki::kAbsent, 0x807f},
      {0x807f, 0x807f},
      {0x02, 0x02},
      {0x8000, 0x8000},
      {0x8040, 0x8040},
      // Bit 0, which RFC 5280 leaves unused, is 0x80 in OpenSSL's count.
      {0xff, 0x7f},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.given);
    EXPECT_EQ(pointsOf({{.fullNames = {"URI:http://a/"}, .reasons = row.given}}).front()->reasons(),
              row.expected);
    if (row.given != Pki::kAbsent) {
      EXPECT_EQ(scopeOf({.onlySomeReasons = row.given})->reasons(), row.expected);
    }
  }
  EXPECT_EQ(scopeOf({.onlyUser = true})->reasons(), 0x807fU);
}

TEST(CRLDistributionPointName, Compared_FullNamesByOneInCommonRelativeByRdnNeverMixed) {
  struct Row {
    Pki::DistributionPoint left;
    Pki::DistributionPoint right;
    bool equal;
  };
  const Row rows[] = {
      {{.fullNames = {"URI:http://a/"}}, {.fullNames = {"URI:http://a/"}}, true},
      {{.fullNames = {"URI:http://a/", "URI:http://b/"}},
       {.fullNames = {"URI:http://c/", "URI:http://b/"}},
       true},
      {{.fullNames = {"URI:http://a/", "URI:http://b/"}}, {.fullNames = {"URI:http://c/"}}, false},
      {{.fullNames = {"dirName:C=DE,CN=A"}}, {.fullNames = {"dirName:C=de,CN=a"}}, true},
      {{.relativeName = "CN=A"}, {.relativeName = "CN=a"}, true},
      {{.relativeName = "CN=A"}, {.relativeName = "CN=B"}, false},
      {{.relativeName = "CN=A+O=B"}, {.relativeName = "O=B+CN=A"}, true},
      {{.relativeName = "CN=A+O=B"}, {.relativeName = "CN=A"}, false},
      {{.fullNames = {"dirName:CN=A"}}, {.relativeName = "CN=A"}, false},
      {{.relativeName = "CN=A"}, {.fullNames = {"dirName:CN=A"}}, false},
  };
  int number = 0;
  for (const Row& row : rows) {
    SCOPED_TRACE(number++);
    const RefCRLDistributionPointName left = nameOf(row.left);
    const RefCRLDistributionPointName right = nameOf(row.right);
    EXPECT_EQ(*left.get() == *right.get(), row.equal);
    EXPECT_EQ(*left.get() != *right.get(), !row.equal);
  }
}

TEST(CRLDistributionPointName, ComparedWithAName_EqualWhenItHoldsThatDirectoryName) {
  const DistinguishedName name("CN=A,C=DE");
  EXPECT_FALSE(*nameOf({.fullNames = {"URI:http://a/", "dirName:C=DE,CN=A"}}).get() != name);
  EXPECT_TRUE(*nameOf({.fullNames = {"URI:http://a/", "dirName:C=DE,CN=A"}}).get() == name);
  EXPECT_TRUE(*nameOf({.fullNames = {"dirName:CN=A"}}).get() != name);
  EXPECT_TRUE(*nameOf({.fullNames = {"URI:http://a/"}}).get() != name);
  EXPECT_TRUE(*nameOf({.relativeName = "CN=A"}).get() != DistinguishedName("CN=A"));
  // A general name of another type is not the empty directory name.
  EXPECT_TRUE(*nameOf({.fullNames = {"URI:http://a/"}}).get() != DistinguishedName());
}

TEST(IssuingDistributionPoint, EachFlag_StandsForItself) {
  for (int flag = 0; flag < 5; ++flag) {
    SCOPED_TRACE(flag);
    const RefIssuingDistributionPoint scope = scopeOf({.fullNames = {"URI:http://a/"},
                                                       .onlyUser = flag == 1,
                                                       .onlyCa = flag == 2,
                                                       .onlyAttributes = flag == 3,
                                                       .indirect = flag == 4});
    EXPECT_EQ(scope->onlyUser(), flag == 1);
    EXPECT_EQ(scope->onlyCA(), flag == 2);
    EXPECT_EQ(scope->onlyAttr(), flag == 3);
    EXPECT_EQ(scope->indirectCRL(), flag == 4);
    EXPECT_EQ(scope->distributionPointName()->fullName().front()->uri().asString(), "http://a/");
  }
}

TEST(IssuingDistributionPoint, Name_AbsentOrRelative) {
  EXPECT_TRUE(scopeOf({.onlyUser = true})->distributionPointName().empty());
  const RefIssuingDistributionPoint relative = scopeOf({.relativeName = "CN=CRL1"});
  EXPECT_EQ(relative->distributionPointName()->type(), 1);
  EXPECT_EQ(relative->distributionPointName()->relativeName(), "CN=CRL1");
}

}  // namespace
}  // namespace Velantrix::Crypto::PKX509
