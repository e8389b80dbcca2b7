// How often a verification asks the kernel when nothing has changed since the one before, though its store is
// new: the files are looked at, not read.
#include "foundation/base/FileStamp.h"
#include "support/Cost.h"
#include "support/SystemCalls.h"
#include "unit/verify/Mail.h"

#include <pkx509/ConformingVerifier.h>
#include <pkx509/FileCache.h>
#include <pkx509/Verifier.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <functional>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <sys/syscall.h>
#include <utility>
#include <vector>

namespace Velantrix::Test {
namespace {

using namespace Crypto::PKX509;
using namespace std::chrono_literals;

std::string listOf(const std::vector<long>& calls) {
  std::ostringstream text;
  text << calls.size() << " calls:";
  for (const long call : calls) text << ' ' << call;
  return text.str();
}

std::size_t countOf(const std::vector<long>& calls, long wanted) {
  return static_cast<std::size_t>(std::count(calls.begin(), calls.end(), wanted));
}

// A run that lasts longer than a millisecond looks at directories again and reads a clock more, and who is
// watched is slow. So the one with the fewest counts.
std::vector<long> fewestOf(const std::function<void()>& step, std::size_t enough) {
  constexpr int kTries = 100;
  std::vector<long> fewest = systemCallsOf(step);
  for (int i = 0; i < kTries && fewest.size() > enough; ++i) {
    std::vector<long> calls = systemCallsOf(step);
    if (calls.size() < fewest.size()) fewest = std::move(calls);
  }
  return fewest;
}

template <class V>
void expectFew(std::size_t most) {
  const Mail mail;
  const StampClockAhead settled(3s);
  FileCache::clear();
  mail.verify<V>();
  mail.verify<V>();
  if (!costsCanBeMeasured()) return;
  const std::vector<long> calls = fewestOf([&] { mail.verify<V>(); }, most);
  EXPECT_LE(calls.size(), most) << listOf(calls);
  EXPECT_EQ(countOf(calls, SYS_openat), 0U) << listOf(calls);
  EXPECT_EQ(countOf(calls, SYS_getdents64), 0U) << listOf(calls);

  FileCache::clear();
  const std::vector<long> cold = systemCallsOf([&] { mail.verify<V>(); });
  EXPECT_GT(countOf(cold, SYS_openat), 0U) << listOf(cold);
  EXPECT_GT(countOf(cold, SYS_getdents64), 0U) << listOf(cold);
}

TEST(VerifierCalls, Verifier_MakesTwelveOfTheKernel_WhereNothingHasChanged) {
  expectFew<Verifier>(12);
}

TEST(VerifierCalls, ConformingVerifier_MakesTenOfTheKernel_WhereNothingHasChanged) {
  expectFew<ConformingVerifier>(10);
}

}  // namespace
}  // namespace Velantrix::Test
