#include "foundation/run/VerificationRun.h"
#include "revocation/CRLStatus.h"
#include "support/Handles.h"

#include <openssl/err.h>

#include <gtest/gtest.h>
#include <list>
#include <optional>
#include <string>
#include <vector>

namespace Velantrix::Test {
namespace {

using namespace std::string_literals;
using std::chrono::hours;
using namespace Crypto::PKX509;
using Crypto::PKX509::Revocation::CRLCandidate;
using Crypto::PKX509::Revocation::CRLStatus;
using Crypto::PKX509::Revocation::Reason;
using Crypto::PKX509::Revocation::revokes;
using Crypto::PKX509::Revocation::Status;
using Crypto::PKX509::Revocation::statusFrom;
using Names = std::vector<std::string>;
using IDP = Velantrix::Test::IssuingDistributionPoint;

// Lists about one certificate, each authentic and in scope, by names for the tests.
class CRLStatusTest : public testing::Test {
 protected:
  const Issued ca = issueCA("O=Test,CN=CA");
  const Issued leaf = issue({.issuer = &ca});
  const RevocationSettings settings = {};

  // OpenSSL says something of each entry that it cannot read.
  ~CRLStatusTest() override { ERR_clear_error(); }

  CRLCandidate& add(const std::string& name, CRLOptions options, const Issued* signer = nullptr) {
    if (options.issuer == nullptr) options.issuer = &ca;
    if (signer != nullptr) options.signer = signer->key;
    candidates_.push_back({.crl = crlHandle(options),
                           .interim_reasons_mask = kAllReasons,
                           .signer = handle(signer != nullptr ? *signer : *options.issuer)});
    names_.push_back(name);
    return candidates_.back();
  }
  // With entries for the certificate, or for somebody else.
  CRLOptions list(int number, int reason = kAbsent) const {
    return {.number = Serial(number), .revoked = {{.serial = leaf, .reason = reason}}};
  }
  static CRLOptions empty(int number) { return {.number = Serial(number)}; }
  static CRLOptions deltaOf(CRLOptions options, int base) {
    options.deltaBase = Serial(base);
    return options;
  }

  void begin() {
    candidates_.clear();
    names_.clear();
  }
  Status decide() {
    std::vector<const CRLCandidate*> all;
    for (const CRLCandidate& candidate : candidates_) all.push_back(&candidate);
    found_ = statusFrom(all, handle(leaf), Time::now(), settings);
    return found_.status;
  }
  Names decidedBy() const {
    Names names;
    for (const CRLCandidate* const one : found_.decidedBy) names.push_back(nameOf(one));
    return names;
  }
  Names setAside(Reason reason) const {
    Names names;
    for (const CRLStatus::SetAside& one : found_.setAside) {
      if (one.reason == reason) names.push_back(nameOf(one.candidate));
    }
    return names;
  }
  std::string firstDetail() const {
    return found_.setAside.empty() ? "" : found_.setAside.front().detail;
  }
  const CRLStatus& found() const { return found_; }

 private:
  std::string nameOf(const CRLCandidate* wanted) const {
    auto name = names_.begin();
    for (const CRLCandidate& candidate : candidates_) {
      if (&candidate == wanted) return *name;
      ++name;
    }
    return "?";
  }

