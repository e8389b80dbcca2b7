// How often a verification asks the kernel when nothing has changed since the one before, though its store is
// new: the files are looked at, not read.
#include "foundation/base/FileStamp.h"
#include "support/Cost.h"
#include "support/Files.h"
#include "support/Handles.h"
#include "support/Pki.h"
#include "support/SystemCalls.h"

#include <pkx509/ConformingVerifier.h>
#include <pkx509/FileCache.h>
#include <pkx509/HashDirLookup.h>
#include <pkx509/Verifier.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <functional>
#include <gtest/gtest.h>
#include <list>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <sys/syscall.h>
#include <type_traits>
#include <utility>
#include <vector>

namespace Velantrix::Test {
namespace {

using namespace Crypto::PKX509;
using namespace std::chrono_literals;

// A directory of a trust anchor and CRLs, and what a message brings.
class Mail {
 public:
  Mail()
      : root_(issue({.subject = "CN=Root,O=Calls", .ca = true})),
        intermediate_(issue({.subject = "CN=Intermediate,O=Calls", .issuer = &root_, .ca = true})),
        leaf_(handle(issue({.subject = "CN=Leaf,O=Calls", .issuer = &intermediate_}))),
        intermediates_{handle(intermediate_)},
        untrusted_(intermediates_) {
    addToDirectory(directory_.path(), root_.get());
    addToDirectory(directory_.path(), makeCRL({.issuer = &root_}).get());
    addToDirectory(directory_.path(), makeCRL({.issuer = &intermediate_}).get());
  }

  template <class V>
  void verify() const {
    const std::string directory = directory_.string();
    RefObjectStore store(directory, X509_FILETYPE_PEM);
    store->add(RefLookupMethod(new HashDirLookupMethod(directory)));
    store->add(intermediates_);
    const auto verifier = make<V>(store);
    if (verifier->isValid() != X509_V_OK) throw std::runtime_error("not valid");
  }

 private:
  template <class V>
  std::unique_ptr<Verifier> make(const RefObjectStore& store) const {
    if constexpr (std::is_same_v<V, Verifier>) {
      return std::make_unique<Verifier>(store, leaf_, untrusted_, false);
    } else {
      return std::make_unique<V>(store, leaf_, untrusted_);
    }
  }

  const TempDir directory_;
  const Issued root_;
  const Issued intermediate_;
  const RefCertificate leaf_;
  const std::list<RefCertificate> intermediates_;
  const RefStackOfCertificate untrusted_;
};

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

TEST(VerificationCalls, Verifier_MakesTwelveOfTheKernel_WhereNothingHasChanged) {
  expectFew<Verifier>(12);
}

TEST(VerificationCalls, ConformingVerifier_MakesTenOfTheKernel_WhereNothingHasChanged) {
  expectFew<ConformingVerifier>(10);
}

}  // namespace
}  // namespace Velantrix::Test
