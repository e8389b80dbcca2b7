// Verifications that fetch by the client for the web as it is, and cache what they have verified.
#include "integration/URIFixture.h"
#include "support/Files.h"
#include "support/Loopback.h"

#include <pkx509/CRLRefresh.h>
#include <pkx509/ConformingVerifier.h>
#include <pkx509/Statistics.h>

#include <atomic>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace Velantrix::Test {
namespace {

class WebRetrieval : public URIFixture {
 protected:
  Issued leafWith(const std::vector<std::string>& uris) const {
    CertificateOptions options{.subject = "O=Test,CN=Leaf", .issuer = &ca};
    for (const std::string& uri : uris) {
      options.crlDistributionPoints.push_back({.fullNames = {"URI:" + uri}});
    }
    return issue(options);
  }
  Issued leafWith(const std::string& uri) const { return leafWith(std::vector{uri}); }

  /// In a store of its own in which the CA is trusted.
  int conforming(const Issued& leaf, VerificationReport* report = nullptr) const {
    World world;
    world.trust(ca);
    ConformingVerifier verifier(world.store, handle(leaf));
    verifier.addressPolicy(AddressPolicy());
    const int verdict = verifier.isValid();
    if (report != nullptr) *report = verifier.report();
    return verdict;
  }
  int classic(const Issued& leaf, bool useOpenSSL) const {
    World world;
    world.trust(ca);
    world.publish({.issuer = &ca});  // for the CA itself, which OpenSSL checks too
    Verifier::Config config;
    Verifier verifier(world.store, handle(leaf), RefStackOfCertificate(), config, useOpenSSL);
    verifier.retrieval(RetrievalSettings());
    return verifier.isValid();
  }

