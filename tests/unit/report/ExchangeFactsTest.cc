#include "foundation/run/Counters.h"
#include "report/ExchangeFacts.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <string>

namespace Velantrix::Test {
namespace {

using namespace Crypto::PKX509;
using HTTPFailure = LW::HTTP::Failure;

TEST(ExchangeFacts, EveryKindOfFailure) {
  const struct {
    HTTPFailure failure;
    UseFacts::Failure kind;
    std::string reason;
    int errorNumber;
  } rows[] = {
      {{.kind = HTTPFailure::Kind::kClientIdentity, .error = ENOENT, .detail = "/x: No such file"},
       UseFacts::Failure::kClientIdentity,
       "client certificate or key: /x: No such file",
       ENOENT},
      {{.kind = HTTPFailure::Kind::kResolve, .error = 4, .detail = "Domain name not found"},
       UseFacts::Failure::kNoAnswer,
       "the host has no address: Domain name not found",
       0},
      {{.kind = HTTPFailure::Kind::kRefusedAddress, .detail = "a loopback address: 127.0.0.1"},
       UseFacts::Failure::kAddressRefused,
       "the address policy refuses a loopback address: 127.0.0.1",
       0},
      {{.kind = HTTPFailure::Kind::kProxy, .error = ECONNREFUSED, .detail = "Connection refused"},
       UseFacts::Failure::kNoAnswer,
       "the proxy: Connection refused",
       ECONNREFUSED},
      {{.kind = HTTPFailure::Kind::kEncoding, .detail = "gzip"},
       UseFacts::Failure::kNoAnswer,
       "content in an encoding that was not asked for: gzip",
       0},
      {{.kind = HTTPFailure::Kind::kConnect, .error = ECONNREFUSED, .detail = "Connection refused"},
       UseFacts::Failure::kNoAnswer,
       "could not connect: Connection refused",
       ECONNREFUSED},
      {{.kind = HTTPFailure::Kind::kTls, .detail = "wrong version number"},
       UseFacts::Failure::kNoAnswer,
       "TLS: wrong version number",
       0},
      {{.kind = HTTPFailure::Kind::kTimedOut, .detail = "no answer in 15 s"},
       UseFacts::Failure::kNoAnswer,
       "no answer in 15 s",
       0},
      {{.kind = HTTPFailure::Kind::kCutShort},
       UseFacts::Failure::kNoAnswer,
       "the answer ends in the middle",
       0},
      {{.kind = HTTPFailure::Kind::kTooLarge, .detail = "content above 5 octets"},
       UseFacts::Failure::kNoAnswer,
       "the answer is too large: content above 5 octets",
       0},
      {{.kind = HTTPFailure::Kind::kStatus, .httpStatus = 404, .detail = "Not Found"},
       UseFacts::Failure::kNoAnswer,
       "HTTP status 404: Not Found",
       0},
      {{.kind = HTTPFailure::Kind::kMalformed},
       UseFacts::Failure::kNoAnswer,
       "the answer is no HTTP",
       0},
      {{.kind = HTTPFailure::Kind::kClosed, .detail = "reset"},
       UseFacts::Failure::kNoAnswer,
       "no answer: reset",
       0},
      {{.kind = HTTPFailure::Kind::kNoTime},
       UseFacts::Failure::kBudget,
       "no time was left for the network",
       0},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.reason);
    const UseFacts facts = factsOf(row.failure);
    EXPECT_EQ(facts.failure, row.kind);
    EXPECT_EQ(facts.reason, row.reason);
    EXPECT_EQ(facts.errorNumber, row.errorNumber);
    EXPECT_EQ(facts.httpStatus, row.failure.httpStatus);
  }
}

TEST(ExchangeFacts, ExchangeWithAHost_IsCountedAndWithNoneIsNot) {
  using What = Statistics::Counter;
  using Kind = HTTPFailure::Kind;
  const CountedSince since;
  for (const Kind nobody : {Kind::kRefusedAddress, Kind::kNoTime, Kind::kClientIdentity}) {
    countExchange({.kind = nobody}, 0);
  }
  EXPECT_EQ(since.of(What::kFetches), 0U);
  EXPECT_EQ(since.of(What::kFetchFailures), 0U);
  countExchange({}, 1000);
  EXPECT_EQ(since.of(What::kFetches), 1U);
  EXPECT_EQ(since.of(What::kFetchFailures), 0U);
  for (const Kind failed : {Kind::kResolve, Kind::kConnect, Kind::kStatus, Kind::kCutShort}) {
    countExchange({.kind = failed}, 1);
  }
  EXPECT_EQ(since.of(What::kFetches), 5U);
  EXPECT_EQ(since.of(What::kFetchFailures), 4U);
  EXPECT_EQ(since.of(What::kNetworkBytes), 1004U);
}

TEST(ExchangeFacts, SchemeThatNobodySpeaks) {
  const UseFacts facts = notSpoken(Uri("ldap://host/cn=CA"));
  EXPECT_EQ(facts.failure, UseFacts::Failure::kScheme);
  EXPECT_EQ(facts.reason, "not spoken: ldap:");
}

}  // namespace
}  // namespace Velantrix::Test
