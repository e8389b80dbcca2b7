// Where the two verifiers differ and a server or a directory of the machine has a part in it: the
// verdicts of both, with their defaults. docs/CONFORMANCE.md names these tests; the others are in
// tests/unit/verify/ConformingVerifierLeniencyTest.cc.
#include "integration/ConnectWatch.h"
#include "integration/OCSPFixture.h"
#include "support/Slapd.h"
#include "unit/verify/BothVerifiers.h"

#include <pkx509/FixedPaths.h>
#include <pkx509/LDAPLookup.h>

#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace Velantrix::Test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using namespace std::string_literals;

constexpr int kGood = X509_V_OK;
constexpr int kScope = X509_V_ERR_DIFFERENT_CRL_SCOPE;
constexpr int kSignature = X509_V_ERR_CRL_SIGNATURE_FAILURE;
constexpr int kGoodAnswer = V_OCSP_CERTSTATUS_GOOD;
constexpr int kRevokedAnswer = V_OCSP_CERTSTATUS_REVOKED;
const RawExtension kUnknownCritical{"1.2.3.4", true, "\x05\0"s};

class Conformance : public OCSPIntegration {
 protected:
  /// Neither finds in the cache what the other one has fetched.
  Verdicts both(const Issued& issued, const std::list<Issued>& untrusted = {}) {
    const auto emptyCache = [] {
      for (const auto& file : fs::directory_iterator(kCRLCacheDirectory)) {
        fs::remove_all(file);
      }
    };
    emptyCache();
    const int classic = classicVerdict(world.store, issued, untrusted);
    emptyCache();
    return {.classic = classic, .conforming = conformingVerdict(world.store, issued, untrusted)};
  }
  /// With these CRLs and no others.
  Verdicts bothWith(const std::vector<CRLOptions>& lists, const Issued& issued,
                    const std::list<Issued>& untrusted = {}) {
    world.source->crls.clear();
    for (const CRLOptions& list : lists) world.publish(list);
    return both(issued, untrusted);
  }
  CRLOptions good() const { return {.issuer = &root}; }
  CRLOptions revoking(const Issued& issued) const {
    return {.issuer = &root, .revoked = {{.serial = issued, .reason = 1}}};
  }
  Issued delegate(const CertificateOptions& changed = {}) const {
    CertificateOptions options = changed;
    options.subject = "O=Test,CN=Responder";
    options.issuer = &root;
    options.extensions.push_back({"extendedKeyUsage", "OCSPSigning"});
    return issue(options);
  }
};

// ---------------------------------------------------------------------------------- OCSP: who answers

// RFC 6960, 4.2.2.2
TEST_F(Conformance, GoodAnswerOfOneWhoMayNotAnswer_IsNone) {
  const Issued other = issue({.subject = "O=Test,CN=Other", .issuer = &root});
  const Issued compromised = issueCA("O=Test,CN=Compromised", &root);
  const Issued otherRoot = issueCA("O=Test,CN=Other Root");
  world.trust(otherRoot);
  // Marked for it, and by another key than the one that signed the certificate in question.
  CertificateOptions marked{.subject = "O=Test,CN=Responder", .issuer = &otherRoot};
  marked.extensions = {{"extendedKeyUsage", "OCSPSigning"}, {"noCheck", "ignored"}};
  const Issued ofAnother = issue(marked);
  Issued itself;
  const struct {
    const char* name;
    const Issued& signer;
  } rows[] = {{"another CA's delegate", ofAnother},
              {"another leaf of the CA", other},
              {"the certificate itself", itself},
              {"a revoked intermediate", compromised},
              {"another root", otherRoot}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const FaultServer server(answering({.signer = &row.signer}));
    itself = person({server.url()});
    CRLOptions crl = revoking(itself);
    crl.revoked.push_back({.serial = compromised, .reason = 2});
    EXPECT_EQ(bothWith({crl}, itself), (Verdicts{kGood, kRevoked}));
    EXPECT_EQ(bothWith({}, itself), (Verdicts{kGood, kNoCRL}));
    EXPECT_EQ(bothWith({good()}, itself), (Verdicts{kGood, kGood}));
  }
}

// Nor may it when it is marked as a responder of its CA.
TEST_F(Conformance, GoodAnswerOfTheCertificateItself_IsNoneEvenFromAResponder) {
  Issued itself;
  const FaultServer server(answering({.signer = &itself}));
  itself = naming({server.url()},
                  {.subject = "O=Test,CN=Responder",
                   .issuer = &root,
                   .extensions = {{"extendedKeyUsage", "OCSPSigning"}, {"noCheck", "ignored"}}});
  EXPECT_EQ(bothWith({revoking(itself)}, itself), (Verdicts{kGood, kRevoked}));
  EXPECT_EQ(bothWith({}, itself), (Verdicts{kGood, kNoCRL}));
}

