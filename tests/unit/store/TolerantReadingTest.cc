#include "foundation/run/VerificationRun.h"
#include "store/TolerantReading.h"
#include "support/LogCapture.h"

#include <gtest/gtest.h>
#include <stdexcept>

namespace Velantrix::Test {
namespace {

using namespace Crypto::PKX509;

Exception damaged(const std::string& detail) {
  return Exception("Reader", Exception::kFailure, "Reader", 1).stringParameter(detail);
}
void readDamaged(const std::string& detail) {
  readOneOf("/dir/file", [&] { throw damaged(detail); });
}

TEST(TolerantReading, WithoutIt_WhatCannotBeReadThrows) {
  EXPECT_EQ(TolerantReading::current(), nullptr);
  EXPECT_THROW(readDamaged("broken"), Exception);
  TolerantReading::leftOut();
}

TEST(TolerantReading, WhatCannotBeRead_IsPassedOverAndLogged) {
  const LogCapture log;
  const TolerantReading reading;
  bool read = false;
  readOneOf("/dir/right", [&] { read = true; });
  EXPECT_TRUE(read);
  EXPECT_FALSE(reading.cut());
  EXPECT_EQ(reading.reason(), "");
  readDamaged("/dir/file: broken");
  readDamaged("no name");
  readOneOf("/dir/file", [] { throw Exception("Reader", Exception::kFailure, "Reader", 1); });
  EXPECT_EQ(log.text(),
            "7 Passed over /dir/file: broken\n"
            "7 Passed over /dir/file: no name\n"
            "7 Passed over /dir/file: Reader (4, Reader:1)\n");
  EXPECT_TRUE(reading.cut());
  EXPECT_FALSE(reading.unsettled());
  EXPECT_EQ(reading.reason(), "broken");
}

TEST(TolerantReading, OtherExceptions_GoOn) {
  const TolerantReading reading;
  EXPECT_THROW(readOneOf("file", [] { throw std::runtime_error("a daemon's own"); }),
               std::runtime_error);
  EXPECT_FALSE(reading.cut());
}

TEST(TolerantReading, WhatABoundForbids_IsUnsettled) {
  const TolerantReading reading;
  TolerantReading::leftOut();
  EXPECT_TRUE(reading.cut());
  EXPECT_TRUE(reading.unsettled());
}

TEST(TolerantReading, ItNests) {
  const TolerantReading outer;
  {
    const TolerantReading inner;
    EXPECT_EQ(TolerantReading::current(), &inner);
    TolerantReading::leftOut();
  }
  EXPECT_EQ(TolerantReading::current(), &outer);
  EXPECT_FALSE(outer.cut());
}

TEST(TolerantReading, VerificationsWithinIt_ReadAsEver) {
  const TolerantReading reading;
  {
    const VerificationRun run(static_cast<const X509*>(nullptr));
    EXPECT_EQ(TolerantReading::current(), nullptr);
    EXPECT_THROW(readDamaged("broken"), Exception);
    TolerantReading::leftOut();
    const TolerantReading own;
    EXPECT_EQ(TolerantReading::current(), &own);
  }
  EXPECT_EQ(TolerantReading::current(), &reading);
  EXPECT_FALSE(reading.cut());
}

}  // namespace
}  // namespace Velantrix::Test
