#include "support/Loopback.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <poll.h>
#include <stdexcept>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <system_error>

namespace Velantrix::Test {
namespace {

int connectError(std::uint16_t port, const char* address = "127.0.0.1") {
  try {
    connectTo(port, address);
    return 0;
  } catch (const std::system_error& error) {
    return error.code().value();
  }
}

TEST(ReservedPort, NobodyListens_ConnectingIsRefused) {
  const ReservedPort port;
  EXPECT_NE(port.number(), 0);
  EXPECT_EQ(port.text(), std::to_string(port.number()));
  EXPECT_EQ(connectError(port.number()), ECONNREFUSED);
}

TEST(ReservedPort, ServerThatReusesAddresses_BindsItAgainAndAgain) {
  const ReservedPort port;
  for (int i = 0; i < 3; ++i) {
    const Descriptor server = bindTo(port.number());
    ASSERT_EQ(listen(server.number(), 1), 0);
    const Descriptor client = connectTo(port.number());
    const Descriptor accepted(accept(server.number(), nullptr, nullptr), "accept");
  }
  EXPECT_EQ(connectError(port.number()), ECONNREFUSED);
}

TEST(ReservedPort, TwoAtOnce_AreDifferent) {
  const ReservedPort one;
  const ReservedPort two;
  EXPECT_NE(one.number(), two.number());
}

TEST(ReservedPort, IPv6WhereThereIsSome_IsRefusedToo) {
  if (!hasIPv6Loopback()) {
    EXPECT_THROW(ReservedPort("::1"), std::runtime_error);
    return;
  }
  const ReservedPort port("::1");
  EXPECT_EQ(connectError(port.number(), "::1"), ECONNREFUSED);
}

TEST(ReservedPort, NoAddress_Throws) {
  EXPECT_THROW(ReservedPort("localhost"), std::runtime_error);
  EXPECT_THROW(ReservedPort("192.0.2.1"), std::runtime_error);
}

TEST(AcceptUntil, GivesConnectionsUntilItIsStopped) {
  const Descriptor stop(eventfd(0, EFD_CLOEXEC), "eventfd");
  const Descriptor listener = bindTo(0);
  ASSERT_EQ(listen(listener.number(), 2), 0);
  const Descriptor client = connectTo(boundPort(listener));
  const Descriptor accepted = acceptUntil(stop, listener);
  ASSERT_GE(accepted.number(), 0);
  char octet = 0;
  EXPECT_EQ(recv(accepted.number(), &octet, 1, 0), -1);
  EXPECT_EQ(errno, EAGAIN);
  ASSERT_EQ(send(client.number(), "x", 1, 0), 1);
  pollfd arrived = {accepted.number(), POLLIN, 0};
  ASSERT_EQ(poll(&arrived, 1, -1), 1);
  EXPECT_EQ(recv(accepted.number(), &octet, 1, 0), 1);

  const Descriptor tooLate = connectTo(boundPort(listener));
  ASSERT_EQ(eventfd_write(stop.number(), 1), 0);
  EXPECT_EQ(acceptUntil(stop, listener).number(), -1);
}

}  // namespace
}  // namespace Velantrix::Test
