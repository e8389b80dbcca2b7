// What a verifier's sources find in the fixed directories, fetch, and ask of responders.
#include "foundation/run/ConnectionSubject.h"
#include "foundation/run/FetchRecord.h"
#include "foundation/run/VerificationRun.h"
#include "integration/LDAPPeer.h"
#include "integration/URIFixture.h"
#include "report/ObjectOrigins.h"
#include "report/SourceFindings.h"
#include "report/SourceRecord.h"
#include "support/OCSPBuilder.h"
#include "support/SourceTexts.h"
#include "verify/VerifierSources.h"

#include <pkx509/LDAPLookup.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <string>
#include <string_view>
#include <vector>

namespace Velantrix::Test {
namespace {

using Revocation::Offers;
using Revocation::Provenance;
using Kind = Provenance::Kind;
using namespace std::string_literals;
using Notes = std::vector<std::string>;

// For whose sake no connection is opened.
struct Nobody final : ConnectionSubject {
  bool vouched() override { return false; }
  bool admits() override { return false; }
  bool vouchesFor(X509* /*certificate*/) override { return false; }
};

class VerifierSourcesNetwork : public URIFixture {
 protected:
  /// As in "cache 7", in their order; "cut" stands last.
  static Notes textsOf(const Offers<RefCertificateRevocationList>& offers) {
    Notes texts;
    for (const auto& one : offers.found) {
      texts.push_back((one.from.kind == Kind::kCache          ? "cache "
                       : one.from.kind == Kind::kNetwork      ? "network "
                       : one.from.kind == Kind::kCRLDirectory ? "directory "
                                                              : "other ") +
                      numbersOf({one.object}).front());
    }
    if (offers.cut) texts.emplace_back("cut");
    return texts;
  }
  Notes crls(const std::string& uri) { return textsOf(sources.crls(Uri(uri))); }
  void cacheIt(const std::string& uri, const Owned<X509_CRL>& crl) {
    HashDirLookupMethod(kCRLCacheDirectory)
        .add(Uri(uri), {CertificateRevocationListFactory()(crl.get(), false)});
  }
  static Notes reasons() {
    Notes reasons;
    for (const FetchRecord::Note& note : FetchRecord::notes()) reasons.push_back(note.reason);
    return reasons;
  }

  // What was asked from the given use on.
  static Texts asked(std::size_t from = 0) {
    Texts texts;
    const std::vector<SourceRecord::Use>& uses = SourceRecord::current()->uses();
    for (std::size_t i = from; i < uses.size(); ++i) {
      const SourceRecord::Use& use = uses[i];
      texts.push_back(
          sourceText(use.kind, use.result, use.origin.text(), use.fromMemory, reasonOf(use.facts)));
    }
    return texts;
  }
  static const UseFacts& lastFacts() { return SourceRecord::current()->uses().back().facts; }
  static ObjectOrigins::Origin originOf(const RefCertificateRevocationList& crl) {
    return VerificationRun::kept<ObjectOrigins>()->of(crl).value_or(ObjectOrigins::Origin());
  }

