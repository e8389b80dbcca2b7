#include "foundation/run/VerificationRun.h"
#include "support/LogCapture.h"
#include "support/PublicKeys.h"
#include "support/Verdicts.h"
#include "unit/report/CountedOutcome.h"
#include "unit/verify/World.h"

#include <gtest/gtest.h>

namespace Velantrix::Test {
namespace {

using std::chrono::hours;

constexpr int kPath = X509_V_ERR_CRL_PATH_VALIDATION_ERROR;

// The CRLs of others: a certificate names their issuer in a distribution point, and the CRL says
// that it is an indirect one.
class VerifierNestedTest : public testing::Test {
 protected:
  const Issued root = issueCA("O=Test,CN=Root");
  World world;
  LogCapture log;

  VerifierNestedTest() {
    world.trust(root);
    world.publish({.issuer = &root});
  }

  static Point pointTo(const std::string& crlIssuer) {
    return {.crlIssuers = {"dirName:" + crlIssuer}};
  }
  Issued person(const std::vector<Point>& points) {
    return issue({.subject = "O=Test,CN=Person", .issuer = &root, .crlDistributionPoints = points});
  }
  Issued person(const std::string& crlIssuer) { return person({pointTo(crlIssuer)}); }
  // A CA below the root whose revocation is told by `teller`, or by the root's own CRL.
  Issued ca(const std::string& subject, const std::string& teller = {}) {
    CertificateOptions options{.subject = subject, .issuer = &root, .ca = true};
    if (!teller.empty()) options.crlDistributionPoints = {pointTo(teller)};
    Issued result = issue(options);
    world.trust(result);
    return result;
  }
  void publishIndirect(const Issued& issuer, const std::vector<Revoked>& revoked = {}) {
    world.publish({.issuer = &issuer, .revoked = revoked, .idp = Scope{.indirect = true}});
  }
  int verdict(const Issued& issued) {
    return Verifier(world.store, handle(issued), false).isValid();
  }
};

TEST_F(VerifierNestedTest, ValidIssuer_ItsCRLCounts) {
  const Issued lists = ca("O=Test,CN=Lists");
  const Issued good = person("O=Test,CN=Lists");
  const Issued bad = person("O=Test,CN=Lists");
  publishIndirect(lists, {{.serial = bad, .reason = 1, .certificateIssuer = "O=Test,CN=Root"}});
  EXPECT_EQ(verdict(good), 0);
  EXPECT_EQ(log.text(), "");
  EXPECT_EQ(verdict(bad), kRevoked);
  EXPECT_EQ(log.text(), "7 " + failureLine(bad, kRevoked) + "\n");
}

TEST_F(VerifierNestedTest, RevokedIssuer_ItsCodeIsTheVerdict) {
  const Issued lists = ca("O=Test,CN=Lists");
  world.source->crls.clear();
  world.publish({.issuer = &root, .revoked = {{.serial = lists, .reason = 1}}});
  publishIndirect(lists);
  const Issued good = person("O=Test,CN=Lists");
  const Statistics before = Statistics::snapshot();
  EXPECT_EQ(verdict(good), kRevoked);
  EXPECT_TRUE(outcomeCountedSince(before).has_value());  // of the two only the outermost
  EXPECT_EQ(log.text(),
            "7 " + failureLine(lists, kRevoked) + "\n7 " + failureLine(good, kRevoked) + "\n");
}

TEST_F(VerifierNestedTest, IssuerNotBelowATrustAnchor_ItsCodeIsTheVerdict) {
  const Issued stranger = issueCA("O=Test,CN=Stranger");
  // Known as an issuer, not trusted.
  world.store->add(std::list<RefCertificate>{handle(stranger)});
  publishIndirect(stranger);
  EXPECT_EQ(verdict(person("O=Test,CN=Stranger")), X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT);
}

TEST_F(VerifierNestedTest, CertificatesOfThePath_HelpToBuildTheIssuersPath) {
  // The CRL issuer is below an intermediate that only the outer verification was given.
  const Issued inter = issueCA("O=Test,CN=Inter", &root);
  const Issued lists = issueCA("O=Test,CN=Lists", &inter);
  const Issued good = issue({.subject = "O=Test,CN=Person",
                             .issuer = &inter,
                             .crlDistributionPoints = {pointTo("O=Test,CN=Lists")}});
  world.store->add(std::list<RefCertificate>{handle(lists), handle(inter)});
  publishIndirect(lists);
  world.publish({.issuer = &inter});
  Verifier verifier(world.store, handle(good), stackOf({inter}), false);
  // The nested verification runs on a clone, which has no objects: the issuer of Inter's CRL is not
  // found there, though the path is.
  EXPECT_EQ(verifier.isValid(), X509_V_ERR_UNABLE_TO_GET_CRL);
  world.trust(inter);
  EXPECT_EQ(Verifier(world.store, handle(good), stackOf({inter}), false).isValid(), 0);
}

TEST_F(VerifierNestedTest, TimeOfTheOuterVerification_CountsInside) {
  const Issued lists = issue({.subject = "O=Test,CN=Lists",
                              .issuer = &root,
                              .notBefore = hours(-24 * 30),
                              .notAfter = hours(-24),
                              .ca = true});
  const Issued early = issue({.subject = "O=Test,CN=Early",
                              .issuer = &root,
                              .notBefore = hours(-24 * 60),
                              .crlDistributionPoints = {pointTo("O=Test,CN=Lists")}});
  const Issued oldRoot = issue(
      {.subject = "O=Test,CN=Root", .notBefore = hours(-24 * 90), .ca = true, .key = root.key});
  world.source->certificates = {handle(oldRoot), handle(lists)};
  world.source->crls.clear();
  world.publish({.issuer = &root, .lastUpdate = hours(-24 * 50)});
  world.publish({.issuer = &lists, .lastUpdate = hours(-24 * 50), .idp = Scope{.indirect = true}});
  struct Row {
    const char* name;
    int days;
    int verdict;
  };
  const Row rows[] = {{"before the issuer", -40, X509_V_ERR_CERT_NOT_YET_VALID},
                      {"while the issuer is valid", -10, 0},
                      {"after the issuer", -0, X509_V_ERR_CERT_HAS_EXPIRED}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    Verifier verifier(world.store, handle(early), false);
    if (row.days != 0) {
      X509_VERIFY_PARAM_set_time(X509_STORE_CTX_get0_param(verifier),
                                 When(hours(24 * row.days)).time());
    }
    EXPECT_EQ(verifier.isValid(), row.verdict);
  }
  Verifier untimed(world.store, handle(early), false);
  X509_STORE_CTX_set_flags(untimed, X509_V_FLAG_NO_CHECK_TIME);
  EXPECT_EQ(untimed.isValid(), 0);
}

TEST_F(VerifierNestedTest, CircleOfTwo_54AndOneLineThatSaysWhy) {
  const Issued a = ca("O=Test,CN=A", "O=Test,CN=B");
  const Issued b = ca("O=Test,CN=B", "O=Test,CN=A");
  publishIndirect(a);
  publishIndirect(b);
  EXPECT_EQ(verdict(a), kPath);
  EXPECT_EQ(log.count(": its own verification depends on it"), 1U);
  EXPECT_EQ(log.text(), "7 " + failureLine(a, kPath) + ": its own verification depends on it\n7 " +
                            failureLine(b, kPath) + "\n7 " + failureLine(a, kPath) + "\n");
  log.clear();
  // Somebody outside the circle goes round it once.
  EXPECT_EQ(verdict(person("O=Test,CN=A")), kPath);
  EXPECT_EQ(log.count(": its own verification depends on it"), 1U);
}

TEST_F(VerifierNestedTest, CircleOfOne_Is54) {
  // Another certificate of that name issued the CRL, so the signature is not that of the path.
  const Issued a = ca("O=Test,CN=A", "O=Test,CN=A");
  publishIndirect(a);
  world.source->crls.back() =
      crlHandle({.issuer = &a, .idp = Scope{.indirect = true}, .badSignature = true});
  EXPECT_EQ(verdict(a), kPath);
}

TEST_F(VerifierNestedTest, CertificateOfAnOuterPath_MayBeVerified) {
  // The CRL issuer of the person is an intermediate of an enclosing path, not its target.
  const Issued lists = ca("O=Test,CN=Lists");
  publishIndirect(lists);
  const Issued inter = ca("O=Test,CN=Inter", "O=Test,CN=Lists");
  const Issued good = issue({.subject = "O=Test,CN=Person",
                             .issuer = &inter,
                             .crlDistributionPoints = {pointTo("O=Test,CN=Lists")}});
  EXPECT_EQ(verdict(good), 0);
}

// CA 1 needs CA 2, and so on; the last one is told by the root.
class DepthTest : public VerifierNestedTest {
 protected:
  Issued chainOf(int length) {
    Issued first;
    for (int i = 1; i <= length; ++i) {
      const auto name = [](int number) { return "O=Test,CN=Level " + std::to_string(number); };
      const Issued level = ca(name(i), i < length ? name(i + 1) : "");
      if (i == 1) first = level;
      if (i > 1) publishIndirect(level);
    }
    return first;
  }
};

TEST_F(DepthTest, EightLevels_AreVerified) {
  EXPECT_EQ(verdict(chainOf(8)), 0);
  EXPECT_EQ(log.text(), "");
}

TEST_F(DepthTest, NinthLevel_54AndOneLineThatSaysWhy) {
  EXPECT_EQ(verdict(chainOf(9)), kPath);
  EXPECT_EQ(log.count(": verifications are nested too deep"), 1U);
  EXPECT_EQ(log.lines().size(), 9U);
}

// The last level's certificate is revoked, and the CRL that says so is not used any more.
TEST_F(DepthTest, RevocationBehindTheLastLevel_IsNeverValid) {
  for (const auto& [levels, expected] : {std::pair(8, kRevoked), std::pair(9, kPath)}) {
    world.source->certificates.clear();
    world.source->crls.clear();
    world.trust(root);
    world.publish({.issuer = &root});
    const Issued first = chainOf(levels);
    const auto last = std::prev(world.source->certificates.end());
    world.source->crls.front() =
        crlHandle({.issuer = &root, .revoked = {{.serial = (*last)->native(), .reason = 1}}});
    EXPECT_EQ(verdict(first), expected) << levels;
  }
}

class BreadthTest : public VerifierNestedTest {
 protected:
  Issued personOf(int issuers) {
    std::vector<Point> points;
    for (int i = 1; i <= issuers; ++i) {
      const std::string name = "O=Test,CN=Lists " + std::to_string(i);
      publishIndirect(ca(name));
      points.push_back(pointTo(name));
    }
    return person(points);
  }
};

TEST_F(BreadthTest, SixtyFourNested_AreVerified) {
  EXPECT_EQ(verdict(personOf(64)), 0);
  EXPECT_EQ(log.text(), "");
}

TEST_F(BreadthTest, SixtyFifthNested_54AndOneLineThatSaysWhy) {
  const Issued issued = personOf(66);
  EXPECT_EQ(verdict(issued), kPath);
  EXPECT_EQ(log.count(": too many nested verifications"), 1U);
  EXPECT_EQ(log.lines().size(), 2U);
  // The next outermost run starts to count anew.
  log.clear();
  EXPECT_EQ(verdict(issued), kPath);
  EXPECT_EQ(log.count(": too many nested verifications"), 1U);
}

// The certificate's revocation is told by the last of the issuers.
TEST_F(BreadthTest, RevocationBehindTheLastNested_IsNeverValid) {
  for (const auto& [issuers, expected] : {std::pair(64, kRevoked), std::pair(65, kPath)}) {
    world.source->certificates.clear();
    world.source->crls.clear();
    world.trust(root);
    world.publish({.issuer = &root});
    const Issued issued = personOf(issuers);
    const std::string last = "O=Test,CN=Lists " + std::to_string(issuers);
    world.source->crls.pop_back();
    world.source->certificates.pop_back();
    publishIndirect(ca(last),
                    {{.serial = issued, .reason = 1, .certificateIssuer = "O=Test,CN=Root"}});
    EXPECT_EQ(verdict(issued), expected) << issuers;
  }
}

class LookupBoundTest : public VerifierNestedTest {
 protected:
  // A point with that many names of which only the one at `hit` (from 1) leads to the root's CRL.
  Issued withNames(int names, int hit) {
    Point point;
    for (int i = 1; i <= names; ++i) {
      point.fullNames.push_back(i == hit ? "dirName:O=Test,CN=Root"
                                         : "dirName:CN=Nobody " + std::to_string(i));
    }
    return person(std::vector<Point>{point});
  }
};

constexpr char kTooMany[] =
    "Verifier: too many CRL look-ups, the rest of this verification finds no more CRLs";

TEST_F(LookupBoundTest, Lookup256_Finds) {
  EXPECT_EQ(verdict(withNames(256, 256)), 0);
  EXPECT_EQ(world.source->crlQueries, 256);
  EXPECT_EQ(log.text(), "");
}

TEST_F(LookupBoundTest, Lookup257_FindsNothingAndOneLine) {
  const Issued issued = withNames(300, 257);
  EXPECT_EQ(verdict(issued), 3);
  EXPECT_EQ(world.source->crlQueries, 256);
  EXPECT_EQ(log.text(), std::string("7 ") + kTooMany + "\n7 " + failureLine(issued, 3) + "\n");
}

TEST_F(LookupBoundTest, TheNextRun_CountsAnew) {
  const Issued issued = withNames(200, 200);
  Verifier verifier(world.store, handle(issued), false);
  EXPECT_EQ(verifier.isValid(), 0);
  EXPECT_EQ(verifier.isValid(), 0);
  EXPECT_EQ(log.text(), "");
}

TEST_F(LookupBoundTest, OpenSSLsCheck_IsBoundToo) {
  Verifier verifier(world.store, handle(withNames(300, 257)), true);
  EXPECT_EQ(verifier.isValid(), 3);
  EXPECT_EQ(world.source->crlQueries, 256);
  EXPECT_EQ(log.count(kTooMany), 1U);
}

TEST_F(LookupBoundTest, DirectoryCountsAsASource) {
  // Without distribution points one name is asked of the machine's directory and of each source.
  Probe verifier(world.store, handle(person(std::vector<Point>())), false);
  verifier.onCheck = [&](const std::list<RefCertificate>& chain) {
    for (int i = 0; i < 200; ++i) {
      CRLContainer container(verifier);
      verifier.getCRLs(chain.front(), container);
    }
    return 1;
  };
  // Nothing failed but the bound, and that is enough.
  EXPECT_EQ(verifier.isValid(), X509_V_ERR_UNABLE_TO_GET_CRL);
  EXPECT_EQ(world.source->crlQueries, 1) << "the answer is shared, and each use of it counted";
  EXPECT_EQ(log.count(kTooMany), 1U);
}

// A leaf can be made so that the look-up which tells of its CA's revocation is the first that is
// refused.
TEST_F(LookupBoundTest, RevocationBehindTheLastLookup_IsNeverValid) {
  const Issued sub = ca("O=Test,CN=Sub");
  world.publish({.issuer = &sub});
  auto* const second = new MemorySource;
  world.store->add(RefLookupMethod(second));
  second->crls.push_back(
      crlHandle({.issuer = &root, .number = Serial(2), .revoked = {{.serial = sub, .reason = 1}}}));
  // Each name is asked of both sources; the root's name of the directory beside them.
  const auto withNames = [&](int names) {
    Point point{.fullNames = {"dirName:O=Test,CN=Sub"}};
    for (int i = 1; i < names; ++i) point.fullNames.push_back("dirName:CN=Nobody");
    return issue({.subject = "O=Test,CN=Person", .issuer = &sub, .crlDistributionPoints = {point}});
  };
  for (const int names : {1, 125, 126}) {
    EXPECT_EQ(verdict(withNames(names)), kRevoked) << names;
  }
  EXPECT_EQ(log.count(kTooMany), 0U);
  log.clear();
  const Issued last = withNames(127);
  EXPECT_EQ(verdict(last), X509_V_ERR_UNABLE_TO_GET_CRL);
  EXPECT_EQ(log.text(), std::string("7 ") + kTooMany + "\n7 " +
                            failureLine(last, X509_V_ERR_UNABLE_TO_GET_CRL) +
                            ": something that all of the verification shares ran out before its "
                            "revocation was settled\n");
  for (const int names : {128, 129, 200}) {
    EXPECT_EQ(verdict(withNames(names)), X509_V_ERR_UNABLE_TO_GET_CRL) << names;
  }
  EXPECT_EQ(Verifier(world.store, handle(last), true).isValid(), X509_V_ERR_UNABLE_TO_GET_CRL);
}

// The look-up that tells of the CA's revocation comes after the processor time is used up.
TEST_F(LookupBoundTest, RevocationBehindTheProcessorTime_IsNeverValid) {
  const Issued sub = ca("O=Test,CN=Sub");
  world.publish({.issuer = &sub});
  auto* const second = new MemorySource;
  world.store->add(RefLookupMethod(second));
  second->crls.push_back(
      crlHandle({.issuer = &root, .number = Serial(2), .revoked = {{.serial = sub, .reason = 1}}}));
  const Issued leaf = issue({.subject = "O=Test,CN=Person", .issuer = &sub});
  EXPECT_EQ(verdict(leaf), kRevoked);
  log.clear();

  world.source->onQuery = [&](Query query, const DistinguishedName& name) {
    // Until the second source would be asked for the root's CRLs.
    if (query != Query::CRLs || name != handle(root)->subject()) return;
    while (VerificationRun::admitStep()) {
    }
  };
  for (const bool useOpenSSL : {false, true}) {
    Verifier verifier(world.store, handle(leaf), useOpenSSL);
    verifier.maxTime(1);
    EXPECT_EQ(verifier.isValid(), X509_V_ERR_UNABLE_TO_GET_CRL) << useOpenSSL;
  }
  EXPECT_EQ(log.count("Verifier: the processor time is spent"), 2U);
}

// Names say that each of them may have issued the CRL. The chain is a forgery, so their keys are used
// within bounds only: a stranger makes keys that take their time.
TEST_F(VerifierNestedTest, NamesakesOfACRLIssuer_TheirKeysAreNotUsedWhereNobodyVouchesForThem) {
  const Issued sub = ca("O=Test,CN=Sub");
  const RefCertificateRevocationList crl =
      world.publish({.issuer = &sub, .authorityKeyId = KeyId::Absent});
  // OpenSSL compares the kind of the leaf's signature with that of the key above it.
  const auto verdictBelow = [&](const std::shared_ptr<EVP_PKEY>& key) {
    const Issued namesake = issue(
        {.subject = "O=Test,CN=Sub", .issuer = &root, .ca = true, .key = key, .signer = makeKey()});
    const Issued leaf = issue(
        {.subject = "O=Test,CN=Person", .issuer = &namesake, .signer = makeKey(KeyKind::Rsa2048)});
    return Verifier(world.store, handle(leaf), stackOf({namesake}), false).isValid();
  };
  const std::size_t before = crl->signatureChecks();
  EXPECT_EQ(verdictBelow(publicRsaKey(8192, 17)), X509_V_ERR_CERT_SIGNATURE_FAILURE);
  EXPECT_EQ(crl->signatureChecks() - before, 2U) << "the namesake's key and the right one";
  EXPECT_EQ(log.count("Verifier: too many keys, or too large ones"), 0U);
  EXPECT_EQ(verdictBelow(publicRsaKey(8200, 17)), X509_V_ERR_UNABLE_TO_GET_CRL);
  EXPECT_EQ(crl->signatureChecks() - before, 2U) << "the right one is remembered";
  EXPECT_EQ(log.count("Verifier: too many keys, or too large ones"), 1U);
}

TEST_F(LookupBoundTest, ProcessorTimeOfZero_IsNoBound) {
  Verifier verifier(world.store, handle(person(std::vector<Point>())), false);
  verifier.maxTime(0);
  EXPECT_EQ(verifier.isValid(), 0);
}

// The next verification has all of its look-ups again, also of the same verifier; the failure of
// the first one sticks.
TEST_F(LookupBoundTest, FellShort_IsOverWithTheRun) {
  Probe verifier(world.store, handle(person(std::vector<Point>())), false);
  bool greedy = true;
  verifier.onCheck = [&](const std::list<RefCertificate>& chain) {
    for (int i = 0; i < (greedy ? 200 : 1); ++i) {
      CRLContainer container(verifier);
      verifier.getCRLs(chain.front(), container);
    }
    return 1;
  };
  EXPECT_EQ(verifier.isValid(), X509_V_ERR_UNABLE_TO_GET_CRL);
  greedy = false;
  EXPECT_EQ(verifier.isValid(), X509_V_ERR_UNABLE_TO_GET_CRL);
  verifier.error = 0;
  EXPECT_EQ(verifier.isValid(), 0);
}

TEST_F(LookupBoundTest, NestedLookups_CountForTheOutermostRun) {
  const Issued lists = ca("O=Test,CN=Lists");
  publishIndirect(lists);
  Point point;
  for (int i = 0; i < 256; ++i) point.fullNames.push_back("dirName:CN=Nobody");
  // The first point finds the CRL, the second uses up what is left.
  const Issued issued = person({pointTo("O=Test,CN=Lists"), point});
  EXPECT_EQ(verdict(issued), 3);
  EXPECT_EQ(log.count(kTooMany), 1U);
}

}  // namespace
}  // namespace Velantrix::Test
