// The private view seen from outside.
#include "support/Command.h"
#include "support/Files.h"
#include "support/PrivateView.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace Velantrix::Test {
namespace {

CommandResult runInView(const std::vector<std::string>& argv, const std::string& input = {}) {
  std::vector<std::string> all = {PKX509_PRIVATE_VIEW_SCRIPT, "--"};
  all.insert(all.end(), argv.begin(), argv.end());
  return runCommand(all, input);
}

TEST(PrivateViewScript, WrittenInTheView_DoesNotAppearOnTheMachine) {
  const std::string name = "/left-by-private-view-script-test";
  const bool there = std::filesystem::exists("/opsadmin");
  const bool spoolThere = std::filesystem::exists("/var/spool/crypto");
  for (const char* directory :
       {kCADirectory, kCRLDirectory, kAppsDirectory, kCRLCacheDirectory, "/opsadmin"}) {
    const auto result = runInView({"sh", "-c", "echo x > \"$0\" && cat \"$0\"", directory + name});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, "x\n");
    EXPECT_FALSE(std::filesystem::exists(directory + name)) << directory;
  }
  EXPECT_EQ(std::filesystem::exists("/opsadmin"), there);
  EXPECT_EQ(std::filesystem::exists("/var/spool/crypto"), spoolThere);
  EXPECT_FALSE(inPrivateView());
}

TEST(PrivateViewScript, InputOutputArgumentsAndStatus_PassThrough) {
  const auto result = runInView({"sh", "-c", "cat; echo \"$1\" >&2; exit 7", "sh", "a  b"}, "in");
  EXPECT_EQ(result.status, 7);
  EXPECT_EQ(result.out, "in");
  EXPECT_EQ(result.err, "a  b\n");
}

TEST(PrivateViewScript, OwnNetwork_IsLoopbackAloneAndHasNoFilesOfNames) {
  const std::string before = readFile("/etc/hosts");
  const std::string script =
      "ls /etc/hosts /etc/resolv.conf 2> /dev/null; "
      "tail -n +3 /proc/net/dev | cut -d : -f 1 | tr -d ' '; "
      "echo 127.0.0.9 name > /etc/hosts && cat /etc/hosts; test -e /etc/passwd";
  const auto result =
      runCommand({PKX509_PRIVATE_VIEW_SCRIPT, "--own-network", "--", "sh", "-c", script});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, "lo\n127.0.0.9 name\n");
  EXPECT_EQ(readFile("/etc/hosts"), before);
}

TEST(PrivateViewScript, WorkingDirectory_IsKept) {
  EXPECT_EQ(runInView({"pwd"}).out, std::filesystem::current_path().string() + "\n");
}

TEST(PrivateViewScript, ViewCannotBeMade_FailsWithAHint) {
  const TempDir directory;
  writeFile(directory / "bwrap", "#!/bin/sh\nexit 1\n");
  std::filesystem::permissions(directory / "bwrap", std::filesystem::perms::owner_all);
  const auto result = runCommand({"env", "PATH=" + directory.string() + ":/usr/bin:/bin",
                                  PKX509_PRIVATE_VIEW_SCRIPT, "echo", "run"});
  EXPECT_EQ(result.status, 125);
  EXPECT_EQ(result.out, "");
  EXPECT_NE(result.err.find("bubblewrap"), std::string::npos) << result.err;
}

TEST(PrivateViewScript, WrongUse_FailsWithUsage) {
  EXPECT_EQ(runCommand({PKX509_PRIVATE_VIEW_SCRIPT}).status, 2);
  EXPECT_EQ(runCommand({PKX509_PRIVATE_VIEW_SCRIPT, "--nonsense", "true"}).status, 2);
}

}  // namespace
}  // namespace Velantrix::Test