  World world;
  VerifierSources sources{world.store, RefStackOfCertificate()};
};

TEST_F(VerifierSourcesNetwork, TheMachinesDirectory_IsAskedFirst) {
  addToDirectory(kCRLDirectory, expiredCRL(5).get());
  world.source->crls = {CertificateRevocationListFactory()(crl(6).get(), false)};
  const auto found = sources.crls(handle(ca)->subject());
  EXPECT_EQ(textsOf(found), (Notes{"directory 5", "other 6"}));
  EXPECT_EQ(found.found.front().from.place, kCRLDirectory);
}

TEST_F(VerifierSourcesNetwork, FreshInTheCache_CostsNoFetch) {
  const FaultServer server(Scripts::answer(der(crl(8).get())));
  const std::string uri = server.url("/ca.crl");
  cacheIt(uri, crl(7));
  fs::last_write_time(cacheFile(uri), fs::file_time_type::clock::now() - 1h);
  const auto found = sources.crls(Uri(uri));
  EXPECT_EQ(textsOf(found), Notes{"cache 7"});
  EXPECT_EQ(found.found.front().from.place, uri);
  EXPECT_LE(found.found.front().fetched, Time::then(-3599, false));
  EXPECT_TRUE(server.connections().empty());
}

TEST_F(VerifierSourcesNetwork, InAVerification_TheCacheIsReadOnce) {
  const std::string uri = "http://127.0.0.1:1/ca.crl";
  cacheIt(uri, crl(7));
  const VerificationRun run(static_cast<const X509*>(nullptr));
  EXPECT_EQ(crls(uri), Notes{"cache 7"});
  cacheIt(uri, crl(8));
  EXPECT_EQ(crls(uri), Notes{"cache 7"});
}

TEST_F(VerifierSourcesNetwork, ExpiredInTheCache_IsOfferedWithWhatIsFetched) {
  const FaultServer server(Scripts::answer(der(crl(8).get())));
  const std::string uri = server.url("/ca.crl");
  cacheIt(uri, expiredCRL(7));
  EXPECT_EQ(crls(uri), (Notes{"cache 7", "network 8"}));
  EXPECT_TRUE(isCached(uri, crl(8)));
  EXPECT_EQ(crls(uri), Notes{"cache 8"});
  EXPECT_EQ(found(uri), Numbers{"8"});
  EXPECT_EQ(server.connections().size(), 1U);
}

TEST_F(VerifierSourcesNetwork, NotYetValidInTheCache_IsOfferedWithWhatIsFetched) {
  const FaultServer server(Scripts::answer(der(crl(8).get())));
  cacheIt(server.url("/ca.crl"),
          makeCRL({.issuer = &ca, .lastUpdate = 24h, .nextUpdate = 48h, .number = 7}));
  EXPECT_EQ(crls(server.url("/ca.crl")), (Notes{"cache 7", "network 8"}));
}

TEST_F(VerifierSourcesNetwork, WithoutNextUpdate_TheCacheIsFreshForADay) {
  const FaultServer server(Scripts::answer(der(crl(8).get())));
  const std::string uri = server.url("/ca.crl");
  cacheIt(uri, makeCRL({.issuer = &ca, .lastUpdate = -72h, .nextUpdate = {}, .number = 7}));
  EXPECT_EQ(crls(uri), Notes{"cache 7"});
  fs::last_write_time(cacheFile(uri), fs::file_time_type::clock::now() - 25h);
  EXPECT_EQ(crls(uri), (Notes{"cache 7", "network 8"}));
}

TEST_F(VerifierSourcesNetwork, WhatTheHostDoesNotGive_IsMissing) {
  const FaultServer server(Scripts::notFound());
  const std::string uri = server.url("/ca.crl");
  cacheIt(uri, expiredCRL(7));
  const VerificationRun run(static_cast<const X509*>(nullptr));
  EXPECT_EQ(crls(uri), (Notes{"cache 7", "cut"}));
  EXPECT_EQ(crls(uri), (Notes{"cache 7", "cut"}));
  EXPECT_EQ(reasons(), Notes{"HTTP status 404"});
  EXPECT_EQ(server.connections().size(), 1U) << "in one verification it is asked once";
}

TEST_F(VerifierSourcesNetwork, DamagedCache_IsPassedOver) {
  const FaultServer server(Scripts::answer(der(crl(8).get())));
  const std::string uri = server.url("/ca.crl");
  writeFile(cacheFile(uri), "damaged");
  const VerificationRun run(static_cast<const X509*>(nullptr));
  EXPECT_EQ(crls(uri), Notes{"network 8"});
  EXPECT_EQ(reasons(), Notes{"cache cannot be read: neither PEM nor DER"});
}

TEST_F(VerifierSourcesNetwork, SecretsOfAURI_AreNoPartOfThePlace) {
  const FaultServer server(Scripts::answer(der(crl(8).get())));
  std::string uri = server.url("/ca.crl?token=a#b");
  uri.insert(std::string("http://").size(), "me:secret@");
  const auto found = sources.crls(Uri(uri));
  ASSERT_EQ(found.found.size(), 1U);
  EXPECT_EQ(found.found.front().from.place, server.url("/ca.crl"));
}

TEST_F(VerifierSourcesNetwork, ForgedInTheCache_IsForgotten) {
  const FaultServer server(Scripts::answer(der(crl(8).get())));
  const std::string uri = server.url("/ca.crl");
  cacheIt(uri, crl(7));
  sources.isForged(Uri(uri), handle(crlFromDer(der(crl(6).get()))));
  EXPECT_TRUE(isCached(uri, crl(7)));
  sources.isForged(Uri(uri), handle(crlFromDer(der(crl(7).get()))));
  EXPECT_EQ(crls(uri), Notes{"network 8"});
}

// -------------------------------------------------------------------------------------------- LDAP

TEST_F(VerifierSourcesNetwork, LDAP_DamagedValuesHideNothing) {
  const LDAPPeer peer([&](LDAPPeer::Connection& connection) {
    answerSearches(connection,
                   {entry("CN=Root", {{"certificateRevocationList;binary",
                                       {"damaged", der(expiredCRL(6).get()), der(crl(7).get())}},
                                      {"cACertificate;binary", {der(ca.get())}}})});
  });
  world.store->add(RefLookupMethod(
      new LDAPLookupMethod({LDAPConnection::RefServer(peer.uri()), std::string(), std::string()})));
  const DistinguishedName name = handle(ca)->subject();
  // This peer sends all, whatever it is asked for; what is of the other kind counts as nothing.
  const VerificationRun run(static_cast<const X509*>(nullptr));
  EXPECT_EQ(textsOf(sources.crls(name)), (Notes{"other 6", "other 7", "cut"}));
  EXPECT_EQ(log.count("Passed over an LDAP value: "), 1U) << log.text();
  const auto certificates = sources.certificates(name);
  ASSERT_EQ(certificates.found.size(), 1U);
  EXPECT_EQ(certificates.found.front().object, handle(ca));
  EXPECT_EQ(certificates.found.front().from.place, "LDAPLookupMethod");
  EXPECT_TRUE(certificates.cut);
  CRLs strict;
  EXPECT_THROW(world.store->find(name, strict), Exception) << "who reads as ever hears of it";
}

TEST_F(VerifierSourcesNetwork, LDAP_ThatMayNotBeAskedNow_IsAskedAnotherTime) {
  const LDAPPeer peer([&](LDAPPeer::Connection& connection) {
    answerSearches(connection,
                   {entry("CN=Root", {{"certificateRevocationList;binary", {der(crl(7).get())}}})});
  });
  world.store->add(RefLookupMethod(
      new LDAPLookupMethod({LDAPConnection::RefServer(peer.uri()), std::string(), std::string()})));
  const VerificationRun run(static_cast<const X509*>(nullptr));
  const DistinguishedName name = handle(ca)->subject();
  {
    const Nobody subject;
    EXPECT_EQ(textsOf(sources.crls(name)), Notes{"cut"});
  }
  EXPECT_EQ(textsOf(sources.crls(name)), Notes{"other 7"});
}

TEST_F(VerifierSourcesNetwork, LDAP_URIWithoutAHostIsAskedOfEachMethodOnce) {
  std::atomic<int> searches = 0;
  const LDAPPeer peer([&](LDAPPeer::Connection& connection) {
    ++searches;
    answerSearches(connection,
                   {entry("CN=Root", {{"certificateRevocationList;binary", {der(crl(7).get())}}})});
  });
  const auto add = [&](const std::string& server) {
    world.store->add(RefLookupMethod(
        new LDAPLookupMethod({LDAPConnection::RefServer(server), std::string(), std::string()})));
  };
  add(peer.uri());
  add("ldap://127.0.0.1:1");
  const std::string uri = "ldap:///CN=Root?certificateRevocationList";
  {
    const VerificationRun run(static_cast<const X509*>(nullptr));
    {
      const Nobody subject;
      EXPECT_EQ(crls(uri), Notes{"cut"});
      EXPECT_EQ(searches, 0);
    }
    const std::size_t before = SourceRecord::reached();
    const unsigned int lookups = run.lookups();
    EXPECT_EQ(crls(uri), (Notes{"other 7", "cut"}));
    EXPECT_EQ(crls(uri), (Notes{"other 7", "cut"}));
    EXPECT_EQ(searches, 1);
    EXPECT_EQ(run.lookups(), lookups + 4) << "each question to each server counts";
    EXPECT_EQ(asked(before), (Texts{"LDAP found " + peer.uri(),
                                    "LDAP failed ldap://127.0.0.1:1: Connection refused"}));
    EXPECT_EQ(world.source->crlQueries, 0);
  }
  const VerificationRun run(static_cast<const X509*>(nullptr));
  while (VerificationRun::admitLookup()) {
  }
  EXPECT_EQ(crls(uri), Notes{"cut"});
  EXPECT_EQ(searches, 1);
}

// -------------------------------------------------------------------------------------------- OCSP

TEST_F(VerifierSourcesNetwork, OCSP_RequestIsExactlyTheseBytes) {
  const FaultServer server(Scripts::answer("answer"));
  const struct {
    const char* path;
    const char* target;
  } rows[] = {{"", "/"},
              {"/", "/"},
              {"/ocsp/a", "/ocsp/a"},
              {"//ocsp", "//ocsp"},
              {"/%61?query#fragment", "/%61?query"}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.path);
    const auto answer = sources.ocsp(Uri(server.url(row.path)), "req\0uest"s);
    ASSERT_EQ(answer.found.size(), 1U);
    EXPECT_EQ(answer.found.front().object, "answer");
    EXPECT_EQ(answer.found.front().from.kind, Kind::kNetwork);
    EXPECT_FALSE(answer.cut);
    EXPECT_EQ(server.requests().back(),
              "POST "s + row.target +
                  " HTTP/1.0\r\nHost: 127.0.0.1:" + std::to_string(server.port()) +
                  "\r\nContent-Type: application/ocsp-request\r\nContent-Length: 8\r\n\r\n"
                  "req\0uest"s);
  }
  EXPECT_EQ(log.text(), "");
}

TEST_F(VerifierSourcesNetwork, OCSP_WithoutAnAnswerTheReasonIsNoted) {
  constexpr std::size_t kMost = std::size_t{1024} * 1024;
  const std::string tooLarge = "the answer is larger than 1 MiB, or its header than 16 KiB";
  const struct {
    const char* name;
    Script script;
    std::size_t found;
    Notes reasons;
  } rows[] = {
      {"right", Scripts::answer(std::string(kMost, 'x')), 1, {}},
      {"no octets", Scripts::answer(""), 1, {}},
      {"too large", Scripts::answer(std::string(kMost + 1, 'x')), 0, {tooLarge}},
      {"not found", Scripts::notFound(), 0, {"HTTP status 404"}},
      {"cut short", Scripts::cutShort("half", 100), 0, {"the answer ends in the middle"}},
      {"garbage", Scripts::garbage(), 0, {"the answer is not HTTP"}},
      {"closed", Scripts::raw(""), 0, {"the server closed the connection without an answer"}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const FaultServer server(row.script);
    const VerificationRun run(static_cast<const X509*>(nullptr));
    const auto answer = sources.ocsp(Uri(server.url("/")), "request");
    EXPECT_EQ(answer.found.size(), row.found);
    EXPECT_EQ(answer.cut, row.found == 0);
    EXPECT_EQ(reasons(), row.reasons);
    EXPECT_FALSE(run.fellShort());
  }
}

TEST_F(VerifierSourcesNetwork, WithoutNetworkTime_NobodyIsAsked) {
  const FaultServer server(Scripts::answer("answer"));
  const VerificationRun run(nullptr, {.networkTime = 0s});
  const auto answer = sources.ocsp(Uri(server.url("/")), "request");
  EXPECT_TRUE(answer.found.empty());
  EXPECT_TRUE(answer.cut);
  EXPECT_EQ(crls(server.url("/")), Notes{"cut"});
  EXPECT_TRUE(server.connections().empty());
  EXPECT_TRUE(run.fellShort());
}

TEST_F(VerifierSourcesNetwork, ForAStranger_NobodyIsAsked) {
  const FaultServer server(Scripts::answer(der(crl(8).get())));
  const VerificationRun run(static_cast<const X509*>(nullptr));
  const Notes reason{"no connection is made for it, and a log line says why"};
  {
    const Nobody subject;
    EXPECT_TRUE(sources.ocsp(Uri(server.url("/")), "request").cut);
    EXPECT_EQ(reasons(), reason);
    EXPECT_EQ(crls(server.url("/")), Notes{"cut"});
  }
  EXPECT_TRUE(server.connections().empty());
  EXPECT_EQ(crls(server.url("/")), Notes{"network 8"}) << "once somebody vouches for it";
}

TEST_F(VerifierSourcesNetwork, AddressesThatMayNotBeContacted_AreNot) {
  const FaultServer server(Scripts::answer("answer"));
  const VerificationRun run(nullptr, {.addresses = AddressPolicy::publicAndPrivate()});
  const auto answer = sources.ocsp(Uri(server.url("/")), "request");
  EXPECT_TRUE(answer.found.empty());
  EXPECT_TRUE(answer.cut);
  EXPECT_TRUE(server.connections().empty());
}

TEST_F(VerifierSourcesNetwork, RespondersOfOneCertificate_ShareHalfOfTheTime) {
  const FaultServer silent(Scripts::silence());
  const FaultServer server(Scripts::answer(der(crl(8).get())));
  const VerificationRun run(nullptr, {.networkTime = 800ms});
  {
    const std::shared_ptr<void> share = sources.shareForResponders();
    EXPECT_TRUE(sources.ocsp(Uri(silent.url("/")), "request").cut);
    EXPECT_TRUE(sources.ocsp(Uri(silent.url("/")), "request").cut);
    EXPECT_EQ(silent.connections().size(), 1U);
  }
  EXPECT_EQ(crls(server.url("/ca.crl")), Notes{"network 8"});
  EXPECT_FALSE(run.fellShort());
}

// --------------------------------------------------------------------------- what was asked is told

TEST_F(VerifierSourcesNetwork, Told_ServerAndCache) {
  const FaultServer server(Scripts::answer(der(crl(8).get())));
  const std::string plain = server.url("/ca.crl");
  std::string uri = server.url("/ca.crl?token=a#b");
  uri.insert(std::string("http://").size(), "me:secret@");
  {
    const VerificationRun run(static_cast<const X509*>(nullptr));
    const auto found = sources.crls(Uri(uri));
    ASSERT_EQ(found.found.size(), 1U);
    EXPECT_EQ(asked(), (Texts{"cache nothing " + plain, "server found " + plain}));
    EXPECT_EQ(lastFacts().bytes, der(crl(8).get()).size());
    EXPECT_EQ(originOf(found.found.front().object),
              (ObjectOrigins::Origin{ObjectOrigins::Origin::Kind::kNetwork, plain}));
  }
  fs::last_write_time(cacheFile(uri), fs::file_time_type::clock::now() - 1h);
  const VerificationRun run(static_cast<const X509*>(nullptr));
  const auto found = sources.crls(Uri(uri));
  ASSERT_EQ(found.found.size(), 1U);
  EXPECT_EQ(asked(), Texts{"cache found " + plain});
  ASSERT_TRUE(lastFacts().stored.has_value());
  EXPECT_LE(*lastFacts().stored, Time::then(-3599, false));
  EXPECT_EQ(
      originOf(found.found.front().object),
      (ObjectOrigins::Origin{ObjectOrigins::Origin::Kind::kCache, plain, cacheFile(uri).string()}));
}

TEST_F(VerifierSourcesNetwork, Told_DeadHostToEachCertificate) {
  const std::string uri = "http://127.0.0.1:1/ca.crl";
  const Issued other = issueCA("CN=Other");
  const VerificationRun run(static_cast<const X509*>(nullptr));
  {
    const SourceRecord::About about(ca.get());
    EXPECT_EQ(crls(uri), Notes{"cut"});
    EXPECT_EQ(crls(uri), Notes{"cut"});
  }
  const std::string down = "server failed " + uri;
  const std::string why = ": could not connect: Connection refused";
  ASSERT_EQ(asked().size(), 3U);
  EXPECT_EQ(asked()[1], down + why);
  EXPECT_EQ(SourceRecord::current()->uses()[1].facts.errorNumber, ECONNREFUSED);
  const SourceRecord::About about(other.get());
  EXPECT_EQ(crls(uri), Notes{"cut"});
  EXPECT_EQ(asked(3), (Texts{"cache nothing " + uri, down + " again" + why}));
  EXPECT_EQ(SourceRecord::current()->uses().back().about, other.get());
}

TEST_F(VerifierSourcesNetwork, Told_WhatAHostAnswersInstead) {
  const FaultServer page(Scripts::html());
  const FaultServer missing(Scripts::notFound());
  const VerificationRun run(static_cast<const X509*>(nullptr));
  crls(page.url("/"));
  EXPECT_EQ(asked().back(),
            "server failed " + page.url("/") + ": the body is no CRL: neither PEM nor DER");
  EXPECT_EQ(lastFacts().failure, UseFacts::Failure::kMalformed);
  crls(missing.url("/"));
  EXPECT_EQ(asked().back(), "server failed " + missing.url("/") + ": HTTP status 404: Not Found");
  EXPECT_EQ(lastFacts().httpStatus, 404);
  crls("ldap://host/cn=CA");
  EXPECT_EQ(asked().back(), "server refused ldap://host/cn=CA: not spoken: ldap:");
  EXPECT_EQ(lastFacts().failure, UseFacts::Failure::kScheme);
}

TEST_F(VerifierSourcesNetwork, Told_CacheThatCannotBeUsed) {
  const FaultServer server(Scripts::answer(der(crl(8).get())));
  const std::string uri = server.url("/ca.crl");
  {
    writeFile(cacheFile(uri), "damaged");
    const VerificationRun run(static_cast<const X509*>(nullptr));
    EXPECT_EQ(crls(uri), Notes{"network 8"});
    EXPECT_EQ(asked(),
              (Texts{"cache failed " + uri + ": neither PEM nor DER", "server found " + uri}));
    EXPECT_EQ(SourceRecord::current()->uses().front().facts.file, cacheFile(uri).string());
  }
  clearPrivateView();
  fs::remove(kCRLCacheDirectory);
  const VerificationRun run(static_cast<const X509*>(nullptr));
  EXPECT_EQ(crls(uri), Notes{"network 8"});
  EXPECT_EQ(asked(),
            (Texts{"cache nothing " + uri,
                   "cache failed " + uri + ": cache cannot be written: No such file or directory",
                   "server found " + uri}));
  EXPECT_EQ(SourceRecord::current()->uses()[1].facts.errorNumber, ENOENT);
  fs::create_directory(kCRLCacheDirectory);
}

TEST_F(VerifierSourcesNetwork, Told_RespondersWithoutTheirSecrets) {
  const FaultServer server(Scripts::answer("answer"));
  const FaultServer missing(Scripts::answer("", "302 Found"));
  std::string secret = server.url("/?token");
  secret.insert(std::string("http://").size(), "me:secret@");
  const VerificationRun run(static_cast<const X509*>(nullptr));
  sources.ocsp(Uri(secret), "request");
  sources.ocsp(Uri(missing.url("/")), "request");
  sources.ocsp(Uri("ldap://host/"), "request");
  EXPECT_EQ(asked(), (Texts{"responder found " + server.url("/"),
                            "responder failed " + missing.url("/") + ": HTTP status 302: Found",
                            "responder refused ldap://host/: not spoken: ldap:"}));
}

TEST_F(VerifierSourcesNetwork, Told_WhatIsRefused) {
  const FaultServer server(Scripts::answer("answer"));
  const std::string uri = server.url("/");
  const auto last = [&] {
    sources.ocsp(Uri(uri), "request");
    EXPECT_EQ(SourceRecord::current()->uses().back().result,
              SourceRecord::Source::Result::kRefused);
    return lastFacts();
  };
  {
    const VerificationRun run(nullptr, {.networkTime = 0s});
    EXPECT_EQ(last().resource, "network time");
    EXPECT_EQ(run.spent(), std::vector<std::string_view>{"network time"});
    crls(uri);
    EXPECT_EQ(lastFacts().resource, "network time");
  }
  {
    const VerificationRun run(static_cast<const X509*>(nullptr));
    const Nobody subject;
    EXPECT_EQ(last().failure, UseFacts::Failure::kNotVouched);
    crls(uri);
    EXPECT_EQ(lastFacts().failure, UseFacts::Failure::kNotVouched);
  }
  {
    const VerificationRun run(nullptr, {.addresses = AddressPolicy::publicAndPrivate()});
    EXPECT_EQ(last().failure, UseFacts::Failure::kAddressRefused);
  }
  const VerificationRun run(static_cast<const X509*>(nullptr));
  NetworkBudget::countBytes(VerificationRun::kMaximumCRLBytes);
  crls(uri);
  EXPECT_EQ(lastFacts().resource, "network bytes");
  for (unsigned int i = 1; i < VerificationRun::kMaximumLookups; ++i)
    VerificationRun::admitLookup();
  crls(uri);
  EXPECT_EQ(lastFacts().resource, "lookups");
  sources.crls(handle(ca)->subject());
  EXPECT_EQ(SourceRecord::current()->uses().back().kind, SourceRecord::Source::Kind::kDirectory);
  EXPECT_EQ(lastFacts().resource, "lookups");
}

TEST_F(VerifierSourcesNetwork, Told_DirectoriesTheirFilesAndMethods) {
  const DistinguishedName name = handle(ca)->subject();
  addToDirectory(kCRLDirectory, expiredCRL(5).get());
  world.source->crls = {CertificateRevocationListFactory()(crl(6).get(), false)};
  const VerificationRun run(static_cast<const X509*>(nullptr));
  const auto found = sources.crls(name);
  ASSERT_EQ(found.found.size(), 2U);
  EXPECT_EQ(asked(), (Texts{"directory found "s + kCRLDirectory, "method found memory"}));
  const ObjectOrigins::Origin file = originOf(found.found.front().object);
  EXPECT_EQ(file.kind(), ObjectOrigins::Origin::Kind::kMachineCRLs);
  EXPECT_TRUE(file.file().starts_with(kCRLDirectory)) << file.file();
  EXPECT_EQ(originOf(found.found.back().object).place(), "memory");
  sources.certificates(name);
  EXPECT_EQ(asked(2), (Texts{"directory failed /nonexistent/pkx509-test: No such file or directory",
                             "method nothing memory"}));
}

TEST_F(VerifierSourcesNetwork, Told_LDAP) {
  const LDAPPeer peer([&](LDAPPeer::Connection& connection) {
    answerSearches(
        connection,
        {entry("CN=Root", {{"certificateRevocationList;binary", {"damaged", der(crl(7).get())}}})});
  });
  world.store->add(RefLookupMethod(
      new LDAPLookupMethod({LDAPConnection::RefServer(peer.uri()), "CN=Me", "secret"})));
  const VerificationRun run(static_cast<const X509*>(nullptr));
  const auto found = sources.crls(handle(ca)->subject());
  ASSERT_EQ(found.found.size(), 1U);
  Texts texts = asked();
  std::erase_if(texts, [](const std::string& one) { return !one.starts_with("LDAP"); });
  EXPECT_EQ(texts, (Texts{"LDAP failed " + peer.uri() + ": neither PEM nor DER",
                          "LDAP found " + peer.uri()}));
  EXPECT_EQ(originOf(found.found.front().object),
            (ObjectOrigins::Origin{ObjectOrigins::Origin::Kind::kLDAP, peer.uri() + "/CN=Root"}));
  const Texts all = asked();
  EXPECT_EQ(std::count(all.begin(), all.end(), "method found LDAPLookupMethod"), 0);
}

}  // namespace
}  // namespace Velantrix::Test
