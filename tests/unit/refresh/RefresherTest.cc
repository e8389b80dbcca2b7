#include "refresh/Refresher.h"
#include "unit/refresh/SimulatedMeans.h"

#include <gtest/gtest.h>
#include <set>

namespace Velantrix::Test {
namespace {

using std::chrono::hours;
using std::chrono::minutes;
using std::chrono::seconds;
using Result = CRLRefresh::Result;
using Stored = VerifiedCache::Stored;

const Uri kURI("http://crl.example/ca.crl");

class RefresherTest : public testing::Test {
 protected:
  const Issued ca = issueCA("O=Test,CN=CA");
  SimulatedMeans means;

  RefresherTest() { means.issuers = {ca}; }

  // Of a life that began and ends so many hours from now.
  RefCertificateRevocationList crl(int from, int until, int number, CRLOptions options = {}) {
    if (options.issuer == nullptr) options.issuer = &ca;
    options.lastUpdate = When::at(means.time.seconds() + from * 3600L);
    options.nextUpdate = When::at(means.time.seconds() + until * 3600L);
    options.number = Serial(number);
    return crlHandle(options);
  }
  void hold(const RefCertificateRevocationList& one, const std::string& etag = "\"1\"") {
    means.cache[kURI.canonicalized()] = {{one}, {.validators = {.etag = etag}}, means.time};
  }
  void holdGood() { hold(crl(-10, 90, 5)); }
  void holdDue() { hold(crl(-70, 30, 5)); }
  bool holds(const RefCertificateRevocationList& one) {
    const auto& crls = means.cache.at(kURI.canonicalized()).crls;
    return crls.size() == 1 && crls.front()->native() == one->native();
  }
  void send(const RefCertificateRevocationList& one) {
    means.answer = [this, one](const Uri&) { return means.sends(one, "\"2\""); };
  }
  CRLRefresh::Entry refresh(bool all = false) {
    return Refresher(means, {.share = 0.5, .all = all}).refresh(kURI);
  }
  CRLRefresh::Entry refreshWith(const RefCertificateRevocationList& one, bool all = false) {
    send(one);
    return refresh(all);
  }
};

TEST_F(RefresherTest, GoodAndNotDue_IsKeptAndNobodyAsked) {
  holdGood();
  const CRLRefresh::Entry entry = refresh();
  EXPECT_EQ(entry.result, Result::kKept);
  EXPECT_EQ(entry.uri, kURI);
  EXPECT_EQ(entry.reason, "");
  EXPECT_EQ(entry.nextUpdate, Schedule::after(means.time, hours(90)));
  EXPECT_GE(entry.due, Schedule::after(means.time, hours(30)));
  EXPECT_LE(entry.due, Schedule::after(means.time, hours(50)));
  EXPECT_EQ(means.fetches, 0);
}

TEST_F(RefresherTest, DueOrMissingOrAll_IsFetchedAndStored) {
  const auto next = crl(-1, 99, 6);
  for (const bool all : {false, true}) {
    all ? holdGood() : holdDue();
    const CRLRefresh::Entry entry = refreshWith(next, all);
    EXPECT_EQ(entry.result, Result::kUpdated) << entry.reason;
    EXPECT_TRUE(holds(next));
    EXPECT_EQ(means.sent.etag, "\"1\"");
    EXPECT_EQ(entry.nextUpdate, Schedule::after(means.time, hours(99)));
    EXPECT_GT(entry.due, Schedule::after(means.time, hours(38)));
  }
  means.cache.clear();
  EXPECT_EQ(refreshWith(next).result, Result::kUpdated);
  EXPECT_TRUE(holds(next));
  EXPECT_TRUE(means.sent.empty());
  EXPECT_EQ(means.fetches, 3);
}

TEST_F(RefresherTest, NotModified_IsConfirmedAndNotDueForAWhile) {
  holdDue();
  means.answer = [this](const Uri&) { return means.hasNothingNew(); };
  const CRLRefresh::Entry entry = refresh();
  EXPECT_EQ(entry.result, Result::kNotModified);
  EXPECT_EQ(entry.nextUpdate, Schedule::after(means.time, hours(30)));
  EXPECT_EQ(entry.due, Schedule::after(means.time, hours(6)));
  EXPECT_EQ(means.confirmed, 1);
  EXPECT_EQ(refresh().result, Result::kKept);
  means.time = entry.due;
  EXPECT_EQ(refresh().result, Result::kNotModified);
}

TEST_F(RefresherTest, SameOctetsOnceMore_AreNotModified) {
  holdDue();
  means.storedAs = Stored::kSame;
  EXPECT_EQ(refreshWith(crl(-70, 30, 5)).result, Result::kNotModified);
}

// Its validators may be those of another, whoever wrote them there.
TEST_F(RefresherTest, NotModifiedOfWhatHasRunOut_IsAskedForOnceMore) {
  hold(crl(-100, -1, 5));
  const RefCertificateRevocationList late = crl(-100, -1, 5);
  const RefCertificateRevocationList next = crl(-1, 99, 6);
  const struct {
    RefCertificateRevocationList whole;
    Result result;
    std::string reason;
  } rows[] = {{{}, Result::kFailed, "the host has not sent what it was asked for"},
              {late, Result::kFailed, "what the host has has run out"},
              {next, Result::kUpdated, ""}};
  for (const auto& row : rows) {
    std::vector<std::string> asked;
    means.answer = [&](const Uri&) {
      asked.push_back(means.sent.etag);
      const bool whole = means.sent.empty() && !row.whole.empty();
      return whole ? means.sends(row.whole) : means.hasNothingNew();
    };
    const CRLRefresh::Entry entry = refresh();
    EXPECT_EQ(entry.result, row.result) << row.reason;
    EXPECT_EQ(entry.reason, row.reason);
    EXPECT_EQ(entry.nextUpdate.has_value(), row.result == Result::kUpdated);
    EXPECT_EQ(asked, (std::vector<std::string>{"\"1\"", ""}));
  }
  EXPECT_EQ(means.confirmed, 0);
}

TEST_F(RefresherTest, FailureOfTheHost_LeavesTheOldOneAndIsNotRepeatedAtOnce) {
  holdDue();
  const CRLRefresh::Entry entry = refresh();
  EXPECT_EQ(entry.result, Result::kFailedOldIsGood);
  EXPECT_EQ(entry.reason, "could not connect");
  EXPECT_EQ(entry.nextUpdate, Schedule::after(means.time, hours(30)));
  EXPECT_EQ(entry.due, Schedule::after(means.time, seconds(30)));
  EXPECT_EQ(refresh(true).reason, "a moment ago");
  EXPECT_EQ(means.fetches, 1);
  means.time = entry.due;
  EXPECT_EQ(refresh().due, Schedule::after(means.time, seconds(60)));
  EXPECT_EQ(means.fetches, 2);
}

TEST_F(RefresherTest, FailureOfTheHostWithoutAGoodOne_IsAFailure) {
  EXPECT_EQ(refresh().result, Result::kFailed);
  hold(crl(-100, -1, 5));
  EXPECT_EQ(refresh().result, Result::kFailed);
  hold(crl(1, 100, 5));
  EXPECT_EQ(refresh().result, Result::kFailed);
}

TEST_F(RefresherTest, WhatMustNotReplaceAGoodOne_DoesNot) {
  const Issued otherCA = issueCA("O=Test,CN=Other CA");
  const Issued namesake = issueCA("O=Test,CN=CA");
  const Issued forger = issueCA("O=Test,CN=CA");
  means.issuers = {ca, otherCA, namesake};
  const auto good = crl(-70, 30, 5);
  const std::vector<std::pair<RefCertificateRevocationList, std::string>> cases{
      {crl(-1, 99, 6, {.issuer = &forger}), "nobody knows who issued it"},
      {crl(-1, 99, 6, {.badSignature = true}), "nobody knows who issued it"},
      {crl(-1, 99, 6, {.issuer = &otherCA}),
       "what the host has is of another issuer than the good one of the cache"},
      {crl(-1, 99, 1 << 30, {.issuer = &namesake}),
       "the issuer of what the host has ends at another trust anchor than that of the good one of "
       "the "
       "cache"},
      {crl(-1, 99, 6, {.idp = IssuingDistributionPoint{.onlyUser = true}}),
       "what the host has is of another scope than the good one of the cache"},
      {crl(-1, 99, 6, {.deltaBase = Serial(5)}),
       "what the host has is of another scope than the good one of the cache"},
      {crl(1, 99, 6), "what the host has is not valid yet"},
      {crl(-99, 0, 6), "what the host has has run out"},
  };
  for (const auto& [offered, reason] : cases) {
    means.stored.reset();
    hold(good);
    const CRLRefresh::Entry entry = refreshWith(offered);
    EXPECT_EQ(entry.result, Result::kFailedOldIsGood) << reason;
    EXPECT_EQ(entry.reason, reason);
    EXPECT_EQ(means.stored, std::nullopt) << reason;
    EXPECT_TRUE(holds(good)) << reason;
    EXPECT_EQ(entry.due, Schedule::after(means.time, Schedule::kRound)) << reason;
  }
  EXPECT_EQ(means.withdrawn, 2);  // what nobody signed is of no use to the others either
}

TEST_F(RefresherTest, WhatTheCacheRefuses_HasFailed) {
  holdDue();
  for (const auto& [result, reason] : std::vector<std::pair<Stored, std::string>>{
           {Stored::kOlder, "what the host has is older than what the cache has"},
           {Stored::kOther, "what the host has is of another scope than what the cache has"},
           {Stored::kRefused, "what the host has is not signed by its issuer"}}) {
    means.storedAs = result;
    const CRLRefresh::Entry entry = refreshWith(crl(-1, 99, 6));
    EXPECT_EQ(entry.result, Result::kFailedOldIsGood);
    EXPECT_EQ(entry.reason, reason);
  }
}

// After a change of the CA's key, with both keys below one root.
TEST_F(RefresherTest, NewKeyOfTheIssuerBelowTheSameAnchor_Replaces) {
  const Issued root = issueCA("O=Test,CN=Root");
  const Issued renewed = issueCA("O=Test,CN=CA");
  means.issuers = {ca, renewed};
  means.anchors = {{ca.get(), root}, {renewed.get(), root}};
  holdDue();
  EXPECT_EQ(refreshWith(crl(-1, 99, 6, {.issuer = &renewed})).result, Result::kUpdated);
}

TEST_F(RefresherTest, WhatIsNoGood_IsReplacedByAnyThatIs) {
  const Issued otherCA = issueCA("O=Test,CN=Other CA");
  const Issued forger = issueCA("O=Test,CN=CA");
  means.issuers = {ca, otherCA};
  const auto next = crl(-1, 99, 6);
  for (const auto& bad : {crl(-1, 1000, 1 << 30, {.issuer = &forger}), crl(-100, -1, 5),
                          crl(5, 1000, 7), crl(-100, -1, 5, {.issuer = &otherCA})}) {
    hold(bad);
    EXPECT_EQ(refreshWith(next).result, Result::kUpdated);
    EXPECT_TRUE(holds(next));
  }
  // Whoever wrote a forgery into the cache may have written its validators as well.
  hold(crl(-1, 1000, 7, {.issuer = &forger}));
  EXPECT_EQ(refreshWith(next).result, Result::kUpdated);
  EXPECT_TRUE(means.sent.empty());
}

TEST_F(RefresherTest, OfSeveralInOneFile_TheNewestVerifiedCounts) {
  const Issued forger = issueCA("O=Test,CN=CA");
  means.cache[kURI.canonicalized()] = {
      {crl(-70, 30, 5), crl(-10, 90, 6), crl(-1, 1000, 7, {.issuer = &forger})}, {}, means.time};
  const CRLRefresh::Entry entry = refresh();
  EXPECT_EQ(entry.result, Result::kKept);
  EXPECT_EQ(entry.nextUpdate, Schedule::after(means.time, hours(90)));
}

// As a crash there would, each leaves the old one where it is.
TEST_F(RefresherTest, FailureAtAnyStep_LosesNothing) {
  const auto old = crl(-70, 30, 5);
  for (const char* const step : {"fetch", "store", "confirm"}) {
    hold(old);
    means.failing = step;
    means.answer = [&](const Uri&) {
      return means.failing == "confirm" ? means.hasNothingNew() : means.sends(crl(-1, 99, 6));
    };
    const CRLRefresh::Entry entry = refresh();
    EXPECT_EQ(entry.result, Result::kFailedOldIsGood) << step;
    EXPECT_EQ(entry.reason, std::string(step) + " fails");
    EXPECT_TRUE(holds(old)) << step;
  }
  means.failing = "issuerOf";
  EXPECT_EQ(refresh().reason, "issuerOf fails");
  EXPECT_EQ(refresh().result, Result::kFailed);  // for all that is known
  EXPECT_TRUE(holds(old));
}

TEST_F(RefresherTest, CacheThatCannotBeRead_IsAsGoodAsAnEmptyOne) {
  holdGood();
  means.failing = "held";
  EXPECT_EQ(refreshWith(crl(-1, 99, 6)).result, Result::kUpdated);
}

// CAs that publish every twelve hours, on hosts that are there for 20 minutes a day, each at a time of its
// own which moves from day to day; what is looked at is every moment between two rounds.
class TenDays {
 public:
  static constexpr int kCAs = 7;