// Its own answers are those of a CA that is none any more.
TEST_F(Conformance, GoodAnswerOfARevokedIntermediate_ForWhatItIssued) {
  const Issued inter = issueCA("O=Test,CN=Inter", &root);
  world.trust(inter);
  const FaultServer server(answering({.signer = &inter}));
  const Issued leaf = naming({server.url()}, {.subject = "O=Test,CN=Leaf", .issuer = &inter});
  const CRLOptions own{.issuer = &inter, .revoked = {{.serial = leaf, .reason = 1}}};
  EXPECT_EQ(bothWith({revoking(inter), own}, leaf), (Verdicts{kGood, kRevoked}));
  EXPECT_EQ(bothWith({revoking(inter)}, leaf), (Verdicts{kGood, kRevoked}));
  EXPECT_EQ(bothWith({own}, leaf), (Verdicts{kGood, kNoCRL}));
  EXPECT_EQ(bothWith({good()}, leaf), (Verdicts{kGood, kGood}));
}

// RFC 5280, 6.1.3 (a)(3): each certificate of the path.
TEST_F(Conformance, GoodAnswerForTheLeaf_SaysNothingOfARevokedIntermediate) {
  const FaultServer rootsServer(answering({.signer = &root}));
  const Issued inter =
      naming({rootsServer.url()}, {.subject = "O=Test,CN=Inter", .issuer = &root, .ca = true});
  const Issued plain = issueCA("O=Test,CN=Plain", &root);
  world.trust(inter);
  world.trust(plain);
  const FaultServer server(answering({.signer = &plain}));
  const Issued leaf = naming({server.url()}, {.subject = "O=Test,CN=Leaf", .issuer = &plain});
  ConformingVerifier verifier(world.store->clone(), handle(leaf));
  verifier.addressPolicy(AddressPolicy());
  world.publish(revoking(plain));
  EXPECT_EQ(verifier.isValid(), kRevoked);
  EXPECT_EQ(X509_STORE_CTX_get_error_depth(verifier), 1);
  EXPECT_EQ(both(leaf), (Verdicts{kGood, kRevoked}));
  // With a good answer for the intermediate as well, both are content without any CRL.
  const FaultServer below(answering({.signer = &inter}));
  const Issued other = naming({below.url()}, {.subject = "O=Test,CN=Leaf", .issuer = &inter});
  EXPECT_EQ(bothWith({}, other), (Verdicts{kGood, kGood}));
}

// RFC 6960, 4.2.2.2.1
TEST_F(Conformance, RevokedDelegate_MayNotAnswer) {
  for (const bool noCheck : {false, true}) {
    SCOPED_TRACE(noCheck);
    const Issued signer = noCheck ? delegate({.extensions = {{"noCheck", "ignored"}}}) : delegate();
    const FaultServer server(answering({.signer = &signer}));
    const Issued issued = person({server.url()});
    CRLOptions crl = revoking(issued);
    EXPECT_EQ(bothWith({crl}, issued), (Verdicts{kGood, kGood}));
    crl.revoked.push_back({.serial = signer, .reason = 1});
    EXPECT_EQ(bothWith({crl}, issued), (Verdicts{kGood, noCheck ? kGood : kRevoked}));
    EXPECT_EQ(bothWith({}, issued), (Verdicts{kGood, noCheck ? kGood : kNoCRL}));
  }
}

// RFC 6960, 4.2.1: "KeyHash ... of the value of the BIT STRING subjectPublicKey".
TEST_F(Conformance, DelegateNamedByItsKey_WhateverItsExtensionSays) {
  for (const KeyId id : {KeyId::Right, KeyId::Wrong, KeyId::Absent}) {
    const Issued signer = delegate({.subjectKeyId = id});
    const FaultServer server(answering({.signer = &signer, .byKey = true}));
    const Issued issued = person({server.url()});
    const bool right = id == KeyId::Right;
    // The list is for the delegate, and revokes the certificate: which of the two it is decided by shows.
    EXPECT_EQ(bothWith({revoking(issued)}, issued), (Verdicts{right ? kGood : kRevoked, kGood}));
  }
}

// ------------------------------------------------------------------------------ OCSP: what is answered

struct Answered {
  const char* name;
  OCSPAnswer answer;
  int alone;         // what ConformingVerifier says without a CRL
  int withRevoking;  // and with one that revokes
};

