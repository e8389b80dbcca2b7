// The option --deadline, with a host that never answers.
#include "JsonSchema.h"
#include "ToolFixture.h"
#include "support/FaultScripts.h"
#include "support/FaultServer.h"
#include "support/Pki.h"
#include "support/PrivateView.h"
#include "support/Stopwatch.h"

#include <pkx509/FixedPaths.h>

#include <filesystem>
#include <gtest/gtest.h>
#include <string>

namespace Velantrix::Test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using nlohmann::json;

class ToolDeadline : public ToolFixture {
 protected:
  // No PKI of the openssl command is needed.
  static void SetUpTestSuite() {}
  static void TearDownTestSuite() {}

  ToolDeadline() {
    fs::create_directory(own("trusted"));
    addToDirectory(own("trusted"), root.get());
    writeFile(own("leaf.pem"),
              pem(issue({.subject = "O=Test,CN=Leaf",
                         .issuer = &root,
                         .crlDistributionPoints = {{.fullNames = {"URI:" + silent.url("/1.crl")}}}})
                      .get()));
  }
  // Long before the 15 s that a host may take.
  CommandResult inTime(const Arguments& arguments) const {
    const Stopwatch watch;
    CommandResult result = tool(arguments + Arguments{"--deadline", "100ms"});
    EXPECT_LT(watch.elapsed(), 5s);
    return result;
  }

  const FaultServer silent{Scripts::silence()};
  const Issued root = issueCA("O=Test,CN=Root");
};

void expectSpent(const json& object) {
  EXPECT_EQ(object.at("code"), 3);
  EXPECT_EQ(object.at("outcome"), "temporary");
  EXPECT_EQ(object.at("findings").at(0).at("rule"), "budget-spent");
  EXPECT_NE(object.at("line").get<std::string>().find("time"), std::string::npos);
}

TEST_F(ToolDeadline, CertificateThatIsNotSettledByThen_IsNotValidForNow) {
  const Arguments verify{"verify",       own("leaf.pem"),   "--ca-dir",
                         own("trusted"), "--allow-address", "loopback"};
  const CommandResult result = inTime(verify + Arguments{"--json"});
  EXPECT_EQ(result.status, 1) << result.err;
  const json objects = parsed(result);
  EXPECT_EQ(schemaViolation(json::parse(readFile(PKX509_SCHEMA)), objects), "");
  expectSpent(objects.at(0));
  const CommandResult text = inTime(verify + Arguments{"--tempfail"});
  EXPECT_EQ(text.status, 75);
  EXPECT_NE(text.out.find("budget-spent: "), std::string::npos) << text.out;
}

TEST_F(ToolDeadline, SimpleVerifier_HasItToo) {
  const fs::path trusted = addToDirectory(kCADirectory, root.get());
  const CommandResult result = inTime({"simple", own("leaf.pem"), "--json"});
  fs::remove(trusted);
  EXPECT_EQ(result.status, 1) << result.err;
  expectSpent(parsed(result).at(0));
}

TEST_F(ToolDeadline, Refresh_HasOneForAllURIs) {
  writeFile(own("uris"), silent.url("/2.crl") + "\n" + silent.url("/3.crl") + "\n");
  const CommandResult result = inTime({"refresh", "--uri-list", own("uris"), "--ca-dir",
                                       own("trusted"), "--allow-address", "loopback", "--json"});
  EXPECT_EQ(result.status, 2) << result.err;
  const json objects = parsed(result);
  ASSERT_EQ(objects.size(), 2U);
  EXPECT_EQ(objects.at(1).at("reason"), "it was not its turn before the end");
}

TEST_F(ToolDeadline, WhatIsNoTime_IsRefused) {
  for (const char* const text : {"", "0", "0s", "-1s", "1.5s", "10h", "s", "ms", "1 s", "25000m",
                                 "99999999999999999999ms"}) {
    const CommandResult result = tool({"verify", "x", "--deadline", text});
    EXPECT_EQ(result.status, 2) << text;
    EXPECT_NE(result.err.find("--deadline"), std::string::npos) << result.err;
  }
  for (const char* const text : {"1ms", "10", "10s", "1440m"}) {
    const CommandResult result =
        tool({"verify", own("missing"), "--ca-dir", own("trusted"), "--deadline", text});
    EXPECT_NE(result.err.find("missing"), std::string::npos) << text << result.err;
  }
}

}  // namespace
}  // namespace Velantrix::Test
