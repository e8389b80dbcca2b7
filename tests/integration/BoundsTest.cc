// Every bound, reached by a certificate that is revoked: whatever is not read, asked or kept on the
// way, it is not valid. The rows of the table in docs/ARCHITECTURE.md name these tests, and those of
// other files which do the same.
#include "foundation/base/FileReader.h"
#include "foundation/base/Log.h"
#include "foundation/run/FetchRecord.h"
#include "foundation/run/VerificationRun.h"
#include "integration/LDAPPeer.h"
#include "integration/OCSPFixture.h"
#include "integration/URIFixture.h"

#include <pkx509/LDAPLookup.h>

#include <cstdio>

namespace Velantrix::Test {
namespace {

constexpr int kRevokedCode = X509_V_ERR_CERT_REVOKED;
constexpr int kNoCRLCode = X509_V_ERR_UNABLE_TO_GET_CRL;
constexpr std::size_t kMebibyte = std::size_t{1024} * 1024;

constexpr char kAttribute[] = "certificateRevocationList;binary";
constexpr char kDeltaAttribute[] = "deltaRevocationList;binary";

// What follows does not come.
void answerAndHold(LDAPPeer::Connection& connection, const std::vector<std::string>& entries) {
  const int number = nextSearch(connection);
  for (const std::string& one : entries) connection.write(message(number, one));
  connection.hold();
}

class Bounds : public URIFixture {
 protected:
  Bounds() { world.trust(ca); }

  Issued leafWith(const std::vector<std::string>& uris, CertificateOptions options = {}) const {
    options.issuer = &ca;
    for (const std::string& uri : uris) {
      options.crlDistributionPoints.push_back({.fullNames = {"URI:" + uri}});
    }
    return issue(options);
  }
  Owned<X509_CRL> listing(const Issued& revoked) const {
    return makeCRL({.issuer = &ca, .revoked = {{.serial = revoked, .reason = 1}}});
  }
  /// What a base CRL that is good needs beside it to revoke.
  Owned<X509_CRL> deltaListing(const Issued& revoked) const {
    return makeCRL({.issuer = &ca,
                    .number = Serial(8),
                    .deltaBase = Serial(7),
                    .revoked = {{.serial = revoked, .reason = 1}}});
  }

  int verdict(const Issued& leaf) { return Verifier(world.store, handle(leaf), false).isValid(); }

  /// -1 for an exception of the library's, which is "not valid" too.
  static int verdictOrException(Verifier& verifier) {
    try {
      return verifier.isValid();
    } catch (const Exception&) {
      return -1;
    }
  }
  int verdictOrException(const Issued& leaf) {
    Verifier verifier(world.store, handle(leaf), false);
    return verdictOrException(verifier);
  }

  static void attach(const LDAPPeer& peer, World& to) {
    auto* const method =
        new LDAPLookupMethod({LDAPConnection::RefServer(peer.uri()), std::string(), std::string()});
    to.store->add(RefLookupMethod(method));
    method->store(to.store);
  }

  /// From the next verification on no byte is left to decode once its path is built.
  void spendDecoding() {
    world.source->onQuery = [](Query query, const DistinguishedName& /*name*/) {
      if (query == Query::Object) {
        VerificationRun::admitDecoding(VerificationRun::kMaximumDecodedBytes);
      }
    };
  }