// RFC 6960, 3.2, 4.1.1, 4.2.2.1, 4.4, 2.4
TEST_F(Conformance, AnswersThatVerifierTakesForGood) {
  const Issued other = issue({.subject = "O=Test,CN=Other", .issuer = &root});
  Issued issued;
  const auto single = [&](OCSPSingle changed) -> OCSPAnswer {
    return {.signer = &root, .singles = {std::move(changed)}};
  };
  const Answered rows[] = {
      {"right", {.signer = &root}, kGood, kGood},
      {"about another", single({.certificate = &other, .issuer = &root}), kNoCRL, kRevoked},
      {"about nobody", {.signer = &root, .singles = {}}, kNoCRL, kRevoked},
      {"old", single({.thisUpdate = -48h, .nextUpdate = -24h}), kNoCRL, kRevoked},
      {"of the future", single({.thisUpdate = 24h, .nextUpdate = 48h}), kNoCRL, kRevoked},
      // By what the clocks of responders may be ahead, and more.
      {"of a responder whose clock is ahead",
       {.signer = &root, .singles = {{.thisUpdate = 4min}}, .producedAt = 4min},
       kGood,
       kGood},
      {"of the near future",
       {.signer = &root, .singles = {{.thisUpdate = 8min}}, .producedAt = 4min},
       kNoCRL,
       kRevoked},
      {"old, and nothing newer is promised",
       single({.thisUpdate = -25h, .nextUpdate = std::nullopt}), kNoCRL, kRevoked},
      {"of today, and nothing newer is promised",
       single({.thisUpdate = -23h, .nextUpdate = std::nullopt}), kGood, kGood},
      {"made in the future", {.signer = &root, .producedAt = 1h}, kNoCRL, kRevoked},
      {"made before it was known", {.signer = &root, .producedAt = -2h}, kNoCRL, kRevoked},
      {"good, then revoked",
       {.signer = &root, .singles = {{.status = kGoodAnswer}, {.status = kRevokedAnswer}}},
       kRevoked,
       kRevoked},
      {"with a critical extension that nobody knows",
       {.signer = &root, .extensions = {kUnknownCritical}},
       kNoCRL,
       kRevoked},
      {"with a critical extension that nobody knows, of the certificate",
       single({.extensions = {kUnknownCritical}}), kNoCRL, kRevoked},
      {"revoked, by another hash",
       single({.status = kRevokedAnswer,
               .certificate = &issued,
               .issuer = &root,
               .digest = EVP_sha256()}),
       kRevoked, kRevoked},
      {"good, by another hash",
       single({.certificate = &issued, .issuer = &root, .digest = EVP_sha256()}), kGood, kGood},
      {"without a nonce", {.signer = &root, .nonce = OCSPNonce::Absent}, kGood, kGood},
  };
  for (const Answered& row : rows) {
    SCOPED_TRACE(row.name);
    const FaultServer server(answering(row.answer));
    issued = person({server.url()});
    EXPECT_EQ(bothWith({}, issued), (Verdicts{kGood, row.alone}));
    EXPECT_EQ(bothWith({revoking(issued)}, issued), (Verdicts{kGood, row.withRevoking}));
  }
}

TEST_F(Conformance, AnswerWithTheNonceOfAnother_IsNoneForBoth) {
  const FaultServer server(answering({.signer = &root, .nonce = OCSPNonce::Other}));
  const Issued issued = person({server.url()});
  EXPECT_EQ(bothWith({}, issued), (Verdicts{kNoCRL, kNoCRL}));
  EXPECT_EQ(bothWith({revoking(issued)}, issued), (Verdicts{kRevoked, kRevoked}));
}

// RFC 6960, 5
TEST_F(Conformance, AnswersWithWeakSignatures_AreNone) {
  const std::shared_ptr<EVP_PKEY> strong(EVP_RSA_gen(2048), EVP_PKEY_free);
  const std::shared_ptr<EVP_PKEY> weak(EVP_RSA_gen(512), EVP_PKEY_free);
  const struct {
    const char* name;
    std::shared_ptr<EVP_PKEY> key;
    const EVP_MD* digest;
    bool passes;
  } rows[] = {{"SHA-256", strong, EVP_sha256(), true},
              {"SHA-1", strong, EVP_sha1(), false},
              {"MD5", strong, EVP_md5(), false},
              {"key of 512 bits", weak, EVP_sha256(), false}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const Issued signer = delegate({.extensions = {{"noCheck", "ignored"}}, .key = row.key});
    const FaultServer server(answering({.signer = &signer, .digest = row.digest}));
    const Issued issued = person({server.url()});
    EXPECT_EQ(bothWith({}, issued), (Verdicts{kGood, row.passes ? kGood : kNoCRL}));
    EXPECT_EQ(bothWith({revoking(issued)}, issued),
              (Verdicts{kGood, row.passes ? kGood : kRevoked}));
  }
}

