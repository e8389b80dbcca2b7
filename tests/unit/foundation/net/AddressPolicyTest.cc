#include <pkx509/AddressPolicy.h>

#include <boost/asio/ip/address.hpp>

#include <atomic>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <thread>

namespace Velantrix::Test {
namespace {

using Crypto::PKX509::AddressPolicy;
using Kind = AddressPolicy::Kind;

constexpr Kind kAll[] = {Kind::kUnspecified, Kind::kLoopback, Kind::kLinkLocal,
                         Kind::kMulticast,   Kind::kPrivate,  Kind::kPublic};

// Known when the program is compiled.
static_assert(AddressPolicy::everything() == AddressPolicy());
static_assert(!AddressPolicy::publicAndPrivate().allows(Kind::kLoopback));
static_assert(AddressPolicy::publicOnly().refusal(AddressPolicy::IPv4{10, 0, 0, 1}) ==
              Kind::kPrivate);

std::optional<Kind> refusal(const AddressPolicy& policy, const std::string& text) {
  const auto address = boost::asio::ip::make_address(text);
  return address.is_v4() ? policy.refusal(address.to_v4().to_bytes())
                         : policy.refusal(address.to_v6().to_bytes());
}

Kind kindOf(const std::string& text) {
  const auto address = boost::asio::ip::make_address(text);
  return address.is_v4() ? AddressPolicy::kindOf(address.to_v4().to_bytes())
                         : AddressPolicy::kindOf(address.to_v6().to_bytes());
}

struct Row {
  const char* address;
  Kind kind;
};

void expectKinds(std::initializer_list<Row> rows) {
  for (const Row& row : rows) {
    EXPECT_EQ(kindOf(row.address), row.kind) << row.address;
    for (const Kind refused : kAll) {
      AddressPolicy policy;
      policy.refuse(refused);
      EXPECT_EQ(refusal(policy, row.address).has_value(), refused == row.kind)
          << row.address << ' ' << static_cast<int>(refused);
    }
  }
}

TEST(AddressPolicy, IPv4_KindsToTheirLastAddress) {
  expectKinds({
      {"0.0.0.0", Kind::kUnspecified},
      {"0.255.255.255", Kind::kUnspecified},
      {"1.0.0.0", Kind::kPublic},
      {"9.255.255.255", Kind::kPublic},
      {"10.0.0.0", Kind::kPrivate},
      {"10.255.255.255", Kind::kPrivate},
      {"11.0.0.0", Kind::kPublic},
      {"100.63.255.255", Kind::kPublic},
      {"100.64.0.0", Kind::kPrivate},
      {"100.127.255.255", Kind::kPrivate},
      {"100.128.0.0", Kind::kPublic},
      {"126.255.255.255", Kind::kPublic},
      {"127.0.0.0", Kind::kLoopback},
      {"127.0.0.1", Kind::kLoopback},
      {"127.255.255.255", Kind::kLoopback},
      {"128.0.0.0", Kind::kPublic},
      {"169.253.255.255", Kind::kPublic},
      {"169.254.0.0", Kind::kLinkLocal},
      {"169.254.169.254", Kind::kLinkLocal},
      {"169.255.0.0", Kind::kPublic},
      {"172.15.255.255", Kind::kPublic},
      {"172.16.0.0", Kind::kPrivate},
      {"172.31.255.255", Kind::kPrivate},
      {"172.32.0.0", Kind::kPublic},
      {"192.0.0.255", Kind::kPrivate},
      {"192.0.1.0", Kind::kPublic},
      {"192.167.255.255", Kind::kPublic},
      {"192.168.0.0", Kind::kPrivate},
      {"192.168.255.255", Kind::kPrivate},
      {"192.169.0.0", Kind::kPublic},
      {"198.17.255.255", Kind::kPublic},
      {"198.18.0.0", Kind::kPrivate},
      {"198.19.255.255", Kind::kPrivate},
      {"198.20.0.0", Kind::kPublic},
      {"223.255.255.255", Kind::kPublic},
      {"224.0.0.0", Kind::kMulticast},
      {"239.255.255.255", Kind::kMulticast},
      {"240.0.0.0", Kind::kUnspecified},
      {"255.255.255.254", Kind::kUnspecified},
      {"255.255.255.255", Kind::kMulticast},
  });
}

TEST(AddressPolicy, IPv6_Kinds) {
  expectKinds({
      {"::", Kind::kUnspecified},
      {"::1", Kind::kLoopback},
      {"2001:db8::1", Kind::kPublic},
      {"2a00::1", Kind::kPublic},
      {"fbff::1", Kind::kPublic},
      {"fc00::1", Kind::kPrivate},
      {"fdff::1", Kind::kPrivate},
      {"fe00::1", Kind::kPublic},
      {"fe80::1", Kind::kLinkLocal},
      {"febf::1", Kind::kLinkLocal},
      {"fec0::1", Kind::kPrivate},
      {"feff::1", Kind::kPrivate},
      {"ff00::1", Kind::kMulticast},
      {"ff02::1", Kind::kMulticast},
  });
}

TEST(AddressPolicy, IPv6ThatIsAnIPv4Address_IsJudgedByIt) {
  expectKinds({
      {"::ffff:127.0.0.1", Kind::kLoopback},
      {"::ffff:10.0.0.1", Kind::kPrivate},
      {"::ffff:8.8.8.8", Kind::kPublic},
      {"::ffff:0.0.0.0", Kind::kUnspecified},
      {"::127.0.0.1", Kind::kLoopback},
      {"::0.0.0.2", Kind::kUnspecified},
      {"::ffff:0:169.254.169.254", Kind::kLinkLocal},
      {"64:ff9b::127.0.0.1", Kind::kLoopback},
      {"64:ff9b::192.168.1.1", Kind::kPrivate},
      {"64:ff9b::8.8.8.8", Kind::kPublic},
      {"64:ff9b::255.255.255.255", Kind::kMulticast},
  });
}

TEST(AddressPolicy, IPv6ThatCarriesAnIPv4Address_IsJudgedByBoth) {
  const struct {
    const char* address;
    Kind own;
    Kind inside;
  } rows[] = {
      {"2002:7f00:1::1", Kind::kPublic, Kind::kLoopback},               // 6to4
      {"2002:a9fe:a9fe::", Kind::kPublic, Kind::kLinkLocal},            // 6to4
      {"2001:0:0808:0808::80ff:fffe", Kind::kPublic, Kind::kLoopback},  // Teredo, the client
      {"2001:0:7f00:1::f7f7:f7f7", Kind::kPublic, Kind::kLoopback},     // Teredo, the server
      {"2a00::5efe:10.0.0.1", Kind::kPublic, Kind::kPrivate},           // ISATAP
      {"2a00::200:5efe:10.0.0.1", Kind::kPublic, Kind::kPrivate},       // ISATAP
      {"fe80::5efe:8.8.8.8", Kind::kLinkLocal, Kind::kPublic},
      {"64:ff9b:1::127.0.0.1", Kind::kPrivate, Kind::kLoopback},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(kindOf(row.address), row.own) << row.address;
    for (const Kind refused : kAll) {
      AddressPolicy policy;
      policy.refuse(refused);
      const std::optional<Kind> expected =
          refused == row.own || refused == row.inside ? std::optional(refused) : std::nullopt;
      EXPECT_EQ(refusal(policy, row.address), expected) << row.address;
    }
  }
  // As carriers of what is public they are as any other.
  for (const char* address : {"2002:808:808::1", "2001:0:808:808::f7f7:f7f7", "2001:1::1"}) {
    EXPECT_EQ(refusal(AddressPolicy::publicOnly(), address), std::nullopt) << address;
  }
}

TEST(AddressPolicy, Policies_AllowWhatTheirNamesSay) {
  for (const Kind kind : kAll) {
    EXPECT_TRUE(AddressPolicy().allows(kind));
    EXPECT_TRUE(AddressPolicy::everything().allows(kind));
    EXPECT_EQ(AddressPolicy::publicOnly().allows(kind), kind == Kind::kPublic);
    EXPECT_EQ(AddressPolicy::publicAndPrivate().allows(kind),
              kind == Kind::kPublic || kind == Kind::kPrivate);
    AddressPolicy policy;
    EXPECT_FALSE(policy.refuse(kind).allows(kind));
    EXPECT_FALSE(policy == AddressPolicy());
    EXPECT_TRUE(policy.allow(kind) == AddressPolicy());
  }
}

TEST(AddressPolicyOfTheProcess, ReadAndWrittenByManyThreads_IsOneOfThoseThatWereWritten) {
  EXPECT_TRUE(AddressPolicy::process() == AddressPolicy::everything());
  std::atomic<bool> done = false;
  std::thread writer([&done] {
    for (int i = 0; i < 10000; ++i) {
      AddressPolicy::process(i % 2 == 0 ? AddressPolicy::publicOnly()
                                        : AddressPolicy::publicAndPrivate());
    }
    done = true;
  });
  while (!done) {
    const AddressPolicy seen = AddressPolicy::process();
    EXPECT_TRUE(seen == AddressPolicy() || seen == AddressPolicy::publicOnly() ||
                seen == AddressPolicy::publicAndPrivate());
  }
  writer.join();
  EXPECT_TRUE(AddressPolicy::process() == AddressPolicy::publicAndPrivate());
  AddressPolicy::process(AddressPolicy::everything());
}

}  // namespace
}  // namespace Velantrix::Test
