#include "foundation/openssl/OpenSSLOwners.h"
#include "foundation/run/VerificationRun.h"
#include "support/LogCapture.h"
#include "unit/verify/Offering.h"
#include "unit/verify/World.h"
#include "verify/VerifierPaths.h"

#include <gtest/gtest.h>
#include <vector>

namespace Velantrix::Test {
namespace {

using std::chrono::hours;

using Path = std::vector<RefCertificate>;

class VerifierPathsTest : public testing::Test {
 protected:
  const Issued root = issueCA("O=Test,CN=Root");
  const Issued inter = issueCA("O=Test,CN=Inter", &root);
  const Issued leaf = issue({.subject = "O=Test,CN=Leaf", .issuer = &inter});
  const Issued lists = issueCA("O=Test,CN=Lists", &root);
  const Issued otherRoot = issueCA("O=Test,CN=Other Root");
  Offering sources;
  Owned<X509_STORE> store{X509_STORE_new()};
  Owned<X509_STORE_CTX> context{X509_STORE_CTX_new()};
  LogCapture log;

  VerifierPathsTest() {
    // Trusted as well, and no end of these paths all the same.
    X509_STORE_add_cert(store.get(), otherRoot.get());
    EXPECT_EQ(X509_STORE_CTX_init(context.get(), store.get(), leaf.get(), nullptr), 1);
  }

  X509_VERIFY_PARAM* param() { return X509_STORE_CTX_get0_param(context.get()); }
  Path outer() const { return {handle(leaf), handle(inter), handle(root)}; }
  static Path pathOfOuter(VerifierPaths& paths, const Issued& signer) {
    return paths.pathOf(handle(signer));
  }
  Path pathOf(const Issued& signer, bool verified = false, int level = 2) {
    return pathOf(signer, outer(), verified, level);
  }
  Path pathOf(const Issued& signer, const Path& of, bool verified = false, int level = 2) {
    const Time now = Time::now();
    VerifierPaths paths(context.get(), of, sources,
                        {.securityLevel = level,
                         .moment = {.checked = checked.value_or(now), .now = now},
                         .verified = verified});
    return paths.pathOf(handle(signer));
  }
  static bool are(const Path& path, const std::vector<Issued>& expected) {
    return std::equal(path.begin(), path.end(), expected.begin(), expected.end(),
                      [](const RefCertificate& found, const Issued& wanted) {
                        return X509_cmp(found, wanted.get()) == 0;
                      });
  }

