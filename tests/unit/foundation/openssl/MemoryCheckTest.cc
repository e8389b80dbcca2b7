#include "foundation/openssl/MemoryCheck.h"

#include <openssl/err.h>

#include <gtest/gtest.h>
#include <new>

namespace Velantrix::Test {
namespace {

void lackOfMemory() { ERR_raise(ERR_LIB_ASN1, ERR_R_MALLOC_FAILURE); }
void malformed() { ERR_raise(ERR_LIB_ASN1, ERR_R_NESTED_ASN1_ERROR); }

// Errors that others have left stay out of it, and with them.
class MemoryCheck : public testing::Test {
 protected:
  MemoryCheck() { ERR_clear_error(); }
  ~MemoryCheck() override { ERR_clear_error(); }
};

TEST_F(MemoryCheck, MalformedInput_IsNoLackOfMemory) {
  const Crypto::MemoryCheck memory;
  EXPECT_NO_THROW(memory.orThrow());
  malformed();
  EXPECT_NO_THROW(memory.orThrow());
}

TEST_F(MemoryCheck, LackOfMemory_IsFoundBelowTheErrorsThatFollowFromIt) {
  const Crypto::MemoryCheck memory;
  lackOfMemory();
  malformed();
  malformed();
  EXPECT_THROW(memory.orThrow(), std::bad_alloc);
}

TEST_F(MemoryCheck, LackOfMemoryBefore_IsNotBlamedOnTheCall) {
  lackOfMemory();
  const unsigned long before = ERR_peek_error();
  const Crypto::MemoryCheck memory;
  malformed();
  EXPECT_NO_THROW(memory.orThrow());
  EXPECT_EQ(ERR_peek_error(), before);
}

TEST_F(MemoryCheck, BehindOtherErrors_TheLastOneDecides) {
  malformed();
  const Crypto::MemoryCheck memory;
  lackOfMemory();
  EXPECT_THROW(memory.orThrow(), std::bad_alloc);
}

}  // namespace
}  // namespace Velantrix::Test
