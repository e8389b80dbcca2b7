#include "foundation/openssl/OpenSSLOwners.h"

#include <velantrix/Extension.h>

#include <gtest/gtest.h>
#include <string>

namespace Velantrix::Crypto::PKX509 {
namespace {

Owned<X509_EXTENSION> nativeExtension(const char* oid, bool critical) {
  const Owned<ASN1_OBJECT> type(OBJ_txt2obj(oid, 1));
  const Owned<ASN1_BIT_STRING> value(ASN1_OCTET_STRING_new());
  EXPECT_EQ(ASN1_STRING_set(value.get(), "\x05", 2), 1);
  return Owned<X509_EXTENSION>(
      X509_EXTENSION_create_by_OBJ(nullptr, type.get(), critical ? 1 : 0, value.get()));
}

TEST(Extension, TypeAndCriticality_AreThoseOfTheSource) {
  struct Row {
    const char* oid;
    bool critical;
  };
  // The type stands in numbers, whether OpenSSL has a name for it or not.
  const Row rows[] = {{"2.5.29.17", true}, {"2.5.29.17", false}, {"1.2.3.4", true}};
  for (const Row& row : rows) {
    const Extension extension(nativeExtension(row.oid, row.critical).get());
    EXPECT_EQ(extension.oid(), row.oid);
    EXPECT_EQ(extension.critical(), row.critical) << row.oid;
  }
}

TEST(Extension, Source_MayChangeAndGo) {
  const Owned<X509_EXTENSION> source = nativeExtension("1.2.3.4", false);
  const RefExtension copy(source.get());
  EXPECT_NE(copy->native(), source.get());
  ASSERT_EQ(X509_EXTENSION_set_critical(source.get(), 1), 1);
  EXPECT_FALSE(copy->critical());
}

TEST(Extension, Nothing_IsAnEmptyHandle) {
  EXPECT_TRUE(RefExtension(static_cast<const X509_EXTENSION*>(nullptr)).empty());
  EXPECT_TRUE(RefExtension().empty());
}

}  // namespace
}  // namespace Velantrix::Crypto::PKX509
