#include <velantrix/Host.h>

#include <gtest/gtest.h>
#include <string>

namespace Velantrix::Test {
namespace {

TEST(IPAddress, AsString_BracketsAnIPv6AddressUnlessPlain) {
  const struct {
    const char* text;
    const char* inURI;
  } rows[] = {{"192.0.2.1", "192.0.2.1"},
              {"2001:db8::1", "[2001:db8::1]"},
              {"::", "[::]"},
              {"::ffff:192.0.2.1", "[::ffff:192.0.2.1]"},
              {"", ""}};
  for (const auto& row : rows) {
    EXPECT_EQ(IPAddress(row.text).asString(true), row.text);
    EXPECT_EQ(IPAddress(row.text).asString(false), row.inURI);
  }
}

TEST(IPAddress, Default_IsNone) {
  EXPECT_TRUE(IPAddress().empty());
  EXPECT_EQ(IPAddress().asString(true), "");
  EXPECT_EQ(IPAddress().asString(false), "");
  EXPECT_FALSE(IPAddress("::1").empty());
}

TEST(Host, NumericAddress_IsGivenBackAsItStands) {
  for (const char* text : {"127.0.0.1", "255.255.255.255", "::1", "2001:db8:0:0::1",
                           "::", "::ffff:192.0.2.1", "2001:DB8::A"}) {
    EXPECT_EQ(Host(HostName(text)).address().asString(true), text);
  }
}

// None of these is sent to a name server.
TEST(Host, TextThatCannotBeAName_HasNoAddress) {
  using namespace std::string_literals;
  for (const std::string& text : {""s, "a\0b"s, "\0"s, std::string(255, 'a'),
                                  std::string(100'000, 'a'), "127.0.0.1\0.example.com"s}) {
    EXPECT_TRUE(Host(HostName(text)).address().empty()) << text.size();
  }
}

TEST(Host, AddressAskedForTwice_IsTheSameObject) {
  const Host host(HostName("192.0.2.7"));
  EXPECT_EQ(&host.address(), &host.address());
  const Host copy(host);
  EXPECT_EQ(copy.address().asString(true), "192.0.2.7");
}

}  // namespace
}  // namespace Velantrix::Test