// ------------------------------------------------------------------------------- distribution points

// RFC 5280, 6.3.3 (b)(1) and (f)
TEST_F(Conformance, GenuineCRLOfSomebodyElse_ServedAtTheDistributionPoint) {
  const Issued other = issueCA("O=Test,CN=Other");
  const Issued speaker =
      issue({.subject = "O=Test,CN=Speaker", .issuer = &other, .keyUsage = kAbsent});
  const Issued namesake = issueCA("O=Test,CN=Inter", &other);
  const Issued inter = issueCA("O=Test,CN=Inter", &root);
  for (const Issued& issued : {other, speaker, inter, namesake}) world.trust(issued);
  std::string served;
  const FaultServer server(Scripts::answerWith([&](const std::string&) { return served; }));
  const auto pointing = [&](const Issued& ca) {
    return issue({.subject = "O=Test,CN=Person",
                  .issuer = &ca,
                  .keyUsage = kAbsent,
                  .crlDistributionPoints = {{.fullNames = {"URI:" + server.url("/ca.crl")}}}});
  };
  const Issued itself = pointing(root);
  world.trust(itself);
  const Issued below = pointing(inter);
  const struct {
    const char* name;
    const Issued& signer;
    const Issued& issued;
    const Issued& issuer;
    int alone;
  } rows[] = {{"of another CA", other, itself, root, kScope},
              {"of an end entity", speaker, itself, root, kScope},
              {"of the certificate itself", itself, itself, root, kScope},
              {"of a CA of that name under another root", namesake, below, inter, kSignature},
              {"right", root, itself, root, kGood}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    served = der(makeCRL({.issuer = &row.signer}).get());
    const CRLOptions ofRoot{.issuer = &root, .idp = Scope{.onlyCA = true}};
    const CRLOptions ofOther{.issuer = &other};
    EXPECT_EQ(bothWith({ofRoot, ofOther}, row.issued), (Verdicts{kGood, row.alone}));
    if (row.alone == kGood) continue;
    // What the right issuer has elsewhere decides.
    const CRLOptions right{.issuer = &row.issuer, .idp = Scope{.onlyUser = true}};
    EXPECT_EQ(bothWith({ofRoot, ofOther, right}, row.issued), (Verdicts{kGood, kGood}));
    CRLOptions listing = right;
    listing.revoked = {{.serial = row.issued}};
    EXPECT_EQ(bothWith({ofRoot, ofOther, listing}, row.issued), (Verdicts{kGood, kRevoked}));
  }
}

// ------------------------------------------------------------------------------------------- trust

// RFC 5280, 6.1.1 (d)
TEST_F(Conformance, SelfSignedCertificateOfAUserOfTheDirectory_EndsNoPath) {
  const Issued fake = issueCA("O=Test,CN=User");
  const Issued leaf = issue({.subject = "O=Test,CN=Leaf", .issuer = &fake});
  const Slapd directory;
  directory.add({{"o=Test", {"organization"}, {}},
                 {"cn=User,o=Test",
                  {"device", "pkiUser", "pkiCA"},
                  {{"userCertificate;binary", der(fake.get())},
                   {"certificateRevocationList;binary", der(makeCRL({.issuer = &fake}).get())}}}});
  const auto storeOfTheDirectory = [&] {
    RefObjectStore store("/nonexistent/pkx509-test", X509_FILETYPE_PEM);
    auto* const method = new LDAPLookupMethod({LDAPConnection::RefServer(directory.uri()), "", ""});
    store->add(RefLookupMethod(method));
    method->store(store);
    return store;
  };
  EXPECT_EQ(Verifier(storeOfTheDirectory(), handle(leaf), false).isValid(), kGood) << log.text();
  ConformingVerifier verifier(storeOfTheDirectory(), handle(leaf));
  verifier.addressPolicy(AddressPolicy());
  EXPECT_EQ(verifier.isValid(), X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN);
  // Told that the directory is one of the operator's, it is as content.
  const RefObjectStore told = storeOfTheDirectory();
  for (const RefLookupMethod& method : told->methods()) method->trustSource(true);
  ConformingVerifier trusting(told, handle(leaf));
  trusting.addressPolicy(AddressPolicy());
  EXPECT_EQ(trusting.isValid(), kGood) << log.text();
}

