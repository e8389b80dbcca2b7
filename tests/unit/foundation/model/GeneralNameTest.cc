#include "foundation/openssl/OpenSSLOwners.h"
#include "support/Pki.h"

#include <velantrix/GeneralName.h>

#include <gtest/gtest.h>
#include <string>

namespace Velantrix::Crypto::PKX509 {
namespace {

namespace Pki = Velantrix::Test;

RefGeneralName generalNameOf(const std::string& text) {
  return RefGeneralName(Pki::makeGeneralName(text).get());
}

TEST(GeneralName, EachType_GivesItsValueAndNothingForTheOthers) {
  struct Row {
    const char* text;
    int type;
    const char* dn;
    const char* uri;
  };
  const Row rows[] = {
      {"dirName:C=DE,CN=Name", GEN_DIRNAME, "CN=Name,C=DE", ""},
      {"URI:http://crl.example/a.crl", GEN_URI, "", "http://crl.example/a.crl"},
      {"URI:no uri at all", GEN_URI, "", ""},
      {"DNS:a.example", GEN_DNS, "", ""},
      {"email:a@b.example", GEN_EMAIL, "", ""},
      {"IP:127.0.0.1", GEN_IPADD, "", ""},
      {"RID:1.2.3", GEN_RID, "", ""},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.text);
    const RefGeneralName name = generalNameOf(row.text);
    EXPECT_EQ(name->type(), row.type);
    EXPECT_EQ(name->dn().asString(), row.dn);
    EXPECT_EQ(name->uri().asString(), row.uri);
    EXPECT_EQ(name->uri().isNull(), *row.uri == '\0');
  }
}

TEST(GeneralName, URIWithZeroOctet_IsNoURI) {
  const Owned<GENERAL_NAME> native = Pki::makeGeneralName("URI:http://good.example/");
  const std::string text("http://good.example/\0.evil.example", 34);
  ASSERT_EQ(ASN1_STRING_set(native->d.uniformResourceIdentifier, text.data(), 34), 1);
  EXPECT_TRUE(GeneralName(native.get()).uri().isNull());
}

TEST(GeneralName, Compared_DirectoryNamesCanonicallyTheRestByOctets) {
  EXPECT_TRUE(*generalNameOf("dirName:C=DE,CN=Name").get() ==
              *generalNameOf("dirName:C=de,CN=NAME").get());
  EXPECT_TRUE(*generalNameOf("dirName:C=DE,CN=Name").get() !=
              *generalNameOf("dirName:CN=Name,C=DE").get());
  EXPECT_TRUE(*generalNameOf("URI:http://a/").get() == *generalNameOf("URI:http://a/").get());
  EXPECT_TRUE(*generalNameOf("URI:http://a/").get() != *generalNameOf("URI:http://A/").get());
  EXPECT_TRUE(*generalNameOf("URI:http://a/").get() != *generalNameOf("DNS:http://a/").get());
}

TEST(GeneralName, Source_MayGo) {
  RefGeneralName name;
  {
    const Owned<GENERAL_NAME> native = Pki::makeGeneralName("dirName:CN=A");
    name = RefGeneralName(native.get());
  }
  EXPECT_EQ(name->dn().asString(), "CN=A");
  EXPECT_TRUE(RefGeneralName(static_cast<const GENERAL_NAME*>(nullptr)).empty());
}

}  // namespace
}  // namespace Velantrix::Crypto::PKX509
