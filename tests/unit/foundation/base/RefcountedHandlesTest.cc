// What an "if" says of a handle, for every type of handle that there is.
#include "foundation/net/http/HTTPConnection.h"
#include "support/Handles.h"
#include "support/Pki.h"

#include <pkx509/LookupMethod.h>
#include <pkx509/Object.h>
#include <pkx509/ObjectStore.h>
#include <velantrix/AuthorityInformationAccess.h>
#include <velantrix/AuthorityKeyIdentifier.h>
#include <velantrix/CRLDistributionPoint.h>
#include <velantrix/Certificate.h>
#include <velantrix/CertificateRevocationList.h>
#include <velantrix/CrossCertificatePair.h>
#include <velantrix/Extension.h>
#include <velantrix/GeneralName.h>
#include <velantrix/HTTP.h>
#include <velantrix/IssuingDistributionPoint.h>
#include <velantrix/Key.h>
#include <velantrix/LDAPConnection.h>
#include <velantrix/LWBuffer.h>
#include <velantrix/StackOfCertificate.h>

#include <gtest/gtest.h>
#include <list>
#include <string>
#include <type_traits>

namespace Velantrix::Test {
namespace {

namespace ASN1 = Crypto::ASN1;
using namespace Crypto::PKX509;

// Each way to ask, of a handle that may be changed and of one that may not.
template <class Handle>
std::string asked(Handle& handle) {
  std::string answers;
  if (handle) answers += "if ";
  if (!handle) answers += "not ";
  if (handle && true) answers += "and ";
  if (true && handle) answers += "and ";
  if (handle || false) answers += "or ";
  if (static_cast<bool>(handle)) answers += "cast ";
  if (bool(handle)) answers += "bool ";  // NOLINT(google-readability-casting): as a program may
  return answers + (handle ? "yes" : "no");
}

constexpr char kHoldsAnObject[] = "if and and or cast bool yes";
constexpr char kHoldsNone[] = "not no";

template <class Handle>
void expectAnswers(const Handle& full) {
  static_assert(!std::is_convertible_v<Handle, bool> || std::is_convertible_v<Handle, void*>,
                "no bool but where it is asked for");
  Handle handle(full);
  EXPECT_EQ(asked(handle), kHoldsAnObject);
  EXPECT_EQ(asked(full), kHoldsAnObject);
  const Handle constant;
  handle = constant;
  EXPECT_EQ(asked(handle), kHoldsNone);
  EXPECT_EQ(asked(constant), kHoldsNone);
}

// Handles of the foundation know a third state and the null pointer.
template <class Handle, class Held>
void expectAnswersOf(const Handle& full, const Ref<Held>& /*deducesTheHeldType*/) {
  expectAnswers(full);
  const Handle empty;
  const Handle holdsNull(new RefCounted<Held>(nullptr, false));
  EXPECT_EQ(asked(holdsNull), kHoldsNone);
  EXPECT_TRUE(empty == nullptr);
  EXPECT_TRUE(nullptr == holdsNull);
  EXPECT_TRUE(full != nullptr);
  EXPECT_FALSE(nullptr == full);
}
template <class Handle>
void expectAnswersOfRef(const Handle& full) {
  expectAnswersOf(full, full);
}

class RefcountedHandles : public testing::Test {
 protected:
  const Issued issued = issue({.subject = "CN=Test",
                               .authorityKeyId = KeyId::Wrong,
                               .crlDistributionPoints = {{.fullNames = {"URI:http://a.test/"}}},
                               .extensions = {{"authorityInfoAccess", "OCSP;URI:http://a.test/"}}});
  const RefCertificate certificate = handle(issued);
  const RefCertificateRevocationList crl = crlHandle(
      {.issuer = &issued, .idp = Velantrix::Test::IssuingDistributionPoint{.onlyUser = true}});
};

TEST_F(RefcountedHandles, OfCertificates) {
  expectAnswersOfRef(certificate);
  expectAnswersOfRef(RefStackOfCertificate(std::list<RefCertificate>{}));
  expectAnswersOfRef(certificate->key());
  const RefExtension access = certificate->find(ASN1::RefObjectIdentifier("1.3.6.1.5.5.7.1.1"));
  expectAnswersOfRef(access);
  expectAnswersOfRef(RefAuthorityInformationAccess(access));
  const RefCRLDistributionPoint point = certificate->crlDistributionPoints().front();
  expectAnswersOfRef(point);
  expectAnswersOfRef(point->distributionPointName());
  expectAnswersOfRef(point->distributionPointName()->fullName().front());
  expectAnswersOfRef(RefCrossCertificatePair(Buffer("\x30\x00", 2, true)));  // a pair of none
}

TEST_F(RefcountedHandles, OfCRLs) {
  expectAnswersOfRef(crl);
  expectAnswersOfRef(crl->lastUpdate());
  expectAnswersOfRef(crl->crlInfo().authorityKeyIdentifier());
  expectAnswersOfRef(crl->crlInfo().authorityKeyIdentifier()->keyId());
  expectAnswersOfRef(crl->issuingDistributionPoint());
}

TEST_F(RefcountedHandles, OfIdentifiersAndTheNetwork) {
  expectAnswersOfRef(ASN1::RefObjectIdentifier("1.2.3"));
  expectAnswersOfRef(LDAPConnection::RefServer("ldap://a.test"));
  expectAnswersOfRef(LW::RefBuffer(1));
  LW::HTTP::RefStream stream(LW::HTTP::Stream::kPlain);
  expectAnswers(LW::HTTP::RefConnection(stream));
}

TEST_F(RefcountedHandles, OfStores) {
  // An empty one aborts the process when it is asked for OpenSSL's store.
  expectAnswersOfRef(RefObjectStore("", X509_FILETYPE_PEM));
  expectAnswers(RefLookupMethod(new LookupMethod("test")));
  EXPECT_TRUE(RefLookupMethod() == nullptr);
  expectAnswers(RefObject(certificate));
  EXPECT_TRUE(RefObject() == nullptr);
}

// What converts to OpenSSL's pointers still does.
TEST_F(RefcountedHandles, OpenSSLPointers_AreGivenWhereTheyAreAskedFor) {
  X509* const x509 = certificate;
  EXPECT_EQ(x509, issued.get());
  EXPECT_TRUE(certificate == x509);
  EXPECT_EQ(X509_cmp(certificate, x509), 0);
  X509_CRL* const none = RefCertificateRevocationList();
  EXPECT_EQ(none, nullptr);
  EXPECT_TRUE(crl != none);
  const RefObjectStore store("", X509_FILETYPE_PEM);
  EXPECT_TRUE(store == store->native());
}

}  // namespace
}  // namespace Velantrix::Test
