#include "support/LogCapture.h"
#include "support/Verdicts.h"
#include "unit/verify/World.h"

#include <gtest/gtest.h>
#include <map>
#include <stdexcept>
#include <utility>

namespace Velantrix::Test {
namespace {

using namespace std::string_literals;
using std::chrono::hours;

constexpr char kAccess[] = "authorityInfoAccess";

class RevocationTest : public testing::Test {
 protected:
  const Issued root = issueCA("O=Test,CN=Root");
  const Issued inter = issueCA("O=Test,CN=Inter", &root);
  const Issued leaf = issue({.subject = "O=Test,CN=Leaf", .issuer = &inter});
  World world;
  LogCapture log;

  RevocationTest() {
    world.trust(root);
    world.trust(inter);
  }

  Issued person(const CertificateOptions& changed) {
    CertificateOptions options = changed;
    options.subject = "O=Test,CN=Person";
    options.issuer = &root;
    return issue(options);
  }
  Issued through(const std::vector<Point>& points) {
    return person({.crlDistributionPoints = points});
  }
  int verdict(const Issued& issued, bool useOpenSSL = false) {
    return Verifier(world.store, handle(issued), useOpenSSL).isValid();
  }
  int verdict(const Issued& issued, unsigned long flags) {
    Verifier::Config config;
    config.flags = static_cast<int>(flags);
    return Verifier(world.store, handle(issued), RefStackOfCertificate(), config, false).isValid();
  }
};

TEST_F(RevocationTest, NoCRLCheckFlag_NothingIsAsked) {
  for (const unsigned long flags : {0UL, static_cast<unsigned long>(X509_V_FLAG_CRL_CHECK_ALL)}) {
    World other;
    other.source->certificates = world.source->certificates;
    Verifier::Config config;
    config.flags = static_cast<int>(flags);
    Probe verifier(other.store, handle(leaf), RefStackOfCertificate(), config, false);
    EXPECT_EQ(verifier.isValid(), 0);
    EXPECT_EQ(verifier.checkCalls, 0);
    EXPECT_EQ(other.source->crlQueries, 0);
  }
  EXPECT_EQ(log.text(), "");
}

TEST_F(RevocationTest, CRLCheckAlone_OnlyTheLeaf) {
  // The issuer of its CRL is not among the certificates that are checked, so it is verified on its
  // own, with the default flags.
  world.publish({.issuer = &inter});
  world.publish({.issuer = &root});
  Verifier::Config config;
  config.flags = X509_V_FLAG_CRL_CHECK;
  Probe verifier(world.store, handle(leaf), RefStackOfCertificate(), config, false);
  EXPECT_EQ(verifier.isValid(), 0);
  ASSERT_EQ(verifier.checked.size(), 1U);
  EXPECT_EQ(verifier.checked.front()->native(), leaf.get());
}

TEST_F(RevocationTest, CRLCheckAloneWithAParent_Nothing) {
  const Verifier outer(world.store, handle(leaf), false);
  struct Row {
    unsigned long flags;
    int checks;
  };
  const Row rows[] = {{X509_V_FLAG_CRL_CHECK, 0},
                      {X509_V_FLAG_CRL_CHECK | X509_V_FLAG_CRL_CHECK_ALL, 1}};
  for (const Row& row : rows) {
    World other;
    other.source->certificates = world.source->certificates;
    Verifier::Config config;
    config.flags = static_cast<int>(row.flags);
    Probe inside(other.store, handle(leaf), RefStackOfCertificate(), config, false);
    inside.parent(outer);
    EXPECT_EQ(inside.parent(), static_cast<X509_STORE_CTX*>(outer));
    EXPECT_EQ(inside.isValid(), row.checks == 0 ? 0 : 3);
    EXPECT_EQ(inside.checkCalls, row.checks);
  }
}

TEST_F(RevocationTest, CheckAll_TheWholeChainLeafFirst) {
  world.publish({.issuer = &root});
  world.publish({.issuer = &inter});
  Probe verifier(world.store, handle(leaf), false);
  EXPECT_EQ(verifier.isValid(), 0);
  ASSERT_EQ(verifier.checked.size(), 3U);
  EXPECT_EQ(verifier.checked.front()->native(), leaf.get());
  EXPECT_EQ(verifier.checked.back()->native(), root.get());
}

TEST_F(RevocationTest, SelfSignedEnd_IsSkippedAndElsewhereChecked) {
  EXPECT_EQ(verdict(root), 0);
  EXPECT_EQ(world.source->crlQueries, 0);
  Verifier verifier(world.store, handle(root), false);
  EXPECT_EQ(verifier.checkRevocationStatus({handle(root)}), 1);
  EXPECT_EQ(log.text(), "");
  EXPECT_EQ(verifier.checkRevocationStatus({handle(root), handle(leaf)}), 0);
  EXPECT_EQ(verifier.contextError(), 3);
  EXPECT_EQ(X509_STORE_CTX_get_error_depth(verifier), 0);
  EXPECT_EQ(log.text(), "7 " + failureLine(root, 3) + "\n");
  EXPECT_EQ(verifier.checkRevocationStatus({}), 1);
}

TEST_F(RevocationTest, NotSelfSignedEnd_IsChecked) {
  Verifier verifier(world.store, handle(leaf), false);
  EXPECT_EQ(verifier.checkRevocationStatus({handle(leaf)}), 0);
  EXPECT_EQ(verifier.contextError(), 3);
}

TEST_F(RevocationTest, NoCRLAnywhere_ContainerStaysEmpty) {
  Verifier verifier(world.store, handle(leaf), false);
  OpenContainer container(verifier);
  verifier.getCRLs(handle(leaf), container);
  EXPECT_TRUE(container.empty());
  EXPECT_EQ(log.text(), "");
  EXPECT_EQ(verdict(leaf), X509_V_ERR_UNABLE_TO_GET_CRL);
}

TEST_F(RevocationTest, RevokedIntermediate_ItsOwnLineAndItsDepth) {
  world.publish({.issuer = &inter});
  world.publish({.issuer = &root, .revoked = {{.serial = inter, .reason = 2}}});
  Verifier verifier(world.store, handle(leaf), false);
  EXPECT_EQ(verifier.isValid(), kRevoked);
  EXPECT_EQ(X509_STORE_CTX_get_error_depth(verifier), 1);
  EXPECT_EQ(log.text(), "7 " + failureLine(inter, kRevoked) + "\n");
}

TEST_F(RevocationTest, RevokedLeaf_ComesBeforeItsRevokedIssuer) {
  world.publish({.issuer = &inter, .revoked = {{.serial = leaf}}});
  world.publish({.issuer = &root, .revoked = {{.serial = inter}}});
  Verifier verifier(world.store, handle(leaf), false);
  EXPECT_EQ(verifier.isValid(), kRevoked);
  EXPECT_EQ(X509_STORE_CTX_get_error_depth(verifier), 0);
  EXPECT_EQ(log.text(), "7 " + failureLine(leaf, kRevoked) + "\n");
}

TEST_F(RevocationTest, EmptyHandleInTheList_IsAnException) {
  Verifier verifier(world.store, handle(leaf), false);
  EXPECT_THROW(verifier.checkRevocationStatus({RefCertificate()}), Exception);
}

TEST_F(RevocationTest, ErrorOfGathering_SparesTheVerdictOfTheContainer) {
  // The CRL revokes, but what gathering left behind is the error.
  world.publish({.issuer = &inter, .revoked = {{.serial = leaf}}});
  Probe verifier(world.store, handle(leaf), false);
  verifier.onGetCRLs = [&](const RefCertificate& target, CRLContainer& container) {
    verifier.Verifier::getCRLs(target, container);
    verifier.contextError(X509_V_ERR_UNABLE_TO_GET_CRL_ISSUER);
  };
  EXPECT_EQ(verifier.isValid(), X509_V_ERR_UNABLE_TO_GET_CRL_ISSUER);
}

struct AccessRow {
  const char* name;
  std::string value;
};

TEST_F(RevocationTest, AccessWithoutAUsableResponder_CRLsAreChecked) {
  const AccessRow rows[] = {
      {"only CA issuers", "caIssuers;URI:http://a.test/ca"},
      {"OCSP by mail", "OCSP;email:a@b.test"},
      {"OCSP by name", "OCSP;DNS:a.test"},
  };
  for (const AccessRow& row : rows) {
    SCOPED_TRACE(row.name);
    world.source->crls.clear();
    const Issued issued = person({.extensions = {{kAccess, row.value}}});
    log.clear();
    EXPECT_EQ(verdict(issued), 3);
    EXPECT_EQ(log.text(), "7 " + failureLine(issued, 3) + "\n");
    world.publish({.issuer = &root});
    log.clear();
    EXPECT_EQ(verdict(issued), 0);
    EXPECT_EQ(log.text(), "");
    world.source->crls.clear();
    world.publish({.issuer = &root, .revoked = {{.serial = issued}}});
    EXPECT_EQ(verdict(issued), kRevoked);
  }
}

// Every location is worth a line, and a stranger writes as many as a certificate has room for.
TEST_F(RevocationTest, ThousandLocations_200LinesAndTheFailure) {
  std::string value;
  for (int i = 0; i < 1000; ++i) value += ",OCSP;URI:ldap://a.test/" + std::to_string(i);
  const Issued issued = person({.extensions = {{kAccess, value.substr(1)}}});
  EXPECT_EQ(verdict(issued), 3);
  EXPECT_EQ(log.count("unhandled uri"), 200U);
  EXPECT_EQ(log.count(failureLine(issued, 3)), 1U) << log.text();
  EXPECT_EQ(log.lines().size(), 203U) << log.text();
}

TEST_F(RevocationTest, CheckOCSPWithoutLocations_IsNoAnswer) {
  const RefCertificate certificate =
      handle(person({.extensions = {{kAccess, "caIssuers;URI:http://a.test/ca,OCSP;DNS:a.test"}}}));
  Verifier verifier(world.store, certificate, false);
  const RefAuthorityInformationAccess access(
      certificate->find(ASN1::RefObjectIdentifier("1.3.6.1.5.5.7.1.1")));
  EXPECT_EQ(verifier.checkOCSP(certificate, access, {certificate}), 2);
  EXPECT_EQ(log.text(), "");
}

TEST_F(RevocationTest, BrokenAccess_IsAnExceptionAndNeverNone) {
  world.publish({.issuer = &root});
  const Issued broken = person({.rawExtensions = {{"1.3.6.1.5.5.7.1.1", false, "\x30\x05"s}}});
  EXPECT_THROW(verdict(broken), Exception);
  const Issued twice = person({.extensions = {{kAccess, "caIssuers;URI:http://a.test/ca"},
                                              {kAccess, "OCSP;URI:http://a.test/ocsp"}}});
  EXPECT_THROW(verdict(twice), Exception);
}

TEST_F(RevocationTest, GetCRLsOfAnEmptyHandle_AsksNothing) {
  Verifier verifier(world.store, handle(leaf), false);
  OpenContainer container(verifier);
  verifier.getCRLs(RefCertificate(), container);
  EXPECT_TRUE(container.empty());
  EXPECT_EQ(world.source->crlQueries, 0);
}

TEST_F(RevocationTest, ByIssuersName_EntryHasAllReasonsIssuerAndScore) {
  world.publish({.issuer = &inter});
  Verifier verifier(world.store, handle(leaf), false);
  OpenContainer container(verifier);
  verifier.getCRLs(handle(leaf), container);
  ASSERT_EQ(container.entries.size(), 1U);
  const CRLContainer::Entry& entry = container.entries.front();
  EXPECT_EQ(entry.certificate.get()->native(), leaf.get());
  EXPECT_EQ(entry.reasons, 0x807fU);
  EXPECT_TRUE(entry.distributionPoint.empty());
  EXPECT_EQ(entry.issuer.get()->native(), inter.get());
  EXPECT_EQ(entry.score, 0x24U | 0x80U | 0x18U);
}

TEST_F(RevocationTest, ByIssuersName_CRLOfAnotherIssuerIsLoggedAndSkipped) {
  world.source->anyName = true;
  world.publish({.issuer = &root});
  world.publish({.issuer = &inter});
  Verifier verifier(world.store, handle(leaf), false);
  OpenContainer container(verifier);
  verifier.getCRLs(handle(leaf), container);
  EXPECT_EQ(container.entries.size(), 1U);
  EXPECT_EQ(log.text(), "7 Certificate and CRL issuers do not match\n");
}

TEST_F(RevocationTest, ByIssuersName_UnknownCRLIssuerIsALineWithoutText) {
  const Issued issued = person({});
  World other;
  other.publish({.issuer = &root});
  Verifier verifier(other.store, handle(issued), false);
  OpenContainer container(verifier);
  verifier.getCRLs(handle(issued), container);
  EXPECT_TRUE(container.empty());
  ASSERT_EQ(log.lines().size(), 1U);
  EXPECT_EQ(log.lines().front().category, 0x4000000U);
  EXPECT_EQ(log.lines().front().flags, 0U);
  EXPECT_EQ(log.lines().front().format, "%d\x01%s");
  EXPECT_EQ(log.lines().front().raw, "0\x01");
}

TEST_F(RevocationTest, ThroughAPoint_UnknownCRLIssuerIsNamedInTheLine) {
  const Issued lists = issueCA("C=DE,CN=Lists");
  world.publish({.issuer = &lists, .idp = Scope{.indirect = true}});
  const Issued issued = through({{.crlIssuers = {"dirName:C=DE,CN=Lists"}}});
  Verifier verifier(world.store, handle(issued), false);
  OpenContainer container(verifier);
  verifier.getCRLs(handle(issued), container);
  EXPECT_TRUE(container.empty());
  EXPECT_EQ(log.text(), "7 Could not find issuing certificate for CRL issued by CN=Lists,C=DE\n");
}

TEST_F(RevocationTest, ThroughAPoint_IssuersMayDifferAndThePointGoesAlong) {
  const Issued lists = issueCA("C=DE,CN=Lists");
  world.trust(lists);
  world.publish({.issuer = &lists, .idp = Scope{.indirect = true}});
  const Issued issued = through({{.reasons = 0x06, .crlIssuers = {"dirName:C=DE,CN=Lists"}},
                                 {.reasons = 0x8079, .crlIssuers = {"dirName:C=DE,CN=Lists"}}});
  Verifier verifier(world.store, handle(issued), false);
  OpenContainer container(verifier);
  verifier.getCRLs(handle(issued), container);
  ASSERT_EQ(container.entries.size(), 2U);
  EXPECT_EQ(container.entries.front().reasons, 0x06U);
  EXPECT_EQ(container.entries.back().reasons, 0x8079U);
  EXPECT_EQ(container.entries.front().distributionPoint.get()->reasons(), 0x06U);
  EXPECT_EQ(container.entries.front().score, 0x24U | 0x80U);
  EXPECT_EQ(log.text(), "");
  EXPECT_EQ(verdict(issued), 0);
}

// Meant so: RFC 5280, 6.3.3 (f), asks for a valid path, and for cRLSign only where there is a key
// usage. It does not ask for a CA.
TEST_F(RevocationTest, ThroughAPoint_EndEntityOrTheCertificateItselfMayIssueTheCRL) {
  const CertificateOptions unrestricted = {.keyUsage = kAbsent};
  world.publish({.issuer = &root});
  CertificateOptions options = unrestricted;
  options.subject = "O=Test,CN=Speaker";
  options.issuer = &root;
  const Issued speaker = issue(options);
  world.trust(speaker);
  world.publish({.issuer = &speaker});
  options = unrestricted;
  options.crlDistributionPoints = {{.fullNames = {"dirName:O=Test,CN=Speaker"}}};
  EXPECT_EQ(verdict(person(options)), 0) << log.text();

  options.crlDistributionPoints = {{.fullNames = {"dirName:O=Test,CN=Person"}}};
  const Issued itself = person(options);
  world.trust(itself);
  world.publish({.issuer = &itself});
  EXPECT_EQ(verdict(itself), 0) << log.text();
}

// Meant so: RFC 5280, 6.3.3 (f), wants the trust anchor of the path that is verified.
TEST_F(RevocationTest, NamesakeUnderAnotherRoot_SpeaksForTheCertificatesIssuer) {
  const Issued otherRoot = issueCA("O=Test,CN=Other Root");
  const Issued namesake = issueCA("O=Test,CN=Inter", &otherRoot);
  world.trust(otherRoot);
  world.trust(namesake);
  world.publish({.issuer = &root});
  world.publish({.issuer = &otherRoot});
  EXPECT_EQ(verdict(leaf), 3);
  world.publish({.issuer = &namesake});
  EXPECT_EQ(verdict(leaf), 0) << log.text();
  world.publish({.issuer = &namesake, .revoked = {{.serial = leaf}}});
  EXPECT_EQ(verdict(leaf), kRevoked);
}

TEST_F(RevocationTest, WithPoints_TheIssuersNameIsNotLookedUp) {
  world.publish({.issuer = &root});
  const Issued issued = through({{.fullNames = {"dirName:CN=Elsewhere"}}});
  EXPECT_EQ(verdict(issued), 3);
}

TEST_F(RevocationTest, BrokenPoints_AreAnException) {
  world.publish({.issuer = &root});
  const Issued broken = person({.rawExtensions = {{"2.5.29.31", false, "\x30\x05"s}}});
  Verifier verifier(world.store, handle(broken), false);
  OpenContainer container(verifier);
  EXPECT_THROW(verifier.getCRLs(handle(broken), container), Exception);
  EXPECT_NE(verifier.isValid(), 0);  // OpenSSL has refused it before
}

TEST_F(RevocationTest, PointsByReason_TogetherCoverAllOfThem) {
  const Issued issued = through({{.fullNames = {"dirName:O=Test,CN=Root"}, .reasons = 0x06},
                                 {.fullNames = {"dirName:O=Test,CN=Root"}, .reasons = 0x8079}});
  world.publish({.issuer = &root});
  EXPECT_EQ(verdict(issued), 0);
  const Issued half = through({{.fullNames = {"dirName:O=Test,CN=Root"}, .reasons = 0x06}});
  EXPECT_EQ(verdict(half), 3);
}

TEST_F(RevocationTest, TwoGetCRL_GatherOnce) {
  world.publish({.issuer = &inter});
  world.publish({.issuer = &inter, .number = Serial(2)});
  Probe verifier(world.store, handle(leaf), false);
  const RefCertificateRevocationList first = verifier.getCRL(handle(leaf));
  const RefCertificateRevocationList second = verifier.getCRL(handle(leaf));
  EXPECT_EQ(first.get(), world.source->crls.front().get());
  EXPECT_EQ(second.get(), world.source->crls.back().get());
  EXPECT_TRUE(verifier.getCRL(handle(leaf)).empty());
  EXPECT_EQ(verifier.getCRLsCalls, 1);
}

TEST_F(RevocationTest, GetCRL_IdentityAndNotContentCounts) {
  world.publish({.issuer = &inter});
  const Issued copy{certFromDer(der(leaf.get())), leaf.key};
  ASSERT_EQ(X509_cmp(copy.get(), leaf.get()), 0);
  Probe verifier(world.store, handle(leaf), false);
  verifier.getCRL(handle(leaf));
  EXPECT_FALSE(verifier.getCRL(handle(copy)).empty());
  EXPECT_FALSE(verifier.getCRL(handle(leaf)).empty());
  EXPECT_EQ(verifier.getCRLsCalls, 3);
  EXPECT_EQ(verifier.lastCertificate.get()->native(), leaf.get());
}

TEST_F(RevocationTest, GetCRLOfAnEmptyHandle_ChangesNothing) {
  world.publish({.issuer = &inter});
  Probe verifier(world.store, handle(leaf), false);
  EXPECT_TRUE(verifier.getCRL(RefCertificate()).empty());
  EXPECT_EQ(verifier.getCRLsCalls, 0);
  EXPECT_TRUE(verifier.lastCertificate.empty());
}

TEST_F(RevocationTest, GetCRLOfNothingFound_IsEmptyAndNotAskedAgain) {
  Probe verifier(world.store, handle(leaf), false);
  EXPECT_TRUE(verifier.getCRL(handle(leaf)).empty());
  EXPECT_TRUE(verifier.getCRL(handle(leaf)).empty());
  EXPECT_EQ(verifier.getCRLsCalls, 1);
}

TEST_F(RevocationTest, GetCRLOfADeltaWithoutBase_IsEmpty) {
  world.publish({.issuer = &inter, .deltaBase = Serial(1)});
  Verifier verifier(world.store, handle(leaf), false);
  EXPECT_TRUE(verifier.getCRL(handle(leaf)).empty());
  EXPECT_EQ(log.text(), "7 Could not find Base CRL\n");
}

TEST_F(RevocationTest, GetCRLAfterAnException_GathersAgain) {
  world.publish({.issuer = &inter});
  Probe verifier(world.store, handle(leaf), false);
  world.source->onQuery = [](Query, const DistinguishedName&) { throw std::runtime_error("once"); };
  EXPECT_THROW(verifier.getCRL(handle(leaf)), std::runtime_error);
  world.source->onQuery = nullptr;
  EXPECT_FALSE(verifier.getCRL(handle(leaf)).empty());
}

// Both ways to check: the library's own and OpenSSL's, fed with the same CRLs.
class BothChecks : public RevocationTest, public testing::WithParamInterface<bool> {};

INSTANTIATE_TEST_SUITE_P(Revocation, BothChecks, testing::Bool(),
                         [](const auto& tested) { return tested.param ? "OpenSSL" : "Own"; });

TEST_P(BothChecks, GoodAndRevoked) {
  const Issued bad = person({});
  const Issued good = person({});
  world.publish({.issuer = &root, .revoked = {{.serial = bad, .reason = 1}}});
  EXPECT_EQ(verdict(bad, GetParam()), kRevoked);
  EXPECT_EQ(log.count("is not valid, certificate revoked"), 1U);
  EXPECT_EQ(verdict(good, GetParam()), 0);
}

TEST_P(BothChecks, NoCRL) {
  const Issued issued = person({});
  EXPECT_EQ(verdict(issued, GetParam()), 3);
  EXPECT_EQ(log.text(), "7 " + failureLine(issued, 3) + "\n");
}

TEST_P(BothChecks, RevokedOnlyInADelta) {
  const Issued bad = person({});
  const Issued good = person({});
  world.publish({.issuer = &root});
  world.publish({.issuer = &root,
                 .number = Serial(2),
                 .deltaBase = Serial(1),
                 .revoked = {{.serial = bad, .reason = 1}}});
  EXPECT_EQ(verdict(bad, GetParam()), kRevoked);
  EXPECT_EQ(verdict(good, GetParam()), 0);
}

TEST_P(BothChecks, IntermediateRevokedOnlyInADelta) {
  world.publish({.issuer = &inter});
  world.publish({.issuer = &inter, .number = Serial(2), .deltaBase = Serial(1)});
  world.publish({.issuer = &root});
  world.publish({.issuer = &root,
                 .number = Serial(2),
                 .deltaBase = Serial(1),
                 .revoked = {{.serial = inter, .reason = 1}}});
  EXPECT_EQ(verdict(leaf, GetParam()), kRevoked);
}

TEST_P(BothChecks, RevokedOnlyInALaterCRL) {
  const Issued bad = person({});
  const Issued good = person({});
  world.publish({.issuer = &root});
  world.publish({.issuer = &root});
  world.publish({.issuer = &root, .revoked = {{.serial = bad}}});
  EXPECT_EQ(verdict(bad, GetParam()), kRevoked);
  EXPECT_EQ(verdict(good, GetParam()), 0);
}

TEST_P(BothChecks, DeltaWithoutBase) {
  world.publish({.issuer = &root, .deltaBase = Serial(1)});
  EXPECT_EQ(verdict(person({}), GetParam()), 3);
  EXPECT_EQ(log.count("Could not find Base CRL"), 1U);
}

TEST_P(BothChecks, CRLForOthersOnly) {
  world.publish({.issuer = &root, .idp = Scope{.onlyCA = true}});
  EXPECT_EQ(verdict(person({}), GetParam()), 3);
}

TEST_P(BothChecks, ForgedCRLOfTheRightName) {
  world.publish({.issuer = &root, .badSignature = true});
  EXPECT_EQ(verdict(person({}), GetParam()), X509_V_ERR_CRL_SIGNATURE_FAILURE);
}

TEST_P(BothChecks, ForgedCRLAfterAGoodOne) {
  world.publish({.issuer = &root});
  world.publish({.issuer = &root, .badSignature = true});
  EXPECT_EQ(verdict(person({}), GetParam()), X509_V_ERR_CRL_SIGNATURE_FAILURE);
}

TEST_P(BothChecks, CRLForSomeReasonsBeforeOneForAll) {
  const std::vector<Point> points{{.fullNames = {"dirName:O=Test,CN=Root", "dirName:CN=Part"}}};
  const Issued good = through(points);
  const Issued bad = through(points);
  world.publish(
      {.issuer = &root, .idp = Scope{.fullNames = {"dirName:CN=Part"}, .onlySomeReasons = 0x06}});
  world.publish({.issuer = &root, .revoked = {{.serial = bad}}});
  EXPECT_EQ(verdict(good, GetParam()), 0) << log.text();
  EXPECT_EQ(verdict(bad, GetParam()), kRevoked);
}

TEST_P(BothChecks, RevokedIntermediate) {
  world.publish({.issuer = &inter});
  world.publish({.issuer = &root, .revoked = {{.serial = inter}}});
  Verifier verifier(world.store, handle(leaf), GetParam());
  EXPECT_EQ(verifier.isValid(), kRevoked);
  EXPECT_EQ(X509_STORE_CTX_get_error_depth(verifier), 1);
}

TEST_F(RevocationTest, GetCRLWithACRLOfItsOwn_OpenSSLChecksThatOne) {
  const Issued good = person({});
  const Issued bad = person({});
  const RefCertificateRevocationList own =
      crlHandle({.issuer = &root, .revoked = {{.serial = bad}}});
  const std::pair<const Issued&, int> rows[] = {{good, 0}, {bad, kRevoked}};
  for (const auto& [issued, expected] : rows) {
    Probe verifier(world.store, handle(issued), true);
    verifier.onGetCRL = [&](const RefCertificate&) { return own; };
    EXPECT_EQ(verifier.isValid(), expected);
    EXPECT_GT(verifier.getCRLCalls, 0);
    EXPECT_EQ(verifier.getCRLsCalls, 0);
  }
}

// What was gathered for one certificate says nothing about another.
TEST_F(RevocationTest, GetCRLThatGathersForAnother_TheOthersCRLsAreNotApplied) {
  world.publish({.issuer = &root});
  world.publish({.issuer = &root});
  const RefCertificateRevocationList own = crlHandle({.issuer = &inter});
  Verifier::Config config;
  config.flags = X509_V_FLAG_CRL_CHECK;
  Probe verifier(world.store, handle(leaf), RefStackOfCertificate(), config, true);
  verifier.onGetCRL = [&](const RefCertificate&) {
    EXPECT_FALSE(verifier.Verifier::getCRL(handle(inter)).empty());
    return own;
  };
  EXPECT_EQ(verifier.isValid(), 0);
  EXPECT_FALSE(verifier.crls.empty());
  EXPECT_EQ(verifier.lastCertificate->native(), inter.get());
}

// OpenSSL comes for the next CRL until all reasons are covered. What is left counts when it comes
// for the first time, and then each CRL in its turn: not all of them every time, or the work would
// grow with the square of the number of CRLs that somebody publishes.
std::map<X509_CRL*, int>& timesApplied() {
  static std::map<X509_CRL*, int> times;
  return times;
}

TEST_F(RevocationTest, ManyCRLsForSomeReasons_OpenSSLAppliesEachTwiceAtMost) {
  constexpr int kPartial = 8;
  const Issued issued = person({});
  for (int i = 0; i < kPartial; ++i) {
    world.publish({.issuer = &root, .idp = Scope{.onlySomeReasons = i % 2 == 0 ? 0x06 : 0x18}});
  }
  world.publish({.issuer = &root});
  timesApplied().clear();
  X509_STORE_set_cert_crl(world.store, [](X509_STORE_CTX*, X509_CRL* crl, X509*) {
    ++timesApplied()[crl];
    return 1;
  });
  Verifier::Config config;
  config.flags = X509_V_FLAG_CRL_CHECK | X509_V_FLAG_EXTENDED_CRL_SUPPORT;
  Probe verifier(world.store, handle(issued), RefStackOfCertificate(), config, true);
  EXPECT_EQ(verifier.isValid(), 0) << log.text();
  EXPECT_EQ(verifier.getCRLCalls, kPartial + 1);
  EXPECT_EQ(timesApplied().size(), std::size_t{kPartial + 1});
  for (const RefCertificateRevocationList& crl : world.source->crls) {
    const bool first = crl.get() == world.source->crls.front().get();
    EXPECT_EQ(timesApplied()[crl->native()], first ? 1 : 2);
  }
}

// The CRL of an issuer outside the path. OpenSSL validates that issuer in a context of its own,
// which has no verifier and asks the store for CRLs, not the hook.
class IndirectTest : public RevocationTest {
 protected:
  const Issued lists = issueCA("O=Test,CN=Lists", &root);
  const Issued good = through({{.crlIssuers = {"dirName:O=Test,CN=Lists"}}});
  const Issued bad = through({{.crlIssuers = {"dirName:O=Test,CN=Lists"}}});

