// `pkx509 refresh`: the cache, real and misbehaving web servers, and the units that run it.
#include "JsonSchema.h"
#include "ToolFixture.h"
#include "support/Loopback.h"
#include "support/Pki.h"
#include "support/PrivateView.h"
#include "support/Process.h"
#include "support/WebServer.h"

#include <pkx509/FixedPaths.h>
#include <pkx509/HashDirLookup.h>
#include <velantrix/CertificateRevocationList.h>
#include <velantrix/Time.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <gtest/gtest.h>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace Velantrix::Test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using nlohmann::json;

class ToolRefresh : public ToolFixture {
 protected:
  // No PKI of the openssl command is needed.
  static void SetUpTestSuite() {}
  static void TearDownTestSuite() {}

  ToolRefresh() {
    fs::create_directory(own("trusted"));
    addToDirectory(own("trusted"), root.get());
  }

  // Puts a CRL on the web server; its URI.
  std::string publish(CRLOptions options, const std::string& name = "root.crl") {
    if (options.issuer == nullptr) options.issuer = &root;
    writeFile(server.root() / name, der(makeCRL(options).get()));
    return server.url("/" + name);
  }
  Arguments listed(const std::vector<std::string>& uris) const {
    std::string lines = "# of a test\n\n";
    for (const std::string& uri : uris) lines += "  " + uri + " \r\n";
    writeFile(own("uris"), lines);
    return {"--uri-list", own("uris")};
  }
  CommandResult refresh(const Arguments& more) const {
    return tool(Arguments{"refresh", "--ca-dir", own("trusted"), "--allow-address", "loopback"} +
                more);
  }
  json refreshed(const Arguments& more, int status) const {
    const CommandResult result = refresh(more + Arguments{"--json"});
    EXPECT_EQ(result.status, status) << result.err;
    json objects = parsed(result);
    EXPECT_EQ(schemaViolation(json::parse(readFile(PKX509_SCHEMA)), objects), "");
    return objects;
  }
  // Of the only URI.
  std::string resultOf(const Arguments& more, int status) const {
    const json objects = refreshed(more, status);
    EXPECT_EQ(objects.size(), 1U);
    return objects.at(0).at("result");
  }
  // What a host has sent counts as its answer for half a minute. That is over.
  static void letDeliveriesGo() {
    std::vector<fs::path> deliveries;
    for (const auto& entry : fs::directory_iterator(fs::path(kCRLCacheDirectory) / ".fetch")) {
      if (entry.path().extension() == ".new") deliveries.push_back(entry.path());
    }
    for (const fs::path& delivery : deliveries) fs::remove(delivery);
  }
  static fs::path cacheFile(const std::string& uri) {
    return fs::path(kCRLCacheDirectory) / Crypto::PKX509::HashDirLookupMethod::fileName(Uri(uri));
  }
  static std::string cached(const std::string& uri) {
    return fs::exists(cacheFile(uri)) ? readFile(cacheFile(uri)) : "";
  }

  const Issued root = issueCA("O=Test,CN=Root");
  WebServer server;
};

TEST_F(ToolRefresh, CRL_IsFetchedKeptConfirmedAndReplaced) {
  const std::string uri = publish({.number = Serial(1)});
  const CommandResult first = refresh(listed({uri}));
  EXPECT_EQ(first.status, 0) << first.err;
  EXPECT_TRUE(first.out.starts_with(uri + ": updated until 20")) << first.out;
  EXPECT_TRUE(first.out.ends_with("\n1 URI: 1 updated\n")) << first.out;
  EXPECT_EQ(first.err, "");
  const std::string file = cached(uri);
  EXPECT_NE(file, "");

  // What the cache holds is looked after without the list.
  EXPECT_EQ(resultOf({}, 0), "kept");
  EXPECT_EQ(server.requestsFor("/root.crl"), 1U);
  EXPECT_EQ(resultOf({"--all"}, 0), "not-modified");
  EXPECT_EQ(server.requestsFor("/root.crl"), 1U);
  letDeliveriesGo();
  EXPECT_EQ(resultOf({"--all"}, 0), "not-modified");
  ASSERT_TRUE(server.waitForRequests(2));
  EXPECT_EQ(server.requests().back().status, 304);
  // Of its life an hour of a week has gone by, and nobody has asked since.
  letDeliveriesGo();
  std::string older = cached(uri);
  const std::size_t fetched = older.find("Fetched: ") + std::string("Fetched: ").size();
  older.replace(fetched, 10, std::to_string(Time::then(-3600, false).seconds()));
  writeFile(cacheFile(uri), older);
  EXPECT_EQ(resultOf({"--share", "0.05"}, 0), "kept");
  EXPECT_EQ(resultOf({"--share", "0.002"}, 0), "not-modified");

  letDeliveriesGo();
  fs::remove(server.root() / "root.crl");
  publish({.lastUpdate = -30min, .number = Serial("0123456789AB")});
  EXPECT_EQ(resultOf({"--all"}, 0), "updated");
  EXPECT_NE(cached(uri), file);
}