  std::optional<Time> checked;
};

TEST_F(VerifierPathsTest, SignerOnThePath_HasTheRestOfIt) {
  for (const bool verified : {false, true}) {
    EXPECT_TRUE(are(pathOf(leaf, verified), {leaf, inter, root}));
    EXPECT_TRUE(are(pathOf(inter, verified), {inter, root}));
    EXPECT_TRUE(are(pathOf(root, verified), {root}));
  }
}

TEST_F(VerifierPathsTest, SignerBesideThePath_HasOneToItsAnchor) {
  EXPECT_TRUE(are(pathOf(lists), {lists, root}));
  const Issued below = issueCA("O=Test,CN=Below", &lists);
  EXPECT_TRUE(are(pathOf(below), {}));
  sources.certificates_ = {handle(lists)};
  EXPECT_TRUE(are(pathOf(below), {below, lists, root}));
}

TEST_F(VerifierPathsTest, UntrustedCertificatesOfTheContext_AreUsed) {
  const Issued below = issueCA("O=Test,CN=Below", &lists);
  const RefStackOfCertificate stack = stackOf({lists});
  X509_STORE_CTX_set0_untrusted(context.get(), stack);
  EXPECT_TRUE(are(pathOf(below), {below, lists, root}));
  EXPECT_EQ(X509_STORE_CTX_get0_untrusted(context.get()), stack.operator stack_st_X509*());
}

TEST_F(VerifierPathsTest, CertificatesOfThePath_AreUsed) {
  const Issued below = issueCA("O=Test,CN=Below", &inter);
  EXPECT_TRUE(are(pathOf(below), {below, inter, root}));
}

// RFC 5280, 6.3.3 (f).
TEST_F(VerifierPathsTest, AnotherTrustAnchor_IsNone) {
  const Issued stranger = issueCA("O=Test,CN=Lists", &otherRoot);
  sources.certificates_ = {handle(otherRoot)};
  EXPECT_TRUE(are(pathOf(stranger), {}));
  EXPECT_TRUE(are(pathOf(otherRoot), {}));
  const Issued namesake = issueCA("O=Test,CN=Root");
  EXPECT_TRUE(are(pathOf(issueCA("O=Test,CN=Lists", &namesake)), {}));
  EXPECT_EQ(log.text(), "");
}

// What is wrong with the path of a signer is told, also where that is not the signer.
TEST_F(VerifierPathsTest, ObjectionToAPath_NamesWhoIsToBlame) {
  const Issued expired = issue({.subject = "O=Test,CN=Expired",
                                .issuer = &root,
                                .notBefore = -hours(48),
                                .notAfter = -hours(24),
                                .ca = true});
  sources.certificates_ = {handle(expired)};
  const Path path = outer();
  const Time now = Time::now();
  VerifierPaths paths(context.get(), path, sources, {.moment = {.checked = now, .now = now}});
  EXPECT_FALSE(paths.objection());
  EXPECT_TRUE(pathOfOuter(paths, issueCA("O=Test,CN=Below", &expired)).empty());
  ASSERT_TRUE(paths.objection());
  EXPECT_EQ(paths.objection()->code, X509_V_ERR_CERT_HAS_EXPIRED);
  EXPECT_EQ(paths.objection()->depth, 1);
  EXPECT_EQ(paths.objection()->certificate, handle(expired));
  const Issued stranger = issueCA("O=Test,CN=Stranger", &otherRoot);
  EXPECT_TRUE(pathOfOuter(paths, stranger).empty());
  EXPECT_EQ(paths.objection()->code, X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY);
  EXPECT_EQ(paths.objection()->certificate, handle(stranger));
  EXPECT_FALSE(pathOfOuter(paths, lists).empty());
  EXPECT_FALSE(paths.objection()) << "it is of the last one";
}

TEST_F(VerifierPathsTest, EmptyHandles_HaveNone) {
  const Path empty;
  EXPECT_TRUE(pathOf(lists, empty).empty());
  EXPECT_TRUE(pathOf(lists, {handle(leaf), RefCertificate()}).empty());
  VerifierPaths paths(context.get(), empty, sources, {});
  EXPECT_TRUE(paths.pathOf(RefCertificate()).empty());
}

// The others are candidates until the signature fits, where key identifiers do not tell.
TEST_F(VerifierPathsTest, KeyRollover_TheRightOneIsTaken) {
  CertificateOptions options{.subject = "O=Test,CN=CA", .issuer = &root, .ca = true};
  options.subjectKeyId = KeyId::Absent;
  const Issued before = issue(options);
  const Issued after = issue(options);
  CertificateOptions of{.subject = "O=Test,CN=Signer", .issuer = &before};
  of.authorityKeyId = KeyId::Absent;
  const Issued ofBefore = issue(of);
  of.issuer = &after;
  const Issued ofAfter = issue(of);
  for (const bool turned : {false, true}) {
    VerificationRun run(nullptr);
    sources.certificates_ = {handle(turned ? after : before), handle(turned ? before : after)};
    EXPECT_TRUE(are(pathOf(ofBefore), {ofBefore, before, root}));
    EXPECT_TRUE(are(pathOf(ofAfter), {ofAfter, after, root}));
  }
}

TEST_F(VerifierPathsTest, TimesOfTheContext_Hold) {
  const Issued old = issue({.subject = "O=Test,CN=Old",
                            .issuer = &root,
                            .notBefore = hours(-23),
                            .notAfter = hours(-21),
                            .ca = true});
  EXPECT_TRUE(pathOf(old).empty());
  checked = Time::then(-22 * 3600, false);
  EXPECT_TRUE(are(pathOf(old), {old, root}));
  checked.reset();
  X509_VERIFY_PARAM_set_flags(param(), X509_V_FLAG_NO_CHECK_TIME);
  EXPECT_TRUE(are(pathOf(old), {old, root}));
  X509_VERIFY_PARAM_set_time(param(), Time::now().seconds());
  EXPECT_TRUE(pathOf(old).empty());
}

TEST_F(VerifierPathsTest, SecurityLevel_Holds) {
  CertificateOptions options{.subject = "O=Test,CN=Medium", .issuer = &root, .ca = true};
  options.keyKind = KeyKind::Rsa2048;
  const Issued medium = issue(options);
  EXPECT_TRUE(are(pathOf(medium), {medium, root}));
  EXPECT_TRUE(pathOf(medium, false, 3).empty());
  X509_VERIFY_PARAM_set_auth_level(param(), 3);
  EXPECT_TRUE(pathOf(medium).empty());
}

TEST_F(VerifierPathsTest, StrictnessOfTheContext_HoldsAndItsPurposeDoesNot) {
  CertificateOptions options{.subject = "O=Test,CN=Plain", .issuer = &root, .ca = true};
  options.subjectKeyId = KeyId::Absent;
  const Issued plain = issue(options);
  X509_VERIFY_PARAM_set_purpose(param(), X509_PURPOSE_TIMESTAMP_SIGN);
  X509_VERIFY_PARAM_set1_host(param(), "host.test", 0);
  X509_VERIFY_PARAM_set_flags(
      param(), X509_V_FLAG_EXPLICIT_POLICY | X509_V_FLAG_CRL_CHECK | X509_V_FLAG_CRL_CHECK_ALL);
  EXPECT_TRUE(are(pathOf(plain), {plain, root}));
  X509_VERIFY_PARAM_set_flags(param(), X509_V_FLAG_X509_STRICT);
  EXPECT_TRUE(pathOf(plain).empty());
}

TEST_F(VerifierPathsTest, PartialChain_EndsWithTheSameCertificate) {
  const Path partial = {handle(leaf), handle(inter)};
  const Issued below = issueCA("O=Test,CN=Below", &inter);
  EXPECT_TRUE(pathOf(below, partial).empty());
  X509_VERIFY_PARAM_set_flags(param(), X509_V_FLAG_PARTIAL_CHAIN);
  EXPECT_TRUE(are(pathOf(below, partial), {below, inter}));
  EXPECT_TRUE(are(pathOf(inter, partial), {inter}));
  EXPECT_TRUE(pathOf(lists, partial).empty());
}

TEST_F(VerifierPathsTest, ForgedSigner_HasNoneAndLeavesNoErrors) {
  CertificateOptions options{.subject = "O=Test,CN=Lists", .issuer = &root, .ca = true};
  options.badSignature = true;
  EXPECT_TRUE(pathOf(issue(options)).empty());
  EXPECT_EQ(ERR_peek_error(), 0UL);
  EXPECT_EQ(log.text(), "");
}

TEST_F(VerifierPathsTest, LevelOfAContext_IsTheHigherOne) {
  EXPECT_EQ(securityLevelOf(context.get(), -3), 0);
  EXPECT_EQ(securityLevelOf(context.get(), 2), 2);
  EXPECT_EQ(securityLevelOf(context.get(), 9), 5);
  X509_VERIFY_PARAM_set_auth_level(param(), 3);
  EXPECT_EQ(securityLevelOf(context.get(), 2), 3);
  EXPECT_EQ(securityLevelOf(context.get(), 4), 4);
}

}  // namespace
}  // namespace Velantrix::Test