  TenDays(SimulatedMeans& means, const Issued& ca, seconds life)
      : means_(means), ca_(ca), life_(life), begin_(means.time.seconds()) {
    means_.always = {.path = {handle(ca)}};
    means_.answer = [this](const Uri& uri) { return answer(uri); };
    for (int i = 0; i < kCAs; ++i) {
      uris_.emplace_back("http://crl" + std::to_string(i) + ".example/ca.crl");
    }
  }

  void run() {
    for (const Uri& uri : uris_) start(uri);
    const std::int64_t end = begin_ + 10 * kDay;
    while (means_.time.seconds() < end) {
      ++rounds;
      std::vector<CRLRefresh::Entry> entries;
      for (const Uri& uri : uris_) {
        entries.push_back(Refresher(means_, {.share = 0.5}).refresh(uri));
        updates += entries.back().result == Result::kUpdated ? 1 : 0;
      }
      const Time next = CRLRefresh(entries, "", means_.time).nextDue();
      // A verification at the last moment before the next round.
      for (const Uri& uri : uris_) {
        if (!isFreshAt(uri, next)) stale.insert(uri.asString());
      }
      means_.time = next;
    }
  }

  int rounds = 0;
  int updates = 0;
  std::set<std::string> stale;

 private:
  static constexpr std::int64_t kDay = 86400;
  static constexpr std::int64_t kPublished = kDay / 2;
  static constexpr std::int64_t kThere = 1200;

