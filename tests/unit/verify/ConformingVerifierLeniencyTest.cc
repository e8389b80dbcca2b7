// Where the two verifiers differ: every leniency of Verifier, and what it refuses although the standards
// accept it, with the verdicts of both. docs/CONFORMANCE.md names these tests; what needs a server is in
// tests/integration/ConformanceTest.cc.
#include "support/LogCapture.h"
#include "unit/verify/BothVerifiers.h"

#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <vector>

namespace Velantrix::Test {
namespace {

using namespace std::string_literals;
using std::chrono::hours;

class Leniency : public testing::Test {
 protected:
  Leniency() { world.trust(root); }

  Issued person(const CertificateOptions& changed = {}) const {
    CertificateOptions options = changed;
    options.subject = "O=Test,CN=Person";
    options.issuer = &root;
    return issue(options);
  }
  Issued through(const std::vector<Point>& points) const {
    return person({.crlDistributionPoints = points});
  }
  static std::shared_ptr<EVP_PKEY> rsa512() {
    static const std::shared_ptr<EVP_PKEY> key(EVP_RSA_gen(512), EVP_PKEY_free);
    return key;
  }
  /// Both, when the source has these CRLs and no others.
  Verdicts with(const std::vector<CRLOptions>& lists, const Issued& issued,
                const std::list<Issued>& untrusted = {}) {
    world.source->crls.clear();
    for (const CRLOptions& list : lists) world.publish(list);
    return verdicts(world.store, issued, untrusted);
  }

  static constexpr int kGood = X509_V_OK;
  static constexpr int kRevoked = X509_V_ERR_CERT_REVOKED;
  static constexpr int kNoCRL = X509_V_ERR_UNABLE_TO_GET_CRL;
  static constexpr int kNoCRLIssuer = X509_V_ERR_UNABLE_TO_GET_CRL_ISSUER;
  static constexpr int kExpired = X509_V_ERR_CRL_HAS_EXPIRED;
  static constexpr int kScope = X509_V_ERR_DIFFERENT_CRL_SCOPE;
  static constexpr int kSignature = X509_V_ERR_CRL_SIGNATURE_FAILURE;

  const Issued root = issueCA("O=Test,CN=Root");
  World world;
  LogCapture log;
};

// ------------------------------------------------------------------------------------ the strength

class WeakSignatures : public Leniency {
 protected:
  WeakSignatures() { world.trust(ca); }

  // RSA, since nothing else signs with MD5.
  static std::shared_ptr<EVP_PKEY> rsa2048() {
    static const std::shared_ptr<EVP_PKEY> key(EVP_RSA_gen(2048), EVP_PKEY_free);
    return key;
  }

