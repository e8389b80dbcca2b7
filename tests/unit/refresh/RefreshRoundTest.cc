#include "refresh/RefreshRound.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <gtest/gtest.h>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>

namespace Velantrix::Test {
namespace {

using namespace Crypto::PKX509;

std::vector<Uri> urisOf(int hosts, int each) {
  std::vector<Uri> uris;
  for (int host = 0; host < hosts; ++host) {
    for (int i = 0; i < each; ++i) {
      uris.emplace_back("http://host" + std::to_string(host) + ".example/" + std::to_string(i));
    }
  }
  return uris;
}

std::vector<CRLRefresh::Entry> run(unsigned int parallel, const std::vector<Uri>& uris,
                                   const RefreshRound::Work& work,
                                   const CRLRefresh::Listener& listener = {}) {
  return RefreshRound(parallel, listener).run(uris, work);
}

CRLRefresh::Entry keep(const Uri& uri) { return {.uri = uri, .result = CRLRefresh::Result::kKept}; }

// Who is at work. Each waits until as many others are as may be, and for no more.
class Crowd {
 public:
  explicit Crowd(std::size_t wanted) : wanted_(wanted) {}

  CRLRefresh::Entry work(const Uri& uri) {
    std::unique_lock lock(mutex_);
    EXPECT_TRUE(hosts_.insert(uri.hostname()).second) << "two at once at " << uri.hostname();
    threads_.insert(std::this_thread::get_id());
    most = std::max(most, hosts_.size());
    changed_.notify_all();
    changed_.wait_for(lock, std::chrono::seconds(10), [this] { return most >= wanted_; });
    hosts_.erase(uri.hostname());
    return keep(uri);
  }
  std::size_t threads() const { return threads_.size(); }

  std::size_t most = 0;

 private:
  std::size_t wanted_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::set<std::string> hosts_;
  std::set<std::thread::id> threads_;
};

TEST(RefreshRound, AsManyHostsAtOnceAsMayBe_AndOneRequestToEach) {
  for (const unsigned int parallel : {1U, 3U, 4U}) {
    Crowd crowd(parallel);
    const auto entries =
        run(parallel, urisOf(12, 3), [&](const Uri& uri) { return crowd.work(uri); });
    EXPECT_EQ(entries.size(), 36U);
    EXPECT_EQ(crowd.most, parallel);
    EXPECT_LE(crowd.threads(), parallel);
  }
}

TEST(RefreshRound, NoMoreThreadsThanHostsAndOneAtLeast) {
  Crowd crowd(2);
  run(60, urisOf(2, 5), [&](const Uri& uri) { return crowd.work(uri); });
  EXPECT_LE(crowd.threads(), 2U);
  Crowd alone(1);
  run(0, urisOf(3, 2), [&](const Uri& uri) { return alone.work(uri); });
  EXPECT_EQ(alone.threads(), 1U);
}

TEST(RefreshRound, EveryURIOnceInTheOrderOfNormalForms) {
  const std::vector<Uri> uris{Uri("http://b.example/1"), Uri("http://a.example/2"),
                              Uri("HTTP://B.example:80/1"), Uri("http://a.example/1")};
  std::vector<std::string> order;
  for (const CRLRefresh::Entry& entry : run(3, uris, keep)) {
    EXPECT_EQ(entry.result, CRLRefresh::Result::kKept);
    order.push_back(entry.uri.asString());
  }
  const std::vector<std::string> expected{"http://a.example/1", "http://a.example/2",
                                          "http://b.example/1"};
  EXPECT_EQ(order, expected);
  EXPECT_TRUE(run(3, {}, keep).empty());
}

TEST(RefreshRound, ListenerHearsOfTheBeginningAndOfEachOnceAndOneAtATime) {
  std::set<std::string> heard;
  std::size_t done = 0;
  std::atomic<int> inside = 0;
  run(4, urisOf(8, 4), keep, [&](const CRLRefresh::Progress& progress) {
    EXPECT_EQ(++inside, 1);
    EXPECT_EQ(progress.total, 32U);
    EXPECT_EQ(progress.done, done++);
    EXPECT_EQ(progress.last == nullptr, progress.done == 0);
    if (progress.last != nullptr) {
      EXPECT_TRUE(heard.insert(progress.last->uri.asString()).second);
    }
    --inside;
  });
  EXPECT_EQ(heard.size(), 32U);
}

TEST(RefreshRound, WhatIsThrown_EndsTheRoundAndArrivesHere) {
  std::atomic<int> done = 0;
  const auto count = [&](const Uri& uri) {
    ++done;
    return keep(uri);
  };
  const auto throwing = [](const CRLRefresh::Progress& progress) {
    if (progress.done == 1) throw std::runtime_error("enough");
  };
  EXPECT_THROW(run(2, urisOf(20, 5), count, throwing), std::runtime_error);
  EXPECT_LE(done, 3);
  EXPECT_THROW(run(2, urisOf(20, 5),
                   [](const Uri&) -> CRLRefresh::Entry { throw std::runtime_error("no"); }),
               std::runtime_error);
}

}  // namespace
}  // namespace Velantrix::Test
