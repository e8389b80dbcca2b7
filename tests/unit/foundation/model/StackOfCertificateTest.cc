#include "support/Handles.h"
#include "support/Pki.h"

#include <velantrix/StackOfCertificate.h>

#include <gtest/gtest.h>
#include <list>

namespace Velantrix::Crypto::PKX509 {
namespace {

namespace Pki = Velantrix::Test;

TEST(StackOfCertificate, FromAList_TheSameX509sInOrderWithTheirOwnReferences) {
  RefStackOfCertificate stack;
  const Pki::Issued first = Pki::issueCA("CN=1");
  const Pki::Issued second = Pki::issueCA("CN=2");
  {
    const std::list<RefCertificate> certificates = {Pki::handle(first), RefCertificate(),
                                                    Pki::handle(second)};
    stack = RefStackOfCertificate(certificates);
  }
  STACK_OF(X509)* native = stack;
  ASSERT_EQ(sk_X509_num(native), 2);
  EXPECT_EQ(sk_X509_value(native, 0), first.get());
  EXPECT_EQ(sk_X509_value(native, 1), second.get());
  EXPECT_EQ(static_cast<stack_st_X509*>(RefStackOfCertificate()), nullptr);
  const RefStackOfCertificate none{std::list<RefCertificate>()};
  EXPECT_EQ(sk_X509_num(none), 0);
}

}  // namespace
}  // namespace Velantrix::Crypto::PKX509
