#include "foundation/openssl/NameHash.h"
#include "support/Pki.h"

#include <openssl/err.h>

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

using Velantrix::Crypto::nameHash;
using Velantrix::Crypto::Owned;
using Velantrix::Test::makeName;

unsigned long expected(const X509_NAME* name) {
  return X509_NAME_hash_ex(name, nullptr, nullptr, nullptr);
}

TEST(NameHash, Hash_IsOpenSSLs) {
  const std::vector<std::string> names{"CN=A", "CN=B", "CN=AA",
                                       "C=DE,O=x,CN=" + std::string(60, 'y')};
  for (int round = 0; round < 2; ++round) {
    for (const std::string& text : names) {
      const Owned<X509_NAME> name = makeName(text);
      EXPECT_EQ(nameHash(name.get()), expected(name.get())) << text;
    }
  }
}

TEST(NameHash, NamesThatAreManyOrLong_HaveTheirOwn) {
  for (int round = 0; round < 2; ++round) {
    for (int i = 0; i < 40; ++i) {
      const Owned<X509_NAME> name = makeName("CN=" + std::to_string(i));
      EXPECT_EQ(nameHash(name.get()), expected(name.get()));
    }
  }
  std::string text = "CN=x";
  for (int i = 0; i < 12; ++i) {
    text += ",O=" + std::string(30, static_cast<char>('a' + i));
    const Owned<X509_NAME> name = makeName(text);
    EXPECT_EQ(nameHash(name.get()), expected(name.get()));
    EXPECT_EQ(nameHash(name.get()), expected(name.get()));
  }
}

TEST(NameHash, EmptyName_HasOne) {
  const Owned<X509_NAME> name(X509_NAME_new());
  EXPECT_EQ(nameHash(name.get()), expected(name.get()));
  EXPECT_EQ(nameHash(name.get()), expected(name.get()));
  EXPECT_EQ(ERR_peek_error(), 0UL);
}

}  // namespace
