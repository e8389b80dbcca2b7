#include "foundation/run/VerificationRun.h"
#include "refresh/CRLIssuers.h"
#include "support/Handles.h"
#include "support/LogCapture.h"

#include <gtest/gtest.h>
#include <stop_token>

namespace Velantrix::Test {
namespace {

using namespace Crypto::PKX509;
using std::chrono::hours;

class CRLIssuersTest : public testing::Test {
 protected:
  const Issued root = issueCA("O=Test,CN=Root");
  const Issued inter = issueCA("O=Test,CN=Inter", &root);
  const Issued ca = issueCA("O=Test,CN=CA", &inter);
  const Issued stranger = issueCA("O=Strangers,CN=Root");
  TempDir trusted;
  LogCapture log;

  CRLIssuersTest() { addToDirectory(trusted.path(), root.get()); }

  CRLIssuer issuerOf(const CRLOptions& options, const std::vector<Issued>& candidates = {},
                     const std::vector<Issued>& hints = {}) {
    std::list<RefCertificate> handles;
    for (const Issued& one : candidates) handles.push_back(handle(one));
    std::vector<RefCertificate> hinted;
    for (const Issued& one : hints) hinted.push_back(handle(one));
    const VerificationRun run(nullptr);  // as a refresh has one
    return CRLIssuers(trusted.string(), handles).of(crlHandle(options), hinted);
  }
  static void expectPath(const CRLIssuer& issuer, const std::vector<Issued>& path) {
    ASSERT_EQ(issuer.path.size(), path.size()) << issuer.refusal;
    for (std::size_t i = 0; i < path.size(); ++i) {
      EXPECT_EQ(X509_cmp(issuer.path[i], path[i].get()), 0) << i;
    }
    EXPECT_EQ(issuer.refusal, "");
  }
  static void expectRefusal(const CRLIssuer& issuer, const std::string& refusal) {
    EXPECT_FALSE(issuer.isVerified());
    EXPECT_EQ(issuer.refusal, refusal);
  }
};

TEST_F(CRLIssuersTest, TrustAnchorItself_IsFoundInTheTrustDirectory) {
  expectPath(issuerOf({.issuer = &root}), {root});
}

TEST_F(CRLIssuersTest, IssuersBelowIt_AreFoundInTheTrustDirectoryAmongCandidatesAndHints) {
  expectRefusal(issuerOf({.issuer = &ca}), "the issuer of the CRL is not known");
  expectPath(issuerOf({.issuer = &ca}, {ca, inter}), {ca, inter, root});
  expectPath(issuerOf({.issuer = &ca}, {}, {inter, ca}), {ca, inter, root});
  expectPath(issuerOf({.issuer = &ca}, {inter}, {ca}), {ca, inter, root});
  addToDirectory(trusted.path(), inter.get());
  addToDirectory(trusted.path(), ca.get());
  expectPath(issuerOf({.issuer = &ca}), {ca, inter, root});
}

TEST_F(CRLIssuersTest, CandidatesAndHints_MakeNothingTrusted) {
  for (const bool hinted : {false, true}) {
    const std::vector<Issued> one{stranger};
    expectRefusal(issuerOf({.issuer = &stranger}, hinted ? std::vector<Issued>{} : one,
                           hinted ? one : std::vector<Issued>{}),
                  "the certificate of the CRL's issuer is not valid: self-signed certificate");
  }
}

TEST_F(CRLIssuersTest, IndirectCRLOfACertificateThatSignsOnlyCRLs_IsVerifiedByItsOwnIssuer) {
  const Issued signer =
      issue({.subject = "O=Test,CN=Lists", .issuer = &root, .keyUsage = KU_CRL_SIGN});
  expectPath(issuerOf({.issuer = &signer,
                       .revoked = {{.serial = 7, .certificateIssuer = "O=Test,CN=CA"}},
                       .idp = IssuingDistributionPoint{.indirect = true}},
                      {signer}),
             {signer, root});
}

TEST_F(CRLIssuersTest, WhoMayNotSignCRLs_HasIssuedNone) {
  const Issued signer =
      issue({.subject = "O=Test,CN=Lists", .issuer = &root, .keyUsage = KU_KEY_CERT_SIGN});
  expectRefusal(issuerOf({.issuer = &signer}, {signer}),
                "the certificate of the CRL's issuer does not allow to sign CRLs");
  const Issued person =
      issue({.subject = "O=Test,CN=Lists", .issuer = &root, .keyUsage = KU_DIGITAL_SIGNATURE});
  expectRefusal(issuerOf({.issuer = &person}, {person}), "the issuer of the CRL is not known");
}

TEST_F(CRLIssuersTest, WrongSignature_IsNobodys) {
  expectRefusal(issuerOf({.issuer = &root, .badSignature = true}),
                "the signature of the CRL is wrong");
  const Issued namesake = issueCA("O=Test,CN=Root");
  expectRefusal(issuerOf({.issuer = &namesake}), "the signature of the CRL is wrong");
}

TEST_F(CRLIssuersTest, OfSeveralNamesakes_TheOneThatSignedIsFound) {
  const Issued renewed = issueCA("O=Test,CN=CA", &inter);
  for (const KeyId keyId : {KeyId::Right, KeyId::Absent}) {
    const std::vector<Issued> all{ca, inter, renewed, stranger};
    expectPath(issuerOf({.issuer = &renewed, .authorityKeyId = keyId}, all),
               {renewed, inter, root});
    expectPath(issuerOf({.issuer = &ca, .authorityKeyId = keyId}, all), {ca, inter, root});
  }
}

TEST_F(CRLIssuersTest, IssuerThatHasExpired_HasIssuedNothing) {
  const Issued expired = issue({.subject = "O=Test,CN=CA",
                                .issuer = &root,
                                .notBefore = hours(-48),
                                .notAfter = hours(-1),
                                .ca = true});
  expectRefusal(issuerOf({.issuer = &expired}, {expired}),
                "the certificate of the CRL's issuer is not valid: certificate has expired");
}

TEST_F(CRLIssuersTest, CRLThatNoVerificationTakes_IsRefused) {
  expectRefusal(issuerOf({.issuer = &root, .rawExtensions = {{"1.2.3.4", true, "\x05\x01x"}}}),
                "the CRL has a critical extension that is not known");
  EXPECT_TRUE(issuerOf({.issuer = &root, .idp = IssuingDistributionPoint{.critical = false}})
                  .refusal.starts_with("the CRL is malformed: "));
}

TEST_F(CRLIssuersTest, StoppedBefore_NothingIsFoundOut) {
  const auto crl = crlHandle({.issuer = &root});
  const CRLIssuers issuers(trusted.string(), {});
  std::stop_source source;
  source.request_stop();
  {
    const VerificationRun run(nullptr, {.stop = source.get_token()});
    const CRLIssuer issuer = issuers.of(crl, {});
    expectRefusal(issuer, "who issued the CRL was not found out before the end");
    EXPECT_TRUE(issuer.cut);
  }
  const VerificationRun run(nullptr);
  EXPECT_TRUE(issuers.of(crl, {}).isVerified());
  const CRLIssuer nobody = issuers.of(crlHandle({.issuer = &stranger}), {});
  EXPECT_FALSE(nobody.isVerified());
  EXPECT_FALSE(nobody.cut);
}

}  // namespace
}  // namespace Velantrix::Test
