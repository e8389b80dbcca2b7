// Rounds of a refresh that are asked to stop, or whose deadline comes, while a host is silent.
#include "support/FaultScripts.h"
#include "support/FaultServer.h"
#include "support/Handles.h"
#include "support/PrivateView.h"
#include "support/Stopping.h"
#include "support/Stopwatch.h"

#include <pkx509/CRLRefresh.h>
#include <pkx509/FixedPaths.h>
#include <pkx509/HashDirLookup.h>

#include <chrono>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

namespace Velantrix::Test {
namespace {

namespace fs = std::filesystem;
using namespace Crypto::PKX509;
using namespace std::chrono_literals;
using Result = CRLRefresh::Result;

class RefreshThatWaits : public testing::Test {
 protected:
  RefreshThatWaits() {
    addToDirectory(trusted.path(), root.get());
    settings.trustDirectory = trusted.string();
    settings.addresses = AddressPolicy();
    settings.all = true;
    settings.onlyNamed = true;
    // Of one host, so that they are asked for one after the other.
    for (const char* const path : {"/1.crl", "/2.crl"})
      settings.uris.emplace_back(silent.url(path));
    for (const Uri& uri : settings.uris) {
      fs::create_directories(kCRLCacheDirectory);
      writeFile(file(uri), pem(makeCRL({.issuer = &root}).get()));
      before.push_back(readFile(file(uri)));
    }
  }
  ~RefreshThatWaits() override {
    for (const Uri& uri : settings.uris) fs::remove(file(uri));
  }

  static fs::path file(const Uri& uri) {
    return fs::path(kCRLCacheDirectory) / HashDirLookupMethod::fileName(uri);
  }
  // The first was under way; nobody asked for the second.
  void expectThatTheOldOnesStay(const CRLRefresh& round, std::size_t requests,
                                const std::string& reason) {
    ASSERT_EQ(round.entries().size(), 2U);
    const CRLRefresh::Entry& first = round.entries().front();
    EXPECT_EQ(first.result, Result::kFailedOldIsGood) << first.reason;
    EXPECT_TRUE(first.nextUpdate.has_value());
    EXPECT_NE(first.reason.find(reason), std::string::npos) << first.reason;
    EXPECT_EQ(round.entries().back().result, Result::kFailed);
    EXPECT_EQ(round.entries().back().reason, "it was not its turn before the end");
    EXPECT_EQ(silent.connections().size(), requests);
    for (std::size_t i = 0; i < before.size(); ++i) {
      EXPECT_EQ(readFile(file(settings.uris[i])), before[i]);
    }
  }

  const FaultServer silent{Scripts::silence()};
  const Issued root = issueCA("O=Test,CN=Root");
  TempDir trusted;
  RefreshSettings settings;
  std::vector<std::string> before;
};

// It is nobody's fault: the host is asked again the next time.
TEST_F(RefreshThatWaits, AskedToStop_EndsAtOnceAndTheOldOnesStay) {
  for (const std::size_t times : {1U, 2U}) {
    Stopping stopping([&] { EXPECT_TRUE(silent.waitForRequests(times)); });
    const CRLRefresh round = refresh(settings, stopping.token());
    EXPECT_TRUE(stopping.wasHeardInTime());
    expectThatTheOldOnesStay(round, times, "stop");
  }
}

TEST_F(RefreshThatWaits, DeadlineOver_EndsThenAndTheOldOnesStay) {
  settings.deadline = 200ms;
  for (const std::size_t times : {1U, 2U}) {
    const Stopwatch watch;
    const CRLRefresh round = refresh(settings);
    EXPECT_GE(watch.elapsed(), settings.deadline);
    EXPECT_LT(watch.elapsed(), 2s) << "of 15 that a host is given";
    expectThatTheOldOnesStay(round, times, "time");
  }
}

TEST_F(RefreshThatWaits, StoppedBefore_AsksNobody) {
  std::stop_source source;
  source.request_stop();
  const CRLRefresh stopped = refresh(settings, source.get_token());
  EXPECT_EQ(stopped.count(Result::kFailed), 2U);
  settings.deadline = 1ms;
  // So that it is over before the first turn.
  const CRLRefresh over = refresh(settings, {}, [](const CRLRefresh::Progress& progress) {
    const Stopwatch watch;
    while (progress.done == 0 && watch.elapsed() < 2ms) std::this_thread::yield();
  });
  EXPECT_EQ(over.count(Result::kFailed), 2U);
  EXPECT_TRUE(silent.connections().empty());
}

}  // namespace
}  // namespace Velantrix::Test