  const Issued ca = issue({.subject = "O=Test,CN=RSA Root", .ca = true, .key = rsa2048()});
};

TEST_F(WeakSignatures, OfCertificates) {
  const Issued strong = issue({.subject = "O=Test,CN=Person", .issuer = &ca});
  const Issued weak = issue({.subject = "O=Test,CN=Person", .issuer = &ca, .key = rsa512()});
  const Issued weakCA =
      issue({.subject = "O=Test,CN=Weak", .issuer = &ca, .ca = true, .key = rsa512()});
  const Issued below = issue({.subject = "O=Test,CN=Person", .issuer = &weakCA});
  world.trust(weakCA);
  const struct {
    const char* name;
    Issued issued;
    int conforming;
  } rows[] = {
      {"SHA-256", strong, kGood},
      {"SHA-1", signedWith(EVP_sha1(), strong, ca), X509_V_ERR_CA_MD_TOO_WEAK},
      {"MD5", signedWith(EVP_md5(), strong, ca), X509_V_ERR_CA_MD_TOO_WEAK},
      {"key of 512 bits", weak, X509_V_ERR_EE_KEY_TOO_SMALL},
      {"CA's key of 512 bits", below, X509_V_ERR_CA_KEY_TOO_SMALL},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(with({{.issuer = &ca}, {.issuer = &weakCA}}, row.issued),
              (Verdicts{kGood, row.conforming}));
  }
}

TEST_F(WeakSignatures, OfCRLs) {
  const Issued issued = issue({.subject = "O=Test,CN=Person", .issuer = &ca});
  const struct {
    const EVP_MD* digest;
    int conforming;
  } rows[] = {{EVP_sha256(), kGood}, {EVP_sha1(), kSignature}, {EVP_md5(), kSignature}};
  for (const auto& row : rows) {
    SCOPED_TRACE(EVP_MD_get0_name(row.digest));
    Owned<X509_CRL> crl = makeCRL({.issuer = &ca});
    ASSERT_GT(X509_CRL_sign(crl.get(), ca.key.get(), row.digest), 0);
    world.source->crls = {handle(crlFromDer(der(crl.get())))};
    EXPECT_EQ(verdicts(world.store, issued), (Verdicts{kGood, row.conforming}));
  }
}

TEST_F(WeakSignatures, OfCRLsWithAKeyOf512Bits) {
  const Issued lists =
      issue({.subject = "O=Test,CN=Lists", .issuer = &root, .ca = true, .key = rsa512()});
  world.trust(lists);
  const Issued issued = through({{.crlIssuers = {"dirName:O=Test,CN=Lists"}}});
  // The CRL issuer's own path is below the level: it is nobody who may speak.
  EXPECT_EQ(with({{.issuer = &lists, .idp = Scope{.indirect = true}}, {.issuer = &root}}, issued),
            (Verdicts{kGood, kGood}));
  EXPECT_EQ(with({{.issuer = &lists, .idp = Scope{.indirect = true}},
                  {.issuer = &root, .revoked = {{.serial = issued}}}},
                 issued),
            (Verdicts{kGood, kRevoked}));
}

// --------------------------------------------------------------------------------- who is decided

// RFC 5280, 6.1: the trust anchor is no certificate of the path.
TEST_F(Leniency, TrustAnchorThatIsNotSelfSigned) {
  const Issued inter = issueCA("O=Test,CN=Inter", &root);
  const Issued leaf = issue({.subject = "O=Test,CN=Leaf", .issuer = &inter});
  world.source->certificates = {handle(inter)};
  world.publish({.issuer = &inter});
  Verifier::Config config;
  config.flags |= X509_V_FLAG_PARTIAL_CHAIN;
  const RefStackOfCertificate none = stackOf({});
  EXPECT_EQ(Verifier(world.store->clone(), handle(leaf), none, config, false).isValid(), kNoCRL);
  EXPECT_EQ(ConformingVerifier(world.store->clone(), handle(leaf), none, config).isValid(), kGood);
}

// -------------------------------------------------------------------- who speaks, and about whom

// RFC 5280, 6.3.3 (b)(1), (f): the CRL of somebody who is not its issuer says nothing about a
// certificate, whatever the distribution point gives.
TEST_F(Leniency, CRLOfAnEndEntity_AtTheDistributionPoint) {
  const Issued speaker =
      issue({.subject = "O=Test,CN=Speaker", .issuer = &root, .keyUsage = kAbsent});
  world.trust(speaker);
  const Issued issued = through({{.fullNames = {"dirName:O=Test,CN=Speaker"}}});
  const CRLOptions theirs{.issuer = &speaker};
  EXPECT_EQ(with({theirs, {.issuer = &root}}, issued), (Verdicts{kGood, kGood}));
  EXPECT_EQ(with({theirs, {.issuer = &root, .revoked = {{.serial = issued}}}}, issued),
            (Verdicts{kGood, kRevoked}));
}

TEST_F(Leniency, CRLOfTheCertificateItself_AtTheDistributionPoint) {
  const Issued itself =
      person({.keyUsage = kAbsent,
              .crlDistributionPoints = {{.fullNames = {"dirName:O=Test,CN=Person"}}}});
  world.trust(itself);
  const CRLOptions own{.issuer = &itself};
  EXPECT_EQ(with({own}, itself), (Verdicts{kGood, kScope}));
  EXPECT_EQ(with({own, {.issuer = &root, .revoked = {{.serial = itself}}}}, itself),
            (Verdicts{kGood, kRevoked}));
}

TEST_F(Leniency, CRLOfAnotherCA_AtTheDistributionPoint) {
  const Issued other = issueCA("O=Test,CN=Other");
  world.trust(other);
  const Issued issued = through({{.fullNames = {"dirName:O=Test,CN=Other"}}});
  EXPECT_EQ(with({{.issuer = &other}}, issued), (Verdicts{kGood, kScope}));
  EXPECT_EQ(with({{.issuer = &other}, {.issuer = &root, .revoked = {{.serial = issued}}}}, issued),
            (Verdicts{kGood, kRevoked}));
}

// 6.3.3 (f): the trust anchor of the CRL issuer's path is that of the certificate's.
TEST_F(Leniency, NamesakeUnderAnotherRoot) {
  const Issued inter = issueCA("O=Test,CN=Inter", &root);
  const Issued otherRoot = issueCA("O=Test,CN=Other Root");
  const Issued namesake = issueCA("O=Test,CN=Inter", &otherRoot);
  for (const Issued& issued : {inter, otherRoot, namesake}) world.trust(issued);
  const Issued leaf = issue({.subject = "O=Test,CN=Leaf", .issuer = &inter});
  const std::vector<CRLOptions> theirs = {
      {.issuer = &root}, {.issuer = &otherRoot}, {.issuer = &namesake, .number = Serial(9)}};
  EXPECT_EQ(with(theirs, leaf), (Verdicts{kGood, kSignature}));
  std::vector<CRLOptions> all = theirs;
  all.insert(all.begin(), {.issuer = &inter, .revoked = {{.serial = leaf, .reason = 0}}});
  EXPECT_EQ(with(all, leaf), (Verdicts{kGood, kRevoked}));
}

// 6.3.3 (b)(1): a cRLIssuer's list says that it is an indirect one.
TEST_F(Leniency, PointWithACRLIssuer_WhoseListIsNotIndirect) {
  const Issued lists = issueCA("O=Test,CN=Lists", &root);
  world.trust(lists);
  const Issued issued = through({{.crlIssuers = {"dirName:O=Test,CN=Lists"}}});
  const CRLOptions about{.issuer = &root, .idp = Scope{.onlyCA = true}};
  EXPECT_EQ(with({{.issuer = &lists, .idp = Scope{.onlyUser = true}}, about}, issued),
            (Verdicts{kGood, kScope}));
  EXPECT_EQ(
      with({{.issuer = &lists, .idp = Scope{.onlyUser = true, .indirect = true}}, about}, issued),
      (Verdicts{kGood, kGood}));
}

// 6.3.3 (b)(2)(i)
TEST_F(Leniency, PointWithoutAName_AndAListForCertainPoints) {
  const Issued lists = issueCA("O=Test,CN=Lists", &root);
  world.trust(lists);
  const Issued issued = through({{.crlIssuers = {"dirName:O=Test,CN=Lists"}}});
  const CRLOptions about{.issuer = &root, .idp = Scope{.onlyCA = true}};
  Scope scope{.fullNames = {"dirName:O=Test,CN=Elsewhere"}, .indirect = true};
  EXPECT_EQ(with({{.issuer = &lists, .idp = scope}, about}, issued), (Verdicts{kGood, kScope}));
  scope.fullNames = {"dirName:O=Test,CN=Lists"};
  EXPECT_EQ(with({{.issuer = &lists, .idp = scope}, about}, issued), (Verdicts{kGood, kGood}));
}

// 6.3.3, end
TEST_F(Leniency, ListsByTheIssuersName_AreLookedForWhereThePointGivesNone) {
  const Issued issued = through({{.fullNames = {"dirName:CN=Elsewhere"}}});
  EXPECT_EQ(with({{.issuer = &root}}, issued), (Verdicts{kNoCRL, kGood}));
  EXPECT_EQ(with({{.issuer = &root, .revoked = {{.serial = issued}}}}, issued),
            (Verdicts{kNoCRL, kRevoked}));
}

// --------------------------------------------------------------------------------------- entries

// 5.3.1, 6.3.3 (j)
TEST_F(Leniency, EntryWithReasonUnspecified) {
  const Issued issued = person();
  EXPECT_EQ(with({{.issuer = &root, .revoked = {{.serial = issued, .reason = 0}}}}, issued),
            (Verdicts{kGood, kRevoked}));
  EXPECT_EQ(with({{.issuer = &root, .revoked = {{.serial = issued, .reason = 1}}}}, issued),
            (Verdicts{kRevoked, kRevoked}));
}

TEST_F(Leniency, OlderListWithReasonUnspecified_BesideANewerWithKeyCompromise) {
  const Issued issued = person();
  const CRLOptions newer{.issuer = &root,
                         .lastUpdate = hours(-1),
                         .number = Serial(2),
                         .revoked = {{.serial = issued, .reason = 1}}};
  const CRLOptions older{.issuer = &root,
                         .lastUpdate = hours(-2),
                         .number = Serial(1),
                         .revoked = {{.serial = issued, .reason = 0}}};
  EXPECT_EQ(with({newer, older}, issued), (Verdicts{kGood, kRevoked}));
  EXPECT_EQ(with({older, newer}, issued), (Verdicts{kRevoked, kRevoked}));
}

// 5.3.1: "removeFromCRL ... MUST only appear in delta CRLs".
TEST_F(Leniency, RemoveFromCRL_InACompleteList) {
  const Issued issued = person();
  const CRLOptions complete{.issuer = &root, .revoked = {{.serial = issued, .reason = 8}}};
  const CRLOptions delta{.issuer = &root, .number = Serial(2), .deltaBase = Serial(1)};
  EXPECT_EQ(with({complete, delta}, issued), (Verdicts{kGood, kNoCRL}));
  EXPECT_EQ(with({complete}, issued), (Verdicts{kRevoked, kNoCRL}));
}

// ----------------------------------------------------------------------------------------- times

// 5.1.2.5
TEST_F(Leniency, ListWithoutNextUpdate_CountsForADay) {
  const Issued issued = person();
  EXPECT_EQ(with({{.issuer = &root, .lastUpdate = hours(-23), .nextUpdate = std::nullopt}}, issued),
            (Verdicts{kGood, kGood}));
  EXPECT_EQ(with({{.issuer = &root, .lastUpdate = hours(-25), .nextUpdate = std::nullopt}}, issued),
            (Verdicts{kGood, kExpired}));
}

CRLOptions expiredListOf(const Issued& issuer) {
  return {.issuer = &issuer, .lastUpdate = hours(-24 * 601), .nextUpdate = hours(-24 * 600)};
}

TEST_F(Leniency, ExpiredList_AndThenOneWhoseIssuerValidates) {
  const Issued other = issueCA("O=Test,CN=Other");
  world.trust(other);
  const Issued issued = through(
      {{.fullNames = {"dirName:O=Test,CN=Root"}}, {.fullNames = {"dirName:O=Test,CN=Other"}}});
  EXPECT_EQ(with({expiredListOf(root)}, issued), (Verdicts{kExpired, kExpired}));
  // That it is another CA's says more than that the right one has expired.
  EXPECT_EQ(with({expiredListOf(root), {.issuer = &other}}, issued), (Verdicts{kGood, kScope}));
}

// ------------------------------------------------------------------------------------ delta CRLs

// 6.3.3 (a)(1)(i), 5.2.4
TEST_F(Leniency, ExpiredList_CountsBesideADeltaThatUpdatesIt) {
  const Issued issued = person();
  const CRLOptions delta{.issuer = &root, .number = Serial(2), .deltaBase = Serial(1)};
  EXPECT_EQ(with({expiredListOf(root), delta}, issued), (Verdicts{kGood, kGood}));
  CRLOptions sameNumber = delta;
  sameNumber.number = Serial(1);
  EXPECT_EQ(with({expiredListOf(root), sameNumber}, issued), (Verdicts{kGood, kExpired}));
}

TEST_F(Leniency, ExpiredListAndExpiredDelta) {
  CRLOptions delta = expiredListOf(root);
  delta.number = Serial(2);
  delta.deltaBase = Serial(1);
  EXPECT_EQ(with({expiredListOf(root), delta}, person()), (Verdicts{kGood, kExpired}));
}

// Its signature is not looked at by the one, and it changes nothing for the other.
TEST_F(Leniency, ForgedDelta_BesideAnExpiredList) {
  const CRLOptions forged{.issuer = &root,
                          .number = Serial(2),
                          .deltaBase = Serial(1),
                          .idp = Scope{.onlyCA = true},
                          .badSignature = true};
  const Issued issued = person();
  EXPECT_EQ(with({expiredListOf(root), forged}, issued), (Verdicts{kGood, kScope}));
  CRLOptions inScope = forged;
  inScope.idp.reset();
  EXPECT_EQ(with({expiredListOf(root), inScope}, issued), (Verdicts{kSignature, kSignature}));
}

// 5.2.4 (d)
TEST_F(Leniency, DeltaOlderThanItsBase_UnrevokesWhatThatRevokes) {
  const Issued issued = person();
  const CRLOptions base{.issuer = &root,
                        .lastUpdate = hours(-1),
                        .number = Serial(9),
                        .revoked = {{.serial = issued, .reason = 1}}};
  const CRLOptions delta{.issuer = &root,
                         .lastUpdate = hours(-50),
                         .number = Serial(6),
                         .deltaBase = Serial(5),
                         .revoked = {{.serial = issued, .reason = 8}}};
  EXPECT_EQ(with({base, delta}, issued), (Verdicts{kGood, kRevoked}));
  CRLOptions newer = delta;
  newer.number = Serial(10);
  EXPECT_EQ(with({base, newer}, issued), (Verdicts{kGood, kGood}));
}

// 5.2.3: the number decides, and no matter which was found first.
TEST_F(Leniency, TwoDeltasOfOneThisUpdate) {
  const Issued issued = person();
  const When same = When::at(When(hours(-2)).time());
  const CRLOptions empty{
      .issuer = &root, .lastUpdate = same, .number = Serial(2), .deltaBase = Serial(1)};
  CRLOptions listing = empty;
  listing.number = Serial(3);
  listing.revoked = {{.serial = issued, .reason = 1}};
  const CRLOptions base{.issuer = &root, .lastUpdate = hours(-3)};
  EXPECT_EQ(with({base, empty, listing}, issued), (Verdicts{kGood, kRevoked}));
  EXPECT_EQ(with({base, listing, empty}, issued), (Verdicts{kRevoked, kRevoked}));
  listing.number = Serial(2);
  EXPECT_EQ(with({base, empty, listing}, issued), (Verdicts{kGood, kRevoked}));
}

// 5.2.4 (a) and (b), 6.3.3 (c): the delta CRL of another issuer, scope or key updates nothing.
TEST_F(Leniency, DeltaOfAnotherIssuerScopeOrKey_UpdatesNothing) {
  const Issued issued = person();
  const CRLOptions base{.issuer = &root, .revoked = {{.serial = issued, .reason = 6}}};
  const CRLOptions removing{.issuer = &root,
                            .number = Serial(2),
                            .deltaBase = Serial(1),
                            .revoked = {{.serial = issued, .reason = 8}}};
  EXPECT_EQ(with({base, removing}, issued), (Verdicts{kGood, kGood}));
  CRLOptions otherScope = removing;
  otherScope.idp = Scope{.onlyUser = true};
  EXPECT_EQ(with({base, otherScope}, issued), (Verdicts{kGood, kRevoked}));
  CRLOptions otherKey = removing;
  otherKey.authorityKeyId = KeyId::Absent;
  EXPECT_EQ(with({base, otherKey}, issued), (Verdicts{kGood, kRevoked}));
  const Issued other = issueCA("O=Test,CN=Other");
  world.trust(other);
  const Issued twoPoints = through(
      {{.fullNames = {"dirName:O=Test,CN=Other"}}, {.fullNames = {"dirName:O=Test,CN=Root"}}});
  CRLOptions ofOther = removing;
  ofOther.issuer = &other;
  ofOther.revoked = {{.serial = twoPoints, .reason = 8}};
  CRLOptions listing = base;
  listing.revoked = {{.serial = twoPoints, .reason = 0}};
  EXPECT_EQ(with({listing, ofOther}, twoPoints), (Verdicts{kGood, kRevoked}));
}

// --------------------------------------------------------- what the standards accept and Verifier not

class Refusals : public Leniency {};

// The CRL issuer's path has the caller's untrusted certificates too.
TEST_F(Refusals, CRLIssuerBelowAnUntrustedIntermediate) {
  const Issued inter = issueCA("O=Test,CN=Inter", &root);
  const Issued leaf = issue({.subject = "O=Test,CN=Leaf", .issuer = &inter});
  EXPECT_EQ(with({{.issuer = &root}, {.issuer = &inter}}, leaf, {inter}),
            (Verdicts{kNoCRL, kGood}));
  EXPECT_EQ(
      with({{.issuer = &root}, {.issuer = &inter, .revoked = {{.serial = leaf}}}}, leaf, {inter}),
      (Verdicts{kNoCRL, kRevoked}));
  // A CRL issuer beside the path, whose CA came along with the certificate.
  const Issued lists = issueCA("O=Test,CN=Lists", &inter);
  world.trust(lists);
  const Issued pointed = through(
      {{.fullNames = {"dirName:O=Test,CN=Lists"}, .crlIssuers = {"dirName:O=Test,CN=Lists"}}});
  const std::vector<CRLOptions> crls = {{.issuer = &root, .idp = Scope{.onlyCA = true}},
                                        {.issuer = &inter},
                                        {.issuer = &lists, .idp = Scope{.indirect = true}}};
  EXPECT_EQ(with(crls, pointed, {inter}),
            (Verdicts{X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY, kGood}));
}

// RFC 9608
TEST_F(Refusals, NoRevAvail) {
  const RawExtension noRevAvail{.oid = "2.5.29.56", .der = "\x05\0"s};
  const Issued issued = person({.rawExtensions = {noRevAvail}});
  EXPECT_EQ(conformingVerdict(world.store, issued), kGood);
  EXPECT_EQ(world.source->crlQueries, 0);
  EXPECT_EQ(classicVerdict(world.store, issued), kNoCRL);
  // A list that revokes it all the same is not looked for.
  EXPECT_EQ(with({{.issuer = &root, .revoked = {{.serial = issued}}}}, issued),
            (Verdicts{kRevoked, kGood}));
  constexpr int kMisused = X509_V_ERR_INVALID_EXTENSION;
  const std::vector<Point> here = {{.fullNames = {"dirName:O=Test,CN=Root"}}};
  const std::vector<CertificateOptions> misused = {
      {.ca = true, .rawExtensions = {noRevAvail}},
      {.crlDistributionPoints = here, .rawExtensions = {noRevAvail}},
      {.freshestCRL = here, .rawExtensions = {noRevAvail}},
  };
  for (const CertificateOptions& options : misused) {
    EXPECT_EQ(with({{.issuer = &root}}, person(options)), (Verdicts{kGood, kMisused}));
  }
}

TEST_F(Refusals, OneCRLOfSomebodyElse_BesideTheRightOne) {
  const Issued other = issueCA("O=Test,CN=Other", &root);
  world.trust(other);
  const Issued issued = through(
      {{.fullNames = {"dirName:O=Test,CN=Root"}, .crlIssuers = {"dirName:O=Test,CN=Root"}}});
  world.source->anyName = true;
  const CRLOptions foreign{.issuer = &other, .idp = Scope{.indirect = true}};
  CRLOptions right{.issuer = &root, .idp = Scope{.indirect = true}};
  EXPECT_EQ(with({right}, issued), (Verdicts{kGood, kGood}));
  EXPECT_EQ(with({foreign, right}, issued), (Verdicts{kNoCRLIssuer, kGood}));
  EXPECT_EQ(with({right, foreign}, issued), (Verdicts{kNoCRLIssuer, kGood}));
  right.revoked = {{.serial = issued}};
  EXPECT_EQ(with({foreign, right}, issued), (Verdicts{kNoCRLIssuer, kRevoked}));
}

// A CA that has changed its key, with two certificates of one name: which of them a source has first
// decides what the one verifier makes of it, and nothing for the other.
TEST_F(Refusals, KeyRollover_TwoRootsOfOneName) {
  const Issued after = issueCA("O=Test,CN=Root");
  const Issued ofBefore = person();
  const Issued ofAfter = issue({.subject = "O=Test,CN=Person", .issuer = &after});
  const std::vector<CRLOptions> lists = {{.issuer = &root}, {.issuer = &after}};
  for (const bool turned : {false, true}) {
    SCOPED_TRACE(turned);
    world.source->certificates = {handle(turned ? after : root), handle(turned ? root : after)};
    const int ofFirst = X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT;
    const int ofSecond = X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY;
    EXPECT_EQ(with(lists, ofBefore), (Verdicts{turned ? ofSecond : ofFirst, kGood}));
    EXPECT_EQ(with(lists, ofAfter), (Verdicts{turned ? ofFirst : ofSecond, kGood}));
    // With one list alone the other's certificates are undetermined.
    EXPECT_EQ(with({{.issuer = &after}}, ofBefore).conforming, kSignature);
    const CRLOptions listing{.issuer = &root, .revoked = {{.serial = ofBefore}}};
    EXPECT_EQ(with({listing, {.issuer = &after}}, ofBefore).conforming, kRevoked);
  }
}

TEST_F(Refusals, KeyRollover_TwoIntermediatesOfOneName) {
  const Issued before = issueCA("O=Test,CN=CA", &root);
  const Issued after = issueCA("O=Test,CN=CA", &root);
  const Issued ofBefore = issue({.subject = "O=Test,CN=A", .issuer = &before});
  const Issued ofAfter = issue({.subject = "O=Test,CN=B", .issuer = &after});
  const std::vector<CRLOptions> lists = {
      {.issuer = &root}, {.issuer = &before}, {.issuer = &after}};
  const std::vector<CRLOptions> byNewKey = {{.issuer = &root}, {.issuer = &after}};
  for (const bool turned : {false, true}) {
    SCOPED_TRACE(turned);
    world.source->certificates = {handle(root), handle(turned ? after : before),
                                  handle(turned ? before : after)};
    const int ofSecond = X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY;
    EXPECT_EQ(with(lists, ofBefore), (Verdicts{turned ? ofSecond : kGood, kGood}));
    EXPECT_EQ(with(lists, ofAfter), (Verdicts{turned ? kGood : ofSecond, kGood}));
    // The new key signs for both (RFC 5280, 6.3.3 (f), speaks of the issuer, and not of its key).
    EXPECT_EQ(with(byNewKey, ofBefore), (Verdicts{turned ? ofSecond : kGood, kGood}));
    const std::vector<CRLOptions> listing = {{.issuer = &root},
                                             {.issuer = &after, .revoked = {{.serial = ofBefore}}}};
    EXPECT_EQ(with(listing, ofBefore).conforming, kRevoked);
  }
}

TEST_F(Refusals, OneCRLThatIsNotRight_BesideTheRightOne) {
  const Issued stranger = issueCA("O=Test,CN=Stranger");
  const Issued issued = through({{.fullNames = {"dirName:O=Test,CN=Root"}}});
  world.source->anyName = true;
  const struct {
    const char* name;
    CRLOptions beside;
    int classic;
  } rows[] = {
      {"not signed by its issuer", {.issuer = &root, .badSignature = true}, kSignature},
      {"of a namesake's key", {.issuer = &root, .signer = stranger.key}, kSignature},
      {"of another kind's scope", {.issuer = &root, .idp = Scope{.onlyCA = true}}, kGood},
      {"with a critical extension that nobody knows",
       {.issuer = &root, .rawExtensions = {{"1.2.3.4", true, "\x05\0"s}}},
       X509_V_ERR_UNHANDLED_CRITICAL_CRL_EXTENSION},
  };
  for (const auto& row : rows) {
    for (const bool first : {true, false}) {
      SCOPED_TRACE(row.name + std::to_string(static_cast<int>(first)));
      CRLOptions right{.issuer = &root, .number = Serial(2)};
      const auto both = [&] {
        return first ? std::vector{row.beside, right} : std::vector{right, row.beside};
      };
      EXPECT_EQ(with(both(), issued), (Verdicts{row.classic, kGood}));
      right.revoked = {{.serial = issued}};
      EXPECT_EQ(with(both(), issued).conforming, kRevoked);
    }
  }
}

}  // namespace
}  // namespace Velantrix::Test
