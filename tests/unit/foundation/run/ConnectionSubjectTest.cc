#include "foundation/run/ConnectionSubject.h"
#include "foundation/run/VerificationRun.h"
#include "support/LogCapture.h"
#include "support/Pki.h"

#include <chrono>
#include <gtest/gtest.h>
#include <thread>

namespace Velantrix::Test {
namespace {

using namespace std::chrono_literals;
using Crypto::PKX509::connectionAdmitted;
using Crypto::PKX509::ConnectionSubject;
using Crypto::PKX509::isForStranger;
using Crypto::PKX509::isVouchedFor;
using Crypto::PKX509::VerificationRun;

// Says what it was told to say.
class Subject final : public ConnectionSubject {
 public:
  explicit Subject(bool admitted, X509* vouched = nullptr)
      : admitted_(admitted), vouched_(vouched) {}
  bool vouched() override { return admitted_; }
  bool admits() override {
    ++asked;
    return admitted_;
  }
  bool vouchesFor(X509* certificate) override { return certificate == vouched_; }

  int asked = 0;

 private:
  bool admitted_;
  X509* vouched_;
};

TEST(ConnectionAdmitted, NothingGoesOn_IsAdmitted) {
  LogCapture log;
  EXPECT_EQ(ConnectionSubject::current(), nullptr);
  EXPECT_TRUE(connectionAdmitted());
  EXPECT_EQ(log.text(), "");
}

TEST(ConnectionAdmitted, BySubject_InARunAndOutsideOne) {
  for (const bool admitted : {true, false}) {
    {
      Subject subject(admitted);
      EXPECT_EQ(connectionAdmitted(), admitted);
      EXPECT_EQ(subject.asked, 1);
    }
    const VerificationRun run(nullptr);
    EXPECT_TRUE(connectionAdmitted());
    Subject subject(admitted);
    EXPECT_EQ(connectionAdmitted(), admitted);
  }
}

TEST(ConnectionAdmitted, InnerSubject_StandsInFrontOfTheOuter) {
  const VerificationRun run(nullptr);
  const Subject outer(true);
  {
    const Subject inner(false);
    EXPECT_FALSE(connectionAdmitted());
  }
  EXPECT_TRUE(connectionAdmitted());
}

// The path of a CRL's issuer is verified while a certificate is checked, and is another's: a
// forgery down there does not count up here, nor the other way round.
TEST(ConnectionAdmitted, NestedRun_HasItsOwnSubject) {
  const VerificationRun run(nullptr);
  const Subject outer(false);
  {
    const VerificationRun nested(nullptr);
    EXPECT_EQ(ConnectionSubject::current(), nullptr);
    EXPECT_TRUE(connectionAdmitted());
    {
      const Subject inner(false);
      EXPECT_FALSE(connectionAdmitted());
    }
    const Subject inner(true);
    EXPECT_TRUE(connectionAdmitted());
  }
  EXPECT_EQ(ConnectionSubject::current(), &outer);
  EXPECT_FALSE(connectionAdmitted());
}

TEST(ConnectionAdmitted, EachThread_HasItsOwn) {
  const Subject subject(false);
  bool admitted = false;
  std::thread([&admitted] { admitted = connectionAdmitted(); }).join();
  EXPECT_TRUE(admitted);
}

TEST(ConnectionSubject, EachStranger_HasFewLookups) {
  const LogCapture log;
  const VerificationRun run(static_cast<const X509*>(nullptr));
  for (int i = 0; i < 100; ++i) EXPECT_TRUE(VerificationRun::admitLookup());
  EXPECT_FALSE(isForStranger());
  for (int stranger = 0; stranger < 2; ++stranger) {
    const Subject subject(false);
    EXPECT_TRUE(isForStranger());
    for (int i = 0; i < 32; ++i) EXPECT_TRUE(VerificationRun::admitLookup());
    EXPECT_EQ(run.fellShort(), stranger > 0);
    for (int i = 0; i < 3; ++i) EXPECT_FALSE(VerificationRun::admitLookup());
    EXPECT_TRUE(run.fellShort());
  }
  const Subject known(true);
  EXPECT_FALSE(isForStranger());
  for (int i = 164; i < 256; ++i) EXPECT_TRUE(VerificationRun::admitLookup());
  EXPECT_FALSE(VerificationRun::admitLookup());
  EXPECT_EQ(
      log.texts(),
      (std::vector<std::string>{
          "Verifier: too many CRL look-ups for a certificate that no trust anchor vouches for, "
          "the rest of them find no more CRLs",
          "Verifier: too many CRL look-ups, the rest of this verification finds no more CRLs"}));
}

TEST(ConnectionAdmitted, NoTimeLeftForTheNetwork_IsRefusedWithOneLine) {
  LogCapture log;
  VerificationRun run(nullptr, {.networkTime = 60s});
  const Subject subject(true);
  EXPECT_TRUE(connectionAdmitted());
  run.network().countTime(60s);
  for (int i = 0; i < 3; ++i) EXPECT_FALSE(connectionAdmitted());
  EXPECT_EQ(log.text(),
            "6 Verifier: the time for the network is spent, the rest of this verification reaches "
            "no host\n");
  EXPECT_TRUE(run.fellShort());
}

// Nothing that a genuine certificate would need is given up for a forged one.
TEST(ConnectionAdmitted, RefusedBySubjectAndNoTime_SaysNothingOfTheTime) {
  LogCapture log;
  VerificationRun run(nullptr, {.networkTime = 1s});
  run.network().countTime(2s);
  const Subject subject(false);
  EXPECT_FALSE(connectionAdmitted());
  EXPECT_EQ(log.text(), "");
  EXPECT_FALSE(run.fellShort());
}

TEST(IsVouchedFor, AsTheSubjectOfTheRunSays) {
  const Issued known = issueCA("CN=Known");
  const Issued other = issueCA("CN=Other");
  EXPECT_FALSE(isVouchedFor(known.get()));
  const VerificationRun run(nullptr);
  EXPECT_FALSE(isVouchedFor(known.get()));
  const Subject subject(true, known.get());
  EXPECT_TRUE(isVouchedFor(known.get()));
  EXPECT_FALSE(isVouchedFor(other.get()));
  const VerificationRun nested(nullptr);
  EXPECT_FALSE(isVouchedFor(known.get()));
}

}  // namespace
}  // namespace Velantrix::Test
