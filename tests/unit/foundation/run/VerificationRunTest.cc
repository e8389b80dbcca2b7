#include "foundation/base/Log.h"
#include "foundation/run/VerificationRun.h"
#include "support/LogCapture.h"
#include "support/Pki.h"

#include <velantrix/Buffer.h>
#include <velantrix/CertificateFactory.h>

#include <chrono>
#include <functional>
#include <gtest/gtest.h>
#include <limits>
#include <list>
#include <memory>
#include <stdexcept>
#include <stop_token>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace Velantrix::Test {
namespace {

using namespace std::chrono_literals;
using Crypto::PKX509::guardedCallback;
using Crypto::PKX509::guardedCleanup;
using Crypto::PKX509::VerificationRun;

constexpr char kTimeSpent[] =
    "6 Verifier: the time for the network is spent, the rest of this verification reaches no "
    "host\n";
constexpr char kBytesSpent[] =
    "6 Verifier: too many bytes of CRLs, the rest of this verification fetches no more\n";
constexpr char kTooMany[] =
    "Verifier: too many CRL look-ups, the rest of this verification finds no more CRLs";

TEST(VerificationRun, Current_IsTheInnermost) {
  EXPECT_EQ(VerificationRun::current(), nullptr);
  {
    const VerificationRun outer(nullptr);
    EXPECT_EQ(VerificationRun::current(), &outer);
    {
      const VerificationRun inner(nullptr);
      EXPECT_EQ(VerificationRun::current(), &inner);
    }
    EXPECT_EQ(VerificationRun::current(), &outer);
  }
  EXPECT_EQ(VerificationRun::current(), nullptr);
}

TEST(VerificationRun, EachThread_HasItsOwn) {
  const VerificationRun run(nullptr);
  VerificationRun* seen = VerificationRun::current();
  std::thread([&seen] { seen = VerificationRun::current(); }).join();
  EXPECT_EQ(seen, nullptr);
}

TEST(VerificationRun, NinthLevel_IsRefused) {
  std::vector<std::unique_ptr<VerificationRun>> runs;
  for (int level = 1; level <= 8; ++level) {
    runs.push_back(std::make_unique<VerificationRun>(nullptr));
    EXPECT_EQ(runs.back()->refusal(), nullptr) << level;
  }
  runs.push_back(std::make_unique<VerificationRun>(nullptr));
  EXPECT_STREQ(runs.back()->refusal(), "verifications are nested too deep");
  while (!runs.empty()) runs.pop_back();  // innermost first
}

TEST(VerificationRun, SixtyFifthNested_IsRefusedAndTheOutermostNever) {
  for (int outermost = 0; outermost < 2; ++outermost) {
    const VerificationRun run(nullptr);
    EXPECT_EQ(run.refusal(), nullptr);
    for (int nested = 1; nested <= 64; ++nested) {
      EXPECT_EQ(VerificationRun(nullptr).refusal(), nullptr) << nested;
    }
    EXPECT_STREQ(VerificationRun(nullptr).refusal(), "too many nested verifications");
  }
}

TEST(VerificationRun, NestedOfAllLevels_CountTogether) {
  const VerificationRun outermost(nullptr);
  for (int i = 0; i < 32; ++i) {
    const VerificationRun second(nullptr);
    ASSERT_EQ(second.refusal(), nullptr);
    EXPECT_EQ(VerificationRun(nullptr).refusal(), nullptr);
  }
  EXPECT_STREQ(VerificationRun(nullptr).refusal(), "too many nested verifications");
}

TEST(VerificationRun, TargetOfAnEnclosingRun_IsRefused) {
  const Issued a = issueCA("CN=A");
  const Issued b = issueCA("CN=B");
  const Issued copy{certFromDer(der(a.get())), a.key};
  const VerificationRun outermost(a.get());
  EXPECT_STREQ(VerificationRun(a.get()).refusal(), "its own verification depends on it");
  const VerificationRun second(b.get());
  EXPECT_EQ(second.refusal(), nullptr);
  EXPECT_STREQ(VerificationRun(copy.get()).refusal(), "its own verification depends on it");
  EXPECT_EQ(VerificationRun(nullptr).refusal(), nullptr);
}

TEST(VerificationRun, TargetOfARunThatHasEnded_IsNotRefused) {
  const Issued a = issueCA("CN=A");
  const VerificationRun outermost(nullptr);
  EXPECT_EQ(VerificationRun(a.get()).refusal(), nullptr);
  EXPECT_EQ(VerificationRun(a.get()).refusal(), nullptr);
}

TEST(VerificationRun, Lookups_AreCountedOverAllRunsAndRefusedWithOneLine) {
  LogCapture log;
  const VerificationRun outermost(nullptr);
  for (int i = 0; i < 128; ++i) EXPECT_TRUE(VerificationRun::admitLookup());
  {
    const VerificationRun nested(nullptr);
    const VerificationRun shelter{VerificationRun::Shelter{}};
    for (int i = 0; i < 128; ++i) EXPECT_TRUE(VerificationRun::admitLookup());
    EXPECT_EQ(log.text(), "");
    EXPECT_FALSE(VerificationRun::admitLookup());
  }
  EXPECT_FALSE(VerificationRun::admitLookup());
  EXPECT_EQ(log.text(), std::string("7 ") + kTooMany + "\n");
}

TEST(VerificationRun, LookupsOutsideARun_AreNotCounted) {
  for (int i = 0; i < 1000; ++i) EXPECT_TRUE(VerificationRun::admitLookup());
  EXPECT_TRUE(VerificationRun::mayLookUp());
}

TEST(VerificationRun, AskingAhead_CountsNothingAndIsRefusedAsALookup) {
  LogCapture log;
  const VerificationRun outermost(nullptr);
  for (int i = 0; i < 1000; ++i) EXPECT_TRUE(VerificationRun::mayLookUp());
  for (int i = 0; i < 256; ++i) EXPECT_TRUE(VerificationRun::admitLookup());
  EXPECT_FALSE(outermost.fellShort());
  for (int i = 0; i < 2; ++i) EXPECT_FALSE(VerificationRun::mayLookUp());
  EXPECT_TRUE(outermost.fellShort());
  EXPECT_EQ(log.text(), std::string("7 ") + kTooMany + "\n");
}

/// Keeps the processor busy for as long as the condition holds.
void busyWhile(const std::function<bool()>& condition) {
  while (condition()) {
  }
}

TEST(VerificationRun, ProcessorTime_IsOneForAllRunsAndRefusedWithOneLine) {
  const LogCapture log;
  const VerificationRun outermost(nullptr, {.processorTime = 20ms});
  EXPECT_TRUE(VerificationRun::admitStep());
  EXPECT_TRUE(VerificationRun::admitLookup());
  EXPECT_FALSE(outermost.fellShort());
  {
    // Its own limit would be longer.
    const VerificationRun nested(nullptr, {.processorTime = 1h});
    busyWhile([] { return VerificationRun::admitStep(); });
    EXPECT_TRUE(nested.fellShort());
    EXPECT_GE(nested.processorTime().value_or(0ns), 20ms) << "of the outermost, for all";
  }
  EXPECT_FALSE(VerificationRun::admitStep());
  EXPECT_FALSE(VerificationRun::admitLookup());
  EXPECT_TRUE(outermost.fellShort());
  EXPECT_EQ(log.text(),
            "6 Verifier: the processor time is spent, the rest of this verification is left out\n");
}

TEST(VerificationRun, AskedToStop_RefusesAllRunsWithOneLine) {
  const LogCapture log;
  std::stop_source source;
  const VerificationRun outermost(nullptr, {.stop = source.get_token()});
  EXPECT_TRUE(VerificationRun::mayGoOn());
  EXPECT_TRUE(VerificationRun::admitStep());
  EXPECT_TRUE(VerificationRun::admitLookup());
  {
    const VerificationRun nested(nullptr);
    source.request_stop();
    EXPECT_TRUE(outermost.spent().empty()) << "nothing was left out so far";
    EXPECT_FALSE(outermost.fellShort());
    EXPECT_FALSE(VerificationRun::admitStep());
    EXPECT_TRUE(nested.fellShort());
    EXPECT_EQ(VerificationRun::refusedLast(), "cancelled");
    EXPECT_EQ(VerificationRun::endOfNetwork(), "cancelled");
  }
  EXPECT_FALSE(VerificationRun::mayGoOn());
  EXPECT_FALSE(VerificationRun::admitLookup());
  EXPECT_FALSE(VerificationRun::mayLookUp());
  EXPECT_FALSE(NetworkBudget::hasTime());
  EXPECT_TRUE(outermost.fellShort());
  EXPECT_EQ(outermost.spent(), std::vector<std::string_view>{"cancelled"});
  EXPECT_EQ(log.text(),
            "6 Verifier: somebody asks to stop, the rest of this verification is left out\n");
}

TEST(VerificationRun, TokenOfANestedRun_IsNotItsOwn) {
  std::stop_source source;
  source.request_stop();
  const VerificationRun outermost(nullptr);
  const VerificationRun nested(nullptr, {.stop = source.get_token()});
  EXPECT_TRUE(VerificationRun::mayGoOn());
}

TEST(VerificationRun, Deadline_IsOneForAllRunsAndRefusedWithOneLine) {
  const LogCapture log;
  const VerificationRun outermost(nullptr, {.wholeTime = 20ms});
  EXPECT_TRUE(VerificationRun::admitStep());
  {
    const VerificationRun nested(nullptr, {.wholeTime = 1h});
    // Time that is waited counts as well.
    while (VerificationRun::admitStep()) std::this_thread::sleep_for(1ms);
    EXPECT_TRUE(nested.fellShort());
    EXPECT_EQ(VerificationRun::refusedLast(), "time");
    EXPECT_EQ(VerificationRun::endOfNetwork(), "time");
  }
  EXPECT_FALSE(VerificationRun::admitLookup());
  EXPECT_FALSE(NetworkBudget::hasTime());
  EXPECT_EQ(outermost.spent(), std::vector<std::string_view>{"time"});
  EXPECT_EQ(log.text(),
            "6 Verifier: the time of this verification is over, the rest of it is left out\n");
}

TEST(VerificationRun, DeadlineBeyondTheClock_IsNone) {
  const VerificationRun run(nullptr, {.wholeTime = std::chrono::steady_clock::duration::max()});
  EXPECT_TRUE(VerificationRun::mayGoOn());
  EXPECT_TRUE(NetworkBudget::hasTime());
}

TEST(VerificationRun, TimeThatIsWaited_IsNoProcessorTime) {
  const VerificationRun run(nullptr, {.processorTime = 200ms});
  const auto end = std::chrono::steady_clock::now() + 300ms;
  while (std::chrono::steady_clock::now() < end) std::this_thread::sleep_until(end);
  EXPECT_TRUE(VerificationRun::admitStep());
  ASSERT_TRUE(run.processorTime().has_value());
  EXPECT_LT(*run.processorTime(), 200ms);
}

TEST(VerificationRun, WithoutALimitOrARun_ProcessorTimeIsNotLookedAt) {
  EXPECT_TRUE(VerificationRun::admitStep());
  const VerificationRun run(nullptr);
  EXPECT_TRUE(VerificationRun::admitStep());
  const VerificationRun none(nullptr, {.processorTime = 0ns});
  EXPECT_TRUE(VerificationRun::admitStep()) << "the outermost run's limit holds";
}

TEST(VerificationRun, DecodedBytes_AreCountedOverAllRunsAndRefusedWithOneLine) {
  constexpr std::size_t kHalf = std::size_t{128} * 1024 * 1024;
  EXPECT_TRUE(VerificationRun::admitDecoding(kHalf * 4));
  const LogCapture log;
  const VerificationRun outermost(nullptr);
  EXPECT_FALSE(VerificationRun::admitDecoding(std::numeric_limits<std::size_t>::max()));
  EXPECT_TRUE(outermost.fellShort());
  const VerificationRun nested(nullptr);
  EXPECT_TRUE(VerificationRun::admitDecoding(kHalf));
  EXPECT_TRUE(VerificationRun::admitDecoding(kHalf));
  EXPECT_TRUE(VerificationRun::admitDecoding(0));
  EXPECT_FALSE(VerificationRun::admitDecoding(1));
  EXPECT_EQ(log.text(),
            "6 Verifier: too many bytes of certificates and CRLs, the rest of this verification "
            "reads no more\n");
}

struct Kept {
  int value = 0;
};

TEST(VerificationRun, WhatIsKept_LastsAsLongAsTheOutermostRun) {
  EXPECT_EQ(VerificationRun::kept<Kept>(), nullptr);
  {
    const VerificationRun outermost(nullptr);
    {
      const VerificationRun nested(nullptr);
      ASSERT_NE(VerificationRun::kept<Kept>(), nullptr);
      VerificationRun::kept<Kept>()->value = 7;
    }
    EXPECT_EQ(VerificationRun::kept<Kept>()->value, 7);
    Kept* other = VerificationRun::kept<Kept>();
    std::thread([&other] { other = VerificationRun::kept<Kept>(); }).join();
    EXPECT_EQ(other, nullptr);
  }
  const VerificationRun next(nullptr);
  EXPECT_EQ(VerificationRun::kept<Kept>()->value, 0);
}

TEST(VerificationRun, AddressPolicy_IsTheOutermostRuns) {
  using Crypto::PKX509::AddressPolicy;
  const auto loopback = boost::asio::ip::make_address("127.0.0.1");
  {
    const VerificationRun outermost(nullptr, {.addresses = AddressPolicy::publicOnly()});
    EXPECT_FALSE(AddressAdmission::admits(loopback));
    const VerificationRun nested(nullptr, {.addresses = AddressPolicy::everything()});
    EXPECT_FALSE(AddressAdmission::admits(loopback));
  }
  const VerificationRun outermost(nullptr, {.addresses = AddressPolicy::everything()});
  EXPECT_TRUE(AddressAdmission::admits(loopback));
  const VerificationRun nested(nullptr, {.addresses = AddressPolicy::publicOnly()});
  EXPECT_TRUE(AddressAdmission::admits(loopback));
}

TEST(VerificationRun, Shelter_IsNeitherALevelNorCounted) {
  const VerificationRun outermost(nullptr);
  for (int i = 0; i < 100; ++i) {
    EXPECT_EQ(VerificationRun{VerificationRun::Shelter{}}.refusal(), nullptr);
  }
  EXPECT_EQ(VerificationRun(nullptr).refusal(), nullptr);
}

X509* known(const std::string& der) {
  return VerificationRun::known(reinterpret_cast<const unsigned char*>(der.data()), der.size());
}

TEST(VerificationRun, KnownCertificate_IsFoundByItsOctetsWhileTheRunOrOneInsideItGoesOn) {
  const Issued one = issueCA("CN=One");
  const Issued other = issueCA("CN=Other");
  const std::string octets = der(one.get());
  EXPECT_EQ(known(octets), nullptr);
  {
    VerificationRun outer(nullptr);
    outer.know(one.get());
    EXPECT_EQ(known(octets), one.get());
    EXPECT_EQ(known(der(other.get())), nullptr);
    EXPECT_EQ(known(octets.substr(0, octets.size() - 1)), nullptr);
    const VerificationRun inner(nullptr);
    EXPECT_EQ(known(octets), one.get());
  }
  EXPECT_EQ(known(octets), nullptr);
}

X509* readBack(const std::string& text) {
  std::list<Crypto::PKX509::RefCertificate> certificates;
  Crypto::PKX509::CertificateFactory::read(
      Buffer(text.data(), static_cast<unsigned int>(text.size()), false), certificates);
  return certificates.front();
}

TEST(VerificationRun, KnownCertificateReadAgain_IsTheSameObject) {
  const Issued one = issueCA("CN=One");
  EXPECT_NE(readBack(pem(one.get())), one.get());
  VerificationRun run(nullptr);
  run.know(one.get());
  EXPECT_EQ(readBack(pem(one.get())), one.get());
  EXPECT_EQ(readBack(der(one.get())), one.get());
  // A trusted certificate brings trust settings along, which the known one may not have.
  std::string trusted = pem(one.get());
  for (std::size_t at = 0; (at = trusted.find(" CERTIFICATE", at)) != std::string::npos; at += 20) {
    trusted.insert(at, " TRUSTED");
  }
  EXPECT_NE(readBack(trusted), one.get());
}

TEST(VerificationRun, FirstExceptionParked_IsTheOneThatIsThrown) {
  VerificationRun run(nullptr);
  run.rethrowParked();
  EXPECT_FALSE(run.hasParked());
  run.park(std::make_exception_ptr(std::runtime_error("first")));
  run.park(std::make_exception_ptr(std::runtime_error("second")));
  EXPECT_TRUE(run.hasParked());
  try {
    run.rethrowParked();
    FAIL() << "nothing was thrown";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "first");
  }
  EXPECT_FALSE(run.hasParked());
  run.rethrowParked();
}

