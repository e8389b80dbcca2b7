// Verifications of certificates whose distribution points name URIs.
#include "integration/OwnNamespaces.h"
#include "integration/URIFixture.h"
#include "support/Loopback.h"
#include "support/PublicKeys.h"
#include "support/SourceTexts.h"
#include "support/WebServer.h"

#include <velantrix/Host.h>

#include <cstdlib>
#include <exception>
#include <functional>
#include <malloc.h>
#include <optional>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <variant>

namespace Velantrix::Test {
namespace {

constexpr char kTimeSpent[] =
    "Verifier: the time for the network is spent, the rest of this verification reaches no host";
constexpr char kBytesSpent[] =
    "Verifier: too many bytes of CRLs, the rest of this verification fetches no more";
constexpr char kLookupsSpent[] =
    "Verifier: too many CRL look-ups, the rest of this verification finds no more CRLs";

class URIVerification : public URIFixture {
 protected:
  /// A certificate with a distribution point for each URI.
  Issued leafWith(const std::vector<std::string>& uris, CertificateOptions options = {}) const {
    options.subject = "O=Test,CN=Leaf";
    options.issuer = &ca;
    for (const std::string& uri : uris) {
      options.crlDistributionPoints.push_back({.fullNames = {"URI:" + uri}});
    }
    return issue(options);
  }

  struct How {
    bool useOpenSSL = false;
    int flags = Verifier::Config().flags;
    unsigned int networkTime = 60;
    AddressPolicy addresses = {};
  };
  /// In a store of its own in which the CA is trusted.
  int verdict(const Issued& leaf) { return verdict(leaf, How()); }
  int verdict(const Issued& leaf, const How& how) {
    World world;
    return verdict(world, leaf, how);
  }
  int verdict(World& world, const Issued& leaf, const How& how) {
    world.trust(ca);
    world.publish({.issuer = &ca});  // for the CA itself, which OpenSSL checks too
    Verifier::Config config;
    config.flags = how.flags;
    Verifier verifier(world.store, handle(leaf), RefStackOfCertificate(), config, how.useOpenSSL);
    verifier.maxNetworkTime(how.networkTime);
    verifier.addressPolicy(how.addresses);
    return verifier.isValid();
  }

  /// What the verification could not fetch or keep.
  std::vector<std::string> notesOf(const Issued& leaf, unsigned int networkTime = 60) {
    World world;
    world.trust(ca);
    Verifier verifier(world.store, handle(leaf), RefStackOfCertificate(), false);
    verifier.maxNetworkTime(networkTime);
    EXPECT_TRUE(verifier.fetchNotes().empty());
    verifier.isValid();
    std::vector<std::string> notes;
    for (const Verifier::FetchNote& note : verifier.fetchNotes()) {
      notes.push_back(note.what + ": " + note.uri + ": " + note.reason);
    }
    return notes;
  }

  VerificationReport reportOf(const Issued& leaf, const How& how) {
    World world;
    world.trust(ca);
    Verifier::Config config;
    config.flags = how.flags;
    Verifier verifier(world.store, handle(leaf), RefStackOfCertificate(), config, how.useOpenSSL);
    verifier.maxNetworkTime(how.networkTime);
    verifier.addressPolicy(how.addresses);
    verifier.isValid();
    return verifier.report();
  }
  /// Of caches and servers.
  static Texts exchangesOf(const VerificationReport& report) {
    Texts texts = textsOf(report.sources());
    std::erase_if(texts, [](const std::string& one) {
      return !one.starts_with("cache") && !one.starts_with("server");
    });
    return texts;
  }

  /// With the issuer's name and another key.
  static std::string crlOfAStranger(const Issued* stranger = nullptr) {
    static const Issued other = issueCA("O=Test,CN=Root");
    return der(makeCRL({.issuer = stranger == nullptr ? &other : stranger,
                        .authorityKeyId = KeyId::Absent})
                   .get());
  }

  std::string crlListing(const Issued& revoked) const {
    return der(makeCRL({.issuer = &ca, .revoked = {{.serial = revoked, .reason = 1}}}).get());
  }

