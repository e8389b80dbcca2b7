#include "foundation/net/AddressAdmission.h"
#include "support/LogCapture.h"

#include <gtest/gtest.h>
#include <string>
#include <thread>

namespace Velantrix::Test {
namespace {

using Crypto::PKX509::AddressPolicy;

class AddressAdmissionTest : public testing::Test {
 protected:
  ~AddressAdmissionTest() override { AddressPolicy::process(AddressPolicy::everything()); }

  static bool admits(const char* address) {
    return AddressAdmission::admits(boost::asio::ip::make_address(address));
  }
  static std::string line(const std::string& what) {
    return "6 HTTP::Connection: the address policy refuses a" + what + "\n";
  }

  LogCapture log;
};

TEST_F(AddressAdmissionTest, NobodySaidAnything_AllIsAdmitted) {
  for (const char* address : {"127.0.0.1", "::1", "0.0.0.0", "224.0.0.1", "8.8.8.8"}) {
    EXPECT_TRUE(admits(address)) << address;
  }
  EXPECT_EQ(log.text(), "");
}

TEST_F(AddressAdmissionTest, Refusal_OneLineForEachKind) {
  const AddressAdmission admission(
      AddressPolicy::publicOnly().refuse(AddressPolicy::Kind::kPublic));
  for (int i = 0; i < 2; ++i) {
    for (const char* address : {"127.0.0.1", "::ffff:127.0.0.2", "0.0.0.0", "169.254.169.254",
                                "ff02::1", "10.0.0.1", "8.8.8.8"}) {
      EXPECT_FALSE(admits(address)) << address;
    }
  }
  EXPECT_EQ(log.text(),
            line(" loopback address: 127.0.0.1") + line("n unspecified address: 0.0.0.0") +
                line(" link-local address: 169.254.169.254") + line(" multicast address: ff02::1") +
                line(" private address: 10.0.0.1") + line(" public address: 8.8.8.8"));
}

TEST_F(AddressAdmissionTest, BothHaveToConsent) {
  const AddressAdmission admission(AddressPolicy().refuse(AddressPolicy::Kind::kPrivate));
  EXPECT_TRUE(admits("127.0.0.1"));
  EXPECT_FALSE(admits("10.0.0.1"));
  AddressPolicy::process(AddressPolicy().refuse(AddressPolicy::Kind::kLoopback));
  EXPECT_FALSE(admits("127.0.0.1"));
  EXPECT_FALSE(admits("10.0.0.1"));
  EXPECT_TRUE(admits("8.8.8.8"));
}

TEST_F(AddressAdmissionTest, ProcessAlone_HoldsOnEveryThread) {
  AddressPolicy::process(AddressPolicy::publicOnly());
  EXPECT_FALSE(admits("127.0.0.1"));
  bool admitted = true;
  std::thread([&admitted] { admitted = admits("127.0.0.1"); }).join();
  EXPECT_FALSE(admitted);
  EXPECT_EQ(log.count("refuses a loopback address: 127.0.0.1"), 2U);
}

TEST_F(AddressAdmissionTest, HoldsWhileItLivesOnItsThread) {
  {
    const AddressAdmission outer(AddressPolicy::publicOnly());
    EXPECT_FALSE(admits("10.0.0.1"));
    {
      const AddressAdmission inner(AddressPolicy::publicAndPrivate());
      EXPECT_TRUE(admits("10.0.0.1"));
    }
    EXPECT_FALSE(admits("10.0.0.1"));
    bool admitted = false;
    std::thread([&admitted] { admitted = admits("10.0.0.1"); }).join();
    EXPECT_TRUE(admitted);
  }
  EXPECT_TRUE(admits("10.0.0.1"));
}

}  // namespace
}  // namespace Velantrix::Test
