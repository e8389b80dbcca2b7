#include "support/Handles.h"
#include "support/Pki.h"

#include <velantrix/AuthorityInformationAccess.h>
#include <velantrix/Certificate.h>
#include <velantrix/Exception.h>

#include <cstddef>
#include <gtest/gtest.h>
#include <iterator>
#include <list>
#include <string>

namespace Velantrix::Crypto::PKX509 {
namespace {

namespace Pki = Velantrix::Test;

using namespace std::string_literals;

TEST(AuthorityInformationAccess, OCSPLocations_OfEveryTypeInOrder) {
  const RefCertificate certificate = Pki::handle(
      Pki::issue({.extensions = {{"authorityInfoAccess",
                                  "OCSP;URI:http://one.example/,caIssuers;URI:http://ca.example/,"
                                  "OCSP;DNS:two.example,OCSP;URI:http://three.example/"}}}));
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
    const RefCertificate certificate =
        Pki::handle(Pki::issue({.rawExtensions = {{oid, false, der}}}));
    return RefAuthorityInformationAccess(certificate->find(ASN1::RefObjectIdentifier(oid)));
  };
  EXPECT_TRUE(read("1.3.6.1.5.5.7.1.1", noOCSP)->ocspGeneralNames().empty());
  EXPECT_THROW(read("1.3.6.1.5.5.7.1.1", noOCSP + "x"), Exception);
  EXPECT_THROW(read("1.3.6.1.5.5.7.1.1", "\x05\0"s), Exception);
  EXPECT_THROW(read("1.2.3.4", noOCSP), Exception);
}

RefAuthorityInformationAccess readValue(const std::string& der) {
  const RefCertificate certificate =
      Pki::handle(Pki::issue({.rawExtensions = {{"1.3.6.1.5.5.7.1.1", false, der}}}));
  return RefAuthorityInformationAccess(
      certificate->find(ASN1::RefObjectIdentifier("1.3.6.1.5.5.7.1.1")));
}

// One OCSP location "x:" followed by a letter.
std::string location(char last) {
  return "\x30\x0f\x06\x08\x2b\x06\x01\x05\x05\x07\x30\x01\x86\x03x:"s + last;
}

TEST(AuthorityInformationAccess, OneAfterTheOther_AreAllOfThem) {
  const RefAuthorityInformationAccess access =
      readValue("\x30\x33" + location('a') + location('b') + location('c'));
  std::size_t position = 0;
  for (const char* const expected : {"x:a", "x:b", "x:c"}) {
    const RefGeneralName name = access->nextOCSPGeneralName(position);
    ASSERT_FALSE(name.empty());
    EXPECT_EQ(name->uri().asString(), expected);
  }
  for (int i = 0; i < 2; ++i) EXPECT_TRUE(access->nextOCSPGeneralName(position).empty());
  EXPECT_EQ(access->ocspGeneralNames().size(), 3U);
}

// BER that OpenSSL reads, though no certificate should have it.
TEST(AuthorityInformationAccess, IndefiniteLength_IsRead) {
  const std::list<RefGeneralName> names =
      readValue("\x30\x80" + location('a') + location('b') + "\0\0"s)->ocspGeneralNames();
  ASSERT_EQ(names.size(), 2U);
  EXPECT_EQ(names.back()->uri().asString(), "x:b");
}

TEST(AuthorityInformationAccess, SomethingWrongBehindAGoodLocation_Throws) {
  for (const std::string& rest : {"\x05\0"s, "\0\0"s, "\x30\x00"s, "\x30\x7f"s}) {
    std::string der = "\x30"s;
    der += static_cast<char>(0x11 + rest.size());
    EXPECT_THROW(readValue(der + location('a') + rest), Exception);
  }
  EXPECT_THROW(readValue("\x30\x80" + location('a')), Exception);
}

}  // namespace
}  // namespace Velantrix::Crypto::PKX509