  // What was published last.
  RefCertificateRevocationList current() {
    const std::int64_t index = (means_.time.seconds() - begin_) / kPublished;
    RefCertificateRevocationList& crl = published_[index];
    if (crl.empty()) {
      const std::int64_t from = begin_ + index * kPublished;
      crl = crlHandle({.issuer = &ca_,
                       .lastUpdate = When::at(from),
                       .nextUpdate = When::at(from + life_.count()),
                       .number = Serial(static_cast<int>(index) + 1)});
    }
    return crl;
  }
  FetchedCRL answer(const Uri& uri) {
    const auto at =
        static_cast<std::int64_t>(std::find(uris_.begin(), uris_.end(), uri) - uris_.begin());
    const std::int64_t since = means_.time.seconds() - begin_;
    const std::int64_t opens = (at * 7919 + since / kDay * 1800) % (kDay - kThere);
    const std::int64_t ofDay = since % kDay;
    if (ofDay < opens || ofDay >= opens + kThere) return SimulatedMeans::isDead();
    const auto held = means_.cache.find(uri.canonicalized());
    const bool isSame = held->second.crls.front()->native() == current()->native();
    return isSame ? means_.hasNothingNew() : means_.sends(current());
  }
  void start(const Uri& uri) { means_.cache[uri.canonicalized()] = {{current()}, {}, means_.time}; }
  bool isFreshAt(const Uri& uri, const Time& time) {
    const auto& crl = means_.cache.at(uri.canonicalized()).crls.front();
    return time < crl->nextUpdate()->asTime();
  }

