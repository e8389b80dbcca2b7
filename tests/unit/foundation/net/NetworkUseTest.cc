#include "foundation/net/NetworkUse.h"
#include "foundation/run/VerificationRun.h"
#include "support/LogCapture.h"
#include "support/Pki.h"

#include <openssl/err.h>

#include <chrono>
#include <gtest/gtest.h>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string>

namespace Velantrix::Test {
namespace {

using namespace std::chrono_literals;
using Crypto::PKX509::admittedCRLBytes;
using Crypto::PKX509::ConnectionSubject;
using Crypto::PKX509::countCRLBytes;
using Crypto::PKX509::kMaximumCRLBytes;
using Crypto::PKX509::networkAdmitted;
using Crypto::PKX509::NetworkTimer;
using Crypto::PKX509::VerificationRun;

constexpr char kForged[] =
    "6 Verifier: no connection is made for a certificate that its issuer did not sign: ";
constexpr char kTimeSpent[] =
    "6 Verifier: the time for the network is spent, the rest of this verification reaches no "
    "host\n";
constexpr char kBytesSpent[] =
    "6 Verifier: too many bytes of CRLs, the rest of this verification fetches no more\n";

// A CA, what it issued, and what only says so.
struct Chain {
  Issued root = issueCA("CN=Root");
  Issued other = issueCA("CN=Root");
  Issued genuine = issue({.subject = "CN=Genuine", .issuer = &root});
  Issued forged = issue({.subject = "CN=Forged", .issuer = &root, .badSignature = true});
  Issued foreign = issue({.subject = "CN=Foreign", .issuer = &other});
};

std::string forgedLine(const std::string& name) { return kForged + name + "\n"; }

TEST(NetworkAdmitted, NothingGoesOn_IsAdmitted) {
  LogCapture log;
  EXPECT_TRUE(networkAdmitted());
  EXPECT_EQ(log.text(), "");
}

TEST(NetworkAdmitted, BySignatureOfTheCertificateThatIsChecked) {
  const Chain chain;
  const struct {
    const char* what;
    const Issued& certificate;
    const Issued* issuer;
    bool admitted;
    std::string log;
  } rows[] = {
      {"genuine", chain.genuine, &chain.root, true, ""},
      {"signature changed", chain.forged, &chain.root, false, forgedLine("CN=Forged")},
      {"signed by another of that name", chain.foreign, &chain.root, false,
       forgedLine("CN=Foreign")},
      {"end of the chain, self-signed", chain.root, nullptr, true, ""},
      {"end of the chain, not self-signed", chain.forged, nullptr, true, ""},
  };
  for (const auto& row : rows) {
    LogCapture log;
    const VerificationRun run(nullptr);
    const ConnectionSubject subject(row.certificate.get(),
                                    row.issuer == nullptr ? nullptr : row.issuer->get());
    EXPECT_EQ(networkAdmitted(), row.admitted) << row.what;
    EXPECT_EQ(log.text(), row.log) << row.what;
  }
}

TEST(NetworkAdmitted, ForgedCertificateOutsideARun_IsRefusedToo) {
  const Chain chain;
  LogCapture log;
  const ConnectionSubject subject(chain.forged.get(), chain.root.get());
  EXPECT_FALSE(networkAdmitted());
  EXPECT_EQ(log.text(), forgedLine("CN=Forged"));
}

TEST(NetworkAdmitted, IssuerWithAKeyThatNobodyKnows_IsRefused) {
  const Chain chain;
  // 1.2.840.10045.2.1, the algorithm of the key, becomes one that OpenSSL has never heard of.
  std::string bytes = der(chain.root.get());
  const std::string algorithm = "\x2a\x86\x48\xce\x3d\x02\x01";
  const std::size_t place = bytes.find(algorithm);
  ASSERT_NE(place, std::string::npos);
  bytes[place + algorithm.size() - 1] = '\x7f';
  const Owned<X509> issuer = certFromDer(bytes);
  ERR_clear_error();
  LogCapture log;
  const ConnectionSubject subject(chain.genuine.get(), issuer.get());
  EXPECT_FALSE(networkAdmitted());
  EXPECT_EQ(log.text(), forgedLine("CN=Genuine"));
  EXPECT_EQ(ERR_peek_error(), 0U);
}

TEST(NetworkAdmitted, Refusal_LeavesNoErrorToOpenSSLAndTakesNoneAway) {
  const Chain chain;
  ERR_clear_error();
  ERR_raise(ERR_LIB_USER, 17);
  const unsigned long before = ERR_peek_last_error();
  LogCapture log;
  const ConnectionSubject subject(chain.forged.get(), chain.root.get());
  EXPECT_FALSE(networkAdmitted());
  EXPECT_EQ(ERR_peek_last_error(), before);
  EXPECT_EQ(ERR_get_error(), before);
  EXPECT_EQ(ERR_get_error(), 0U);
}

TEST(NetworkAdmitted, AskedAgain_RefusedWithoutAnotherLine) {
  const Chain chain;
  LogCapture log;
  const VerificationRun run(nullptr);
  {
    const ConnectionSubject subject(chain.forged.get(), chain.root.get());
    for (int i = 0; i < 5; ++i) EXPECT_FALSE(networkAdmitted());
    EXPECT_EQ(log.text(), forgedLine("CN=Forged"));
  }
  const ConnectionSubject subject(chain.foreign.get(), chain.root.get());
  EXPECT_FALSE(networkAdmitted());
  EXPECT_EQ(log.text(), forgedLine("CN=Forged") + forgedLine("CN=Foreign"));
}

// The signature is not looked at as long as nobody wants to connect: that is what most
// certificates, whose CRL is on the machine, would pay for.
TEST(NetworkAdmitted, NotAsked_NothingIsVerified) {
  const Chain chain;
  LogCapture log;
  const VerificationRun run(nullptr);
  { const ConnectionSubject subject(chain.forged.get(), chain.root.get()); }
  EXPECT_EQ(log.text(), "");
  EXPECT_TRUE(networkAdmitted());
}

TEST(NetworkAdmitted, ControlCharactersInTheName_StayOnOneLine) {
  const Issued root = issueCA("CN=Root");
  const Issued forged = issue({.subject = "CN=a\nb\x1b[2J", .issuer = &root, .badSignature = true});
  LogCapture log;
  const ConnectionSubject subject(forged.get(), root.get());
  EXPECT_FALSE(networkAdmitted());
  EXPECT_EQ(log.count("\n"), 0U) << log.text();
  EXPECT_EQ(log.count("\x1b"), 0U) << log.text();
  EXPECT_EQ(log.text(), forgedLine("CN=a\\0Ab\\1B[2J"));
}

TEST(NetworkAdmitted, InnerSubject_StandsInFrontOfTheOuter) {
  const Chain chain;
  LogCapture log;
  const VerificationRun run(nullptr);
  const ConnectionSubject outer(chain.genuine.get(), chain.root.get());
  {
    const ConnectionSubject inner(chain.forged.get(), chain.root.get());
    EXPECT_FALSE(networkAdmitted());
  }
  EXPECT_TRUE(networkAdmitted());
}

// The path of a CRL's issuer is verified while a certificate is checked, and is another's: a
// forgery down there does not count up here, nor the other way round.
TEST(NetworkAdmitted, NestedRun_HasItsOwnSubject) {
  const Chain chain;
  LogCapture log;
  const VerificationRun run(nullptr);
  const ConnectionSubject outer(chain.forged.get(), chain.root.get());
  {
    const VerificationRun nested(nullptr);
    EXPECT_TRUE(networkAdmitted());
    {
      const ConnectionSubject inner(chain.foreign.get(), chain.root.get());
      EXPECT_FALSE(networkAdmitted());
    }
    const ConnectionSubject inner(chain.genuine.get(), chain.root.get());
    EXPECT_TRUE(networkAdmitted());
  }
  EXPECT_FALSE(networkAdmitted());
  EXPECT_EQ(log.text(), forgedLine("CN=Foreign") + forgedLine("CN=Forged"));
}

TEST(NetworkTime, Spent_IsRefusedWithOneLine) {
  LogCapture log;
  VerificationRun run(nullptr, 60s);
  EXPECT_TRUE(networkAdmitted());
  run.network().time = 60s - 1ns;
  EXPECT_TRUE(networkAdmitted());
  EXPECT_EQ(log.text(), "");
  run.network().time = 60s;
  for (int i = 0; i < 3; ++i) EXPECT_FALSE(networkAdmitted());
  {
    const VerificationRun nested(nullptr, 60s);
    EXPECT_FALSE(networkAdmitted());
  }
  EXPECT_EQ(log.text(), kTimeSpent);
}

TEST(NetworkTime, NextOutermostRun_BeginsAnew) {
  LogCapture log;
  for (int i = 0; i < 2; ++i) {
    VerificationRun run(nullptr, 60s);
    EXPECT_TRUE(networkAdmitted());
    run.network().time = 61s;
    EXPECT_FALSE(networkAdmitted());
  }
  EXPECT_EQ(log.text(), std::string(kTimeSpent) + kTimeSpent);
}

TEST(NetworkTime, NoLimit_IsNeverSpent) {
  LogCapture log;
  VerificationRun run(nullptr);
  run.network().time = 24h * 365;
  EXPECT_TRUE(networkAdmitted());
  const NetworkTimer timer(10s);
  EXPECT_FALSE(timer.expired());
  EXPECT_GT(timer.deadline(), NetworkTimer::Clock::now() + 5s);
  EXPECT_EQ(log.text(), "");
}

TEST(NetworkTime, LimitOfANestedRun_DoesNotCount) {
  LogCapture log;
  {
    VerificationRun unlimited(nullptr);
    unlimited.network().time = 1h;
    const VerificationRun nested(nullptr, 1s);
    EXPECT_TRUE(networkAdmitted());
  }
  {
    VerificationRun limited(nullptr, 1s);
    limited.network().time = 2s;
    const VerificationRun nested(nullptr, 1h);
    EXPECT_FALSE(networkAdmitted());
    const VerificationRun unlimited(nullptr);
    EXPECT_FALSE(networkAdmitted());
  }
}

TEST(NetworkTime, ForgedCertificateAndNoTime_SaysThatItIsForged) {
  const Chain chain;
  LogCapture log;
  VerificationRun run(nullptr, 1s);
  run.network().time = 2s;
  const ConnectionSubject subject(chain.forged.get(), chain.root.get());
  EXPECT_FALSE(networkAdmitted());
  EXPECT_EQ(log.text(), forgedLine("CN=Forged"));
}

TEST(NetworkTimer, Deadline_IsTheOwnBoundOrWhatTheVerificationHasLeft) {
  using Clock = NetworkTimer::Clock;
  const struct {
    std::optional<Clock::duration> limit;
    Clock::duration spent;
    Clock::duration bound;
    Clock::duration expected;
  } rows[] = {
      {{}, 0s, 10s, 10s},  {60s, 0s, 10s, 10s},  {60s, 55s, 10s, 5s}, {60s, 50s, 10s, 10s},
      {60s, 60s, 10s, 0s}, {60s, 99s, 10s, 0s},  {0s, 0s, 10s, 0s},   {{}, 99s, 10s, 10s},
      {60s, 0s, -1s, -1s}, {60s, 60s, -1s, -1s},
  };
  for (const auto& row : rows) {
    VerificationRun run(nullptr, row.limit);
    run.network().time = row.spent;
    const VerificationRun nested(nullptr, 1ns);
    const auto before = Clock::now();
    const NetworkTimer timer(row.bound);
    const auto after = Clock::now();
    EXPECT_GE(timer.deadline(), before + row.expected);
    EXPECT_LE(timer.deadline(), after + row.expected);
    EXPECT_EQ(timer.expired(), row.expected <= 0s);
  }
}

TEST(NetworkTimer, OutsideARun_HasItsOwnBoundOnly) {
  const auto before = NetworkTimer::Clock::now();
  const NetworkTimer timer(1h);
  EXPECT_GE(timer.deadline(), before + 1h);
}

TEST(NetworkTimer, WhatItTakes_CountsAgainstTheOutermostRun) {
  using Clock = NetworkTimer::Clock;
  VerificationRun run(nullptr, 60s);
  run.network().time = 7s;
  const auto before = Clock::now();
  Clock::duration inner{};
  {
    VerificationRun nested(nullptr);
    EXPECT_EQ(&nested.network(), &run.network());
    const NetworkTimer timer(10s);
    const auto begin = Clock::now();
    while (Clock::now() < begin + 5ms) {
    }
    inner = Clock::now() - begin;
  }
  const auto spent = run.network().time - 7s;
  EXPECT_GE(spent, inner);
  EXPECT_LE(spent, Clock::now() - before);
  // It counts also when an exception ends the use.
  try {
    const NetworkTimer timer(10s);
    throw std::runtime_error("cut");
  } catch (const std::runtime_error&) {
  }
  EXPECT_GT(run.network().time - 7s, spent);
}

TEST(CRLBytes, OneVerification_Reads128MiBAndSaysOnceThatItIsEnough) {
  static_assert(kMaximumCRLBytes == 128 * 1024 * 1024);
  LogCapture log;
  const VerificationRun run(nullptr);
  EXPECT_EQ(admittedCRLBytes(1000), 1000U);
  EXPECT_EQ(admittedCRLBytes(std::numeric_limits<std::size_t>::max()), kMaximumCRLBytes);
  countCRLBytes(kMaximumCRLBytes - 500);
  {
    const VerificationRun nested(nullptr);
    EXPECT_EQ(admittedCRLBytes(1000), 500U);
    EXPECT_EQ(admittedCRLBytes(499), 499U);
    countCRLBytes(499);
  }
  EXPECT_EQ(admittedCRLBytes(1000), 1U);
  EXPECT_EQ(log.text(), "");
  countCRLBytes(1);
  EXPECT_EQ(admittedCRLBytes(1000), 0U);
  EXPECT_EQ(admittedCRLBytes(1000), 0U);
  EXPECT_EQ(log.text(), kBytesSpent);
}

TEST(CRLBytes, CountedPastTheEnd_NothingIsLeft) {
  LogCapture log;
  const VerificationRun run(nullptr);
  countCRLBytes(kMaximumCRLBytes + 1);
  EXPECT_EQ(admittedCRLBytes(1000), 0U);
}

TEST(CRLBytes, NextOutermostRun_BeginsAnew) {
  LogCapture log;
  {
    const VerificationRun run(nullptr);
    countCRLBytes(kMaximumCRLBytes);
  }
  const VerificationRun run(nullptr);
  EXPECT_EQ(admittedCRLBytes(1000), 1000U);
}

TEST(NetworkUse, OutsideARun_NothingIsRefusedAndNothingCounted) {
  LogCapture log;
  for (int i = 0; i < 4; ++i) countCRLBytes(kMaximumCRLBytes);
  EXPECT_EQ(admittedCRLBytes(kMaximumCRLBytes * 2), kMaximumCRLBytes * 2);
  { const NetworkTimer timer(1s); }
  EXPECT_TRUE(networkAdmitted());
  VerificationRun run(nullptr, 1s);
  EXPECT_EQ(run.network().crlBytes, 0U);
  EXPECT_EQ(run.network().time, 0s);
  EXPECT_EQ(log.text(), "");
}

}  // namespace
}  // namespace Velantrix::Test
