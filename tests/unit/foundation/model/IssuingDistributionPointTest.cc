#include "foundation/openssl/OpenSSLOwners.h"
#include "support/Handles.h"
#include "support/Pki.h"

#include <velantrix/CertificateRevocationList.h>
#include <velantrix/IssuingDistributionPoint.h>

#include <gtest/gtest.h>

namespace Velantrix::Crypto::PKX509 {
namespace {

namespace Pki = Velantrix::Test;

RefIssuingDistributionPoint scopeOf(const Pki::IssuingDistributionPoint& idp) {
  const Pki::Issued ca = Pki::issueCA("CN=CA");
  return Pki::crlHandle({.issuer = &ca, .idp = idp})->issuingDistributionPoint();
}

TEST(IssuingDistributionPoint, EachFlag_StandsForItself) {
  for (int flag = 0; flag < 5; ++flag) {
    SCOPED_TRACE(flag);
    const RefIssuingDistributionPoint scope = scopeOf({.fullNames = {"URI:http://a/"},
                                                       .onlyUser = flag == 1,
                                                       .onlyCA = flag == 2,
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

TEST(IssuingDistributionPoint, Reasons_CutToThoseDefinedAndAllWhenAbsent) {
  EXPECT_EQ(scopeOf({.onlyUser = true})->reasons(), 0x807fU);
  EXPECT_EQ(scopeOf({.onlySomeReasons = 0x8002})->reasons(), 0x8002U);
  // Bit 0, which RFC 5280 leaves unused, is 0x80 in OpenSSL's count.
  EXPECT_EQ(scopeOf({.onlySomeReasons = 0xff})->reasons(), 0x7fU);
}

// OpenSSL's ASN1_BOOLEAN is -1 for what is absent.
TEST(IssuingDistributionPoint, FlagsThatAreAbsent_AreFalse) {
  const Owned<ISSUING_DIST_POINT> native(ISSUING_DIST_POINT_new());
  for (int* flag : {&native->onlyuser, &native->onlyCA, &native->onlyattr, &native->indirectCRL}) {
    *flag = -1;
  }
  const RefIssuingDistributionPoint scope(native.get());
  EXPECT_FALSE(scope->onlyUser());
  EXPECT_FALSE(scope->onlyCA());
  EXPECT_FALSE(scope->onlyAttr());
  EXPECT_FALSE(scope->indirectCRL());
  EXPECT_TRUE(RefIssuingDistributionPoint(static_cast<const ISSUING_DIST_POINT*>(nullptr)).empty());
}

}  // namespace
}  // namespace Velantrix::Crypto::PKX509
