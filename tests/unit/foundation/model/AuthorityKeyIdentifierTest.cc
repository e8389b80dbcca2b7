#include "foundation/openssl/OpenSSLOwners.h"
#include "support/Pki.h"

#include <velantrix/AuthorityKeyIdentifier.h>

#include <gtest/gtest.h>
#include <string>

namespace Velantrix::Crypto::PKX509 {
namespace {

namespace Pki = Velantrix::Test;

// The extension of a certificate, with the key identifier that is given or none.
Owned<AUTHORITY_KEYID> nativeIdentifier(const std::string& keyId) {
  Owned<AUTHORITY_KEYID> native(AUTHORITY_KEYID_new());
  if (!keyId.empty()) {
    native->keyid = ASN1_OCTET_STRING_new();
    EXPECT_EQ(ASN1_STRING_set(native->keyid, keyId.data(), static_cast<int>(keyId.size())), 1);
  }
  return native;
}

TEST(AuthorityKeyIdentifier, KeyId_IsThatOfTheExtension) {
  const RefAuthorityKeyIdentifier authority(
      new AuthorityKeyIdentifier(nativeIdentifier("\x01\xab").release()));
  EXPECT_EQ(authority->keyId()->asString(), "01:AB");
  EXPECT_FALSE(authority->keyId().empty());
}

TEST(AuthorityKeyIdentifier, IssuerAndSerialOnly_HasNoKeyId) {
  const AuthorityKeyIdentifier authority(nativeIdentifier("").release());
  EXPECT_TRUE(authority.keyId().empty());
}

// OpenSSL compares what the class does not show.
TEST(AuthorityKeyIdentifier, Native_IsTheOneAdoptedAndFitsItsIssuer) {
  const Pki::Issued issuer = Pki::issueCA("CN=Issuer");
  const Pki::Issued other = Pki::issueCA("CN=Issuer");
  const Pki::Issued leaf = Pki::issue({.subject = "CN=Leaf", .issuer = &issuer});
  Owned<AUTHORITY_KEYID> native(static_cast<AUTHORITY_KEYID*>(
      X509_get_ext_d2i(leaf.get(), NID_authority_key_identifier, nullptr, nullptr)));
  ASSERT_NE(native, nullptr);
  const AUTHORITY_KEYID* const pointer = native.get();
  const AuthorityKeyIdentifier authority(native.release());
  EXPECT_EQ(authority.native(), pointer);
  // X509_check_akid looks at what was decoded before.
  for (const Pki::Issued& one : {issuer, other}) X509_check_purpose(one.get(), -1, 0);
  EXPECT_EQ(X509_check_akid(issuer.get(), authority.native()), X509_V_OK);
  EXPECT_NE(X509_check_akid(other.get(), authority.native()), X509_V_OK);
}

}  // namespace
}  // namespace Velantrix::Crypto::PKX509
