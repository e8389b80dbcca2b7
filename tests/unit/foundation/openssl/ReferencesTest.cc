#include "foundation/openssl/References.h"
#include "support/Pki.h"
#include "unit/store/Watch.h"

#include <velantrix/Exception.h>

#include <gtest/gtest.h>
#include <string>

namespace Velantrix::Crypto {
namespace {

namespace Pki = Velantrix::Test;

constexpr Origin kHere{"Context", "Source"};

TEST(References, NotNull_IsThePointerItself) {
  int number = 0;
  EXPECT_EQ(notNull(&number), &number);
}

TEST(ReferencesDeathTest, NotNullOfNull_StopsTheProcess) {
  EXPECT_DEATH(notNull(static_cast<int*>(nullptr)), "");
}

TEST(References, NewReference_KeepsTheObjectWhenTheFirstIsGone) {
  Pki::Events events;
  Owned<X509> first = Pki::certFromDer(Pki::der(Pki::issue({}).get()));
  const Pki::CertificateWatch watch(first.get(), events, "freed");
  Owned<X509> second = newReference(first.get(), kHere);
  EXPECT_EQ(second.get(), first.get());
  first.reset();
  EXPECT_FALSE(watch.freed());
  second.reset();
  EXPECT_TRUE(watch.freed());
}

TEST(References, NewReferenceToACRL_IsTheSameObject) {
  const Pki::Issued ca = Pki::issueCA("CN=CA");
  const Owned<X509_CRL> first = Pki::makeCRL({.issuer = &ca});
  const Owned<X509_CRL> second = newReference(first.get(), kHere);
  EXPECT_EQ(second.get(), first.get());
}

TEST(References, NewCopy_IsAnotherObjectThatEqualsTheFirst) {
  const Owned<X509_NAME> name = Pki::makeName("C=DE,CN=A");
  const Owned<X509_NAME> copy = newCopy(X509_NAME_dup, name.get(), kHere, "no copy");
  EXPECT_NE(copy.get(), name.get());
  EXPECT_EQ(X509_NAME_cmp(copy.get(), name.get()), 0);
}

TEST(References, CopyThatOpenSSLRefuses_ThrowsAndLeavesNoError) {
  const auto refuse = [](const X509_NAME* /*name*/) -> X509_NAME* {
    ERR_raise(ERR_LIB_X509, X509_R_WRONG_TYPE);
    return nullptr;
  };
  ERR_clear_error();
  const Owned<X509_NAME> name = Pki::makeName("CN=A");
  const std::string line = std::to_string(__LINE__ + 2);
  try {
    newCopy<X509_NAME>(refuse, name.get(), kHere, "no copy");
    ADD_FAILURE() << "copied";
  } catch (const Exception& e) {
    EXPECT_EQ(e.asString(), "Context: no copy (4, Source:" + line + ")");
  }
  EXPECT_EQ(ERR_peek_error(), 0UL);
}

}  // namespace
}  // namespace Velantrix::Crypto
