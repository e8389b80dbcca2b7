#include "foundation/run/VerificationRun.h"
#include "support/LogCapture.h"
#include "unit/verify/World.h"

#include <gtest/gtest.h>
#include <stop_token>
#include <thread>

namespace Velantrix::Test {
namespace {

using namespace std::string_literals;
using std::chrono::hours;

constexpr char kUnknownOid[] = "1.2.3.4.5";

// The same certificate with a public key that cannot be decoded.
Issued withBrokenKey(const Issued& issued) {
  const ASN1_BIT_STRING* const bits = X509_get0_pubkey_bitstr(issued.get());
  const std::string point(reinterpret_cast<const char*>(ASN1_STRING_get0_data(bits)),
                          static_cast<std::size_t>(ASN1_STRING_length(bits)));
  std::string bytes = der(issued.get());
  const std::size_t at = bytes.find(point);
  if (at == std::string::npos) throw std::runtime_error("no public key");
  bytes[at] = '\x09';  // neither a compressed nor an uncompressed point
  return Issued{certFromDer(bytes), issued.key};
}

class CRLContainerExtendedChecksTest : public testing::Test {
 protected:
  const Issued root = issueCA("O=Test,CN=Root");
  const Issued leaf = issue({.subject = "O=Test,CN=Leaf", .issuer = &root});
  const std::list<RefCertificate> path{handle(leaf), handle(root)};
  World world;
  Verifier verifier{world.store, handle(leaf), false};
  OpenContainer container{verifier};
  LogCapture log;

  CRLContainerExtendedChecksTest() { world.trust(root); }

