// What needs no server; tests/integration has the rest.
#include "unit/store/Model.h"

#include <pkx509/LDAPLookup.h>
#include <pkx509/ObjectStore.h>
#include <velantrix/Exception.h>

#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <type_traits>
#include <vector>

namespace Velantrix::Test {
namespace {

using namespace Crypto;
using namespace Crypto::PKX509;

static_assert(std::is_base_of_v<LookupMethod, LDAPLookupMethod>);

// The string forms say what they were asked.
class Asked : public LDAPLookupMethod {
 public:
  using LDAPLookupMethod::getBySubject;
  RefObject getBySubject(Object::Type type, const std::string& base) override {
    asked.push_back("object " + std::to_string(type) + ' ' + base);
    return RefObject();
  }
  void getBySubject(const std::string& base, std::list<RefCertificate>& /*out*/) override {
    asked.push_back("certificates " + base);
  }
  void getBySubject(const std::string& base,
                    std::list<RefCertificateRevocationList>& /*out*/) override {
    asked.push_back("crls " + base);
  }
  const std::string& nameGiven() const { return name; }

  std::vector<std::string> asked;
};

Exception thrownBy(const std::function<void()>& action) {
  try {
    action();
  } catch (const Exception& e) {
    return e;
  }
  ADD_FAILURE() << "nothing was thrown";
  return Exception("", 0, nullptr, 0);
}

// Users write what stands under their names.
TEST(LDAPLookup, Made_IsNoSourceOfTrustUnlessItIsToldTo) {
  LDAPLookupMethod method;
  EXPECT_FALSE(method.isTrustSource());
  EXPECT_FALSE(LDAPLookupMethod(LDAPLookupMethod::Config()).isTrustSource());
  method.trustSource(true);
  EXPECT_TRUE(method.isTrustSource());
}

TEST(LDAPLookup, NamesAreAskedByTheirText_ThroughTheVirtualTable) {
  Asked method;
  LookupMethod& base = method;
  const DistinguishedName name = modelName("C=DE,O=A\\, B,CN=\"Ü\"");
  std::list<RefCertificate> certificates;
  std::list<RefCertificateRevocationList> crls;
  base.getBySubject(Object::TypeCertificate, name);
  base.getBySubject(Object::TypeCrossCertificatePair, name);
  base.getBySubject(name, certificates);
  base.getBySubject(name, crls);
  base.getBySubject(DistinguishedName(), crls);
  EXPECT_EQ(method.asked, (std::vector<std::string>{"object 1 CN=\\\"Ü\\\",O=A\\, B,C=DE",
                                                    "object 99 CN=\\\"Ü\\\",O=A\\, B,C=DE",
                                                    "certificates CN=\\\"Ü\\\",O=A\\, B,C=DE",
                                                    "crls CN=\\\"Ü\\\",O=A\\, B,C=DE", "crls "}));
  EXPECT_EQ(method.nameGiven(), "LDAPLookupMethod");
}

TEST(LDAPLookup, FingerPrintAndIssuerSerial_AreNotImplemented) {
  LDAPLookupMethod method;
  const Exception print =
      thrownBy([&] { method.getByFingerPrint(Object::TypeCertificate, Buffer("x", 1, true)); });
  EXPECT_EQ(print.context(), "LDAPLookupMethod::getByFingerPrint: not implemented");
  EXPECT_EQ(print.code(), 4);
  EXPECT_STREQ(print.file(), "LDAPLookup");
  EXPECT_NE(print.line(), 0U);
  EXPECT_EQ(print.stringParameter(), "");
  const Exception serial = thrownBy([&] {
    method.getByIssuerSerial(Object::TypeCertificate, DistinguishedName("CN=A"), ASN1::Integer());
  });
  EXPECT_EQ(serial.context(), "LDAPLookupMethod::getByIssuerSerial: not implemented");
  EXPECT_EQ(serial.code(), 4);
  EXPECT_STREQ(serial.file(), "LDAPLookup");
}

TEST(LDAPLookup, OtherTypes_ThrowBeforeAnythingIsSent) {
  // Nobody listens there, which is no matter; with an empty base as well.
  LDAPLookupMethod method({LDAPConnection::RefServer("ldap://127.0.0.1:1"), "", ""});
  for (const int type : {0, 3, 98, 100, -1}) {
    for (const char* base : {"o=Test", ""}) {
      const Exception e = thrownBy(
          [&] { method.getBySubject(static_cast<Object::Type>(type), std::string(base)); });
      EXPECT_EQ(e.context(), "s_addAttributes");
      EXPECT_EQ(e.code(), 4);
      EXPECT_STREQ(e.file(), "LDAPLookup");
      EXPECT_EQ(e.stringParameter(), "");
    }
  }
}

TEST(LDAPLookup, WithoutAServer_QueriesThrow) {
  LDAPLookupMethod method;
  std::list<RefCertificate> certificates;
  std::list<RefCertificateRevocationList> crls;
  const std::string base = "o=Test";
  EXPECT_THROW(method.getBySubject(Object::TypeCertificate, base), Exception);
  EXPECT_THROW(method.getBySubject(base, certificates), Exception);
  EXPECT_THROW(method.getBySubject(base, crls), Exception);
  EXPECT_THROW(method.getByEmailAddress(base, "a@b.test", certificates), Exception);
}

TEST(LDAPLookup, EmptyName_IsNotSearched) {
  LDAPLookupMethod method;  // any search would throw
  std::list<RefCertificate> certificates;
  std::list<RefCertificateRevocationList> crls;
  EXPECT_TRUE(method.getBySubject(Object::TypeCertificate, DistinguishedName()).empty());
  EXPECT_TRUE(method.getBySubject(Object::TypeCRL, DistinguishedName()).empty());
  EXPECT_TRUE(method.getBySubject(Object::TypeCrossCertificatePair, DistinguishedName()).empty());
  method.getBySubject(DistinguishedName(), certificates);
  method.getBySubject(DistinguishedName(), crls);
  EXPECT_TRUE(certificates.empty());
  EXPECT_TRUE(crls.empty());
}

TEST(LDAPLookup, ConfigurationIsCopied) {
  LDAPConnection::RefServer server("ldap://127.0.0.1:1");
  LDAPLookupMethod::Config config{server, "cn=me", "secret"};
  EXPECT_EQ(server->referenceCount(), 2);
  {
    const LDAPLookupMethod method(config);
    EXPECT_EQ(server->referenceCount(), 3);
  }
  EXPECT_EQ(server->referenceCount(), 2);
}

}  // namespace
}  // namespace Velantrix::Test