  World world;
};

TEST_F(Bounds, FileThatIsTooLarge_HidesNoRevocationBehindIt) {
  const Issued leaf = leafWith({});
  const fs::path large = addToDirectory(kCRLDirectory, listing(leaf).get());
  EXPECT_EQ(verdict(leaf), kRevokedCode) << log.text();
  fs::resize_file(large, kMaxInputSize + 1);  // sparse, and refused by its size
  EXPECT_NE(verdictOrException(leaf), X509_V_OK);
  addToDirectory(kCRLDirectory, listing(leaf).get());
  EXPECT_NE(verdictOrException(leaf), X509_V_OK);
  // Nor does what another source has to say, as long as the file is not read.
  world.publish({.issuer = &ca});
  EXPECT_NE(verdictOrException(leaf), X509_V_OK);
}

// What comes by then is revoked in the bytes that are left, of whichever source.
TEST_F(Bounds, RevocationBehindTheDecodedBytes_IsNeverValid) {
  const Issued leaf = leafWith({});
  world.publish({.issuer = &ca, .number = Serial(7)});
  const std::string delta = der(deltaListing(leaf).get());
  const LDAPPeer peer([&](LDAPPeer::Connection& connection) {
    answerSearches(connection, {entry("cn=A", {{kDeltaAttribute, {delta}}})});
  });
  attach(peer, world);
  EXPECT_EQ(verdict(leaf), kRevokedCode) << log.text();
  spendDecoding();
  EXPECT_EQ(verdict(leaf), kNoCRLCode) << log.text();
}

// In the machine's directory, and by URI from the cache.
TEST_F(Bounds, RevocationInADirectoryBehindTheDecodedBytes_IsNeverValid) {
  const Issued leaf = leafWith({});
  world.publish({.issuer = &ca, .number = Serial(7)});
  addToDirectory(kCRLDirectory, deltaListing(leaf).get());
  std::string crl;
  const FaultServer server([&](Peer& peer) { Scripts::answer(crl)(peer); });
  const Issued cached = leafWith({server.url("/ca.crl")});
  crl = der(listing(cached).get());
  for (const Issued& one : {leaf, cached}) EXPECT_EQ(verdict(one), kRevokedCode) << log.text();
  spendDecoding();
  for (const Issued& one : {leaf, cached}) EXPECT_EQ(verdict(one), kNoCRLCode) << log.text();
  EXPECT_EQ(log.count("too many bytes of certificates and CRLs"), 2U);
}

TEST_F(Bounds, AnswerOfAWebServerThatIsTooLarge_IsNeverValid) {
  std::string crl;
  const struct {
    const char* name;
    Script script;
    int verdict;
  } rows[] = {
      {"as it should be", [&](Peer& peer) { Scripts::answer(crl)(peer); }, kRevokedCode},
      {"a CRL of more than 64 MiB",
       [&](Peer& peer) { Scripts::cutShort(crl, 64 * kMebibyte + 1)(peer); }, kNoCRLCode},
      {"headers of more than 16 KiB",
       [&](Peer& peer) {
         Scripts::answer(crl, "200 OK", "X: " + std::string(16 * 1024, 'x') + "\r\n")(peer);
       },
       kNoCRLCode},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const FaultServer server(row.script);
    const Issued leaf = leafWith({server.url("/ca.crl")});
    crl = der(listing(leaf).get());
    EXPECT_EQ(verdict(leaf), row.verdict) << log.text();
    EXPECT_EQ(server.connections().size(), 1U);
  }
}

// The answer would revoke; without it the CRLs decide, and without those nobody.
TEST_F(Bounds, OCSPAnswerThatIsTooLarge_IsNoAnswer) {
  for (const bool tooLarge : {false, true}) {
    SCOPED_TRACE(tooLarge);
    const OCSPAnswer revoked{.signer = &ca, .singles = {{.status = V_OCSP_CERTSTATUS_REVOKED}}};
    const FaultServer server(Scripts::answerWith([&](const std::string& request) {
      return ocspAnswer(revoked, httpBody(request)) +
             std::string(tooLarge ? kMebibyte : std::size_t{0}, '\0');
    }));
    const Issued leaf =
        leafWith({}, {.extensions = {{"authorityInfoAccess", "OCSP;URI:" + server.url("/")}}});
    world.source->crls.clear();
    EXPECT_EQ(verdict(leaf), tooLarge ? kNoCRLCode : kRevokedCode) << log.text();
    world.source->crls.push_back(handle(listing(leaf)));
    EXPECT_EQ(verdict(leaf), kRevokedCode) << log.text();
  }
}

// The base CRL comes first and is good, the delta CRL that revokes comes last.
TEST_F(Bounds, SearchThatIsCutShort_IsNeverValid) {
  const Issued leaf = leafWith({});
  const std::string base =
      entry("cn=A", {{kAttribute, {der(makeCRL({.issuer = &ca, .number = Serial(7)}).get())}}});
  const std::string delta = entry("cn=Z", {{kDeltaAttribute, {der(deltaListing(leaf).get())}}});
  const std::string small = entry("cn=M", {});
  const std::string large = entry("cn=" + std::string(16 * kMebibyte, 'x'), {});
  const struct {
    const char* name;
    std::vector<std::string> between;
    bool silent = false;
    int verdict = kNoCRLCode;
  } rows[] = {
      {"a thousand entries", std::vector<std::string>(998, small), false, kRevokedCode},
      {"one entry more", std::vector<std::string>(999, small)},
      {"16 MiB", {large}},
      {"no more for a second", {}, true, -1},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const LDAPPeer peer([&](LDAPPeer::Connection& connection) {
      std::vector<std::string> entries{base};
      entries.insert(entries.end(), row.between.begin(), row.between.end());
      if (row.silent) return answerAndHold(connection, entries);
      entries.push_back(delta);
      answerSearches(connection, entries);
    });
    World own;
    own.trust(ca);
    attach(peer, own);
    Verifier verifier(own.store, handle(leaf), false);
    verifier.maxNetworkTime(row.silent ? 1 : 60);
    EXPECT_EQ(verdictOrException(verifier), row.verdict) << log.text();
  }
}

TEST_F(Bounds, CRLThatMadeWayInTheCache_IsFetchedAgain) {
  std::string crl;
  const FaultServer server([&](Peer& peer) { Scripts::answer(crl)(peer); });
  const std::string uri = server.url("/ca.crl");
  const Issued leaf = leafWith({uri});
  crl = der(listing(leaf).get());
  EXPECT_EQ(verdict(leaf), kRevokedCode) << log.text();
  EXPECT_EQ(verdict(leaf), kRevokedCode) << log.text();
  EXPECT_EQ(server.connections().size(), 1U);
  ASSERT_TRUE(fs::exists(cacheFile(uri)));
  fs::last_write_time(cacheFile(uri), fs::file_time_type::clock::now() - 1h);  // the oldest
  for (int i = 1; i <= 1000; ++i) {
    char name[16];
    std::snprintf(name, sizeof name, "%x.r0", 0x1000 + i);
    writeFile(fs::path(kCRLCacheDirectory) / name,
              "URI: http://other.test/\nExpires: 99999999999\n");
  }
  EXPECT_EQ(found(server.url("/other.crl")).size(), 1U);
  ASSERT_FALSE(fs::exists(cacheFile(uri)));
  EXPECT_EQ(verdict(leaf), kRevokedCode) << log.text();
  EXPECT_EQ(server.connections().size(), 3U);
}

TEST_F(Bounds, RevocationBehindTheLastNote_IsFound) {
  std::string crl;
  const FaultServer server([&](Peer& peer) { Scripts::answer(crl)(peer); });
  const FaultServer empty(Scripts::notFound());
  std::vector<std::string> uris;
  for (std::size_t i = 0; i <= FetchRecord::kMaximumNotes; ++i) {
    uris.push_back(empty.url("/" + std::to_string(i)));
  }
  uris.push_back(server.url("/ca.crl"));
  const Issued leaf = leafWith(uris);
  crl = der(listing(leaf).get());
  Verifier verifier(world.store, handle(leaf), false);
  EXPECT_EQ(verifier.isValid(), kRevokedCode) << log.text();
  EXPECT_EQ(verifier.fetchNotes().size(), FetchRecord::kMaximumNotes);
}

TEST_F(Bounds, LineThatIsTooLong_IsCutAndTheVerdictStands) {
  std::string subject = "CN=Leaf";
  for (int i = 0; i < 400; ++i) subject += ",OU=" + std::string(60, 'x');
  const Issued leaf = leafWith({}, {.subject = subject});
  world.source->crls.push_back(handle(listing(leaf)));
  EXPECT_EQ(verdict(leaf), kRevokedCode);
  ASSERT_EQ(log.lines().size(), 1U);
  EXPECT_TRUE(log.lines().front().text.starts_with("Certificate, ( ")) << log.text();
  EXPECT_LE(log.lines().front().text.size(), std::size_t{8} * 1024);
}

TEST_F(Bounds, RevocationBehindTheLastLine_IsFoundAndItsLineIsWritten) {
  const Issued leaf = leafWith({});
  world.source->crls.push_back(handle(listing(leaf)));
  world.source->onQuery = [](Query query, const DistinguishedName& /*name*/) {
    if (query != Query::CRLs) return;
    for (unsigned int i = 0; i <= VerificationRun::kMaximumLines; ++i) Velantrix::log(7, "chatter");
  };
  EXPECT_EQ(verdict(leaf), kRevokedCode);
  EXPECT_EQ(log.count("chatter"), VerificationRun::kMaximumLines);
  EXPECT_EQ(log.count(failureLine(leaf, kRevokedCode)), 1U) << log.text();
}

}  // namespace
}  // namespace Velantrix::Test
