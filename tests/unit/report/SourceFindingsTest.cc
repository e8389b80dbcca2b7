#include "report/SourceFindings.h"
#include "support/Handles.h"
#include "unit/report/Findings.h"

#include <chrono>
#include <gtest/gtest.h>
#include <string>

namespace Velantrix::Test {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;
using Crypto::PKX509::failedFor;
using Crypto::PKX509::failedIssuerSource;
using Crypto::PKX509::ruleOf;
using Crypto::PKX509::sourceFinding;
using Crypto::PKX509::SourceRecord;
using Crypto::PKX509::UseFacts;
using Source = Report::Source;
using Use = SourceRecord::Use;
using Failure = UseFacts::Failure;
using OriginKind = Report::Origin::Kind;

Use use(Source::Kind kind, Source::Wanted wanted, Failure failure = Failure::kOther) {
  return {.kind = kind,
          .wanted = wanted,
          .origin = "place",
          .result = Source::Result::kFailed,
          .facts = {.failure = failure}};
}

TEST(SourceFindings, Rule_IsThatOfTheFailureThenOfTheSource) {
  using enum Source::Kind;
  const auto crls = Source::Wanted::kCRLs;
  const auto certificates = Source::Wanted::kCertificates;
  EXPECT_EQ(ruleOf(use(kCRLServer, crls, Failure::kNoAnswer)), Rule::kCRLUnreachable);
  EXPECT_EQ(ruleOf(use(kCRLServer, crls, Failure::kMalformed)), Rule::kCRLMalformed);
  EXPECT_EQ(ruleOf(use(kOCSPResponder, Source::Wanted::kAnswer, Failure::kNoAnswer)),
            Rule::kOCSPUnreachable);
  EXPECT_EQ(ruleOf(use(kCache, crls)), Rule::kCacheUnusable);
  EXPECT_EQ(ruleOf(use(kDirectory, crls, Failure::kUnreadable)), Rule::kCRLFileUnreadable);
  Use trusted = use(kDirectory, certificates, Failure::kUnreadable);
  EXPECT_EQ(ruleOf(trusted), Rule::kTrustDirectoryMissing);
  trusted.facts.file = "place/file";
  EXPECT_EQ(ruleOf(trusted), Rule::kTrustFileUnreadable);
  EXPECT_EQ(ruleOf(use(kLDAP, crls)), Rule::kCRLSourceFailed);
  EXPECT_EQ(ruleOf(use(kLDAP, certificates)), Rule::kIssuerSourceFailed);
  EXPECT_EQ(ruleOf(use(kLookupMethod, crls)), Rule::kCRLSourceFailed);
  EXPECT_EQ(ruleOf(use(kLookupMethod, certificates)), Rule::kIssuerSourceFailed);
  for (const Source::Kind kind :
       {kDirectory, kLookupMethod, kLDAP, kCache, kCRLServer, kOCSPResponder}) {
    EXPECT_EQ(ruleOf(use(kind, crls, Failure::kAddressRefused)), Rule::kAddressRefused);
    EXPECT_EQ(ruleOf(use(kind, crls, Failure::kScheme)), Rule::kSchemeNotSpoken);
    EXPECT_EQ(ruleOf(use(kind, crls, Failure::kClientIdentity)), Rule::kClientIdentity);
    EXPECT_EQ(ruleOf(use(kind, crls, Failure::kBudget)), Rule::kBudgetSpent);
    EXPECT_EQ(ruleOf(use(kind, crls, Failure::kNotVouched)), Rule::kCertificateSignature);
  }
}

TEST(SourceFindings, Values_SayWhatHappened) {
  Use failed = use(Source::Kind::kCRLServer, Source::Wanted::kCRLs);
  failed.origin = "http://crl.example/ca.crl";
  failed.taken = 1500us + 11ms;
  failed.facts = {.failure = Failure::kNoAnswer,
                  .reason = "Not Found",
                  .httpStatus = 404,
                  .errorNumber = 111,
                  .bytes = 9};
  const Issued anna = issue({.subject = "CN=Anna", .serial = "5F01"});
  const Finding made = sourceFinding(failed, handle(anna), 1, 3);
  EXPECT_EQ(made.rule(), Rule::kCRLUnreachable);
  EXPECT_EQ(made.depth(), 1);
  EXPECT_EQ(made.code(), 3);
  EXPECT_EQ(made.certificate().serial(), "5F01");
  EXPECT_EQ(made.origin(), Report::Origin(OriginKind::kNetwork, failed.origin.text()));
  EXPECT_EQ(made.details(), (Details{{DetailName::kURI, failed.origin.text()},
                                     {DetailName::kError, "Not Found"s},
                                     {DetailName::kHTTPStatus, std::int64_t{404}},
                                     {DetailName::kErrorNumber, std::int64_t{111}},
                                     {DetailName::kBytes, std::int64_t{9}},
                                     {DetailName::kMilliseconds, std::int64_t{12}}}));
}

TEST(SourceFindings, Place_IsNamedAsWhatItIs) {
  struct Row {
    Source::Kind kind;
    Source::Wanted wanted;
    std::string_view name;
    OriginKind origin;
  };
  const Row rows[] = {
      {Source::Kind::kDirectory, Source::Wanted::kCRLs, DetailName::kDirectory,
       OriginKind::kMachineCRLs},
      {Source::Kind::kDirectory, Source::Wanted::kCertificates, DetailName::kDirectory,
       OriginKind::kTrustDirectory},
      {Source::Kind::kCache, Source::Wanted::kCRLs, DetailName::kURI, OriginKind::kCache},
      {Source::Kind::kLookupMethod, Source::Wanted::kCRLs, DetailName::kLookupMethod,
       OriginKind::kLookupMethod},
      {Source::Kind::kLDAP, Source::Wanted::kCRLs, DetailName::kURI, OriginKind::kLDAP},
      {Source::Kind::kOCSPResponder, Source::Wanted::kAnswer, DetailName::kURI,
       OriginKind::kNetwork}};
  for (const Row& row : rows) {
    Use failed = use(row.kind, row.wanted);
    failed.facts.file = "place/file";
    const Finding made = sourceFinding(failed, {}, -1, 0);
    ASSERT_NE(made.find(row.name), nullptr) << row.name;
    EXPECT_EQ(*made.find(row.name), Report::Value("place"s));
    EXPECT_EQ(*made.find(DetailName::kFile), Report::Value("place/file"s));
    EXPECT_EQ(made.origin(), Report::Origin(row.origin, "place", "place/file"));
  }
}

TEST(SourceFindings, OnlyWhatFailedForTheCertificateCounts) {
  const Issued anna = issue({.subject = "CN=Anna"});
  const Issued other = issue({.subject = "CN=Other"});
  SourceRecord record;
  const auto add = [&record](const X509* about, Source::Result result) {
    Use one = use(Source::Kind::kCRLServer, Source::Wanted::kCRLs);
    one.about = about;
    one.result = result;
    record.add(std::move(one));
  };
  add(anna.get(), Source::Result::kFound);
  add(anna.get(), Source::Result::kNothing);
  add(other.get(), Source::Result::kFailed);
  add(nullptr, Source::Result::kFailed);
  EXPECT_TRUE(failedFor(anna.get(), record).empty());
  add(anna.get(), Source::Result::kFailed);
  add(anna.get(), Source::Result::kRefused);
  add(anna.get(), Source::Result::kCut);
  EXPECT_EQ(failedFor(anna.get(), record).size(), 3U);
}

// A forger names no source that may have had the issuer: neither hosts, nor what our bounds refuse.
TEST(SourceFindings, IssuerSource_IsAskedForThePathAndFailed) {
  SourceRecord record;
  const Issued anna = issue({.subject = "CN=Anna"});
  Use one = use(Source::Kind::kLDAP, Source::Wanted::kCRLs);
  record.add(Use(one));
  one.wanted = Source::Wanted::kCertificates;
  one.result = Source::Result::kFound;
  record.add(Use(one));
  one.result = Source::Result::kNothing;
  record.add(Use(one));
  one.result = Source::Result::kRefused;
  record.add(Use(one));
  one.result = Source::Result::kFailed;
  one.about = anna.get();
  record.add(Use(one));
  EXPECT_EQ(failedIssuerSource(record), nullptr);
  one.about = nullptr;
  one.origin = "ldap://h";
  record.add(Use(one));
  ASSERT_NE(failedIssuerSource(record), nullptr);
  EXPECT_EQ(failedIssuerSource(record)->origin, "ldap://h");
}

}  // namespace
}  // namespace Velantrix::Test