TEST(GuardedCallback, OutsideARun_TheExceptionPasses) {
  EXPECT_EQ(guardedCallback(0, [] { return 7; }), 7);
  EXPECT_THROW(guardedCallback(0, []() -> int { throw std::runtime_error("x"); }),
               std::runtime_error);
  EXPECT_THROW(guardedCleanup([] { throw std::runtime_error("x"); }), std::runtime_error);
}

TEST(GuardedCallback, InsideARun_TheExceptionIsParkedAndTheRestAnswersAtOnce) {
  VerificationRun run(nullptr);
  EXPECT_EQ(guardedCallback(-1, [] { return 7; }), 7);
  EXPECT_EQ(guardedCallback(-1, []() -> int { throw 42; }), -1);
  EXPECT_TRUE(run.hasParked());
  bool called = false;
  EXPECT_EQ(guardedCallback(-1,
                            [&called] {
                              called = true;
                              return 7;
                            }),
            -1);
  EXPECT_FALSE(called);
  EXPECT_THROW(run.rethrowParked(), int);
  EXPECT_EQ(guardedCallback(-1, [] { return 7; }), 7);
}

TEST(GuardedCallback, NestedRun_ParksItsOwn) {
  VerificationRun outer(nullptr);
  {
    VerificationRun inner(nullptr);
    guardedCallback(0, []() -> int { throw 1; });
    EXPECT_TRUE(inner.hasParked());
    EXPECT_FALSE(outer.hasParked());
  }
  EXPECT_EQ(guardedCallback(0, [] { return 7; }), 7);
}