// --------------------------------------------------------- what the standards accept and Verifier not

class ConformanceRefusals : public Conformance {
 protected:
  void install(const CRLOptions& options, const std::function<void(std::string&)>& damage = {}) {
    const Owned<X509_CRL> crl = makeCRL(options);
    std::string text = pem(crl.get());
    if (damage) damage(text);
    int index = 0;
    fs::path file;
    do {
      file = fs::path(kCRLDirectory) / crlHashName(crl.get(), index++);
    } while (fs::exists(file));
    writeFile(file, text);
  }
  static void emptyDirectory() {
    for (const auto& file : fs::directory_iterator(kCRLDirectory)) fs::remove(file);
  }
};

TEST_F(ConformanceRefusals, DamagedFileInTheDirectoryOfCRLs_BesideTheRightOne) {
  const Issued leaf = issue({.subject = "O=Test,CN=Leaf", .issuer = &root});
  const struct {
    const char* name;
    std::function<void(std::string&)> damage;
  } rows[] = {
      {"cut short", [](std::string& text) { text.resize(text.size() / 2); }},
      {"an octet changed", [](std::string& text) { text[text.find('\n') + 3] ^= 3; }},
      {"no DER in it",
       [](std::string& text) {
         text = "-----BEGIN X509 CRL-----\nAAAA\n-----END X509 CRL-----\n";
       }},
  };
  for (const auto& row : rows) {
    for (const bool first : {true, false}) {
      SCOPED_TRACE(row.name + std::to_string(static_cast<int>(first)));
      for (const bool revoked : {false, true}) {
        emptyDirectory();
        const CRLOptions right = revoked ? revoking(leaf) : good();
        if (!first) install(right);
        install(good(), row.damage);
        if (first) install(right);
        EXPECT_THROW(classicVerdict(world.store, leaf), Exception);
        EXPECT_EQ(conformingVerdict(world.store, leaf), revoked ? kRevoked : kGood);
      }
    }
  }
  emptyDirectory();
  install(good(), rows[0].damage);
  EXPECT_THROW(classicVerdict(world.store, leaf), Exception);
  EXPECT_EQ(conformingVerdict(world.store, leaf), kNoCRL);
}

TEST_F(ConformanceRefusals, ForgedCRLInTheDirectoryOfCRLs_BesideTheRightOne) {
  const Issued leaf = issue({.subject = "O=Test,CN=Leaf", .issuer = &root});
  CRLOptions forged = good();
  forged.badSignature = true;
  forged.number = Serial(9);
  install(forged);
  install(good());
  EXPECT_EQ(both(leaf), (Verdicts{kSignature, kGood}));
  install(revoking(leaf));
  EXPECT_EQ(both(leaf).conforming, kRevoked);
}

// RFC 9608: nobody is asked about it.
TEST_F(ConformanceRefusals, NoRevAvail_NobodyIsAsked) {
  const RawExtension noRevAvail{.oid = "2.5.29.56", .der = "\x05\0"s};
  const Issued inter = issueCA("O=Test,CN=Inter", &root);
  world.trust(inter);
  const FaultServer server(answering({.signer = &root}));
  const Issued leaf =
      issue({.subject = "O=Test,CN=Leaf", .issuer = &root, .rawExtensions = {noRevAvail}});
  {
    const ConnectWatch watch;
    EXPECT_EQ(both(leaf), (Verdicts{kNoCRL, kGood}));
    EXPECT_TRUE(watch.ports().empty());
  }
  // Above it everything is as ever.
  const Issued below =
      issue({.subject = "O=Test,CN=Leaf", .issuer = &inter, .rawExtensions = {noRevAvail}});
  EXPECT_EQ(bothWith({revoking(inter)}, below).conforming, kRevoked);
  EXPECT_EQ(bothWith({}, below).conforming, kNoCRL);
  // Together with a place to ask at it is an error, and nobody is asked either.
  const ConnectWatch watch;
  const std::string url = server.url();
  const CertificateOptions contradictory{
      .subject = "O=Test,CN=Leaf", .issuer = &root, .rawExtensions = {noRevAvail}};
  CertificateOptions pointing = contradictory;
  pointing.crlDistributionPoints = {{.fullNames = {"URI:" + url}}};
  for (const Issued& issued : {naming({url}, contradictory), issue(pointing)}) {
    EXPECT_EQ(conformingVerdict(world.store, issued), X509_V_ERR_INVALID_EXTENSION);
  }
  EXPECT_TRUE(watch.ports().empty());
}

}  // namespace
}  // namespace Velantrix::Test