  std::list<CRLCandidate> candidates_;
  Names names_;
  CRLStatus found_;
};

// Which list is the newest.

TEST_F(CRLStatusTest, NewerNumber_DecidesWhateverItsTime) {
  for (const bool first : {true, false}) {
    begin();
    if (first) add("new", empty(2));
    CRLOptions old = list(1);
    old.lastUpdate = -hours(0);
    add("old", old);
    if (!first) add("new", empty(2));
    EXPECT_EQ(decide(), Status::kGood);
    EXPECT_EQ(decidedBy(), Names{"new"});
    EXPECT_EQ(setAside(Reason::kSuperseded), Names{"old"});
  }
}

TEST_F(CRLStatusTest, WithoutANumberOrWithTheSame_TheLaterTimeDecides) {
  const std::optional<Serial> none;
  const std::pair<std::optional<Serial>, std::optional<Serial>> numbers[] = {
      {none, none}, {Serial(9), none}, {none, Serial(1)}, {Serial(3), Serial(3)}};
  for (const auto& [older, newer] : numbers) {
    for (const bool first : {true, false}) {
      begin();
      CRLOptions old = list(1);
      old.number = older;
      old.lastUpdate = -hours(3);
      CRLOptions young = empty(1);
      young.number = newer;
      young.lastUpdate = -hours(2);
      add(first ? "old" : "young", first ? old : young);
      add(first ? "young" : "old", first ? young : old);
      EXPECT_EQ(decide(), Status::kGood);
      EXPECT_EQ(decidedBy(), Names{"young"});
      EXPECT_EQ(setAside(Reason::kSuperseded), Names{"old"});
    }
  }
}

TEST_F(CRLStatusTest, NoneIsTheNewest_AllCount) {
  CRLOptions a = empty(1);
  a.lastUpdate = -hours(1);
  CRLOptions b = empty(2);
  b.lastUpdate = -hours(3);
  CRLOptions c = list(1);
  c.number.reset();
  c.lastUpdate = -hours(2);
  add("a", a);
  add("b", b);
  add("c", c);
  EXPECT_EQ(decide(), Status::kRevoked);
  EXPECT_EQ(decidedBy(), Names{"c"});
}

TEST_F(CRLStatusTest, EqualLists_BothCount) {
  const When then = -hours(1);
  CRLOptions a = empty(1);
  a.lastUpdate = then;
  CRLOptions b = list(1);
  b.lastUpdate = then;
  add("a", a);
  add("b", b);
  EXPECT_EQ(decide(), Status::kRevoked);
  EXPECT_EQ(setAside(Reason::kSuperseded), Names{});
}

// Scopes.

TEST_F(CRLStatusTest, ListOfAnotherIssuer_SupersedesNothing) {
  const Issued other = issueCA("O=Test,CN=Other");
  CRLOptions newer = empty(9);
  newer.issuer = &other;
  add("other", newer);
  add("own", list(1));
  EXPECT_EQ(decide(), Status::kRevoked);
  EXPECT_EQ(decidedBy(), Names{"own"});
}

TEST_F(CRLStatusTest, ScopesThatDisagree_DecidedByTheRevocationsAlone) {
  CRLOptions user = empty(9);
  user.idp = IDP{.onlyUser = true};
  CRLOptions one = list(1, 4);
  CRLOptions two = list(1, 1);
  two.idp = IDP{.indirect = true};
  for (const bool first : {true, false}) {
    begin();
    if (first) add("good", user);
    add("one", one);
    add("two", two);
    if (!first) add("good", user);
    EXPECT_EQ(decide(), Status::kRevoked);
    EXPECT_EQ(decidedBy(), (Names{"one", "two"}));
    EXPECT_EQ(found().revoked.reason, 4) << "of the first";
  }
}

TEST_F(CRLStatusTest, GoodByTwoScopes_DecidedByBoth) {
  CRLOptions user = empty(9);
  user.idp = IDP{.onlyUser = true};
  add("one", user).interim_reasons_mask = 0x60;
  EXPECT_EQ(decide(), Status::kUndetermined);
  add("two", empty(1)).interim_reasons_mask = kAllReasons & ~0x60U;
  EXPECT_EQ(decide(), Status::kGood);
  EXPECT_EQ(decidedBy(), (Names{"one", "two"}));
}

TEST_F(CRLStatusTest, ListThatDoesNotCount_SaysNothing) {
  add("refused", list(2)).refused = Reason::kMalformed;
  add("unauthentic", list(3)).unauthentic = Reason::kWrongSignature;
  EXPECT_EQ(decide(), Status::kUndetermined);
  add("good", empty(1));
  EXPECT_EQ(decide(), Status::kGood);
}

// 5.2.4: complete lists and deltas.

TEST_F(CRLStatusTest, DeltaAndItsBase_DecideTogether) {
  add("base", empty(5));
  add("delta", deltaOf(empty(6), 5));
  EXPECT_EQ(decide(), Status::kGood);
  EXPECT_EQ(decidedBy(), (Names{"base", "delta"}));
  add("revoking", deltaOf(list(7, 1), 4));
  EXPECT_EQ(decide(), Status::kRevoked);
  EXPECT_EQ(decidedBy(), Names{"revoking"});
  EXPECT_EQ(setAside(Reason::kSuperseded), Names{"delta"});
}

TEST_F(CRLStatusTest, EntryOfTheBase_CountsWhereTheDeltaHasNone) {
  add("base", list(5, 1));
  add("delta", deltaOf(empty(6), 5));
  EXPECT_EQ(decide(), Status::kRevoked);
  EXPECT_EQ(decidedBy(), Names{"base"});
  EXPECT_EQ(found().revoked.reason, 1);
  add("removing", deltaOf(list(7, 8), 5));
  EXPECT_EQ(decide(), Status::kGood);
  EXPECT_EQ(decidedBy(), (Names{"base", "removing"}));
}

TEST_F(CRLStatusTest, ExpiredBaseWithADelta_IsNotSetAside) {
  CRLOptions base = empty(5);
  base.lastUpdate = -hours(48);
  base.nextUpdate = When(-hours(24));
  add("base", base);
  EXPECT_EQ(decide(), Status::kUndetermined);
  EXPECT_EQ(setAside(Reason::kExpired), Names{"base"});
  add("delta", deltaOf(empty(6), 5));
  EXPECT_EQ(decide(), Status::kGood);
  EXPECT_TRUE(found().setAside.empty());
}

TEST_F(CRLStatusTest, NewerBaseWithTheSameDelta_Decides) {
  add("old", list(5));
  add("new", empty(6));
  add("delta", deltaOf(empty(8), 5));
  EXPECT_EQ(decide(), Status::kGood);
  EXPECT_EQ(decidedBy(), (Names{"new", "delta"}));
  EXPECT_EQ(setAside(Reason::kSuperseded), Names{"old"});
}

// What 5.2.4 makes of a base and its delta is as new as the delta.
TEST_F(CRLStatusTest, BaseWithANewerDelta_IsNewerThanAnotherBase) {
  add("base", empty(5));
  add("delta", deltaOf(list(9), 5));
  CRLOptions other = empty(7);
  other.authorityKeyId = KeyId::Absent;
  add("other", other);
  EXPECT_EQ(decide(), Status::kRevoked);
  EXPECT_EQ(decidedBy(), Names{"delta"});
  EXPECT_EQ(setAside(Reason::kSuperseded), Names{"other"});
}

TEST_F(CRLStatusTest, BaseWithALaterDelta_IsNewerThanAListWithoutANumber) {
  CRLOptions base = empty(5);
  base.lastUpdate = -hours(5);
  add("base", base);
  add("delta", deltaOf(empty(9), 5));
  CRLOptions other = list(1);
  other.number.reset();
  other.lastUpdate = -hours(3);
  add("other", other);
  EXPECT_EQ(decide(), Status::kGood);
  EXPECT_EQ(setAside(Reason::kSuperseded), Names{"other"});
}

TEST_F(CRLStatusTest, DeltaThatUpdatesNothing_IsSetAside) {
  const Issued namesake = issueCA("O=Test,CN=CA");
  struct Row {
    const char* what;
    CRLOptions delta;
    const Issued* signer = nullptr;
    std::string detail = "the complete CRL is older than its base, or not older than itself";
  };
  const std::string otherKey = "the complete CRL is signed with another key";
  CRLOptions bare = deltaOf(empty(7), 5);
  bare.authorityKeyId = KeyId::Absent;
  const Row rows[] = {{"base above the list's number", deltaOf(empty(7), 6)},
                      {"number of the list", deltaOf(empty(5), 5)},
                      {"number below the list's", deltaOf(empty(4), 3)},
                      {"another key", deltaOf(empty(7), 5), &namesake, otherKey},
                      {"no key identifier", bare, nullptr, otherKey}};
  for (const Row& row : rows) {
    begin();
    add("base", list(5));
    CRLOptions removes = row.delta;
    removes.revoked = {{.serial = leaf, .reason = 8}};
    add("delta", removes, row.signer);
    EXPECT_EQ(decide(), Status::kRevoked) << row.what;
    EXPECT_EQ(setAside(Reason::kNoBase), Names{"delta"}) << row.what;
    EXPECT_EQ(firstDetail(), row.detail) << row.what;
  }
  begin();
  add("delta", deltaOf(empty(7), 5));
  EXPECT_EQ(decide(), Status::kUndetermined);
  EXPECT_EQ(firstDetail(), "there is no complete CRL of its issuer and scope");
}

// 6.3.3 (l): what is left over is told, with the lists that do count.
TEST_F(CRLStatusTest, UncoveredReasons_AreThoseThatNoListIsAbout) {
  EXPECT_EQ(decide(), Status::kUndetermined);
  EXPECT_EQ(found().uncoveredReasons, 0U) << "nothing counts";
  CRLOptions users = empty(1);
  users.idp = IDP{.onlyUser = true};
  add("some", users).interim_reasons_mask = 0x60;
  EXPECT_EQ(decide(), Status::kUndetermined);
  EXPECT_EQ(found().uncoveredReasons, kAllReasons & ~0x0060U);
  EXPECT_EQ(decidedBy(), Names{"some"});
  add("others", empty(2)).interim_reasons_mask = kAllReasons & ~0x60U;
  EXPECT_EQ(decide(), Status::kGood);
  EXPECT_EQ(found().uncoveredReasons, 0U);
}

TEST_F(CRLStatusTest, ExpiredDelta_IsSetAsideAsThat) {
  CRLOptions expired = deltaOf(list(6, 8), 5);
  expired.lastUpdate = -hours(48);
  expired.nextUpdate = When(-hours(24));
  add("base", list(5));
  add("delta", expired);
  EXPECT_EQ(decide(), Status::kRevoked);
  EXPECT_EQ(setAside(Reason::kExpired), Names{"delta"});
  EXPECT_EQ(setAside(Reason::kNoBase), Names{});
}

// 5.3.1: the reason of an entry.

TEST_F(CRLStatusTest, Reason_IsOneThatThereIsOrUnspecified) {
  const struct {
    std::string der;
    std::optional<int> reason;
  } rows[] = {{"", std::nullopt},      {"\x0a\x01\x00"s, 0},          {"\x0a\x01\x01", 1},
              {"\x0a\x01\x0a", 10},    {"\x0a\x01\x0b", 0},           {"\x0a\x01\xff", 0},
              {"\x0a\x02\x01\x01", 0}, {"\x02\x01\x01", std::nullopt}};
  for (const auto& row : rows) {
    begin();
    CRLOptions options = list(1);
    if (!row.der.empty()) {
      options.revoked[0].extensions = {{.oid = "2.5.29.21", .der = row.der}};
    }
    add("list", options);
    EXPECT_EQ(decide(), Status::kRevoked) << row.reason.value_or(-1);
    EXPECT_EQ(found().revoked.reason, row.reason);
    EXPECT_TRUE(found().revoked.date);
  }
}

// OpenSSL stops at an entry whose reason it cannot read: it has not looked at those behind it.
TEST_F(CRLStatusTest, RemovalBehindAReasonThatCannotBeRead_TakesNothingAway) {
  add("base", list(5, 1));
  CRLOptions delta = deltaOf(list(6, 8), 5);
  delta.revoked.insert(delta.revoked.begin(),
                       {.serial = 77, .extensions = {{.oid = "2.5.29.21", .der = "\x05\0"s}}});
  add("delta", delta);
  EXPECT_EQ(decide(), Status::kRevoked);
}

TEST_F(CRLStatusTest, Revokes_AnEntryThatDoesNotTakeItOff) {
  const auto says = [this](const CRLOptions& described) {
    CRLOptions options = described;
    options.issuer = &ca;
    return revokes(*crlHandle(options).get(), handle(leaf));
  };
  EXPECT_FALSE(says(empty(1)));
  EXPECT_TRUE(says(list(1)));
  EXPECT_TRUE(says(list(1, 6)));
  EXPECT_FALSE(says(deltaOf(list(2, 8), 1)));
}

TEST_F(CRLStatusTest, ProcessorTimeUsedUp_NothingIsDecided) {
  add("list", empty(1));
  const VerificationRun run(nullptr, {.processorTime = std::chrono::nanoseconds(0)});
  EXPECT_EQ(decide(), Status::kUndetermined);
  EXPECT_TRUE(run.fellShort());
}

}  // namespace
}  // namespace Velantrix::Test