  static std::string cached(const std::string& uri) {
    return fs::exists(cacheFile(uri)) ? readFile(cacheFile(uri)) : std::string();
  }
};

TEST_F(WebRetrieval, Request_HasHostPathAndQuery) {
  const FaultServer server(Scripts::answer(der(crl(7).get())));
  EXPECT_EQ(conforming(leafWith(server.url("/a/b.crl?ca=1%2c2&x"))), X509_V_OK);
  ASSERT_EQ(server.requests().size(), 1U);
  const std::string request = server.requests().front();
  EXPECT_TRUE(request.starts_with("GET /a/b.crl?ca=1%2c2&x HTTP/1.1\r\n")) << request;
  const std::string host = "\r\nHost: 127.0.0.1:" + std::to_string(server.port()) + "\r\n";
  EXPECT_NE(request.find(host), std::string::npos) << request;
}

TEST_F(WebRetrieval, WhatIsVerified_IsCachedAndNotAskedForAgain) {
  const FaultServer server(
      Scripts::answer(der(crl(7).get()), "200 OK", "ETag: \"seven\"\r\nLast-Modified: then\r\n"));
  const std::string uri = server.url("/ca.crl");
  EXPECT_EQ(conforming(leafWith(uri)), X509_V_OK);
  EXPECT_TRUE(cached(uri).starts_with("URI: " + Uri(uri).canonicalized() + "\nExpires: "));
  EXPECT_NE(cached(uri).find("ETag: \"seven\"\n"), std::string::npos) << cached(uri);
  EXPECT_TRUE(cached(uri).ends_with("\n" + pem(crl(7).get())));
  EXPECT_EQ(conforming(leafWith(uri)), X509_V_OK);
  EXPECT_EQ(server.connections().size(), 1U);
  EXPECT_EQ(found(uri), Numbers{"7"}) << "others read it as they ever did";
}

TEST_F(WebRetrieval, WhatNobodyOfTheIssuersNameHasSigned_IsNeverCached) {
  const Issued other = issueCA("O=Test,CN=Root");
  const Owned<X509_CRL> forged = makeCRL({.issuer = &other, .number = 999});
  const FaultServer server(Scripts::answer(der(forged.get())));
  const std::string uri = server.url("/ca.crl");
  EXPECT_EQ(conforming(leafWith(uri)), X509_V_ERR_CRL_SIGNATURE_FAILURE);
  EXPECT_EQ(cached(uri), "");
}

// As another writer may have left it, who verifies nothing.
TEST_F(WebRetrieval, ForgedFileOfTheCache_IsMendedFromTheHost) {
  const Issued other = issueCA("O=Test,CN=Root");
  const Owned<X509_CRL> forged = makeCRL({.issuer = &other, .number = 999});
  const FaultServer server(Scripts::answer(der(crl(7).get())));
  const std::string uri = server.url("/ca.crl");
  HashDirLookupMethod(kCRLCacheDirectory)
      .add(Uri(uri), {CertificateRevocationListFactory()(forged.get(), false)});
  EXPECT_EQ(conforming(leafWith(uri)), X509_V_OK);
  EXPECT_TRUE(cached(uri).ends_with("\n" + pem(crl(7).get()))) << cached(uri);
}

// Who wrote the file may have given it the validators of what the host has now.
TEST_F(WebRetrieval, ExpiredCRL_IsAskedForOnConditionAndThenWithoutOne) {
  const FaultServer server(
      Scripts::inTurn({Scripts::answer(der(expiredCRL(3).get()), "200 OK", "ETag: \"three\"\r\n"),
                       Scripts::raw("HTTP/1.1 304 Not Modified\r\nETag: \"three\"\r\n\r\n"),
                       Scripts::answer(der(crl(7).get()), "200 OK", "ETag: \"three\"\r\n")}));
  const std::string uri = server.url("/ca.crl");
  EXPECT_EQ(conforming(leafWith(uri)), X509_V_ERR_CRL_HAS_EXPIRED);
  EXPECT_NE(cached(uri).find("ETag: \"three\"\n"), std::string::npos) << cached(uri);
  fs::remove_all(fs::path(kCRLCacheDirectory) / ".fetch");
  EXPECT_EQ(conforming(leafWith(uri)), X509_V_OK);
  ASSERT_EQ(server.requests().size(), 3U);
  EXPECT_NE(server.requests()[1].find("\r\nIf-None-Match: \"three\"\r\n"), std::string::npos);
  EXPECT_EQ(server.requests()[2].find("\r\nIf-"), std::string::npos);
  EXPECT_TRUE(cached(uri).ends_with("\n" + pem(crl(7).get()))) << cached(uri);
}

TEST_F(WebRetrieval, DeadHost_CostsTheFirstVerificationOnly) {
  const FaultServer server(Scripts::closeAtOnce());
  const Issued leaf = leafWith(server.url("/ca.crl"));
  for (int i = 0; i < 20; ++i) {
    VerificationReport report;
    EXPECT_EQ(conforming(leaf, &report), X509_V_ERR_UNABLE_TO_GET_CRL);
    EXPECT_EQ(report.outcome(), Outcome::kTemporary);
    EXPECT_EQ(report.findings().front().rule(), Rule::kCRLUnreachable);
  }
  EXPECT_EQ(server.connections().size(), 1U);
}

TEST_F(WebRetrieval, WhatIsNoCRL_IsAskedForOnce) {
  const FaultServer server(Scripts::html());
  const Issued leaf = leafWith(server.url("/ca.crl"));
  const Statistics before = Statistics::snapshot();
  VerificationReport report;
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(conforming(leaf, &report), X509_V_ERR_UNABLE_TO_GET_CRL);
    EXPECT_EQ(report.findings().front().rule(), Rule::kCRLMalformed);
  }
  EXPECT_EQ(server.connections().size(), 1U);
  const Statistics after = Statistics::snapshot();
  using Counter = Statistics::Counter;
  for (const Counter one : {Counter::kFetches, Counter::kFetchFailures, Counter::kFetchesSpared}) {
    EXPECT_EQ(after.of(one) - before.of(one), 1U) << static_cast<int>(one);
  }
}

TEST_F(WebRetrieval, NextURIOfADistributionPoint_IsAskedWhenTheFirstIsDead) {
  const FaultServer dead(Scripts::notFound());
  const FaultServer good(Scripts::answer(der(crl(7).get())));
  EXPECT_EQ(conforming(leafWith({dead.url("/ca.crl"), good.url("/ca.crl")})), X509_V_OK);
}

TEST_F(WebRetrieval, RevokedOne_IsRevokedByWhatIsFetchedAndByWhatIsCached) {
  std::string body;
  const FaultServer server(
      Scripts::answerWith([&](const std::string& /*request*/) { return body; }));
  const Issued leaf = leafWith(server.url("/ca.crl"));
  body = der(makeCRL({.issuer = &ca, .number = 8, .revoked = {{.serial = leaf}}}).get());
  EXPECT_EQ(conforming(leaf), X509_V_ERR_CERT_REVOKED);
  EXPECT_EQ(conforming(leaf), X509_V_ERR_CERT_REVOKED);
  EXPECT_EQ(server.connections().size(), 1U);
}

