#include "foundation/openssl/OpenSSLOwners.h"

#include <gtest/gtest.h>
#include <type_traits>

namespace Velantrix::Crypto {
namespace {

static_assert(sizeof(OwnedMemory<char>) == sizeof(char*));
static_assert(!std::is_copy_constructible_v<Owned<X509>>);

// X509s tell how many hold them: their ex-data is freed with the last reference.
struct Freed {
  Freed() : index(X509_get_ex_new_index(0, this, nullptr, nullptr, s_free)) {}

  static void s_free(void* /*object*/, void* data, CRYPTO_EX_DATA* /*all*/, int /*index*/,
                     long /*number*/, void* /*pointer*/) {
    if (data != nullptr) ++*static_cast<int*>(data);
  }

  Owned<X509> make(int& count) const {
    Owned<X509> made(X509_new());
    EXPECT_EQ(X509_set_ex_data(made.get(), index, &count), 1);
    return made;
  }

  int index;
};

const Freed& freed() {
  static const Freed made;
  return made;
}

TEST(OpenSSLOwners, Owner_GivesItsReferenceBackOnce) {
  int count = 0;
  {
    const Owned<X509> owner = freed().make(count);
    ASSERT_EQ(X509_up_ref(owner.get()), 1);
    { const Owned<X509> other(owner.get()); }
    EXPECT_EQ(count, 0);
  }
  EXPECT_EQ(count, 1);
}

TEST(OpenSSLOwners, Stack_OwnsAReferenceToEachCertificate) {
  int count = 0;
  {
    const Owned<STACK_OF(X509)> stack(sk_X509_new_null());
    for (int i = 0; i < 3; ++i) {
      ASSERT_GT(sk_X509_push(stack.get(), freed().make(count).release()), 0);
    }
    EXPECT_EQ(count, 0);
  }
  EXPECT_EQ(count, 3);
}

TEST(ErrorScope, ErrorsOfTheScope_AreGoneAndEarlierOnesStay) {
  ERR_clear_error();
  ERR_raise(ERR_LIB_X509, X509_R_WRONG_TYPE);
  const unsigned long before = ERR_peek_last_error();
  ASSERT_NE(before, 0UL);
  {
    const ErrorScope outer;
    ERR_raise(ERR_LIB_X509, X509_R_UNKNOWN_TRUST_ID);
    {
      const ErrorScope inner;
      ERR_raise(ERR_LIB_X509, X509_R_INVALID_TRUST);
    }
    EXPECT_EQ(ERR_GET_REASON(ERR_peek_last_error()), X509_R_UNKNOWN_TRUST_ID);
  }
  EXPECT_EQ(ERR_get_error(), before);
  EXPECT_EQ(ERR_get_error(), 0UL);
}

}  // namespace
}  // namespace Velantrix::Crypto
