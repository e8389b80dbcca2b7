#include "foundation/model/RelativeName.h"

#include <gtest/gtest.h>
#include <string>

namespace Velantrix::Crypto::PKX509 {
namespace {

TEST(RelativeName, Completed_IsTheLastPartOfTheIssuersName) {
  const DistinguishedName issuer("O=Test,C=DE");
  EXPECT_EQ(completed("CN=CRL1", issuer), DistinguishedName("CN=CRL1,O=Test,C=DE"));
  EXPECT_EQ(completed("CN=CRL1+UID=7", issuer), DistinguishedName("CN=CRL1+UID=7,O=Test,C=DE"));
  EXPECT_EQ(completed("CN=a\\,b", issuer).asString(), "CN=a\\,b,O=Test,C=DE");
}

TEST(RelativeName, WhatComesOutIsNoName_IsTheEmptyOne) {
  const DistinguishedName issuer("O=Test");
  for (const char* relative : {"", "CN", "=x"}) {
    EXPECT_TRUE(completed(relative, issuer).empty()) << relative;
  }
  EXPECT_TRUE(completed("CN=CRL1", DistinguishedName()).empty());
}

}  // namespace
}  // namespace Velantrix::Crypto::PKX509
