// Races made on purpose: which of them RaceReports.cc leaves out, and that it leaves out no other.
// Each is made in a process of its own, under the options of the other tests.
#include "support/Pki.h"

#include <openssl/asn1.h>
#include <openssl/crypto.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <gtest/gtest.h>
#include <thread>

namespace Velantrix::Test {
namespace {

/// ThreadSanitizer's exit status when there was something to report.
constexpr int kReported = 66;

class RaceReportThreads : public testing::Test {
 protected:
  RaceReportThreads() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

/// Runs one after the other, in threads between which ThreadSanitizer sees no order, and exits.
template <typename First, typename Second>
[[noreturn]] void race(First first, Second second) {
  std::atomic<bool> firstIsDone = false;
  std::thread one([&] {
    first();
    firstIsDone.store(true, std::memory_order_relaxed);
  });
  std::thread two([&] {
    while (!firstIsDone.load(std::memory_order_relaxed)) std::this_thread::yield();
    second();
  });
  one.join();
  two.join();
  std::exit(0);
}

unsigned char g_ours[8] = {};
void writeOurs() { g_ours[3] = 1; }

Owned<ASN1_STRING> madeString() {
  Owned<ASN1_STRING> string(ASN1_OCTET_STRING_new());
  EXPECT_EQ(ASN1_STRING_set(string.get(), "01234567", sizeof g_ours), 1);
  return string;
}

/// OpenSSL's memcpy from `octets`, into memory that no other thread sees.
void haveCopied(const unsigned char* octets) {
  EXPECT_EQ(ASN1_STRING_set(madeString().get(), octets, sizeof g_ours), 1);
}

/// OpenSSL's memcpy into the memory of `string`, which is large enough.
void haveOverwritten(ASN1_STRING* string) {
  EXPECT_EQ(ASN1_STRING_set(string, "abcdefg", sizeof g_ours - 1), 1);
}

TEST_F(RaceReportThreads, BothInsideLibcrypto_IsLeftOut) {
  const Owned<ASN1_STRING> string = madeString();
  const unsigned char* octets = ASN1_STRING_get0_data(string.get());
  EXPECT_EXIT(race([&] { haveOverwritten(string.get()); }, [&] { haveCopied(octets); }),
              testing::ExitedWithCode(0), "left out a data race inside libcrypto");
}

// A report then says where the thread has slept, too.
TEST_F(RaceReportThreads, BothInsideLibcrypto_TheSecondAfterASleep_IsLeftOut) {
  const Owned<ASN1_STRING> string = madeString();
  const unsigned char* octets = ASN1_STRING_get0_data(string.get());
  const auto copyAfterASleep = [&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    haveCopied(octets);
  };
  EXPECT_EXIT(race([&] { haveOverwritten(string.get()); }, copyAfterASleep),
              testing::ExitedWithCode(0), "left out a data race inside libcrypto");
}

TEST_F(RaceReportThreads, OurWriteBeforeOpenSSLCopies_IsReported) {
  EXPECT_EXIT(race(writeOurs, [] { haveCopied(g_ours); }), testing::ExitedWithCode(kReported),
              "Previous write of size 1 (.|\n)*writeOurs");
}

TEST_F(RaceReportThreads, OurWriteAfterOpenSSLCopied_IsReported) {
  EXPECT_EXIT(race([] { haveCopied(g_ours); }, writeOurs), testing::ExitedWithCode(kReported),
              "  Write of size 1 (.|\n)*writeOurs");
}

TEST_F(RaceReportThreads, OurReadOfWhatOpenSSLWrote_IsReported) {
  const Owned<ASN1_STRING> string = madeString();
  const unsigned char* octets = ASN1_STRING_get0_data(string.get());
  const auto readOctet = [&] { EXPECT_NE(octets[0], 0); };
  EXPECT_EXIT(race([&] { haveOverwritten(string.get()); }, readOctet),
              testing::ExitedWithCode(kReported), "  Read of size 1 (.|\n)*Previous write of size");
}

TEST_F(RaceReportThreads, OurWriteOfWhatOpenSSLCompares_IsReported) {
  const Owned<ASN1_STRING> string = madeString();
  const Owned<ASN1_STRING> equal = madeString();
  auto* octets = const_cast<unsigned char*>(ASN1_STRING_get0_data(string.get()));
  const auto compare = [&] { EXPECT_NE(ASN1_STRING_cmp(string.get(), equal.get()), 0); };
  EXPECT_EXIT(race([&] { octets[3] = 1; }, compare), testing::ExitedWithCode(kReported),
              "memcmp(.|\n)*Previous write of size 1 ");
}

// Ours, although libcrypto is the caller on both sides.
TEST_F(RaceReportThreads, OurCallbacks_AreReported) {
  const auto callBack = [] {
    CRYPTO_ONCE once = CRYPTO_ONCE_STATIC_INIT;
    EXPECT_EQ(CRYPTO_THREAD_run_once(&once, writeOurs), 1);
  };
  EXPECT_EXIT(race(callBack, callBack), testing::ExitedWithCode(kReported),
              "writeOurs(.|\n)*Previous write (.|\n)*writeOurs");
}

// Also inside libcrypto on both sides, but no table of its own does this.
TEST_F(RaceReportThreads, MemoryThatOpenSSLFreedAndCopies_IsReported) {
  Owned<ASN1_STRING> string = madeString();
  const unsigned char* octets = ASN1_STRING_get0_data(string.get());
  EXPECT_EXIT(race([&] { string.reset(); }, [&] { haveCopied(octets); }),
              testing::ExitedWithCode(kReported), "heap-use-after-free");
}

}  // namespace
}  // namespace Velantrix::Test
