#include "foundation/model/CRLParts.h"
#include "unit/store/Model.h"
#include "unit/store/Watch.h"

#include <pkx509/Object.h>

#include <gtest/gtest.h>
#include <type_traits>

namespace Velantrix::Test {
namespace {

using namespace Crypto::PKX509;

static_assert(Object::TypeNone == static_cast<int>(X509_LU_NONE));
static_assert(Object::TypeCertificate == static_cast<int>(X509_LU_X509));
static_assert(Object::TypeCRL == static_cast<int>(X509_LU_CRL));
static_assert(Object::TypeCrossCertificatePair == 99);
static_assert(sizeof(Object::Type) == 4);
static_assert(std::has_virtual_destructor_v<Object>);
static_assert(!std::is_polymorphic_v<RefObject>);
static_assert(sizeof(RefObject) == 2 * sizeof(void*));

TEST(Object, Default_IsNothing) {
  const Object object;
  EXPECT_EQ(object.type, Object::TypeNone);
  EXPECT_EQ(object.data, nullptr);
  EXPECT_TRUE(object.certificate.empty());
  EXPECT_TRUE(object.crl.empty());
  EXPECT_TRUE(object.crossPair.empty());
}

TEST(Object, FromCertificate_CarriesItsPointer) {
  const Issued root = issueCA("CN=Root");
  const RefCertificate certificate = handle(root);
  const Object object(certificate);
  EXPECT_EQ(object.type, Object::TypeCertificate);
  EXPECT_EQ(object.data, root.get());
  EXPECT_EQ(object.certificate.get(), certificate.get());
  EXPECT_TRUE(object.crl.empty());
  EXPECT_TRUE(object.crossPair.empty());
}

TEST(Object, FromCRL_CarriesItsPointer) {
  const Issued root = issueCA("CN=Root");
  const RefCertificateRevocationList crl = crlHandle({.issuer = &root});
  const Object object(crl);
  EXPECT_EQ(object.type, Object::TypeCRL);
  EXPECT_EQ(object.data, crl->native());
  EXPECT_EQ(object.crl.get(), crl.get());
  EXPECT_TRUE(object.certificate.empty());
  EXPECT_TRUE(object.crossPair.empty());
}

TEST(Object, FromCRLThatWasRead_MakesOpenSSLsObjectWhenDataIsRead) {
  const Issued root = issueCA("CN=Root");
  const std::string content = der(makeCRL({.issuer = &root}).get());
  const RefCertificateRevocationList crl = CertificateRevocationListFactory::read(
      Buffer(content.data(), static_cast<unsigned int>(content.size()), false));
  const Object object(crl);
  const Object copy(object);
  EXPECT_EQ(CRLParts::nativeOf(*crl.get()), nullptr);
  auto* const native = static_cast<X509_CRL*>(object.data);
  ASSERT_NE(native, nullptr);
  EXPECT_EQ(native, crl->native());
  EXPECT_EQ(copy.data, native);
}

TEST(ObjectData, IsReadAndWrittenAsAPointer) {
  int target = 7;
  ObjectData data;
  EXPECT_FALSE(data);
  EXPECT_EQ(static_cast<int*>(data), nullptr);
  data = &target;
  EXPECT_TRUE(data);
  EXPECT_EQ(data, &target);
  EXPECT_EQ(*static_cast<const int*>(data), 7);
  void* const plain = data;
  EXPECT_EQ(plain, &target);
  data = nullptr;
  EXPECT_EQ(data, nullptr);
}

TEST(RefObject, Dereferenced_IsTheObject) {
  const RefObject object(handle(issueCA("CN=Root")));
  EXPECT_EQ(&*object, object.get());
  EXPECT_EQ((*object).type, Object::TypeCertificate);
}

TEST(Object, FromEmptyHandle_IsOfNoType) {
  const Object certificate{RefCertificate()};
  EXPECT_EQ(certificate.type, Object::TypeNone);
  EXPECT_EQ(certificate.data, nullptr);
  EXPECT_TRUE(certificate.certificate.empty());

  const Object crl{RefCertificateRevocationList()};
  EXPECT_EQ(crl.type, Object::TypeNone);
  EXPECT_EQ(crl.data, nullptr);
  EXPECT_TRUE(crl.crl.empty());
}

TEST(Object, FromPair_IsOfNoTypeAndKeepsThePair) {
  const RefCrossCertificatePair pair = modelPair(issueCA("CN=Root"));
  const Object object(pair);
  EXPECT_EQ(object.type, Object::TypeNone);
  EXPECT_EQ(object.data, nullptr);
  EXPECT_EQ(object.crossPair.get(), pair.get());
  EXPECT_TRUE(object.certificate.empty());
  EXPECT_TRUE(object.crl.empty());
}

TEST(Object, Destroyed_ReleasesItsHandle) {
  Events events;
  Owned<X509> x509 = issueCA("CN=Root").reference();
  const CertificateWatch watch(x509.get(), events, "freed");
  {
    const RefObject object(CertificateFactory()(x509.release(), true));
    const RefObject copy(object);
    EXPECT_FALSE(watch.freed());
  }
  EXPECT_TRUE(watch.freed());
}

TEST(RefObject, Default_IsEmpty) {
  const RefObject object;
  EXPECT_TRUE(object.empty());
  EXPECT_EQ(object.get(), nullptr);
}

TEST(RefObject, Copies_ShareOneObject) {
  const RefObject first(handle(issueCA("CN=Root")));
  EXPECT_EQ(first.use_count(), 1);
  const RefObject second(first);
  EXPECT_EQ(second.get(), first.get());
  EXPECT_EQ(first.use_count(), 2);
}

TEST(RefObject, Assignment_ReleasesTheOldObjectAfterTakingTheNewOne) {
  Events events;
  Owned<X509> x509 = issueCA("CN=Root").reference();
  const CertificateWatch watch(x509.get(), events, "freed");
  RefObject first(CertificateFactory()(x509.release(), true));
  const RefObject second(handle(issueCA("CN=Other")));

  RefObject& result = first = second;
  EXPECT_EQ(&result, &first);
  EXPECT_EQ(first.get(), second.get());
  EXPECT_EQ(second.use_count(), 2);
  EXPECT_TRUE(watch.freed());
}

TEST(RefObject, SelfAssignment_ChangesNothing) {
  RefObject object(handle(issueCA("CN=Root")));
  const Object* const held = object.get();
  RefObject& alias = object;
  object = alias;
  EXPECT_EQ(object.get(), held);
  EXPECT_EQ(object.use_count(), 1);
}

TEST(RefObject, EmptyHandle_IsStillAnObjectAroundIt) {
  const RefObject object{RefCertificate()};
  ASSERT_FALSE(object.empty());
  EXPECT_EQ(object->type, Object::TypeNone);
}

TEST(RefObjectDeathTest, EmptyDereferenced_StopsTheProcess) {
  const RefObject object;
  EXPECT_DEATH(static_cast<void>(object->type), "Assertion `px != 0' failed");
  EXPECT_DEATH(static_cast<void>((*object).type), "Assertion `px != 0' failed");
}

}  // namespace
}  // namespace Velantrix::Test