TEST(GuardedCleanup, WorksAlsoWhenAnExceptionIsParked) {
  VerificationRun run(nullptr);
  guardedCleanup([] { throw 1; });
  bool called = false;
  guardedCleanup([&called] {
    called = true;
    throw 2;
  });
  EXPECT_TRUE(called);
  try {
    run.rethrowParked();
    FAIL() << "nothing was thrown";
  } catch (int first) {
    EXPECT_EQ(first, 1);
  }
}

TEST(NetworkTime, Spent_IsRefusedWithOneLine) {
  LogCapture log;
  VerificationRun run(nullptr, {.networkTime = 60s});
  EXPECT_TRUE(NetworkBudget::hasTime());
  run.network().countTime(60s - 1ns);
  EXPECT_TRUE(NetworkBudget::hasTime());
  EXPECT_EQ(log.text(), "");
  run.network().countTime(1ns);
  for (int i = 0; i < 3; ++i) EXPECT_FALSE(NetworkBudget::hasTime());
  {
    const VerificationRun nested(nullptr, {.networkTime = 60s});
    EXPECT_FALSE(NetworkBudget::hasTime());
  }
  EXPECT_EQ(log.text(), kTimeSpent);
}

TEST(NetworkTime, NextOutermostRun_BeginsAnew) {
  LogCapture log;
  for (int i = 0; i < 2; ++i) {
    VerificationRun run(nullptr, {.networkTime = 60s});
    EXPECT_TRUE(NetworkBudget::hasTime());
    run.network().countTime(61s);
    EXPECT_FALSE(NetworkBudget::hasTime());
  }
  EXPECT_EQ(log.text(), std::string(kTimeSpent) + kTimeSpent);
}

