// What stays of verifications when they are over. With PKX509_VERIFICATIONS in the environment so many are
// made.
#include "foundation/base/FileStamp.h"
#include "support/Cost.h"
#include "unit/verify/Mail.h"

#include <pkx509/FileCache.h>

#include <chrono>
#include <cstdlib>
#include <gtest/gtest.h>
#include <malloc.h>

namespace Velantrix::Test {
namespace {

using namespace Crypto::PKX509;
using namespace std::chrono_literals;

long wantedVerifications() {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): there are no threads.
  const char* const wanted = std::getenv("PKX509_VERIFICATIONS");
  return wanted == nullptr ? 500 : std::atol(wanted);
}

// By malloc(), and not given back.
std::size_t taken() {
  const struct mallinfo2 all = mallinfo2();
  return all.uordblks + all.hblkhd;
}

template <class V>
void expectFlat() {
  const Mail mail;
  const StampClockAhead settled(3s);
  FileCache::clear();
  const auto verifyMany = [&](long count) {
    for (long i = 0; i < count; ++i) mail.verify<V>();
  };
  verifyMany(50);
  const std::size_t before = taken();
  verifyMany(wantedVerifications());
  if (!costsCanBeMeasured()) return;
  // Less than an octet for each.
  EXPECT_LE(taken(), before + 400);
}

TEST(VerifierMemory, Verifier_LeavesNothing) { expectFlat<Verifier>(); }

TEST(VerifierMemory, ConformingVerifier_LeavesNothing) { expectFlat<ConformingVerifier>(); }

}  // namespace
}  // namespace Velantrix::Test