  IndirectTest() {
    world.trust(lists);
    world.publish({.issuer = &root});
    world.publish({.issuer = &lists,
                   .revoked = {{.serial = bad, .reason = 1, .certificateIssuer = "O=Test,CN=Root"}},
                   .idp = Scope{.indirect = true}});
  }
  int verdictOf(const Issued& issued, bool useOpenSSL) {
    return Verifier(world.store, handle(issued), stackOf({lists}), useOpenSSL).isValid();
  }
};

TEST_F(IndirectTest, OwnCheck) {
  EXPECT_EQ(verdictOf(good, false), 0);
  EXPECT_EQ(log.text(), "");
  EXPECT_EQ(verdictOf(bad, false), kRevoked);
}

TEST_F(IndirectTest, OpenSSLsCheckWithoutCRLForTheIssuer_IsNotLoggedAsThat) {
  constexpr int kPath = X509_V_ERR_CRL_PATH_VALIDATION_ERROR;
  EXPECT_EQ(verdictOf(good, true), kPath);
  EXPECT_EQ(log.text(), "7 " + failureLine(good, kPath) + "\n");
}

TEST_F(IndirectTest, OpenSSLsCheckWithACRLForTheIssuer) {
  ASSERT_EQ(X509_STORE_add_crl(world.store, world.source->crls.front()), 1);
  EXPECT_EQ(verdictOf(good, true), 0);
  EXPECT_EQ(log.text(), "");
  EXPECT_EQ(verdictOf(bad, true), kRevoked);
}

TEST_F(IndirectTest, OpenSSLsCheckWithARevokedIssuer_IsLoggedWithItsName) {
  world.source->crls.front() = crlHandle({.issuer = &root, .revoked = {{.serial = lists}}});
  ASSERT_EQ(X509_STORE_add_crl(world.store, world.source->crls.front()), 1);
  constexpr int kPath = X509_V_ERR_CRL_PATH_VALIDATION_ERROR;
  EXPECT_EQ(verdictOf(good, true), kPath);
  EXPECT_EQ(log.text(),
            "7 " + failureLine(lists, kRevoked) + "\n7 " + failureLine(good, kPath) + "\n");
}

TEST_F(IndirectTest, ExceptionInOpenSSLsOwnContext_ReachesTheCaller) {
  int crlGathered = 0;
  world.source->onQuery = [&](Query query, const DistinguishedName&) {
    if (query == Query::CRLs) ++crlGathered;
    if (query == Query::Object && crlGathered > 0) throw std::runtime_error("inside");
  };
  EXPECT_THROW(verdictOf(good, true), std::runtime_error);
}

TEST(RevocationFlags, ClearedOnTheContext_NothingIsChecked) {
  // Flags that a caller clears on the context count, not those of the configuration.
  const Issued root = issueCA("CN=Root");
  const Issued leaf = issue({.subject = "CN=Leaf", .issuer = &root});
  World world;
  world.trust(root);
  Verifier verifier(world.store, handle(leaf), false);
  X509_VERIFY_PARAM_clear_flags(X509_STORE_CTX_get0_param(verifier), X509_V_FLAG_CRL_CHECK);
  EXPECT_EQ(verifier.isValid(), 0);
  EXPECT_EQ(verifier.isValid(), 0);
}

}  // namespace
}  // namespace Velantrix::Test
