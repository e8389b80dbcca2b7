#include "support/LogCapture.h"
#include "unit/verify/World.h"

#include <gtest/gtest.h>

namespace Velantrix::Test {
namespace {

constexpr unsigned int kScope = 0x80;
constexpr unsigned int kIssuerCert = 0x18;

class CRLContainerEntryTest : public testing::Test {
 protected:
  const Issued root = issueCA("O=Test,CN=Root");
  const Issued other = issueCA("O=Test,CN=Other");
  const Issued leaf = issue({.subject = "O=Test,CN=Leaf", .issuer = &root});
  World world;
  Verifier verifier{world.store, handle(leaf), false};
  LogCapture log;

  // A certificate with that distribution point, and an entry for it that came through it.
  CRLContainer::Entry through(const Point& point, const CRLOptions& crl, const Issued& issuer) {
    const RefCertificate target = handle(
        issue({.subject = "O=Test,CN=Leaf", .issuer = &root, .crlDistributionPoints = {point}}));
    CRLContainer::Entry entry = makeEntry(target, crlHandle(crl), handle(issuer));
    entry.distributionPoint = target->crlDistributionPoints().front();
    return entry;
  }
};

TEST_F(CRLContainerEntryTest, Constructed_HoldsWhatItIsGivenAndNothingElse) {
  const RefCertificateRevocationList crl = crlHandle({.issuer = &root});
  const CRLContainer::Entry entry(handle(leaf), crl, 0x42);
  EXPECT_EQ(entry.certificate.get()->native(), leaf.get());
  EXPECT_EQ(entry.crl->crl.get(), crl.get());
  EXPECT_EQ(entry.crl->type, Object::TypeCRL);
  EXPECT_TRUE(entry.issuer.empty());
  EXPECT_TRUE(entry.distributionPoint.empty());
  EXPECT_EQ(entry.reasons, 0x42U);
  EXPECT_EQ(entry.score, 0U);
}

TEST_F(CRLContainerEntryTest, CopyAndAssignment_TakeEveryMember) {
  CRLContainer::Entry entry =
      through({.fullNames = {"URI:http://a.test/"}}, {.issuer = &root}, root);
  entry.score = 3;
  entry.reasons = 5;
  const CRLContainer::Entry copy(entry);
  CRLContainer::Entry assigned(handle(root), crlHandle({.issuer = &other}), 0);
  assigned = entry;
  for (const CRLContainer::Entry* const same : {&copy, &std::as_const(assigned)}) {
    EXPECT_EQ(same->certificate.get(), entry.certificate.get());
    EXPECT_EQ(same->crl, entry.crl);
    EXPECT_EQ(same->issuer.get(), entry.issuer.get());
    EXPECT_EQ(same->distributionPoint.get(), entry.distributionPoint.get());
    EXPECT_EQ(same->reasons, 5U);
    EXPECT_EQ(same->score, 3U);
  }
}

TEST_F(CRLContainerEntryTest, Score_ByWhoIssuedTheCertificate) {
  struct Row {
    const char* name;
    RefCertificate issuer;
    unsigned int before;
    unsigned int after;
  };
  const Row rows[] = {
      {"issuer of certificate and CRL", handle(root), 0, kScope | kIssuerCert},
      {"another issuer", handle(other), 0, kScope},
      {"no issuer", RefCertificate(), 0, kScope},
      {"bits of the caller stay", handle(root), 0x24, kScope | kIssuerCert | 0x24U},
      {"bits of the caller stay, another issuer", handle(other), 0x124, kScope | 0x124U},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    CRLContainer::Entry entry = makeEntry(handle(leaf), crlHandle({.issuer = &root}), row.issuer);
    entry.score = row.before;
    EXPECT_EQ(entry.tallyScore(verifier), row.after);
    EXPECT_EQ(entry.score, row.after);
    EXPECT_FALSE(entry.crl.empty());
  }
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(CRLContainerEntryTest, IssuerByNameOnly_TheSignatureDoesNotCount) {
  const Issued forged = issueCA("O=Test,CN=Root");
  const Issued target =
      issue({.subject = "CN=X", .issuer = &root, .authorityKeyId = KeyId::Absent});
  const CRLContainer::Entry entry =
      makeEntry(handle(target), crlHandle({.issuer = &root}), handle(forged));
  EXPECT_EQ(entry.tallyScore(verifier), kScope | kIssuerCert);
}

TEST_F(CRLContainerEntryTest, CRLIssuerNamedByThePoint_IsAcceptable) {
  const Point point{
      .crlIssuers = {"URI:http://a.test/", "dirName:O=Test,CN=Nobody", "dirName:O=Test,CN=Other"}};
  const CRLContainer::Entry entry =
      through(point, {.issuer = &other, .idp = Scope{.indirect = true}}, other);
  EXPECT_EQ(entry.tallyScore(verifier), kScope);
  EXPECT_FALSE(entry.crl.empty());
  EXPECT_EQ(verifier.contextError(), 0);
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(CRLContainerEntryTest, CRLIssuerNotNamedByThePoint_Error33AndTheMisplacedLine) {
  // The issuing distribution point would narrow the reasons, were it looked at.
  const CRLContainer::Entry entry =
      through({.crlIssuers = {"URI:http://a.test/", "dirName:O=Test,CN=Nobody"}},
              {.issuer = &other, .idp = Scope{.indirect = true, .onlySomeReasons = 0x06}}, other);
  EXPECT_EQ(entry.tallyScore(verifier), 0U);
  EXPECT_EQ(entry.score, 0U);
  EXPECT_TRUE(entry.crl.empty());
  EXPECT_EQ(entry.reasons, kAllReasons);
  EXPECT_EQ(verifier.contextError(), X509_V_ERR_UNABLE_TO_GET_CRL_ISSUER);
  ASSERT_EQ(log.lines().size(), 1U);
  EXPECT_EQ(log.lines().front().category, 0x4000000U);
  EXPECT_EQ(log.lines().front().flags, 0U);
  EXPECT_EQ(log.lines().front().format, "%d\x01%s");
  EXPECT_EQ(log.lines().front().raw, "0\x01");
}

TEST_F(CRLContainerEntryTest, CRLIssuerNotNamedByThePoint_IsNotStored) {
  OpenContainer container(verifier);
  container.add(makeEntry(handle(leaf), crlHandle({.issuer = &root}), handle(root)));
  container.add(through({.crlIssuers = {"dirName:O=Test,CN=Nobody"}}, {.issuer = &other}, other));
  EXPECT_EQ(container.entries.size(), 1U);
  EXPECT_EQ(verifier.contextError(), X509_V_ERR_UNABLE_TO_GET_CRL_ISSUER);
}

TEST_F(CRLContainerEntryTest, PointWithoutCRLIssuers_GoesStraightToTheScope) {
  const Point point{.fullNames = {"URI:http://a.test/"}};
  const CRLContainer::Entry good = through(point, {.issuer = &root}, root);
  EXPECT_EQ(good.tallyScore(verifier), kScope | kIssuerCert);
  const CRLContainer::Entry bad =
      through(point, {.issuer = &root, .idp = Scope{.onlyCA = true}}, root);
  EXPECT_EQ(bad.tallyScore(verifier), 0U);
  EXPECT_TRUE(bad.crl.empty());
  EXPECT_EQ(verifier.contextError(), 0);
}

}  // namespace
}  // namespace Velantrix::Test
