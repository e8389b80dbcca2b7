// OCSP as the web has it, for a conforming verifier: what is sent, what is kept, and who is not asked again.
#include "integration/OCSPFixture.h"
#include "retrieval/OCSPMemory.h"
#include "retrieval/OCSPRetrieval.h"
#include "support/OCSPResponder.h"
#include "support/SourceTexts.h"

#include <pkx509/ConformingVerifier.h>
#include <pkx509/RetrievalSettings.h>

#include <algorithm>
#include <string>

namespace Velantrix::Test {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;

class OCSPRetrieval : public OCSPIntegration {
 protected:
  int verdict(const Issued& issued, bool cacheable = true) {
    ConformingVerifier verifier(world.store, handle(issued));
    verifier.addressPolicy(AddressPolicy());
    RetrievalSettings settings;
    settings.preferCacheableOCSP = cacheable;
    verifier.retrieval(settings);
    const int code = verifier.isValid();
    asked.clear();
    for (const std::string& text : textsOf(verifier.report().sources())) {
      if (text.starts_with("responder") || text.starts_with("cache")) asked.push_back(text);
    }
    return code;
  }
  // Always the same certificate to a responder, whichever it names.
  Issued known(const std::string& url) const {
    return naming({url}, {.subject = "O=Test,CN=Person", .issuer = &root, .serial = about});
  }
  std::string requestFor(const Issued& issued) const { return ocspRequest(issued, root, false); }
  std::string getTarget(const FaultServer& server, const Issued& issued) const {
    const std::string uri = ocspGetURI(Uri(server.url()), requestFor(issued)).asString();
    return uri.substr(server.url().size() - 1);
  }
  // Answers GET and POST alike.
  Script answeringAll(const OCSPAnswer& description) const {
    return Scripts::answer(ocspAnswer(description, requestFor(about)));
  }
  OCSPAnswer good() const { return {.signer = &root}; }