  std::size_t linesOf(int priority, const std::string& begin) const {
    std::size_t count = 0;
    for (const LogCapture::Line& line : log.lines()) {
      if (line.priority == priority && line.text.starts_with(begin)) ++count;
    }
    return count;
  }
  std::size_t forgeryLines() const {
    return linesOf(6,
                   "Verifier: no connection is made for a certificate that no trust anchor "
                   "vouches for: ");
  }
};

// -------------------------------------------------------------------------------- good and revoked

TEST_F(URIVerification, WebServer_GoodRevokedDownAndServedFromTheCache) {
  WebServer server;
  const Issued good = leafWith({server.url("/ca.crl")});
  const Issued revoked = leafWith({server.url("/ca.crl")});
  for (const bool useOpenSSL : {false, true}) {
    SCOPED_TRACE(useOpenSSL);
    clearPrivateView();
    server.start();
    writeFile(server.root() / "ca.crl", crlListing(revoked));
    const std::size_t before = server.requests().size();
    EXPECT_EQ(verdict(good, {.useOpenSSL = useOpenSSL}), X509_V_OK) << log.text();
    EXPECT_EQ(verdict(revoked, {.useOpenSSL = useOpenSSL}), X509_V_ERR_CERT_REVOKED);
    server.stop();
    EXPECT_EQ(server.requests().size(), before + 1);
    EXPECT_EQ(verdict(good, {.useOpenSSL = useOpenSSL}), X509_V_OK);
    EXPECT_EQ(verdict(revoked, {.useOpenSSL = useOpenSSL}), X509_V_ERR_CERT_REVOKED);
    clearPrivateView();
    EXPECT_EQ(verdict(good, {.useOpenSSL = useOpenSSL}), X509_V_ERR_UNABLE_TO_GET_CRL);
    EXPECT_EQ(verdict(revoked, {.useOpenSSL = useOpenSSL}), X509_V_ERR_UNABLE_TO_GET_CRL);
  }
}

TEST_F(URIVerification, WebServerOverTls_ServesTheVerification) {
  const WebServer server({.certificate = &tls, .clientCA = &ca});
  const Issued leaf = leafWith({server.tlsUrl("/ca.crl")});
  writeFile(server.root() / "ca.crl", der(crl(7).get()));
  EXPECT_EQ(verdict(leaf), X509_V_ERR_UNABLE_TO_GET_CRL);  // no client certificate, no exception
  installClient(pem(client.get()), pem(client.key.get()));
  EXPECT_EQ(verdict(leaf), X509_V_OK) << log.text();
}

TEST_F(URIVerification, CacheThatCannotBeUsed_DoesNotChangeTheVerdict) {
  const FaultServer server(Scripts::answer(der(crl(7).get())));
  const Issued leaf = leafWith({server.url("/ca.crl")});
  fs::remove(kCRLCacheDirectory);
  EXPECT_EQ(verdict(leaf), X509_V_OK);
  writeFile(kCRLCacheDirectory, "a file");
  EXPECT_EQ(verdict(leaf), X509_V_OK);
  fs::remove(kCRLCacheDirectory);
  fs::create_directory(kCRLCacheDirectory);
  EXPECT_EQ(server.connections().size(), 2U);
}

// ----------------------------------------------------------- CRLs that their issuer did not sign

TEST_F(URIVerification, CRLThatItsIssuerDidNotSign_IsTakenOutAndFetchedAgainNextTime) {
  std::string lines;
  for (const bool useOpenSSL : {false, true}) {
    SCOPED_TRACE(useOpenSSL);
    clearPrivateView();
    const FaultServer server(
        Scripts::inTurn({Scripts::answer(crlOfAStranger()), Scripts::answer(der(crl(7).get()))}));
    const std::string uri = server.url("/ca.crl");
    const Issued person = leafWith({uri});
    EXPECT_EQ(verdict(person, {.useOpenSSL = useOpenSSL}), X509_V_ERR_CRL_SIGNATURE_FAILURE);
    lines += "7 " + failureLine(person, X509_V_ERR_CRL_SIGNATURE_FAILURE) + "\n";
    EXPECT_EQ(log.text(), lines);
    EXPECT_EQ(cacheNames(), std::vector<std::string>{});
    EXPECT_EQ(verdict(person, {.useOpenSSL = useOpenSSL}), X509_V_OK);
    EXPECT_TRUE(isCached(uri, crl(7)));
    EXPECT_EQ(server.connections().size(), 2U);
  }
}

TEST_F(URIVerification, CRLThatANamesakeOfItsIssuerSigned_StaysInTheCache) {
  const Issued rekeyed = issueCA("O=Test,CN=Root");
  const std::string uri = "http://127.0.0.1:1/ca.crl";
  const Issued leaf = leafWith({uri});
  const Owned<X509_CRL> made = makeCRL({.issuer = &rekeyed, .authorityKeyId = KeyId::Absent});
  const struct {
    const char* name;
    std::function<void(World&)> know;
  } rows[] = {
      {"among the objects",
       [&](World& world) {
         world.store->add({handle(ca), handle(rekeyed)});
       }},
      {"from a lookup method",
       [&](World& world) {
         world.trust(ca);
         world.trust(rekeyed);
       }},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    World world;
    row.know(world);
    writeFile(cacheFile(uri), pem(made.get()));
    EXPECT_EQ(verdict(world, leaf, How()), X509_V_ERR_CRL_SIGNATURE_FAILURE) << log.text();
    EXPECT_TRUE(fs::exists(cacheFile(uri)));
  }
  EXPECT_EQ(verdict(leaf), X509_V_ERR_CRL_SIGNATURE_FAILURE);
  EXPECT_FALSE(fs::exists(cacheFile(uri))) << "nobody who is known signed it";
}

// A key that takes its time is not tried where nobody vouches for it, so it may be the one.
TEST_F(URIVerification, CRLOfANamesakeWhoseKeyIsNotTried_StaysInTheCache) {
  const Issued enormous = issue(
      {.subject = "O=Test,CN=Root", .issuer = &ca, .ca = true, .key = publicRsaKey(8200, 17)});
  const std::string uri = "http://127.0.0.1:1/ca.crl";
  World world;
  world.store->add({handle(ca), handle(enormous)});
  writeFile(cacheFile(uri), pem(crlFromDer(crlOfAStranger()).get()));
  EXPECT_EQ(verdict(world, leafWith({uri}), How()), X509_V_ERR_CRL_SIGNATURE_FAILURE);
  EXPECT_TRUE(fs::exists(cacheFile(uri)));
}

TEST_F(URIVerification, CRLOfADirectory_IsTriedWithAllNamesakesThere) {
  const Issued rekeyed = issueCA("O=Test,CN=Root");
  const TempDir directory;
  const std::string uri = "http://127.0.0.1:1/ca.crl";
  const Issued leaf = leafWith({uri});
  addToDirectory(directory.path(), ca.get());
  const auto verify = [&] {
    Verifier verifier(RefObjectStore(directory.string(), X509_FILETYPE_PEM), handle(leaf), false);
    return verifier.isValid();
  };
  writeFile(cacheFile(uri), crlOfAStranger(&rekeyed));
  addToDirectory(directory.path(), rekeyed.get());
  EXPECT_EQ(verify(), X509_V_ERR_CRL_SIGNATURE_FAILURE) << log.text();
  EXPECT_TRUE(fs::exists(cacheFile(uri)));
  fs::remove(directory / hashName(rekeyed.get(), 1));
  EXPECT_EQ(verify(), X509_V_ERR_CRL_SIGNATURE_FAILURE) << log.text();
  EXPECT_FALSE(fs::exists(cacheFile(uri)));
}

// Whoever sends one could empty the cache.
TEST_F(URIVerification, ForgedCertificate_TakesNothingOutOfTheCache) {
  const std::string uri = "http://127.0.0.1:1/ca.crl";
  const Issued other = issueCA("O=Test,CN=Other");
  const Owned<X509_CRL> bad = crlFromDer(crlOfAStranger());
  for (const Issued& forged :
       {leafWith({uri}, {.signer = other.key}), leafWith({uri}, {.badSignature = true})}) {
    writeFile(cacheFile(uri), pem(bad.get()));
    for (const bool useOpenSSL : {false, true}) {
      EXPECT_EQ(verdict(forged, {.useOpenSSL = useOpenSSL}), X509_V_ERR_CRL_SIGNATURE_FAILURE);
      EXPECT_TRUE(fs::exists(cacheFile(uri))) << useOpenSSL;
    }
  }
}

TEST_F(URIVerification, CRLThatSomebodyReplacedMeanwhile_StaysInTheCache) {
  const std::string uri = "http://127.0.0.1:1/ca.crl";
  const Issued leaf = leafWith({uri});
  World world;
  writeFile(cacheFile(uri), pem(crlFromDer(crlOfAStranger()).get()));
  // Issuers are looked for after the CRL has been read.
  world.source->onQuery = [&](Query query, const DistinguishedName&) {
    if (query == Query::Certificates) writeFile(cacheFile(uri), pem(crl(7).get()));
  };
  EXPECT_EQ(verdict(world, leaf, How()), X509_V_ERR_CRL_SIGNATURE_FAILURE) << log.text();
  EXPECT_EQ(readFile(cacheFile(uri)), pem(crl(7).get()));
  EXPECT_EQ(verdict(leaf), X509_V_OK);
}

// ------------------------------------------------------------------ why something was not fetched

TEST_F(URIVerification, WhatIsNotFetched_IsNotedWithItsReasonAndNotLogged) {
  const ReservedPort closed;
  const std::string body = der(crl(7).get());
  const struct {
    const char* name;
    Script script;
    std::string reason;
  } rows[] = {
      {"404", Scripts::notFound(), "HTTP status 404"},
      {"500", Scripts::answer(body, "500 Internal Server Error"), "HTTP status 500"},
      {"a page", Scripts::html(), "the body is no CRL: neither PEM nor DER"},
      {"nothing", Scripts::answer(""), "the body is no CRL"},
      {"a certificate", Scripts::answer(der(ca.get())), "the body is no CRL"},
      {"closed", Scripts::closeAtOnce(), "the server closed the connection without an answer"},
      {"cut short", Scripts::cutShort(body, body.size() + 1), "the answer ends in the middle"},
      {"garbage", Scripts::garbage(), "the answer is not HTTP"},
      {"a promise of 4 GiB", Scripts::hugePromise(),
       "larger than 64 MiB or than what a verification may fetch, or its header than 16 KiB"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const FaultServer server(row.script);
    const std::string at = "127.0.0.1:" + std::to_string(server.port()) + "/ca.crl";
    EXPECT_EQ(notesOf(leafWith({"http://user:secret@" + at + "?token"})),
              std::vector<std::string>{"not fetched: http://" + at + ": " + row.reason});
  }
  const std::string down = "http://127.0.0.1:" + closed.text() + "/ca.crl";
  EXPECT_EQ(notesOf(leafWith({down, down})),
            std::vector<std::string>{"not fetched: " + down + ": could not connect"});
  const FaultServer silent(Scripts::silence());
  EXPECT_EQ(notesOf(leafWith({silent.url("/ca.crl")}), 1),
            std::vector<std::string>{"not fetched: " + silent.url("/ca.crl") +
                                     ": no answer in the time that was left for the network"});
  EXPECT_EQ(notesOf(leafWith({"http:///ca.crl"})),
            std::vector<std::string>{"not fetched: http:/ca.crl: could not resolve the host"});
  EXPECT_EQ(log.text().find("not fetched"), std::string::npos);
  EXPECT_EQ(log.text().find("127.0.0.1"), std::string::npos);
}

// Everything that a report says of one finding.
std::string textOf(const VerificationReport::Finding& finding) {
  std::string text = finding.origin().place() + finding.origin().file();
  for (const auto& detail : finding.details()) {
    const auto* const value = std::get_if<std::string>(&detail.value);
    if (value != nullptr) text += ' ' + std::string(detail.name) + '=' + *value;
  }
  for (const VerificationReport::Finding& nested : finding.nested()) text += textOf(nested);
  return text;
}

TEST_F(URIVerification, WhatIsNotFetched_StandsInTheReportWithoutSecrets) {
  const FaultServer server(Scripts::notFound());
  const std::string at = "127.0.0.1:" + std::to_string(server.port()) + "/ca.crl";
  const Issued leaf = leafWith({"http://user:secret@" + at + "?token#part"});
  for (const bool useOpenSSL : {false, true}) {
    SCOPED_TRACE(useOpenSSL);
    const VerificationReport report = reportOf(leaf, {.useOpenSSL = useOpenSSL});
    EXPECT_EQ(exchangesOf(report),
              (Texts{"cache nothing http://" + at,
                     "server failed http://" + at + ": HTTP status 404: Not Found"}));
    std::string all = report.line();
    for (const VerificationReport::Finding& finding : report.findings()) all += textOf(finding);
    for (const VerificationReport::Source& source : report.sources()) {
      all += source.origin() + source.reason();
    }
    EXPECT_NE(all.find(at), std::string::npos) << all;
    EXPECT_NE(all.find("404"), std::string::npos) << all;
    for (const char* const secret : {"user:", "secret", "token", "part"}) {
      EXPECT_EQ(all.find(secret), std::string::npos) << secret << ": " << all;
    }
  }
}

TEST_F(URIVerification, HostsThatAreNotAsked_StandInTheReport) {
  const FaultServer server(Scripts::answer(der(crl(7).get())));
  const std::string uri = server.url("/ca.crl");
  const auto exchanges = [&](const Issued& leaf, const How& how) {
    return exchangesOf(reportOf(leaf, how));
  };
  EXPECT_EQ(exchanges(leafWith({uri}), {.addresses = AddressPolicy::publicAndPrivate()}).back(),
            "server refused " + uri + ": the address policy refuses a loopback address: 127.0.0.1");
  EXPECT_EQ(exchanges(leafWith({uri}, {.badSignature = true}), {}).back(),
            "server refused " + uri +
                ": no trust anchor vouches for the certificate that names the host");
  EXPECT_EQ(exchanges(leafWith({"ldap://host/cn=CA"}), {}).back(),
            "server refused ldap://host/cn=CA: not spoken: ldap:");
  EXPECT_EQ(exchanges(leafWith({uri}), {}), (Texts{"cache nothing " + uri, "server found " + uri}));
  const VerificationReport cached = reportOf(leafWith({uri}), {});
  EXPECT_EQ(exchangesOf(cached), Texts{"cache found " + uri});
  EXPECT_TRUE(std::any_of(cached.sources().begin(), cached.sources().end(),
                          [](const auto& one) { return one.age().has_value(); }));
}

TEST_F(URIVerification, BudgetThatIsSpent_IsNamedInTheReport) {
  const auto resources = [&](const std::vector<std::string>& uris) {
    const VerificationReport report = reportOf(leafWith(uris), {.networkTime = 1});
    std::string all;
    for (const VerificationReport::Finding& finding : report.findings()) all += textOf(finding);
    return all;
  };
  const std::string lookups = resources(std::vector<std::string>(257, "http://127.0.0.1:1/ca.crl"));
  EXPECT_NE(lookups.find("resource=lookups"), std::string::npos) << lookups;
  const FaultServer silent(Scripts::silence());
  const std::string time = resources({silent.url("/ca.crl")});
  EXPECT_NE(time.find("resource=network time"), std::string::npos) << time;
}

TEST_F(URIVerification, CacheThatCannotBeUsed_IsNoted) {
  const FaultServer server(Scripts::answer(der(crl(7).get())));
  const std::string uri = server.url("/ca.crl");
  const Issued leaf = leafWith({uri});
  EXPECT_EQ(notesOf(leaf), std::vector<std::string>{});
  writeFile(cacheFile(uri), "garbage");
  EXPECT_EQ(notesOf(leaf), std::vector<std::string>{"not cached: " + uri +
                                                    ": cache cannot be read: neither PEM nor DER"});
  clearPrivateView();
  fs::remove(kCRLCacheDirectory);
  EXPECT_EQ(notesOf(leaf),
            std::vector<std::string>{"not cached: " + uri +
                                     ": cache cannot be written: No such file or directory"});
  fs::create_directory(kCRLCacheDirectory);
}

TEST_F(URIVerification, FullDiskOfTheCache_IsNoted) {
  inOwnNamespaces([this] {
    bringUpLoopback();
    mountMemory(kCRLCacheDirectory, "size=32k");
    writeFile(fs::path(kCRLCacheDirectory) / "1.r0", std::string(32768, 'x'));
    const FaultServer server(Scripts::answer(der(crl(7).get())));
    const std::string uri = server.url("/ca.crl");
    EXPECT_EQ(notesOf(leafWith({uri})),
              std::vector<std::string>{"not cached: " + uri +
                                       ": cache cannot be written: No space left on device"});
  });
}

// The two have one key in the cache, and what is remembered while a verification goes on has it too.
TEST_F(URIVerification, PathWithDotSegments_DoesNotStandForTheOneWithout) {
  const std::string old = der(crl(7).get());
  std::string current;
  const FaultServer server(Scripts::answerWith([&](const std::string& request) {
    return request.starts_with("GET /ca.crl ") ? current : old;
  }));
  const std::string dots = server.url("/~mallory/%2e%2e/ca.crl");
  const Issued leaf = leafWith({dots, dots, server.url("/ca.crl")});
  current = crlListing(leaf);
  EXPECT_EQ(verdict(leaf), X509_V_ERR_CERT_REVOKED);
  EXPECT_EQ(verdict(leaf, {.useOpenSSL = true}), X509_V_ERR_CERT_REVOKED);
  EXPECT_TRUE(readFile(cacheFile(dots)).find(pem(crl(7).get())) == std::string::npos);
}

TEST_F(URIVerification, ExpiredCRL_IsJudgedAndFetchedAgainNextTime) {
  const FaultServer server(Scripts::inTurn(
      {Scripts::answer(der(expiredCRL(7).get())), Scripts::answer(der(crl(8).get()))}));
  const Issued leaf = leafWith({server.url("/ca.crl")});
  EXPECT_EQ(verdict(leaf), X509_V_ERR_CRL_HAS_EXPIRED);
  EXPECT_EQ(verdict(leaf), X509_V_OK);
}

TEST_F(URIVerification, ServerThatMisbehaves_LeavesNoCRL) {
  for (const Script& script : {Scripts::html(), Scripts::closeAtOnce(), Scripts::garbage(),
                               Scripts::answer(der(ca.get()))}) {
    const FaultServer server(script);
    const Issued leaf = leafWith({server.url("/ca.crl")});
    for (const bool useOpenSSL : {false, true}) {
      EXPECT_EQ(verdict(leaf, {.useOpenSSL = useOpenSSL}), X509_V_ERR_UNABLE_TO_GET_CRL);
    }
  }
}

TEST_F(URIVerification, OnlyTheLeafIsChecked_ItsCRLIsFetchedToo) {
  const FaultServer server(Scripts::answer(der(crl(7).get())));
  for (const bool useOpenSSL : {false, true}) {
    clearPrivateView();
    const How how{.useOpenSSL = useOpenSSL, .flags = X509_V_FLAG_CRL_CHECK};
    EXPECT_EQ(verdict(leafWith({server.url("/ca.crl")}), how), X509_V_OK) << log.text();
    EXPECT_EQ(verdict(leafWith({server.url("/other")}, {.badSignature = true}), how),
              X509_V_ERR_UNABLE_TO_GET_CRL);
  }
  EXPECT_EQ(server.connections().size(), 2U);
  EXPECT_EQ(verdict(leafWith({server.url("/third")}), {.flags = 0}), X509_V_OK);
  EXPECT_EQ(server.connections().size(), 2U);
}

// ------------------------------------------------------------------------------------ forgeries

// Who names a dead host earns a retry only with a certificate that may be accepted then.
TEST_F(URIVerification, HostThatIsDead_IsNamedAndHidesNothing) {
  const ReservedPort port;
  const std::string uri = "http://127.0.0.1:" + port.text() + "/ca.crl";
  struct Row {
    const char* name;
    CertificateOptions leaf;
    Rule rule;
    Outcome outcome;
  };
  const Row rows[] = {
      {"genuine", {}, Rule::kCRLUnreachable, Outcome::kTemporary},
      {"forged", {.badSignature = true}, Rule::kCertificateSignature, Outcome::kPermanent},
      {"expired",
       {.notBefore = std::chrono::hours(-48), .notAfter = std::chrono::hours(-24)},
       Rule::kExpired,
       Outcome::kPermanent}};
  for (const Row& row : rows) {
    for (const bool useOpenSSL : {false, true}) {
      SCOPED_TRACE(row.name);
      SCOPED_TRACE(useOpenSSL);
      World world;
      world.trust(ca);
      world.publish({.issuer = &ca});
      Verifier verifier(world.store, handle(leafWith({uri}, row.leaf)), useOpenSSL);
      EXPECT_EQ(verifier.isValid(), X509_V_ERR_UNABLE_TO_GET_CRL);
      const VerificationReport report = verifier.report();
      EXPECT_EQ(report.outcome(), row.outcome);
      ASSERT_FALSE(report.findings().empty());
      const VerificationReport::Finding& decisive = report.findings().front();
      EXPECT_EQ(decisive.rule(), row.rule) << decisive.name();
      EXPECT_EQ(decisive.depth(), 0);
      if (row.rule != Rule::kCRLUnreachable) continue;
      ASSERT_NE(decisive.find("uri"), nullptr);
      EXPECT_EQ(std::get<std::string>(*decisive.find("uri")), uri);
    }
  }
}

TEST_F(URIVerification, CRLOfAHost_IsReportedWithItsPlace) {
  const FaultServer server(Scripts::answer(der(expiredCRL(7).get())));
  const Issued leaf = leafWith({server.url("/ca.crl")});
  for (const bool useOpenSSL : {false, true}) {
    World world;
    world.trust(ca);
    Verifier verifier(world.store, handle(leaf), useOpenSSL);
    EXPECT_EQ(verifier.isValid(), X509_V_ERR_CRL_HAS_EXPIRED);
    const VerificationReport report = verifier.report();
    ASSERT_FALSE(report.findings().empty());
    const VerificationReport::Finding& decisive = report.findings().front();
    EXPECT_EQ(decisive.rule(), Rule::kCRLExpired) << decisive.name();
    ASSERT_NE(decisive.find("uri"), nullptr);
    EXPECT_EQ(std::get<std::string>(*decisive.find("uri")), server.url("/ca.crl"));
    ASSERT_NE(decisive.find("crlNumber"), nullptr);
    EXPECT_EQ(std::get<std::string>(*decisive.find("crlNumber")), "7");
  }
}

TEST_F(URIVerification, ForgedCertificate_MakesNoConnection) {
  const FaultServer server(Scripts::answer(der(crl(7).get())));
  const Issued forged =
      leafWith({server.url("/a"), server.url("/b"), server.url("/c")}, {.badSignature = true});
  for (const bool useOpenSSL : {false, true}) {
    SCOPED_TRACE(useOpenSSL);
    log.clear();
    EXPECT_EQ(verdict(forged, {.useOpenSSL = useOpenSSL}), X509_V_ERR_UNABLE_TO_GET_CRL);
    EXPECT_EQ(forgeryLines(), 1U) << log.text();
    EXPECT_TRUE(log.contains("vouches for: " + handle(forged)->subject().asString()));
    EXPECT_EQ(linesOf(6, ""), 1U);
  }
  EXPECT_EQ(server.connections().size(), 0U);
  EXPECT_EQ(cacheNames(), std::vector<std::string>{});
}

TEST_F(URIVerification, CertificateSignedByAnotherKey_MakesNoConnection) {
  const FaultServer server(Scripts::answer(der(crl(7).get())));
  const Issued other = issueCA("O=Test,CN=Root");
  const Issued forged = leafWith({server.url("/a")}, {.signer = other.key});
  for (const bool useOpenSSL : {false, true}) {
    EXPECT_EQ(verdict(forged, {.useOpenSSL = useOpenSSL}), X509_V_ERR_UNABLE_TO_GET_CRL);
  }
  EXPECT_EQ(forgeryLines(), 2U);
  EXPECT_EQ(server.connections().size(), 0U);
}

TEST_F(URIVerification, ForgedCertificate_IsJudgedByWhatIsCached) {
  const FaultServer server(Scripts::inTurn({Scripts::answer(der(crl(7).get()))}));
  const std::string uri = server.url("/ca.crl");
  const Issued forged = leafWith({uri}, {.badSignature = true});
  EXPECT_EQ(verdict(leafWith({uri})), X509_V_OK);
  for (const bool useOpenSSL : {false, true}) {
    SCOPED_TRACE(useOpenSSL);
    log.clear();
    EXPECT_EQ(verdict(forged, {.useOpenSSL = useOpenSSL}), X509_V_ERR_CERT_SIGNATURE_FAILURE);
    EXPECT_EQ(forgeryLines(), 0U);
  }
  HashDirLookupMethod(kCRLCacheDirectory)
      .add(Uri(uri), CRLs{handle(crlFromDer(crlListing(forged)))});
  for (const bool useOpenSSL : {false, true}) {
    EXPECT_EQ(verdict(forged, {.useOpenSSL = useOpenSSL}), X509_V_ERR_CERT_REVOKED);
  }
  EXPECT_EQ(server.connections().size(), 1U);
}

// All that came in one mail: the CA is made with the sender's key, and has the name of the root
// over it, which never signed anything.
TEST_F(URIVerification, ChainOfAForgedCA_MakesNoConnectionAndAGenuineOneDoes) {
  const FaultServer server(Scripts::answer(der(crl(7).get())));
  for (const bool genuine : {false, true}) {
    const Issued inter =
        issue({.subject = "O=Test,CN=Inter",
               .issuer = &ca,
               .ca = true,
               .crlDistributionPoints = {{.fullNames = {"URI:" + server.url("/i")}}},
               .signer = genuine ? ca.key : makeKey()});
    const FaultServer leafServer(Scripts::answer(der(makeCRL({.issuer = &inter}).get())));
    const Issued person =
        issue({.subject = "O=Test,CN=Person",
               .issuer = &inter,
               .crlDistributionPoints = {{.fullNames = {"URI:" + leafServer.url("/p")}}}});
    for (const bool useOpenSSL : {false, true}) {
      SCOPED_TRACE(testing::Message() << genuine << useOpenSSL);
      clearPrivateView();
      log.clear();
      World world;
      world.trust(ca);
      const std::list<RefCertificate> intermediates{handle(inter)};
      world.store->add(intermediates);
      world.publish({.issuer = &ca});  // for the CA itself, which OpenSSL checks too
      Verifier verifier(world.store, handle(person), RefStackOfCertificate(intermediates),
                        useOpenSSL);
      EXPECT_EQ(verifier.isValid(), genuine ? X509_V_OK : X509_V_ERR_UNABLE_TO_GET_CRL)
          << log.text();
      EXPECT_EQ(forgeryLines(), genuine ? 0U : 1U);
    }
    EXPECT_EQ(leafServer.connections().size(), genuine ? 2U : 0U);
  }
  EXPECT_EQ(server.connections().size(), 2U);
}

TEST_F(URIVerification, EndThatACallersCallbackLetPass_MakesNoConnection) {
  const FaultServer server(Scripts::answer(der(crl(7).get())));
  const Issued leaf = leafWith({server.url("/ca.crl")});
  for (const bool useOpenSSL : {false, true}) {
    World world;  // trusts nobody; the root came along
    Verifier verifier(world.store, handle(leaf), stackOf({ca}), useOpenSSL);
    X509_STORE_CTX_set_verify_cb(verifier, [](int, X509_STORE_CTX*) { return 1; });
    static_cast<void>(verifier.isValid());
    EXPECT_GE(forgeryLines(), 1U);
  }
  EXPECT_EQ(server.connections().size(), 0U);
}

// ---------------------------------------------------------------------------------- the addresses

TEST_F(URIVerification, AddressThatIsRefused_IsAHostThatCannotBeReached) {
  const std::string refused = "HTTP::Connection: the address policy refuses a loopback address: ";
  // Of a name's addresses the first one is taken. Which one that is of localhost, c-ares decides.
  const std::string local = Host(HostName("localhost")).address().asString(true);
  const std::pair<std::string, std::string> hosts[] = {
      {"127.0.0.1", "127.0.0.1"}, {"localhost", local}, {"[::ffff:127.0.0.1]", "127.0.0.1"}};
  for (const auto& [host, address] : hosts) {
    SCOPED_TRACE(host);
    const FaultServer server(Scripts::answer(der(crl(7).get())), {.address = address.c_str()});
    const std::string uri = "http://" + host + ":" + std::to_string(server.port());
    const Issued leaf = leafWith({uri + "/a", uri + "/b"});
    for (const bool useOpenSSL : {false, true}) {
      log.clear();
      clearPrivateView();
      const std::size_t before = server.connections().size();
      How how{.useOpenSSL = useOpenSSL, .addresses = AddressPolicy::publicAndPrivate()};
      EXPECT_EQ(verdict(leaf, how), X509_V_ERR_UNABLE_TO_GET_CRL);
      EXPECT_EQ(linesOf(6, refused), 1U) << log.text();
      EXPECT_EQ(linesOf(6, ""), 1U) << log.text();
      EXPECT_EQ(server.connections().size(), before);
      how.addresses.allow(AddressPolicy::Kind::kLoopback);
      EXPECT_EQ(verdict(leaf, how), X509_V_OK) << log.text();
      EXPECT_GT(server.connections().size(), before);
    }
  }
}

TEST_F(URIVerification, PolicyOfTheProcess_HoldsForEveryVerification) {
  const FaultServer server(Scripts::answer(der(crl(7).get())));
  const Issued leaf = leafWith({server.url("/ca.crl")});
  AddressPolicy::process(AddressPolicy::publicAndPrivate());
  const int refused = verdict(leaf);
  CRLs found;
  URILookup().find(Uri(server.url("/ca.crl")), found);
  AddressPolicy::process(AddressPolicy::everything());
  EXPECT_EQ(refused, X509_V_ERR_UNABLE_TO_GET_CRL);
  EXPECT_TRUE(found.empty());
  EXPECT_EQ(server.connections().size(), 0U);
  EXPECT_EQ(verdict(leaf), X509_V_OK) << log.text();
}

// ------------------------------------------------------------------------------------- the bounds

TEST_F(URIVerification, TenSilentHosts_CostTheNetworkTimeOnce) {
  std::list<FaultServer> servers;
  std::vector<std::string> uris;
  for (int i = 0; i < 10; ++i) uris.push_back(servers.emplace_back(Scripts::silence()).url("/"));
  const Issued leaf = leafWith(uris);
  const auto time =
      timeOf([&] { EXPECT_EQ(verdict(leaf, {.networkTime = 1}), X509_V_ERR_UNABLE_TO_GET_CRL); });
  EXPECT_GE(time, 1s);
  EXPECT_LE(time, 1s + kSlack);
  EXPECT_EQ(linesOf(6, kTimeSpent), 1U) << log.text();
  EXPECT_EQ(linesOf(6, ""), 1U);
  std::size_t connections = 0;
  for (const FaultServer& server : servers) connections += server.connections().size();
  EXPECT_EQ(connections, 1U);
  EXPECT_EQ(cacheNames(), std::vector<std::string>{});
}

TEST_F(URIVerification, ServersThatKeepOneWaiting_CostTheNetworkTime) {
  const std::string answer = Scripts::response(der(crl(7).get()));
  const std::size_t header = answer.find("\r\n\r\n") + 4;
  installClient(pem(client.get()), pem(client.key.get()));
  const FaultServer slow([&](Peer& peer) {
    if (!peer.readRequest()) return;
    peer.write(answer.substr(0, header));
    peer.writeSlowly(answer.substr(header), 100ms);
  });
  const FaultServer silent(Scripts::silence());
  const std::string uris[] = {
      slow.url("/"),
      "https://127.0.0.1:" + std::to_string(silent.port()) + "/",  // no handshake either
  };
  for (const std::string& uri : uris) {
    SCOPED_TRACE(uri);
    const Issued leaf = leafWith({uri});
    const auto time = timeOf([&] {
      EXPECT_EQ(verdict(leaf, {.useOpenSSL = uri == uris[0], .networkTime = 1}),
                X509_V_ERR_UNABLE_TO_GET_CRL);
    });
    EXPECT_GE(time, 1s);
    EXPECT_LE(time, 1s + kSlack);
  }
  EXPECT_EQ(cacheNames(), std::vector<std::string>{});
}

// The host that is not asked any more may be the one that tells of a revocation.
TEST_F(URIVerification, NetworkTimeSpent_IsNeverValidWhateverTheCacheHas) {
  const FaultServer server(Scripts::answer(der(crl(7).get())));
  const FaultServer silent(Scripts::silence());
  EXPECT_EQ(verdict(leafWith({server.url("/ca.crl")})), X509_V_OK);
  const Issued leaf = leafWith({silent.url("/"), silent.url("/2"), server.url("/ca.crl")});
  EXPECT_EQ(verdict(leaf, {.networkTime = 1}), X509_V_ERR_UNABLE_TO_GET_CRL) << log.text();
  EXPECT_EQ(linesOf(6, kTimeSpent), 1U);
  EXPECT_EQ(silent.connections().size(), 1U);
}

// One exchange that has come to the end of the time is enough; nobody is asked after it.
TEST_F(URIVerification, LastExchangeCutByTheNetworkTime_IsNeverValid) {
  const FaultServer server(Scripts::answer(der(crl(7).get())));
  const FaultServer silent(Scripts::silence());
  EXPECT_EQ(verdict(leafWith({server.url("/ca.crl")})), X509_V_OK);
  const Issued leaf = leafWith({server.url("/ca.crl"), silent.url("/")});
  EXPECT_EQ(verdict(leaf, {.networkTime = 1}), X509_V_ERR_UNABLE_TO_GET_CRL) << log.text();
  EXPECT_EQ(linesOf(6, kTimeSpent), 0U);
}

// Nobody answers, and that costs nothing that others would need.
TEST_F(URIVerification, HostThatRefuses_LeadsOnToTheNextPoint) {
  const FaultServer server(Scripts::answer(der(crl(7).get())));
  const FaultServer broken(Scripts::notFound());
  EXPECT_EQ(verdict(leafWith({broken.url("/"), server.url("/ca.crl")})), X509_V_OK) << log.text();
}

TEST_F(URIVerification, NetworkTime_IsSharedWithNestedVerifications) {
  // The leaf's CRL comes from another issuer, whose own certificate is verified in a nested run.
  const FaultServer silent(Scripts::silence());
  const FaultServer slow([](Peer& peer) {
    if (peer.readRequest()) peer.pause(1300ms);
  });
  const Issued crlIssuer =
      issue({.subject = "O=Test,CN=CRL Issuer",
             .issuer = &ca,
             .keyUsage = KU_CRL_SIGN,
             .crlDistributionPoints = {{.fullNames = {"URI:" + silent.url("/")}}}});
  std::string body;
  const FaultServer server([&](Peer& peer) {
    if (peer.readRequest()) peer.write(Scripts::response(body));
  });
  const std::string uri = "URI:" + server.url("/ca.crl");
  body = der(
      makeCRL({.issuer = &crlIssuer, .idp = Scope{.fullNames = {uri}, .indirect = true}}).get());
  const Issued leaf =
      issue({.subject = "O=Test,CN=Leaf",
             .issuer = &ca,
             .crlDistributionPoints = {
                 {.fullNames = {uri}, .crlIssuers = {"dirName:O=Test,CN=CRL Issuer"}},
                 {.fullNames = {"URI:" + slow.url("/")}},
             }});
  World world;
  world.trust(crlIssuer);
  const auto time = timeOf(
      [&] { EXPECT_EQ(verdict(world, leaf, {.networkTime = 2}), X509_V_ERR_UNABLE_TO_GET_CRL); });
  // Counted apart, it would be 1.3 s and 2 s more.
  EXPECT_GE(time, 2s);
  EXPECT_LE(time, 2s + kSlack);
  EXPECT_EQ(server.connections().size(), 1U);
  EXPECT_EQ(slow.connections().size(), 1U);
  EXPECT_EQ(silent.connections().size(), 1U) << log.text();
}

TEST_F(URIVerification, BytesOfCRLs_AreBoundedOverAllDistributionPoints) {
  const std::string body(std::size_t{64} * 1024 * 1024, 'x');
  const FaultServer server(Scripts::answer(body));
  const FaultServer good(Scripts::answer(der(crl(7).get())));
  EXPECT_EQ(verdict(leafWith({good.url("/ca.crl")})), X509_V_OK);
  const Issued leaf = leafWith({good.url("/ca.crl"), server.url("/1"), server.url("/2"),
                                server.url("/3"), server.url("/4")});
  // What is cached says that it is good, and what is not fetched any more may say otherwise.
  EXPECT_EQ(verdict(leaf), X509_V_ERR_UNABLE_TO_GET_CRL);
  EXPECT_EQ(server.connections().size(), 2U);
  EXPECT_EQ(linesOf(6, kBytesSpent), 1U) << log.text();
}

#ifndef PKX509_SANITIZED  // a sanitizer needs terabytes of address space
// The verdict of a child process with less of something, or nothing when it did not end by itself;
// an exception is -1.
std::optional<int> inAChild(int resource, rlim_t limit, const std::function<int()>& verify) {
  constexpr int kException = 255;
  const pid_t child = ::fork();
  if (child == 0) {
    int code = kException;
    const rlimit bound{limit, limit};
    if (::setrlimit(static_cast<__rlimit_resource>(resource), &bound) == 0) {
      try {
        code = verify();
      } catch (const std::exception&) {
        code = kException;
      }
    }
    ::_exit(code);
  }
  int status = 0;
  if (::waitpid(child, &status, 0) != child || !WIFEXITED(status)) return std::nullopt;
  return WEXITSTATUS(status) == kException ? -1 : WEXITSTATUS(status);
}

// The base CRL is small and good, the delta CRL that revokes is large: with some amounts of memory
// only the base can be read.
TEST_F(URIVerification, LackOfMemoryOrDescriptors_IsNeverValid) {
  // What is large is mapped, and given back when it is freed, and the server's thread has no arena
  // of its own: a child has no room left over.
  ASSERT_EQ(::mallopt(M_MMAP_THRESHOLD, 128 * 1024), 1);
  ASSERT_EQ(::mallopt(M_ARENA_MAX, 1), 1);
  std::string delta;
  const FaultServer server([&](Peer& peer) {
    const std::optional<std::string> request = peer.readRequest();
    if (!request.has_value()) return;
    const bool forBase = request->find("base") != std::string::npos;
    peer.write(Scripts::response(forBase ? der(crl(7).get()) : delta));
  });
  const Issued leaf = leafWith({server.url("/base.crl"), server.url("/delta.crl")});
  delta = der(makeCRL({.issuer = &ca,
                       .number = Serial(8),
                       .deltaBase = Serial(7),
                       .revoked = {{.serial = leaf, .reason = 1}},
                       .rawExtensions = {{"1.2.3.4", false, std::string(6U << 20U, 'x')}}})
                  .get());
  const auto verify = [&] { return verdict(leaf); };
  EXPECT_EQ(verify(), X509_V_ERR_CERT_REVOKED) << log.text();  // and both are cached
  const std::size_t requests = server.connections().size();

  std::map<int, int> seen;
  const auto expectNotValid = [&](int resource, rlim_t limit) {
    const std::optional<int> code = inAChild(resource, limit, verify);
    ASSERT_TRUE(code.has_value()) << resource << ", " << limit;
    EXPECT_NE(*code, X509_V_OK) << resource << ", " << limit;
    ++seen[*code];
  };
  const rlim_t used = std::stoull(readFile("/proc/self/statm")) * 4096;
  for (rlim_t megabytes = 0; megabytes <= 160; megabytes += 8) {
    expectNotValid(RLIMIT_AS, used + (megabytes << 20U));
  }
  for (rlim_t descriptors = 0; descriptors <= 24; ++descriptors) {
    expectNotValid(RLIMIT_NOFILE, descriptors);
  }
  EXPECT_GT(seen[X509_V_ERR_CERT_REVOKED], 0);       // there was enough
  EXPECT_GT(seen[X509_V_ERR_UNABLE_TO_GET_CRL], 0);  // there was not, and that was noticed
  EXPECT_GE(server.connections().size(), requests);
}
#endif

TEST_F(URIVerification, LookUps_AreBoundedOverAllDistributionPoints) {
  const FaultServer server(Scripts::notFound());
  std::vector<std::string> uris;
  for (int i = 0; i < 300; ++i) uris.push_back(server.url("/" + std::to_string(i)));
  EXPECT_EQ(verdict(leafWith(uris)), X509_V_ERR_UNABLE_TO_GET_CRL);
  EXPECT_EQ(server.connections().size(), 256U);
  EXPECT_EQ(linesOf(7, kLookupsSpent), 1U);
}

// The rest of a URI is not sent, so these ask for the same.
TEST_F(URIVerification, EqualRequests_AreOneAndItsAnswerIsReadOnce) {
  const FaultServer server(Scripts::answer(crlListing(leafWith({}))));
  const std::string uri = server.url("/ca.crl");
  World world;
  world.trust(ca);
  const Issued leaf = leafWith({uri, uri, uri + "?a", uri + "?b", uri + "#c"});
  Verifier verifier(world.store, handle(leaf), false);
  EXPECT_EQ(verifier.isValid(), X509_V_OK) << log.text();
  EXPECT_EQ(server.connections().size(), 1U);
  std::set<X509_CRL*> objects;
  for (const RefObject& object : world.store->objects()) {
    if (!object->crl.empty()) objects.insert(object->crl);
  }
  EXPECT_EQ(objects.size(), 1U);
}

TEST_F(URIVerification, OneCRLInTheCache_IsReadOnceForAllItsPoints) {
  const FaultServer server(Scripts::answer(der(crl(7).get())));
  const std::string uri = server.url("/ca.crl");
  EXPECT_EQ(found(uri), Numbers{"7"});
  World world;
  world.trust(ca);
  // Nobody signed it: no host is asked, and what is there costs no more for being named often.
  const Issued leaf = leafWith({uri, uri, uri, uri}, {.badSignature = true});
  EXPECT_EQ(Verifier(world.store, handle(leaf), false).isValid(),
            X509_V_ERR_CERT_SIGNATURE_FAILURE);
  std::set<X509_CRL*> objects;
  for (const RefObject& object : world.store->objects()) {
    if (!object->crl.empty()) objects.insert(object->crl);
  }
  EXPECT_EQ(objects.size(), 1U);
  EXPECT_EQ(server.connections().size(), 1U);
}

// A second certificate may be about another host, which is asked for itself.
TEST_F(URIVerification, RequestsThatFailed_AreNotMadeAgain) {
  const FaultServer server(Scripts::notFound());
  const FaultServer other(Scripts::notFound());
  const std::string uri = server.url("/ca.crl");
  EXPECT_EQ(verdict(leafWith({uri, uri, other.url("/ca.crl"), uri, server.url("/other.crl")})),
            X509_V_ERR_UNABLE_TO_GET_CRL);
  EXPECT_EQ(server.connections().size(), 2U);
  EXPECT_EQ(other.connections().size(), 1U);
}

TEST_F(URIVerification, NextVerification_StartsWithAllOfItsBounds) {
  const FaultServer server(
      Scripts::inTurn({Scripts::silence(), Scripts::answer(der(crl(7).get()))}));
  const Issued leaf = leafWith({server.url("/ca.crl")});
  World world;
  world.trust(ca);
  Verifier verifier(world.store, handle(leaf), false);
  verifier.maxNetworkTime(1);
  EXPECT_EQ(verifier.isValid(), X509_V_ERR_UNABLE_TO_GET_CRL);
  EXPECT_EQ(verdict(leaf), X509_V_OK);
}

}  // namespace
}  // namespace Velantrix::Test