TEST(NetworkTime, NoLimit_IsNeverSpent) {
  LogCapture log;
  VerificationRun run(nullptr);
  run.network().countTime(24h * 365);
  EXPECT_TRUE(NetworkBudget::hasTime());
  EXPECT_EQ(log.text(), "");
}

TEST(NetworkTime, LimitOfANestedRun_DoesNotCount) {
  LogCapture log;
  {
    VerificationRun unlimited(nullptr);
    unlimited.network().countTime(1h);
    const VerificationRun nested(nullptr, {.networkTime = 1s});
    EXPECT_TRUE(NetworkBudget::hasTime());
  }
  {
    VerificationRun limited(nullptr, {.networkTime = 1s});
    limited.network().countTime(2s);
    const VerificationRun nested(nullptr, {.networkTime = 1h});
    EXPECT_FALSE(NetworkBudget::hasTime());
    const VerificationRun unlimited(nullptr);
    EXPECT_FALSE(NetworkBudget::hasTime());
  }
}

TEST(NetworkTime, WhatATimerTakes_CountsAgainstTheOutermostRun) {
  VerificationRun run(nullptr, {.networkTime = 60s});
  VerificationRun nested(nullptr);
  EXPECT_EQ(&nested.network(), &run.network());
  { const NetworkTimer timer(10s); }
  EXPECT_GT(run.network().timeSpent(), 0s);
}