  const Issued about = issue({.subject = "O=Test,CN=Person", .issuer = &root});
  Texts asked;
};

bool begins(const FaultServer& server, std::size_t index, const std::string& start) {
  const std::vector<std::string> requests = server.requests();
  return index < requests.size() && requests[index].starts_with(start);
}

TEST_F(OCSPRetrieval, Post_IsSentToTheURIAsItStands) {
  const FaultServer server(answering(good()));
  const Issued leaf = person({server.url("/%61/?ca=1")});
  EXPECT_EQ(verdict(leaf, false), 0);
  EXPECT_EQ(verdict(leaf, false), 0);
  const std::vector<std::string> requests = server.requests();
  ASSERT_EQ(requests.size(), 2U) << "what has a nonce is not kept";
  EXPECT_TRUE(requests[0].starts_with("POST /%61/?ca=1 HTTP/1.1\r\n")) << requests[0];
  EXPECT_NE(requests[0].find("\r\nHost: 127.0.0.1:" + std::to_string(server.port()) + "\r\n"),
            std::string::npos);
  EXPECT_NE(requests[0].find("\r\nContent-Type: application/ocsp-request\r\n"), std::string::npos);
  EXPECT_NE(httpBody(requests[0]), httpBody(requests[1]));
  EXPECT_EQ(asked, Texts{"responder found " + server.url("/%61/")});
}

TEST_F(OCSPRetrieval, Get_IsTheRequestWithoutANonce) {
  const FaultServer server(answeringAll(good()));
  const Issued leaf = known(server.url());
  EXPECT_EQ(verdict(leaf), 0);
  ASSERT_EQ(server.requests().size(), 1U);
  EXPECT_TRUE(begins(server, 0, "GET " + getTarget(server, leaf) + " HTTP/1.1\r\n"))
      << server.requests()[0];
  EXPECT_EQ(asked, Texts{"responder found " + server.url()});
  EXPECT_EQ(verdict(leaf), 0);
  EXPECT_EQ(server.requests().size(), 1U) << "the answer is kept";
  EXPECT_EQ(asked, Texts{"cache found " + server.url()});
  EXPECT_EQ(verdict(leaf, false), 0) << "an answer with a nonce is asked for";
  EXPECT_TRUE(begins(server, 1, "POST / ")) << server.requests()[1];
}

TEST_F(OCSPRetrieval, LongerThanAGetMayBe_ItIsAPost) {
  const FaultServer server(answeringAll(good()));
  const std::string path = "/" + std::string(200, 'a');
  const Issued leaf = known(server.url(path));
  EXPECT_EQ(verdict(leaf), 0);
  ASSERT_TRUE(begins(server, 0, "POST " + path + " "));
  EXPECT_EQ(httpBody(server.requests()[0]), requestFor(leaf)) << "without a nonce";
  EXPECT_EQ(verdict(leaf), 0);
  EXPECT_EQ(server.requests().size(), 1U);
}

TEST_F(OCSPRetrieval, ResponderThatKnowsPostOnly_IsAskedSo) {
  for (const Script& refusal : {Scripts::answer("", "405 Method Not Allowed"), Scripts::html()}) {
    const FaultServer server(Scripts::inTurn({refusal, answeringAll(good())}));
    const Issued leaf = known(server.url());
    EXPECT_EQ(verdict(leaf), 0);
    ASSERT_EQ(server.requests().size(), 2U);
    EXPECT_TRUE(begins(server, 0, "GET /"));
    EXPECT_TRUE(begins(server, 1, "POST / "));
    EXPECT_EQ(asked, Texts{"responder found " + server.url()});
  }
}

TEST_F(OCSPRetrieval, WhatIsOfNoUse_IsNotKept) {
  const Issued stranger = issueCA("O=Test,CN=Root");
  OCSPAnswer forged = good();
  forged.badSignature = true;
  OCSPAnswer late = good();
  late.status = OCSP_RESPONSE_STATUS_TRYLATER;
  OCSPAnswer expired = good();
  expired.singles = {{.thisUpdate = -3h, .nextUpdate = When(-2h)}};
  OCSPAnswer unknown = good();
  unknown.singles = {{.status = V_OCSP_CERTSTATUS_UNKNOWN}};
  OCSPAnswer endless = good();
  endless.singles = {{.nextUpdate = {}}};
  for (const OCSPAnswer& answer :
       {forged, late, expired, unknown, endless, OCSPAnswer{.signer = &stranger}}) {
    const FaultServer server(answeringAll(answer));
    const Issued leaf = known(server.url());
    const int first = verdict(leaf);
    EXPECT_EQ(verdict(leaf), first);
    EXPECT_EQ(server.requests().size(), 2U);
  }
}

TEST_F(OCSPRetrieval, KeptAnswer_IsJudgedAnewAndMakesWay) {
  OCSPResponder responder({.ca = &root, .nextUpdate = 60min});
  const Issued leaf = person({responder.url()});
  responder.setIndex({{.serial = leaf}});
  EXPECT_EQ(verdict(leaf), 0) << log.text();
  ASSERT_TRUE(responder.waitForRequests(1));
  EXPECT_TRUE(responder.requests()[0].starts_with("GET /M")) << responder.requests()[0];
  responder.setIndex({{.serial = leaf, .revoked = true}});
  EXPECT_EQ(verdict(leaf), 0) << "until its nextUpdate";
  EXPECT_EQ(asked, Texts{"cache found " + responder.url()});

  // Another time to verify for, at which the answer does not count.
  X509_VERIFY_PARAM* const param = X509_STORE_get0_param(world.store);
  X509_VERIFY_PARAM_set_time(param, When(2h).time());
  EXPECT_NE(verdict(leaf), 0);
  X509_VERIFY_PARAM_clear_flags(param, X509_V_FLAG_USE_CHECK_TIME);
  EXPECT_EQ(asked, (Texts{"cache found " + responder.url(), "responder found " + responder.url()}));

  EXPECT_EQ(verdict(leaf), kRevoked) << "what did not count is gone";
  EXPECT_EQ(asked, Texts{"responder found " + responder.url()});
  responder.stop();
  EXPECT_EQ(verdict(leaf), kRevoked);
  EXPECT_EQ(asked, Texts{"cache found " + responder.url()});
}

TEST_F(OCSPRetrieval, DeadResponder_CostsTheFirstOnly) {
  const ReservedPort port;
  const std::string nobody = "http://127.0.0.1:" + port.text() + "/";
  const Issued leaf = person({nobody});
  for (const bool cacheable : {false, true}) {
    EXPECT_EQ(verdict(leaf, cacheable), kNoCRL);
    ASSERT_EQ(asked.size(), 1U);
    EXPECT_EQ(asked[0].ends_with("(a moment ago, and not asked again yet)"), cacheable) << asked[0];
    EXPECT_NE(asked[0].find("Connection refused"), std::string::npos) << asked[0];
  }
  // Another of that host.
  EXPECT_EQ(verdict(person({nobody + "other"})), kNoCRL);
  EXPECT_TRUE(asked.at(0).ends_with("(a moment ago, and not asked again yet)")) << asked.at(0);
}

TEST_F(OCSPRetrieval, ResponderThatAnswersNonsense_IsNotAskedAgainAtOnce) {
  for (const Script& nonsense :
       {Scripts::notFound(), Scripts::html(), Scripts::garbage(), Scripts::closeAtOnce()}) {
    const FaultServer server(nonsense);
    const Issued leaf = person({server.url()});
    EXPECT_EQ(verdict(leaf, false), kNoCRL);
    const std::size_t connections = server.connections().size();
    EXPECT_EQ(verdict(leaf, false), kNoCRL);
    EXPECT_EQ(server.connections().size(), connections);
    ASSERT_EQ(asked.size(), 1U);
    EXPECT_TRUE(asked[0].ends_with("(a moment ago, and not asked again yet)")) << asked[0];
  }
}

// A certificate may name as its responder what is the place of somebody else's CRL.
TEST_F(OCSPRetrieval, FailuresOfAResponder_AreNotThoseOfTheCRLOfThatURI) {
  const auto list = makeCRL({.issuer = &root});
  const FaultServer server(Scripts::inTurn(
      {Scripts::answer("", "405 Method Not Allowed"), Scripts::answer(der(list.get()))}));
  CertificateOptions options{.subject = "O=Test,CN=Person",
                             .issuer = &root,
                             .crlDistributionPoints = {{.fullNames = {"URI:" + server.url()}}}};
  EXPECT_EQ(verdict(naming({server.url()}, options), false), 0);
  EXPECT_TRUE(begins(server, 1, "GET / "));
}

}  // namespace
}  // namespace Velantrix::Test
