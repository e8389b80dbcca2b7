#include "support/Handles.h"
#include "support/Pki.h"

#include <velantrix/AuthorityInformationAccess.h>
#include <velantrix/Certificate.h>
#include <velantrix/Exception.h>

#include <gtest/gtest.h>
#include <iterator>
#include <list>
#include <string>

namespace Velantrix::Crypto::PKX509 {
namespace {

namespace Pki = Velantrix::Test;

using namespace std::string_literals;

RefCertificate make(const Pki::CertificateOptions& options) {
  return Pki::handle(Pki::issue(options));
}

TEST(AuthorityInformationAccess, OCSPLocations_OfEveryTypeInOrder) {
  const RefCertificate certificate =
      make({.extensions = {{"authorityInfoAccess",
                            "OCSP;URI:http://one.example/,caIssuers;URI:http://ca.example/,"
                            "OCSP;DNS:two.example,OCSP;URI:http://three.example/"}}});
  const RefAuthorityInformationAccess access(
      certificate->find(ASN1::RefObjectIdentifier("1.3.6.1.5.5.7.1.1")));
  ASSERT_FALSE(access.empty());
  const std::list<RefGeneralName> names = access->ocspGeneralNames();
  ASSERT_EQ(names.size(), 3U);
  EXPECT_EQ(names.front()->uri().asString(), "http://one.example/");
  EXPECT_EQ((*std::next(names.begin()))->type(), GEN_DNS);
  EXPECT_EQ(names.back()->uri().asString(), "http://three.example/");
}

TEST(AuthorityInformationAccess, NoneBrokenOrOther_EmptyHandleOrException) {
  EXPECT_TRUE(RefAuthorityInformationAccess(RefExtension()).empty());
  const std::string noOCSP =
      "\x30\x12\x30\x10\x06\x08\x2b\x06\x01\x05\x05\x07\x30\x02\x86\x04\x68\x3a\x2f\x2f"s;
  const auto read = [](const char* oid, const std::string& der) {
    const RefCertificate certificate = make({.rawExtensions = {{oid, false, der}}});
    return RefAuthorityInformationAccess(certificate->find(ASN1::RefObjectIdentifier(oid)));
  };
  EXPECT_TRUE(read("1.3.6.1.5.5.7.1.1", noOCSP)->ocspGeneralNames().empty());
  EXPECT_THROW(read("1.3.6.1.5.5.7.1.1", noOCSP + "x"), Exception);
  EXPECT_THROW(read("1.3.6.1.5.5.7.1.1", "\x05\0"s), Exception);
  EXPECT_THROW(read("1.2.3.4", noOCSP), Exception);
}

}  // namespace
}  // namespace Velantrix::Crypto::PKX509