TEST_F(WebRetrieval, VerifierThatIsToldTo_FetchesAndCachesTheSameWay) {
  for (const bool useOpenSSL : {false, true}) {
    clearPrivateView();
    const FaultServer server(Scripts::answer(der(crl(7).get())));
    const std::string uri = server.url("/ca.crl?q");
    EXPECT_EQ(classic(leafWith(uri), useOpenSSL), X509_V_OK);
    ASSERT_EQ(server.requests().size(), 1U);
    EXPECT_TRUE(server.requests().front().starts_with("GET /ca.crl?q HTTP/1.1\r\n"));
    EXPECT_TRUE(cached(uri).ends_with("\n" + pem(crl(7).get()))) << useOpenSSL << cached(uri);
    EXPECT_EQ(classic(leafWith(uri), useOpenSSL), X509_V_OK);
    EXPECT_EQ(server.connections().size(), 1U);

    const Issued other = issueCA("O=Test,CN=Root");
    const Owned<X509_CRL> forged = makeCRL({.issuer = &other, .number = 999});
    const FaultServer wrong(Scripts::answer(der(forged.get())));
    EXPECT_NE(classic(leafWith(wrong.url("/ca.crl")), useOpenSSL), X509_V_OK);
    EXPECT_EQ(cached(wrong.url("/ca.crl")), "");
  }
}

// The intermediate CAs came along with the certificate, and are in no directory.
TEST_F(WebRetrieval, WhoRefreshes_KnowsTheIssuersOfWhatVerificationsStored) {
  enum class By { kConforming, kClassic, kOpenSSL };
  const Issued upper = issueCA("O=Test,CN=Upper", &ca);
  const Issued lower = issueCA("O=Test,CN=Lower", &upper);
  const Owned<X509_CRL> list = makeCRL({.issuer = &lower, .number = 5});
  for (const By by : {By::kConforming, By::kClassic, By::kOpenSSL}) {
    clearPrivateView();
    const FaultServer server(Scripts::answer(der(list.get())));
    const Issued leaf =
        issue({.subject = "O=Test,CN=Leaf",
               .issuer = &lower,
               .crlDistributionPoints = {{.fullNames = {"URI:" + server.url("/i")}}}});
    World world;
    world.trust(ca);
    world.publish({.issuer = &ca});
    world.publish({.issuer = &upper});
    if (by == By::kConforming) {
      ConformingVerifier verifier(world.store, handle(leaf), stackOf({upper, lower}));
      verifier.addressPolicy(AddressPolicy());
      ASSERT_EQ(verifier.isValid(), X509_V_OK);
    } else {
      world.store->add(std::list{handle(upper), handle(lower)});  // as programs do for it
      Verifier::Config config;
      Verifier verifier(world.store, handle(leaf), stackOf({upper, lower}), config,
                        by == By::kOpenSSL);
      verifier.retrieval(RetrievalSettings());
      ASSERT_EQ(verifier.isValid(), X509_V_OK);
    }

    const TempDir trust;
    addToDirectory(trust.path(), ca.get());
    RefreshSettings settings;
    settings.trustDirectory = trust.string();
    settings.addresses = AddressPolicy();
    const CRLRefresh round = refresh(settings);
    ASSERT_EQ(round.entries().size(), 1U);
    EXPECT_EQ(round.entries().front().result, CRLRefresh::Result::kKept)
        << static_cast<int>(by) << round.entries().front().reason;
    EXPECT_EQ(server.connections().size(), 1U);
  }
}

// Each a process of its own with threads of its own.
TEST_F(WebRetrieval, ManyAtOnce_MakeOneRequest) {
  constexpr int kProcesses = 16;
  constexpr int kThreads = 4;
  const std::uint16_t port = boundPort(bindTo(0));
  const Issued leaf = leafWith("http://127.0.0.1:" + std::to_string(port) + "/ca.crl");
  const std::string body = der(crl(7).get());
  // The server's threads come after the fork.
  int gate[2] = {-1, -1};
  ASSERT_EQ(::pipe(gate), 0);
  std::vector<pid_t> children;
  for (int i = 0; i < kProcesses; ++i) {
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      ::close(gate[1]);
      char opened = 0;
      static_cast<void>(::read(gate[0], &opened, 1));  // until the parent closes it
      std::atomic<int> failed = 0;
      {
        std::vector<std::jthread> threads;
        for (int t = 0; t < kThreads; ++t) {
          threads.emplace_back([&] { failed += conforming(leaf) == X509_V_OK ? 0 : 1; });
        }
      }
      ::_exit(failed);
    }
    children.push_back(child);
  }
  FaultServerOptions options;
  options.port = port;
  const FaultServer server(Scripts::answer(body), options);
  ::close(gate[0]);
  ::close(gate[1]);
  for (const pid_t child : children) {
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  }
  EXPECT_EQ(server.connections().size(), 1U);
}

}  // namespace
}  // namespace Velantrix::Test