  void add(const CRLOptions& options, const Issued& issuer) {
    container.add(makeEntry(handle(leaf), crlHandle(options), handle(issuer)));
  }
  void add(const CRLOptions& options) { add(options, root); }
  int check() {
    ERR_clear_error();
    container.extendedCRLChecks(path);
    return verifier.contextError();
  }
  void at(When when) {
    X509_VERIFY_PARAM_set_time(X509_STORE_CTX_get0_param(verifier), when.time());
  }
  CRLOptions expired() const {
    return {.issuer = &root, .lastUpdate = hours(-9), .nextUpdate = When(hours(-1))};
  }
  CRLOptions early() const { return {.issuer = &root, .lastUpdate = hours(1)}; }
};

TEST_F(CRLContainerExtendedChecksTest, GoodCRLOfTheIssuerOnThePath_NoErrorNoLineNoLookup) {
  add({.issuer = &root});
  EXPECT_EQ(check(), 0);
  EXPECT_TRUE(log.lines().empty());
  EXPECT_EQ(world.source->objectQueries + world.source->crlQueries, 0);
  EXPECT_EQ(container.entries.size(), 1U);
}

TEST_F(CRLContainerExtendedChecksTest, EmptyContainer_TouchesNothing) {
  verifier.contextError(33);
  EXPECT_EQ(check(), 33);
}

TEST_F(CRLContainerExtendedChecksTest, IssuerMayNotSignCRLs_35) {
  // Somebody on the path issued the CRL; the entry's issuer is another certificate of that name.
  const Issued noSign = issue(
      {.subject = "O=Test,CN=Root", .ca = true, .keyUsage = KU_KEY_CERT_SIGN, .key = root.key});
  add({.issuer = &root}, noSign);
  EXPECT_EQ(check(), X509_V_ERR_KEYUSAGE_NO_CRL_SIGN);
  EXPECT_EQ(check(), 35);
}

TEST_F(CRLContainerExtendedChecksTest, IssuerWithoutKeyUsage_MaySignCRLs) {
  const Issued unrestricted =
      issue({.subject = "O=Test,CN=Root", .ca = true, .keyUsage = kAbsent, .key = root.key});
  add({.issuer = &root}, unrestricted);
  EXPECT_EQ(check(), 0);
}

TEST_F(CRLContainerExtendedChecksTest, IssuersKeyCannotBeDecoded_6) {
  add({.issuer = &root}, withBrokenKey(root));
  EXPECT_EQ(check(), X509_V_ERR_UNABLE_TO_DECODE_ISSUER_PUBLIC_KEY);
  EXPECT_EQ(check(), 6);
  EXPECT_EQ(ERR_peek_error(), 0UL);
}

TEST_F(CRLContainerExtendedChecksTest, SignedByAnotherKey_8) {
  add({.issuer = &root}, issueCA("O=Test,CN=Root"));
  EXPECT_EQ(check(), X509_V_ERR_CRL_SIGNATURE_FAILURE);
  EXPECT_EQ(check(), 8);
  EXPECT_EQ(ERR_peek_error(), 0UL);
}

TEST_F(CRLContainerExtendedChecksTest, BadSignature_8ThoughTheIssuerIsValid) {
  // The signature does not count as the path's, so the issuer is verified on its own first.
  add({.issuer = &root, .badSignature = true});
  EXPECT_EQ(check(), 8);
}

struct CriticalRow {
  const char* name;
  CRLOptions crl;
  int error;
};

TEST_F(CRLContainerExtendedChecksTest, CriticalExtensions) {
  const CriticalRow rows[] = {
      {"unknown", {.issuer = &root, .rawExtensions = {{kUnknownOid, true, "\x05\x00"s}}}, 36},
      {"unknown, not critical",
       {.issuer = &root, .rawExtensions = {{kUnknownOid, false, "\x05\x00"s}}},
       0},
      {"unknown in an entry",
       {.issuer = &root,
        .revoked = {{.serial = Serial(77), .extensions = {{kUnknownOid, true, "\x05\x00"s}}}}},
       36},
      {"issuing distribution point", {.issuer = &root, .idp = Scope{.onlyUser = true}}, 0},
      {"certificate issuer in an entry",
       {.issuer = &root,
        .revoked = {{.serial = Serial(77), .certificateIssuer = "CN=Somebody"}},
        .idp = Scope{.indirect = true}},
       0},
  };
  for (const CriticalRow& row : rows) {
    SCOPED_TRACE(row.name);
    container.clear();
    verifier.contextError(0);
    add(row.crl);
    EXPECT_EQ(check(), row.error);
  }
}

TEST_F(CRLContainerExtendedChecksTest, DeltaIndicatorIsCritical_AndHandled) {
  add({.issuer = &root});
  add({.issuer = &root, .deltaBase = Serial(1)});
  EXPECT_EQ(check(), 0);
}

TEST_F(CRLContainerExtendedChecksTest, Expired_12) {
  add(expired());
  EXPECT_EQ(check(), X509_V_ERR_CRL_HAS_EXPIRED);
  EXPECT_EQ(check(), 12);
}

TEST_F(CRLContainerExtendedChecksTest, NotYetValid_11) {
  add(early());
  EXPECT_EQ(check(), X509_V_ERR_CRL_NOT_YET_VALID);
  EXPECT_EQ(check(), 11);
}

TEST_F(CRLContainerExtendedChecksTest, NeitherNowNorLater_11Overwrites12) {
  add({.issuer = &root, .lastUpdate = hours(2), .nextUpdate = When(hours(-2))});
  EXPECT_EQ(check(), 11);
}

TEST_F(CRLContainerExtendedChecksTest, NoNextUpdate_NeverExpires) {
  add({.issuer = &root, .nextUpdate = std::nullopt});
  at(hours(24 * 3650));
  EXPECT_EQ(check(), 0);
}

TEST_F(CRLContainerExtendedChecksTest, ExpiredBaseBesideADelta_IsAccepted) {
  add(expired());
  add({.issuer = &root, .deltaBase = Serial(1)});
  EXPECT_EQ(check(), 0);
}

TEST_F(CRLContainerExtendedChecksTest, ExpiredBaseAndExpiredDelta_AreAccepted) {
  add(expired());
  CRLOptions delta = expired();
  delta.deltaBase = Serial(1);
  add(delta);
  EXPECT_EQ(check(), 0);
}

// Meant so. The signature of a CRL that is out of scope is never looked at.
TEST_F(CRLContainerExtendedChecksTest, ExpiredBaseBesideARejectedForgery_IsAccepted) {
  add(expired());
  EXPECT_EQ(check(), 12);
  container.clear();
  verifier.contextError(0);
  add(expired());
  add({.issuer = &root,
       .deltaBase = Serial(1),
       .idp = Scope{.onlyCA = true},
       .badSignature = true});
  EXPECT_EQ(container.entries.size(), 1U);
  EXPECT_EQ(check(), 0);
  int reason = 0;
  EXPECT_EQ(container.isRevoked(reason), 0);
}

TEST_F(CRLContainerExtendedChecksTest, ExpiredDelta_IsAcceptedAndAnEarlyOneIsNot) {
  add({.issuer = &root});
  CRLOptions delta = expired();
  delta.deltaBase = Serial(1);
  add(delta);
  EXPECT_EQ(check(), 0);
  delta = early();
  delta.deltaBase = Serial(1);
  add(delta);
  EXPECT_EQ(check(), 11);
}

TEST_F(CRLContainerExtendedChecksTest, TimeOfTheContext_CountsInPlaceOfTheClock) {
  add(expired());
  at(hours(-5));
  EXPECT_EQ(check(), 0);
  verifier.contextError(0);
  at(hours(-10));
  EXPECT_EQ(check(), 11);
}

TEST_F(CRLContainerExtendedChecksTest, LimitsOfValidity_AreInside) {
  const When from = When::at(When(hours(-9)).time());
  const When until = When::at(When(hours(-1)).time());
  add({.issuer = &root, .lastUpdate = from, .nextUpdate = until});
  const std::pair<When, int> rows[] = {
      {from, 0}, {until, 0}, {When::at(from.time() - 1), 11}, {When::at(until.time() + 1), 12}};
  for (const auto& [when, error] : rows) {
    verifier.contextError(0);
    at(when);
    EXPECT_EQ(check(), error) << when.time();
  }
}

TEST_F(CRLContainerExtendedChecksTest, ExpiryDoesNotEndTheChecks_TheNextEntryIsLookedAt) {
  add(expired());
  add(early());
  EXPECT_EQ(check(), 11);
}

TEST_F(CRLContainerExtendedChecksTest, GoodEntryOnThePath_LeavesAnEarlierExpiry) {
  add(expired());
  add({.issuer = &root});
  EXPECT_EQ(check(), 12);
}

TEST_F(CRLContainerExtendedChecksTest, LaterEntryWhoseIssuerValidates_OverwritesAnEarlierExpiry) {
  const Issued other = issueCA("O=Test,CN=Other");
  world.trust(other);
  add(expired());
  add({.issuer = &other}, other);
  EXPECT_EQ(check(), 0);
}

struct StopRow {
  const char* name;
  std::function<void()> addBad;
  int error;
};

TEST_F(CRLContainerExtendedChecksTest, OtherErrors_EndTheChecks) {
  const Issued noSign = issue(
      {.subject = "O=Test,CN=Root", .ca = true, .keyUsage = KU_KEY_CERT_SIGN, .key = root.key});
  const Issued stranger = issueCA("O=Test,CN=Stranger");
  const StopRow rows[] = {
      {"issuer not valid", [&] { add({.issuer = &stranger}, stranger); },
       X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT},
      {"key usage", [&] { add({.issuer = &root}, noSign); }, 35},
      {"key", [&] { add({.issuer = &root}, withBrokenKey(root)); }, 6},
      {"signature", [&] { add({.issuer = &root, .badSignature = true}); }, 8},
      {"extension",
       [&] {
         add({.issuer = &root, .rawExtensions = {{kUnknownOid, true, "\x05\x00"s}}});
       },
       36},
  };
  for (const StopRow& row : rows) {
    SCOPED_TRACE(row.name);
    container.clear();
    verifier.contextError(0);
    row.addBad();
    add(early());
    EXPECT_EQ(check(), row.error);
  }
}

TEST_F(CRLContainerExtendedChecksTest, OrderOfTheSteps_TheFirstFindingIsTheError) {
  // Everything is wrong with these; each row mends what the row before found.
  const std::vector<RawExtension> critical{{kUnknownOid, true, "\x05\x00"s}};
  const Issued noSign = issue(
      {.subject = "O=Test,CN=Root", .ca = true, .keyUsage = KU_KEY_CERT_SIGN, .key = root.key});
  CRLOptions crl = expired();
  crl.rawExtensions = critical;
  struct Row {
    const char* name;
    Issued issuer;
    int error;
  };
  const Row rows[] = {{"key usage before key", withBrokenKey(noSign), 35},
                      {"key before signature", withBrokenKey(root), 6},
                      {"signature before extension", issueCA("O=Test,CN=Root"), 8},
                      {"extension before time", root, 36}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    container.clear();
    verifier.contextError(0);
    add(crl, row.issuer);
    EXPECT_EQ(check(), row.error);
  }
}

TEST_F(CRLContainerExtendedChecksTest, EntryWithoutCRL_IsPassedOver) {
  add(expired());
  container.entries.front().crl = RefObject();
  EXPECT_EQ(check(), 0);
  add(early());
  EXPECT_EQ(check(), 11);
}

TEST_F(CRLContainerExtendedChecksTest, OneSignatureForAllSteps) {
  const RefCertificateRevocationList crl = crlHandle({.issuer = &root});
  container.add(makeEntry(handle(leaf), crl, handle(root)));
  check();
  check();
  EXPECT_EQ(crl->signatureChecks(), 1U);
}

// Once the signature is being computed, which is tried until that is before its end.
TEST_F(CRLContainerExtendedChecksTest, StoppedInALongSignature_NoVerdictOnIt) {
  const std::string content = "\x04\x83\x40"s + std::string(2, '\0');
  const RawExtension filler{kUnknownOid, false, content + std::string(1 << 22, 'x')};
  const std::string der =
      Velantrix::Test::der(makeCRL({.issuer = &root, .rawExtensions = {filler}}).get());
  bool stopped = false;
  while (!stopped) {
    const auto crl = handle(crlFromDer(der));
    container.clear();
    container.add(makeEntry(handle(leaf), crl, handle(root)));
    std::stop_source source;
    std::jthread other([&](const std::stop_token& end) {
      while (crl->signatureChecks() == 0 && !end.stop_requested()) std::this_thread::yield();
      source.request_stop();
    });
    const VerificationRun run(nullptr, {.stop = source.get_token()});
    EXPECT_EQ(check(), 0) << "neither wrong nor, by another error, somebody else's";
    stopped = !crl->rememberedSignature(root.key.get()).has_value();
    EXPECT_TRUE(!stopped || run.fellShort());
  }
  EXPECT_EQ(world.source->objectQueries, 0) << "no other issuer is looked for";
}

}  // namespace
}  // namespace Velantrix::Test