TEST(NetworkTime, ShelterOutsideARun_HasNoLimit) {
  VerificationRun shelter{VerificationRun::Shelter{}};
  shelter.network().countTime(1h);
  EXPECT_TRUE(NetworkBudget::hasTime());
}

TEST(CRLBytes, OneVerification_Reads128MiBAndSaysOnceThatItIsEnough) {
  constexpr std::size_t kMaximum = VerificationRun::kMaximumCRLBytes;
  static_assert(kMaximum == 128 * 1024 * 1024);
  LogCapture log;
  const VerificationRun run(nullptr);
  EXPECT_EQ(NetworkBudget::admittedBytes(1000), 1000U);
  EXPECT_EQ(NetworkBudget::admittedBytes(std::numeric_limits<std::size_t>::max()), kMaximum);
  NetworkBudget::countBytes(kMaximum - 500);
  {
    const VerificationRun nested(nullptr);
    EXPECT_EQ(NetworkBudget::admittedBytes(1000), 500U);
    EXPECT_EQ(NetworkBudget::admittedBytes(499), 499U);
    NetworkBudget::countBytes(499);
  }
  EXPECT_EQ(NetworkBudget::admittedBytes(1000), 1U);
  EXPECT_EQ(log.text(), "");
  NetworkBudget::countBytes(1);
  EXPECT_EQ(NetworkBudget::admittedBytes(1000), 0U);
  EXPECT_EQ(NetworkBudget::admittedBytes(1000), 0U);
  EXPECT_EQ(log.text(), kBytesSpent);
}

