#include "retrieval/DeskMemory.h"

#include <gtest/gtest.h>

namespace Velantrix::Test {
namespace {

using namespace Crypto::PKX509;

std::string keyOf(std::size_t number) { return std::to_string(number); }

TEST(DeskMemory, Marks_AreKeptAndForgotten) {
  DeskMemory memory;
  EXPECT_FALSE(memory.mark("a"));
  memory.keep("a", FetchDesk::Mark{.failures = 1});
  memory.keep("a", FetchDesk::Mark{.failures = 2});
  EXPECT_EQ(memory.mark("a").value().failures, 2U);
  memory.forgetMark("a");
  EXPECT_FALSE(memory.mark("a"));
}

TEST(DeskMemory, MoreMarksThanThereIsRoomFor_TheOldestGo) {
  DeskMemory memory;
  for (std::size_t i = 0; i <= DeskMemory::kMarks; ++i) {
    memory.keep(keyOf(i), FetchDesk::Mark{.at = Time::then(static_cast<long>(i), true)});
  }
  EXPECT_FALSE(memory.mark(keyOf(0)));
  EXPECT_TRUE(memory.mark(keyOf(1)));
  EXPECT_TRUE(memory.mark(keyOf(DeskMemory::kMarks)));
}

DeskMemory::SharedDelivery delivery(std::size_t size, long fetched) {
  return std::make_shared<FetchDesk::Delivery>(
      FetchDesk::Delivery{.octets = std::string(size, 'x'), .fetched = Time::then(fetched, true)});
}

TEST(DeskMemory, MoreOctetsThanThereIsRoomFor_TheOldestGo) {
  constexpr std::size_t kThird = DeskMemory::kBytes / 3;
  DeskMemory memory;
  memory.keep("b", delivery(kThird - 4096, 2));
  memory.keep("a", delivery(kThird - 4096, 1));
  memory.keep("a", delivery(kThird - 4096, 1));
  memory.keep("c", delivery(kThird - 4096, 3));
  EXPECT_TRUE(memory.delivery("a") && memory.delivery("b") && memory.delivery("c"));
  memory.keep("d", delivery(kThird + 4096, 4));
  EXPECT_FALSE(memory.delivery("a"));
  EXPECT_TRUE(memory.delivery("b") && memory.delivery("c") && memory.delivery("d"));
  memory.forgetDelivery("c");
  memory.keep("e", delivery(kThird - 4096, 5));
  EXPECT_TRUE(memory.delivery("b") && memory.delivery("d") && memory.delivery("e"));
}

TEST(DeskMemory, DeliveryThatIsLargerThanAllRoom_IsNotKept) {
  DeskMemory memory;
  memory.keep("a", delivery(1, 1));
  memory.keep("b", delivery(1, 1));
  memory.keep("a", delivery(DeskMemory::kBytes, 2));
  EXPECT_FALSE(memory.delivery("a"));
  EXPECT_TRUE(memory.delivery("b"));
}

}  // namespace
}  // namespace Velantrix::Test
