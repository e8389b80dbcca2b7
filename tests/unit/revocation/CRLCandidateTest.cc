#include "revocation/CRLCandidate.h"
#include "support/Handles.h"

#include <gtest/gtest.h>

namespace Velantrix::Test {
namespace {

using namespace Crypto::PKX509;
using namespace Crypto::PKX509::Revocation;

const Issued& listIssuer() {
  static const Issued made = issueCA("O=Test,CN=CA");
  return made;
}

Time at(const char* text) { return Time::then(When(text).time(), true); }

// Texts are made of it when somebody reads.
TEST(CRLCandidate, Statement_IsTheListWithItsOrigin) {
  CRLOptions options{.issuer = &listIssuer(), .number = Serial(42)};
  const Provenance from{Provenance::Kind::kCache, "http://crl.test/"};
  const CRLCandidate candidate{.crl = crlHandle(options), .from = from};
  const Statement complete = statementOf(candidate);
  EXPECT_EQ(complete.kind, Statement::Kind::kCRL);
  EXPECT_EQ(complete.crl->native(), candidate.crl->native());
  EXPECT_EQ(complete.issuer + complete.number, "");
  EXPECT_FALSE(complete.thisUpdate || complete.nextUpdate);
  EXPECT_EQ(complete.from.kind, from.kind);
  EXPECT_EQ(complete.from.place, from.place);

  options.deltaBase = Serial(41);
  EXPECT_EQ(statementOf({.crl = crlHandle(options)}).kind, Statement::Kind::kDeltaCRL);
}

// 5.1.2.4, 5.1.2.5: both ends belong to it.
TEST(CRLCandidate, Times_IncludeTheirEnds) {
  CRLOptions options{.issuer = &listIssuer(),
                     .lastUpdate = "20260102000000Z",
                     .nextUpdate = When("20260109000000Z")};
  const auto dated = crlHandle(options);
  EXPECT_FALSE(isIssuedBy(*dated.get(), at("20260101235959Z")));
  EXPECT_TRUE(isIssuedBy(*dated.get(), at("20260102000000Z")));
  EXPECT_TRUE(isCurrentAt(*dated.get(), at("20260109000000Z"), 1));
  EXPECT_FALSE(isCurrentAt(*dated.get(), at("20260109000001Z"), 1));
  options.nextUpdate.reset();
  const auto undated = crlHandle(options);
  EXPECT_TRUE(isCurrentAt(*undated.get(), at("20260102010000Z"), 3600));
  EXPECT_FALSE(isCurrentAt(*undated.get(), at("20260102010001Z"), 3600));
}

TEST(CRLCandidate, Counts_WhenNothingIsAgainstItAndItsSignerIsKnown) {
  CRLCandidate candidate{.crl = crlHandle({.issuer = &listIssuer()})};
  EXPECT_FALSE(candidate.counts());
  candidate.signer = handle(listIssuer());
  EXPECT_TRUE(candidate.counts());
  candidate.unauthentic = Reason::kSignerRevoked;
  candidate.aboutSigner = aboutAlone(handle(listIssuer()));
  EXPECT_FALSE(candidate.counts());
  candidate.forgetSigner();
  EXPECT_EQ(candidate.aboutSigner, nullptr);
  EXPECT_FALSE(candidate.unauthentic);
  EXPECT_TRUE(candidate.signer.empty());
  candidate.signer = handle(listIssuer());
  candidate.refused = Reason::kExpired;
  EXPECT_FALSE(candidate.counts());
}

}  // namespace
}  // namespace Velantrix::Test