  SimulatedMeans& means_;
  const Issued& ca_;
  seconds life_;
  std::int64_t begin_;
  std::vector<Uri> uris_;
  std::map<std::int64_t, RefCertificateRevocationList> published_;
};

TEST_F(RefresherTest, TenDaysWithHostsThatAnswerOnceADay_AreNeverWithoutAFreshOne) {
  for (const seconds life : {hours(48), hours(168)}) {
    SimulatedMeans world;
    TenDays days(world, ca, life);
    days.run();
    EXPECT_EQ(days.stale, std::set<std::string>{}) << life.count();
    EXPECT_GT(days.updates, TenDays::kCAs);
    // Not hammered: a quarter of an hour apart at the closest, but for the first of a row of failures.
    EXPECT_LT(world.fetches, TenDays::kCAs * 10 * 24 * 5) << life.count();
    RecordProperty("fetches" + std::to_string(life.count()), world.fetches);
  }
}

TEST_F(RefresherTest, IssuerThatWasNotFoundOutBeforeTheEnd_IsNobodysFault) {
  means.nobody = {.refusal = "before the end", .cut = true};
  means.issuers.clear();
  const CRLRefresh::Entry entry = refreshWith(crl(-1, 90, 5));
  EXPECT_EQ(entry.result, Result::kFailed);
  EXPECT_EQ(entry.reason, "before the end");
  EXPECT_EQ(means.withdrawn, 0);
}

}  // namespace
}  // namespace Velantrix::Test
