#include "support/Command.h"

#include <gtest/gtest.h>
#include <stdexcept>
#include <string>

namespace Velantrix::Test {
namespace {

TEST(runCommand, OutputErrorAndStatus_AreReported) {
  const auto result = runCommand({"sh", "-c", "cat; echo wrong >&2; exit 3"}, "input");
  EXPECT_EQ(result.status, 3);
  EXPECT_EQ(result.out, "input");
  EXPECT_EQ(result.err, "wrong\n");
}

TEST(runCommand, MuchInputThatNobodyReads_CommandStillEnds) {
  EXPECT_EQ(runCommand({"true"}, std::string(1 << 20, 'x')).status, 0);
}

TEST(runCommand, MuchOutput_ComesWhole) {
  const std::string input(3 << 20, 'x');
  EXPECT_EQ(runCommand({"cat"}, input).out, input);
}

TEST(runCommand, EndedBySignal_StatusNamesIt) {
  EXPECT_EQ(runCommand({"sh", "-c", "kill -9 $$"}).status, 128 + 9);
}

TEST(runCommand, ArgumentsWithBlanksAndQuotes_ArriveUnchanged) {
  EXPECT_EQ(runCommand({"printf", "%s|", "a b", "'$HOME'", ""}).out, "a b|'$HOME'||");
}

TEST(runCommand, DoesNotEnd_IsKilledAndReported) {
  EXPECT_THROW(runCommand({"sleep", "60"}, "", std::chrono::milliseconds(50)), std::runtime_error);
}

TEST(runCommand, NoSuchCommand_Throws) {
  EXPECT_THROW(runCommand({"/nonexistent/command"}), std::runtime_error);
}

}  // namespace
}  // namespace Velantrix::Test