TEST_F(ToolRefresh, Failures_AreToldAndTheOldOneStays) {
  const std::string uri = publish({});
  ASSERT_EQ(refresh(listed({uri})).status, 0);
  const std::string file = cached(uri);
  server.stop();
  letDeliveriesGo();
  const CommandResult result = refresh({"--all", "--quiet"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_TRUE(result.err.starts_with("pkx509: " + uri + ": failed, the old one is good until 20"))
      << result.err;
  EXPECT_EQ(cached(uri), file);

  const json objects = refreshed(listed({uri, server.url("/other.crl")}), 2);
  ASSERT_EQ(objects.size(), 2U);
  EXPECT_EQ(objects.at(0).at("result"), "failed");
  EXPECT_EQ(objects.at(0).at("nextUpdate"), nullptr);
  EXPECT_NE(objects.at(0).at("reason").get<std::string>().find("a moment ago"), std::string::npos);
  EXPECT_EQ(objects.at(1).at("result"), "kept");
}

// Each is signed by nobody who is trusted, or not for this place, whatever its number.
TEST_F(ToolRefresh, WhatAnotherSigned_ReplacesNothing) {
  const Issued namesake = issueCA("O=Test,CN=Root");
  const Issued other = issueCA("O=Test,CN=Other");
  addToDirectory(own("trusted"), other.get());
  const std::string uri = publish({});
  ASSERT_EQ(refresh(listed({uri})).status, 0);
  const std::string file = cached(uri);
  for (const Issued* const issuer : {&namesake, &other}) {
    letDeliveriesGo();
    fs::remove(server.root() / "root.crl");
    publish({.issuer = issuer, .lastUpdate = -1min, .number = Serial("7FFFFFFFFFFFFF")});
    EXPECT_EQ(resultOf({"--all"}, 1), "failed-old-good");
    EXPECT_EQ(cached(uri), file);
  }
  // A forgery that is in the cache already gives way.
  publish({}, "forged.crl");
  const std::string forged = server.url("/forged.crl");
  writeFile(cacheFile(forged), pem(makeCRL({.issuer = &namesake, .number = Serial(9)}).get()));
  EXPECT_EQ(refresh(listed({forged})).status, 0);
  EXPECT_EQ(refreshed({}, 0).size(), 2U);
}

TEST_F(ToolRefresh, CertificatesAndTrustDirectory_NameCRLsAndIssuers_WhichAreRemembered) {
  const std::string ofRoot = publish({});
  const Issued inter =
      issue({.subject = "O=Test,CN=Inter",
             .issuer = &root,
             .ca = true,
             .crlDistributionPoints = {{.fullNames = {"URI:" + ofRoot, "URI:ldap:///CN=Root"}}}});
  const std::string ofInter = publish({.issuer = &inter}, "inter.crl");
  const Issued leaf = issue({.subject = "O=Test,CN=Leaf",
                             .issuer = &inter,
                             .crlDistributionPoints = {{.fullNames = {"URI:" + ofInter}}}});
  writeFile(own("leaf.pem"), pem(leaf.get()));
  writeFile(own("both.pem"), pem(leaf.get()) + pem(inter.get()));

  EXPECT_EQ(resultOf({"--certificates", own("leaf.pem")}, 2), "failed");
  EXPECT_EQ(cached(ofInter), "");
  EXPECT_EQ(refreshed({"--certificates", own("both.pem")}, 0).size(), 2U);
  EXPECT_NE(cached(ofInter), "");
  EXPECT_NE(cached(ofRoot), "");
  // Nobody says once more who the issuer is.
  for (const json& object : refreshed({"--all"}, 0)) EXPECT_EQ(object.at("result"), "not-modified");

  clearPrivateView();
  addToDirectory(own("trusted"), inter.get());
  EXPECT_EQ(resultOf({}, 0), "updated");
  EXPECT_NE(cached(ofRoot), "");
}

// RFC 5280, 5.2.6.
TEST_F(ToolRefresh, DeltasThatCRLsOfTheCacheName_AreRefreshedToo) {
  const std::string nowhere = server.url("/nowhere.crl");
  const auto at = [](std::vector<std::string> uris) {
    for (std::string& uri : uris) uri.insert(0, "URI:");
    return std::vector<DistributionPoint>{{.fullNames = uris}};
  };
  const std::string delta = publish(
      {.number = Serial(2), .deltaBase = Serial(1), .freshestCRL = at({nowhere})}, "delta.crl");
  const std::string base = publish(
      {.number = Serial(1), .freshestCRL = at({"ldap://127.0.0.1/CN=Root", delta})}, "base.crl");
  EXPECT_EQ(refreshed(listed({base}), 0).size(), 1U);
  const json both = refreshed({}, 0);
  ASSERT_EQ(both.size(), 2U);
  EXPECT_EQ(both.at(1).at("uri"), delta);
  EXPECT_EQ(both.at(1).at("result"), "updated");
  EXPECT_EQ(cached(delta).find("URI: " + delta), 0U) << cached(delta);
  EXPECT_EQ(refreshed({}, 0).size(), 2U) << "a delta CRL names none";

  std::vector<std::string> many;
  for (int i = 0; i < 20; ++i) many.push_back(nowhere + std::to_string(i));
  publish({.number = Serial(3), .freshestCRL = at(many)}, "base.crl");
  letDeliveriesGo();
  EXPECT_EQ(refreshed({"--all"}, 0).size(), 2U);
  EXPECT_EQ(refreshed({}, 2).size(), 6U);
}

// One is waited for; the others of the host meet its mark.
TEST_F(ToolRefresh, DeadHost_IsAskedOnce) {
  const ReservedPort port;
  std::vector<std::string> uris;
  for (int i = 0; i < 6; ++i) {
    uris.push_back("http://127.0.0.1:" + port.text() + "/" + std::to_string(i) + ".crl");
  }
  const auto spared = [](const json& object) {
    return object.at("reason").get<std::string>().find("a moment ago") != std::string::npos;
  };
  const json objects = refreshed(listed(uris), 2);
  ASSERT_EQ(objects.size(), uris.size());
  EXPECT_EQ(std::count_if(objects.begin(), objects.end(), spared), 5);
  for (const json& object : refreshed(listed(uris), 2)) EXPECT_TRUE(spared(object));
}

TEST_F(ToolRefresh, LoopbackHosts_AreNotAskedWithoutTheOption) {
  const std::string uri = publish({});
  const CommandResult result =
      tool(Arguments{"refresh", "--ca-dir", own("trusted"), "--quiet"} + listed({uri}));
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(server.requestsFor("/root.crl"), 0U);
}

// At any point between its start and its end.
TEST_F(ToolRefresh, Killed_LeavesAWholeCRLAndNoneThatIsOlder) {
  constexpr int kKills = 30;
  // Of another length each time, so that nginx does not take it for the one of a second before.
  const auto publishNumber = [&](int number) {
    letDeliveriesGo();
    CRLOptions options{.number = Serial(number)};
    for (int i = 0; i < number; ++i) options.revoked.push_back({.serial = Serial(1000 + i)});
    return publish(options);
  };
  const auto numberIn = [](const std::string& uri) {
    const auto crl =
        Crypto::PKX509::CertificateRevocationListFactory::read(File::Path(cacheFile(uri).string()));
    EXPECT_FALSE(crl.empty());
    return crl.empty() ? 0 : static_cast<int>(crl->entryCount());
  };
  const auto start = std::chrono::steady_clock::now();
  const std::string uri = publish({.number = Serial(1), .revoked = {{.serial = Serial(1000)}}});
  ASSERT_EQ(refresh(listed({uri})).status, 0);
  const auto whole = std::chrono::duration_cast<std::chrono::microseconds>(
      std::chrono::steady_clock::now() - start);
  std::mt19937 random(1);
  std::uniform_int_distribution<long> point(0, static_cast<long>(whole.count()));
  int held = 1;
  for (int number = 2; number < 2 + kKills; ++number) {
    publishNumber(number);
    BackgroundProcess killed({PKX509_TOOL, "refresh", "--ca-dir", own("trusted"), "--allow-address",
                              "loopback", "--all", "--quiet"});
    std::this_thread::sleep_for(std::chrono::microseconds(point(random)));
    ::kill(killed.pid(), SIGKILL);
    killed.stop();
    const int now = numberIn(uri);
    EXPECT_TRUE(now == held || now == number) << now << " after " << held;
    held = now;
  }
  publishNumber(2 + kKills);
  const CommandResult next = refresh({"--all"});
  EXPECT_EQ(next.status, 0) << next.err;
  EXPECT_EQ(numberIn(uri), 2 + kKills);
}

TEST_F(ToolRefresh, NothingToDo_IsDone) {
  const CommandResult result = refresh({});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, "0 URIs\n");
  EXPECT_EQ(refresh({"--json"}).out, "[]\n");
}

TEST_F(ToolRefresh, WrongUsage_IsTold) {
  writeFile(own("bad"), "http://a.example/\nldap:///x\n");
  for (const auto& [arguments, told] : std::vector<std::pair<Arguments, std::string>>{
           {{"--share", "0"}, "--share: \"0\" is no number between 0 and 1, like 0.5"},
           {{"--share", "1.5"}, "--share: \"1.5\" is no number"},
           {{"--share", "half"}, "--share: \"half\" is no number"},
           {{"--parallel", "0"}, "--parallel"},
           {{"--parallel", "65"}, "--parallel"},
           {{"--proxy", "https://a.example/"}, "--proxy: \"https://a.example/\" is no HTTP proxy"},
           {{"--proxy", "http://a.example/path"}, "is no HTTP proxy"},
           {{"--uri-list", own("none")}, own("none")},
           {{"--uri-list", own("bad")}, own("bad") + ":2: \"ldap:///x\" is no http or https URI"},
           {{"--certificates", own("bad")}, own("bad")},
           {{"--ca-dir", own("none")}, "--ca-dir"},
           {{"--uri-list", "-", "--certificates", "-"}, "can be read only once"},
           {{"--quiet", "--json"}, "--quiet"},
           {{"uri"}, "uri"}}) {
    const CommandResult result = tool(Arguments{"refresh"} + arguments);
    EXPECT_EQ(result.status, 2) << told;
    EXPECT_NE(result.err.find(told), std::string::npos) << result.err;
    EXPECT_EQ(result.out, "");
  }
}

// The keys of a unit, the last of equal ones.
std::map<std::string, std::string> unit(const std::string& name) {
  std::map<std::string, std::string> keys;
  std::istringstream lines(readFile(fs::path(PKX509_SYSTEMD) / name));
  for (std::string line; std::getline(lines, line);) {
    const std::size_t equals = line.find('=');
    if (line.starts_with('#') || equals == std::string::npos) continue;
    keys[line.substr(0, equals)] = line.substr(equals + 1);
  }
  return keys;
}

TEST_F(ToolRefresh, Units_RunWhatThereIs) {
  std::map<std::string, std::string> service = unit("pkx509-refresh.service");
  std::istringstream words(service["ExecStart"]);
  std::string program;
  std::string subcommand;
  words >> program >> subcommand;
  EXPECT_EQ(program, "/usr/bin/pkx509");
  const CommandResult help = tool({subcommand, "--help"});
  EXPECT_EQ(help.status, 0);
  for (std::string option; words >> option;) {
    EXPECT_NE(help.out.find("\n  " + option + " "), std::string::npos) << option;
  }
  EXPECT_EQ(service["ReadWritePaths"], kCRLCacheDirectory);
  EXPECT_EQ(service["ProtectSystem"], "strict");
  EXPECT_EQ(service["NoNewPrivileges"], "yes");
  EXPECT_EQ(service["Type"], "oneshot");
  EXPECT_EQ(unit("pkx509-refresh.timer")["OnUnitActiveSec"], "15min");
}

// Of a copy that names programs and users that are here.
TEST_F(ToolRefresh, Units_AreTakenBySystemd) {
  if (!fs::exists("/usr/bin/systemd-analyze")) return;
  std::string service = readFile(fs::path(PKX509_SYSTEMD) / "pkx509-refresh.service");
  service.replace(service.find("/usr/bin/pkx509"), std::string("/usr/bin/pkx509").size(),
                  PKX509_TOOL);
  writeFile(own("pkx509-refresh.service"), service);
  fs::copy(fs::path(PKX509_SYSTEMD) / "pkx509-refresh.timer", own("pkx509-refresh.timer"));
  const CommandResult result =
      runCommand({"/usr/bin/systemd-analyze", "verify", "--man=no", own("pkx509-refresh.service"),
                  own("pkx509-refresh.timer")});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.err.find("pkx509-refresh"), std::string::npos) << result.err;
}

}  // namespace
}  // namespace Velantrix::Test
