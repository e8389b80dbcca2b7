#include "foundation/run/Counters.h"
#include "foundation/run/VerificationRun.h"
#include "report/SourceRecord.h"
#include "support/Files.h"
#include "support/SourceTexts.h"
#include "unit/verify/World.h"

#include <velantrix/Exception.h>

#include <cerrno>
#include <chrono>
#include <gtest/gtest.h>
#include <new>
#include <stdexcept>
#include <string>

namespace Velantrix::Test {
namespace {

using Crypto::PKX509::CountedSince;
using Counter = Crypto::PKX509::Statistics::Counter;
using SourceKind = SourceRecord::Source::Kind;
using Wanted = SourceRecord::Source::Wanted;
using Failure = UseFacts::Failure;

Exception broken(const std::string& text) {
  return Exception("Test", Exception::kFailure, nullptr, 0).stringParameter(text);
}

class SourceRecordOfARun : public testing::Test {
 protected:
  static const std::vector<SourceRecord::Use>& uses() { return SourceRecord::current()->uses(); }
  static Texts texts() { return texts(uses()); }
  static Texts texts(const std::vector<SourceRecord::Use>& all) {
    Texts texts;
    for (const SourceRecord::Use& use : all) {
      texts.push_back(
          sourceText(use.kind, use.result, use.origin.text(), use.fromMemory, use.facts.reason));
    }
    return texts;
  }
  static void find(SourceKind kind, const std::string& origin, std::size_t count) {
    SourceUse(kind, Wanted::kCRLs, origin).found(count);
  }