TEST(FellShort, EachShare_MarksAllRunsOfTheThread) {
  const struct {
    const char* what;
    void (*use)();
    bool fallsShort;
  } rows[] = {
      {"nothing", [] {}, false},
      {"all look-ups",
       [] {
         for (int i = 0; i < 256; ++i) VerificationRun::admitLookup();
       },
       false},
      {"one look-up more",
       [] {
         for (int i = 0; i < 257; ++i) VerificationRun::admitLookup();
       },
       true},
      {"all bytes", [] { NetworkBudget::countBytes(VerificationRun::kMaximumCRLBytes); }, false},
      {"bytes when none are left",
       [] {
         NetworkBudget::countBytes(VerificationRun::kMaximumCRLBytes);
         NetworkBudget::admittedBytes(1);
       },
       true},
      {"time when none is left",
       [] {
         VerificationRun::current()->network().countTime(61s);
         NetworkBudget::hasTime();
       },
       true},
      {"a use that comes to the end of the time",
       [] {
         VerificationRun::current()->network().countTime(60s);
         const NetworkTimer timer(10s);
       },
       true},
      {"a use that comes to its own end", [] { const NetworkTimer timer(0s); }, false},
      {"memory", [] { Shortfall::note(); }, true},
  };
  for (const auto& row : rows) {
    LogCapture log;
    const VerificationRun outer(nullptr, {.networkTime = 60s});
    {
      const VerificationRun inner(nullptr);
      row.use();
      EXPECT_EQ(inner.fellShort(), row.fallsShort) << row.what;
    }
    EXPECT_EQ(outer.fellShort(), row.fallsShort) << row.what;
    const VerificationRun next(nullptr);
    EXPECT_EQ(next.fellShort(), row.fallsShort) << row.what;
  }
}

TEST(CRLBytes, NextOutermostRun_BeginsAnew) {
  LogCapture log;
  {
    const VerificationRun run(nullptr);
    NetworkBudget::countBytes(VerificationRun::kMaximumCRLBytes);
  }
  const VerificationRun run(nullptr);
  EXPECT_EQ(NetworkBudget::admittedBytes(1000), 1000U);
}

TEST(LogLines, OneVerificationWithAllThatAreNested_Writes200AndTheNextOneAgain) {
  for (int i = 0; i < 2; ++i) {
    const LogCapture log;
    {
      const VerificationRun outermost(nullptr);
      for (int k = 0; k < 50; ++k) {
        const VerificationRun nested(nullptr);
        Velantrix::log(7, "nested");
        const VerificationRun shelter{VerificationRun::Shelter()};
        for (int line = 0; line < 9; ++line) Velantrix::log(7, "sheltered");
      }
      EXPECT_EQ(log.count("nested") + log.count("sheltered"), 200U);
    }
    EXPECT_EQ(log.lines().size(), 202U);
    EXPECT_EQ(log.texts().back(), "Verifier: 300 lines of this verification are left out");
  }
}

}  // namespace
}  // namespace Velantrix::Test
