#include "support/Pki.h"

#include <velantrix/Key.h>

#include <gtest/gtest.h>
#include <type_traits>

namespace Velantrix::Crypto::PKX509 {
namespace {

namespace Pki = Velantrix::Test;

TEST(Key, BothNames_AreOneClass) {
  static_assert(std::is_same_v<PKX509::Key, Crypto::Key>);
  static_assert(std::is_same_v<PKX509::RefKey, Crypto::RefKey>);
  const Pki::Issued issued = Pki::issueCA("CN=A");
  ASSERT_EQ(EVP_PKEY_up_ref(issued.key.get()), 1);
  const RefKey key(new Key(issued.key.get()));
  EXPECT_EQ(key->keyData(), issued.key.get());
}

}  // namespace
}  // namespace Velantrix::Crypto::PKX509