  const Issued one = issueCA("CN=One");
  const Issued other = issueCA("CN=Other");
  VerificationRun run{static_cast<const X509*>(nullptr)};
};

TEST_F(SourceRecordOfARun, WhatIsNotAsked_TakesNoTime) {
  using Clock = std::chrono::steady_clock;
  const auto waitForTick = [] {
    for (const auto start = Clock::now(); Clock::now() - start < std::chrono::milliseconds(1);) {
    }
  };
  {
    SourceUse use(SourceKind::kCRLServer, Wanted::kCRLs, "refused");
    waitForTick();
    use.refused({.failure = Failure::kScheme});
  }
  EXPECT_EQ(uses().back().taken.count(), 0);
  {
    SourceUse use(SourceKind::kCRLServer, Wanted::kCRLs, "asked");
    waitForTick();
    use.failed({.reason = "no answer"});
  }
  EXPECT_GE(uses().back().taken, std::chrono::milliseconds(1));
}

TEST(SourceRecord, OutsideOfARun_NothingIsRecorded) {
  EXPECT_EQ(SourceRecord::current(), nullptr);
  SourceUse use(SourceKind::kCache, Wanted::kCRLs, "http://host/");
  use.found(1);
  SourceUse::unreadable("/file", std::runtime_error("text"));
  SourceUse::leftOut();
  EXPECT_FALSE(SourceUse::originOf("/file").has_value());
  SourceRecord::again({0, 1});
  const SourceRecord::About about(nullptr);
  EXPECT_EQ(SourceRecord::reached(), 0U);
  EXPECT_THROW(use.during([] { throw broken("text"); }), Exception);
}

TEST_F(SourceRecordOfARun, WhatEndsNeitherWay_HasFoundNothing) {
  { const SourceUse use(SourceKind::kCache, Wanted::kCRLs, "a"); }
  find(SourceKind::kCache, "b", 0);
  find(SourceKind::kCache, "c", 2);
  EXPECT_EQ(texts(), (Texts{"cache nothing a", "cache nothing b", "cache found c"}));
  EXPECT_EQ(uses().back().found, 2U);
}

TEST_F(SourceRecordOfARun, Failures_KeepWhatIsKnown) {
  {
    SourceUse use(SourceKind::kCRLServer, Wanted::kCRLs, "a");
    use.bytes(7);
    use.failed({.failure = Failure::kNoAnswer, .reason = "late", .errorNumber = ETIMEDOUT});
  }
  SourceUse(SourceKind::kCRLServer, Wanted::kCRLs, "b").refused({.failure = Failure::kScheme});
  {
    SourceUse use(SourceKind::kLDAP, Wanted::kCRLs, "c");
    use.found(1);
    use.cut("a limit");
  }
  { SourceUse(SourceKind::kLDAP, Wanted::kCRLs, "d").cut("a limit"); }
  EXPECT_EQ(texts(), (Texts{"server failed a: late", "server refused b", "LDAP cut c: a limit",
                            "LDAP failed d: a limit"}));
  EXPECT_EQ(uses().front().facts.bytes, 7U);
  EXPECT_EQ(uses().front().facts.errorNumber, ETIMEDOUT);
}

TEST_F(SourceRecordOfARun, WhatIsThrown_IsAFailureAndThrownOn) {
  const auto ask = [](const auto& thrown) {
    SourceUse use(SourceKind::kLookupMethod, Wanted::kCertificates, "name");
    use.during([&] { throw thrown; });
  };
  EXPECT_THROW(ask(broken("name: text")), Exception);
  EXPECT_THROW(ask(std::runtime_error("other")), std::runtime_error);
  EXPECT_THROW(ask(std::bad_alloc()), std::bad_alloc);
  EXPECT_THROW(ask(7), int);
  EXPECT_EQ(texts(), (Texts{"method failed name: text", "method failed name: other",
                            "method failed name: std::bad_alloc", "method failed name"}));
}

TEST_F(SourceRecordOfARun, MethodThatIsServedBySources_IsToldOfByThem) {
  {
    SourceUse method(SourceKind::kLookupMethod, Wanted::kCRLs, "method");
    find(SourceKind::kLDAP, "server", 1);
    method.found(1);
  }
  EXPECT_EQ(texts(), Texts{"LDAP found server"});
  const auto fails = [] {
    SourceUse method(SourceKind::kLookupMethod, Wanted::kCRLs, "method");
    method.during([] {
      SourceUse use(SourceKind::kLDAP, Wanted::kCRLs, "other");
      use.during([] { throw broken("down"); });
    });
  };
  EXPECT_THROW(fails(), Exception);
  EXPECT_EQ(texts().back(), "LDAP failed other: down");
  EXPECT_EQ(uses().size(), 2U);
}

TEST_F(SourceRecordOfARun, MethodThatFailsByItself_IsToldOf) {
  const auto fails = [] {
    SourceUse method(SourceKind::kLookupMethod, Wanted::kCRLs, "method");
    find(SourceKind::kLDAP, "server", 1);
    method.during([] { throw broken("text"); });
  };
  EXPECT_THROW(fails(), Exception);
  EXPECT_EQ(texts(), (Texts{"LDAP found server", "method failed method: text"}));
}

TEST_F(SourceRecordOfARun, VerificationThatAMethodStarts_DoesNotSpeakForIt) {
  {
    SourceUse method(SourceKind::kLookupMethod, Wanted::kCRLs, "method");
    const VerificationRun inner(static_cast<const X509*>(nullptr));
    find(SourceKind::kLDAP, "server", 1);
    EXPECT_FALSE(SourceUse::originOf("/file").has_value());
    method.found(1);
  }
  EXPECT_EQ(texts(), (Texts{"LDAP found server", "method found method"}));
}

TEST_F(SourceRecordOfARun, FilesThatCannotBeRead_StandForThemselves) {
  const TempDir directory;
  const std::string damaged = (directory.path() / "1.r0").string();
  const std::string gone = (directory.path() / "2.r0").string();
  writeFile(damaged, "damaged");
  {
    SourceUse use(SourceKind::kDirectory, Wanted::kCRLs, "directory");
    SourceUse::unreadable(damaged, broken(damaged + ": no CRL"));
    SourceUse::unreadable(gone, broken(gone + ": No such file or directory"));
    const std::optional<ObjectOrigins::Where> where = SourceUse::originOf(damaged);
    ASSERT_TRUE(where);
    EXPECT_EQ(where->kind, VerificationReport::Origin::Kind::kMachineCRLs);
    EXPECT_EQ(where->place.text(), "directory");
    EXPECT_EQ(where->file.text(), damaged);
  }
  EXPECT_EQ(texts(), Texts{"directory failed directory: no CRL"});
  EXPECT_EQ(uses().front().facts.file, damaged);
  EXPECT_EQ(uses().front().facts.failure, Failure::kUnreadable);
}

TEST_F(SourceRecordOfARun, WhatABoundForbids_IsRefusedByItsName) {
  {
    const SourceUse use(SourceKind::kDirectory, Wanted::kCRLs, "directory");
    EXPECT_FALSE(VerificationRun::admitDecoding(VerificationRun::kMaximumDecodedBytes + 1));
    SourceUse::leftOut();
    SourceUse::leftOut();
  }
  for (unsigned int i = 0; i < VerificationRun::kMaximumLookups; ++i) {
    EXPECT_TRUE(VerificationRun::admitLookup());
  }
  EXPECT_FALSE(VerificationRun::admitLookup());
  SourceUse(SourceKind::kCRLServer, Wanted::kCRLs, "server").refusedByBudget();
  EXPECT_EQ(texts(), (Texts{"directory refused directory", "server refused server"}));
  EXPECT_EQ(uses().front().facts.resource, "decoded bytes");
  EXPECT_EQ(uses().back().facts.resource, "lookups");
  EXPECT_EQ(run.spent(), (std::vector<std::string_view>{"lookups", "decoded bytes"}));
}

TEST(SourceRecord, BoundsOfTheNetworkAndTheProcessor_HaveTheirNames) {
  const VerificationRun run(nullptr, {.networkTime = std::chrono::seconds(0),
                                      .processorTime = std::chrono::nanoseconds(0)});
  EXPECT_FALSE(VerificationRun::admitStep());
  EXPECT_EQ(VerificationRun::refusedLast(), "processor time");
  EXPECT_EQ(notAdmitted().resource, "network time");
  NetworkBudget::countBytes(VerificationRun::kMaximumCRLBytes);
  EXPECT_EQ(run.spent(),
            (std::vector<std::string_view>{"processor time", "network time", "network bytes"}));
}

TEST_F(SourceRecordOfARun, AnswerFromMemory_IsToldOnceToEachOther) {
  const std::size_t begin = SourceRecord::reached();
  {
    const SourceRecord::About about(one.get());
    SourceUse(SourceKind::kCRLServer, Wanted::kCRLs, "server").failed({.reason = "down"});
  }
  const SourceRecord::Stretch asked{begin, SourceRecord::reached()};
  const auto again = [&](const Issued& certificate) {
    const SourceRecord::About about(certificate.get());
    SourceRecord::again(asked);
  };
  again(one);
  again(other);
  again(other);
  EXPECT_EQ(texts(), (Texts{"server failed server: down", "server failed server again: down"}));
  EXPECT_EQ(uses().back().about, other.get());
  EXPECT_EQ(uses().back().taken.count(), 0);
}

TEST_F(SourceRecordOfARun, Questions_AreCountedBySourceAndAnswer) {
  struct Row {
    SourceKind kind;
    Counter lookups;
    Counter hits;
  };
  const Row rows[] = {
      {SourceKind::kDirectory, Counter::kLookupsDirectory, Counter::kHitsDirectory},
      {SourceKind::kLookupMethod, Counter::kLookupsMethod, Counter::kHitsMethod},
      {SourceKind::kLDAP, Counter::kLookupsLDAP, Counter::kHitsLDAP},
      {SourceKind::kCache, Counter::kLookupsCache, Counter::kHitsCache},
      {SourceKind::kCRLServer, Counter::kLookupsCRLServer, Counter::kHitsCRLServer},
      {SourceKind::kOCSPResponder, Counter::kLookupsOCSPResponder, Counter::kHitsOCSPResponder}};
  for (const Row& row : rows) {
    const CountedSince since;
    find(row.kind, "a", 2);
    { const SourceUse nothing(row.kind, Wanted::kCRLs, "b"); }
    SourceUse(row.kind, Wanted::kCRLs, "c").failed({});
    EXPECT_EQ(since.of(row.lookups), 3U);
    EXPECT_EQ(since.of(row.hits), 1U);
    SourceUse(row.kind, Wanted::kCRLs, "d").refused({});
    SourceUse(row.kind, Wanted::kCRLs, "e").drop();
    SourceUse(row.kind, Wanted::kCRLs, "f").noQuestion();
    EXPECT_EQ(since.of(row.lookups), 3U);
  }
}

// A method is counted where it answers by itself, and a memory never is.
TEST_F(SourceRecordOfARun, QuestionThatOthersAnswer_IsTheirs) {
  const CountedSince since;
  {
    SourceUse method(SourceKind::kLookupMethod, Wanted::kCRLs, "method");
    find(SourceKind::kLDAP, "server", 1);
    method.found(1);
  }
  EXPECT_EQ(since.of(Counter::kLookupsMethod), 0U);
  EXPECT_EQ(since.of(Counter::kHitsLDAP), 1U);
  {
    SourceUse method(SourceKind::kLookupMethod, Wanted::kCRLs, "method");
    SourceRecord::again({0, SourceRecord::reached()});
    method.found(1);
  }
  EXPECT_EQ(since.of(Counter::kLookupsMethod), 0U);
  {
    SourceUse method(SourceKind::kLookupMethod, Wanted::kCRLs, "method");
    const VerificationRun nested(static_cast<const X509*>(nullptr));
    find(SourceKind::kLDAP, "server", 0);
  }
  EXPECT_EQ(since.of(Counter::kLookupsMethod), 1U);
  EXPECT_EQ(since.of(Counter::kLookupsLDAP), 2U);
}

TEST_F(SourceRecordOfARun, About_Nests) {
  const SourceRecord::About outer(one.get());
  {
    const SourceRecord::About inner(other.get());
    find(SourceKind::kCache, "a", 1);
  }
  find(SourceKind::kCache, "b", 1);
  EXPECT_EQ(uses().front().about, other.get());
  EXPECT_EQ(uses().back().about, one.get());
}

TEST_F(SourceRecordOfARun, EqualUses_AreSummedUp) {
  for (const std::size_t count : {0U, 1U, 2U}) find(SourceKind::kDirectory, "a", count);
  for (int i = 0; i < 2; ++i) {
    SourceUse(SourceKind::kDirectory, Wanted::kCRLs, "a").failed({.reason = "x", .file = "f"});
  }
  SourceUse(SourceKind::kDirectory, Wanted::kCRLs, "a").failed({.reason = "x", .file = "g"});
  find(SourceKind::kDirectory, "b", 0);
  const std::vector<SourceRecord::Use> summedUp = SourceRecord::current()->summedUp();
  EXPECT_EQ(texts(summedUp), (Texts{"directory found a", "directory failed a: x",
                                    "directory failed a: x", "directory nothing b"}));
  EXPECT_EQ(summedUp.front().found, 3U);
}

TEST_F(SourceRecordOfARun, BeyondTheBound_TheyAreCounted) {
  for (std::size_t i = 0; i < SourceRecord::kMaximumUses + 2; ++i) find(SourceKind::kCache, "a", 1);
  EXPECT_EQ(uses().size(), SourceRecord::kMaximumUses);
  EXPECT_EQ(SourceRecord::current()->leftOut(), 2U);
}

}  // namespace
}  // namespace Velantrix::Test
