#include "foundation/base/Fail.h"
#include "unit/foundation/base/Thrown.h"

#include <gtest/gtest.h>
#include <string>

namespace Velantrix::Test {
namespace {

constexpr Origin kHere{"Context", "Source"};

TEST(Fail, Origin_IsNamedWithTheCallersLine) {
  const std::string line = std::to_string(__LINE__ + 1);
  EXPECT_EQ(thrownBy([] { fail(kHere, "detail"); }), "Context: detail (4, Source:" + line + ")");
}

TEST(Fail, LineThatIsGiven_StandsInPlaceOfTheCallers) {
  EXPECT_EQ(thrownBy([] { fail(kHere, "detail", 18); }), "Context: detail (4, Source:18)");
}

}  // namespace
}  // namespace Velantrix::Test
