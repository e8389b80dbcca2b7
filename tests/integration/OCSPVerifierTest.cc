// What a verification makes of OCSP: when it asks, whom, and what comes after.
#include "integration/ConnectWatch.h"
#include "integration/OCSPFixture.h"
#include "support/Loopback.h"
#include "support/SourceTexts.h"
#include "support/Stopwatch.h"
#include "unit/ocsp/VerifyWatch.h"

#include <openssl/err.h>

#include <chrono>

namespace Velantrix::Test {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;

class OCSPVerification : public OCSPIntegration {
 protected:
  OCSPAnswer good() const { return {.signer = &root}; }
  OCSPAnswer revoked() const {
    return {.signer = &root, .singles = {{.status = V_OCSP_CERTSTATUS_REVOKED}}};
  }
};

TEST_F(OCSPVerification, GoodLeaf_SparesTheRestOfTheChainItsCRLs) {
  const Issued inter = issueCA("O=Test,CN=Inter", &root);
  world.trust(inter);
  const FaultServer server(answering({.signer = &inter}));
  const Issued leaf = naming({server.url()}, {.subject = "O=Test,CN=Leaf", .issuer = &inter});
  // The intermediate is revoked, and nobody looks.
  world.publish({.issuer = &root, .revoked = {{.serial = inter}}});
  EXPECT_EQ(verdict(leaf), 0);
  EXPECT_EQ(world.source->crlQueries, 0);
  EXPECT_EQ(log.text(), "");
  EXPECT_EQ(ERR_peek_error(), 0UL);
}

TEST_F(OCSPVerification, GoodLeaf_IntermediateWithoutAnAnswerPassesToo) {
  const ReservedPort port;
  const std::string nobody = "http://127.0.0.1:" + port.text() + "/";
  const Issued inter =
      naming({nobody}, {.subject = "O=Test,CN=Inter", .issuer = &root, .ca = true});
  world.trust(inter);
  const FaultServer server(answering({.signer = &inter}));
  const Issued leaf = naming({server.url()}, {.subject = "O=Test,CN=Leaf", .issuer = &inter});
  EXPECT_EQ(verdict(leaf), 0);
  EXPECT_EQ(world.source->crlQueries, 0);
  EXPECT_EQ(log.text(), unreachableLine(nobody));
}

TEST_F(OCSPVerification, GoodIntermediate_DoesNotSpareTheLeafItsCRLs) {
  const FaultServer server(answering(good()));
  const Issued inter =
      naming({server.url()}, {.subject = "O=Test,CN=Inter", .issuer = &root, .ca = true});
  world.trust(inter);
  const Issued leaf = issue({.subject = "O=Test,CN=Leaf", .issuer = &inter});
  EXPECT_EQ(verdict(leaf), kNoCRL);
  EXPECT_TRUE(server.requests().empty());
  world.publish({.issuer = &inter});
  EXPECT_EQ(verdict(leaf), 0);
  EXPECT_EQ(server.requests().size(), 1U);
}

TEST_F(OCSPVerification, RevokedIntermediate_AfterAGoodLeaf) {
  const FaultServer rootServer(answering(revoked()));
  const Issued inter =
      naming({rootServer.url()}, {.subject = "O=Test,CN=Inter", .issuer = &root, .ca = true});
  world.trust(inter);
  const FaultServer server(answering({.signer = &inter}));
  const Issued leaf = naming({server.url()}, {.subject = "O=Test,CN=Leaf", .issuer = &inter});
  Verifier verifier(world.store, handle(leaf), false);
  EXPECT_EQ(verifier.isValid(), kRevoked);
  EXPECT_EQ(X509_STORE_CTX_get_error_depth(verifier), 1);
  EXPECT_EQ(log.text(), kMisplaced + verdictLine(inter, kRevoked));
}

TEST_F(OCSPVerification, Revoked_IsFinalWithoutCRLs) {
  const FaultServer server(answering(revoked()));
  const Issued leaf = person({server.url()});
  world.publish({.issuer = &root});
  Verifier verifier(world.store, handle(leaf), false);
  EXPECT_EQ(verifier.isValid(), kRevoked);
  EXPECT_EQ(X509_STORE_CTX_get_error_depth(verifier), 0);
  EXPECT_EQ(world.source->crlQueries, 0);
  EXPECT_EQ(log.text(), kMisplaced + verdictLine(leaf, kRevoked));
  EXPECT_EQ(log.lines().at(0).raw, "0\x01");
}

TEST_F(OCSPVerification, Good_ComesBeforeTheCRLThatRevokes) {
  const FaultServer server(answering(good()));
  const Issued leaf = person({server.url()});
  world.publish({.issuer = &root, .revoked = {{.serial = leaf}}});
  EXPECT_EQ(verdict(leaf), 0);
  EXPECT_EQ(world.source->crlQueries, 0);
}

TEST_F(OCSPVerification, NoUsableAnswer_TheCRLsDecide) {
  struct Row {
    const char* name;
    Script script;
    std::string (*lines)(const Issued&);
  };
  const Row rows[] = {
      {"no data", Scripts::notFound(), noDataLine},
      {"try later", answering({.status = OCSP_RESPONSE_STATUS_TRYLATER}), invalidLine},
      {"unknown", answering({.signer = &root, .singles = {{.status = V_OCSP_CERTSTATUS_UNKNOWN}}}),
       [](const Issued&) { return std::string(); }},
      {"another nonce", answering({.signer = &root, .nonce = OCSPNonce::Other}),
       [](const Issued&) {
         return "7 OCSP::BasicResponse: Request Nonce and Reply Nonce do not match.\n"
                "7 OCSP::Client. OCSP Response does not match the request\n"s;
       }},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const FaultServer server(row.script);
    const Issued leaf = person({server.url()});
    world.source->crls.clear();
    log.clear();
    EXPECT_EQ(verdict(leaf), kNoCRL);
    EXPECT_EQ(log.text(), row.lines(leaf) + verdictLine(leaf, kNoCRL));
    world.publish({.issuer = &root});
    EXPECT_EQ(verdict(leaf), 0);
    world.source->crls.clear();
    world.publish({.issuer = &root, .revoked = {{.serial = leaf}}});
    EXPECT_EQ(verdict(leaf), kRevoked);
    EXPECT_EQ(ERR_peek_error(), 0UL);
  }
}

TEST_F(OCSPVerification, WhatAnswersCameTo_IsReported) {
  const Issued stranger = issueCA("O=Test,CN=Stranger");
  struct Row {
    const char* name;
    Script script;
    Rule rule;
    Outcome outcome = Outcome::kTemporary;
  };
  const Row rows[] = {
      {"no data", Scripts::notFound(), Rule::kOCSPUnreachable},
      {"garbage", Scripts::answer("garbage"), Rule::kOCSPMalformed},
      {"try later", answering({.status = OCSP_RESPONSE_STATUS_TRYLATER}), Rule::kOCSPNotSuccessful},
      {"unknown", answering({.signer = &root, .singles = {{.status = V_OCSP_CERTSTATUS_UNKNOWN}}}),
       Rule::kOCSPUnknown},
      {"another nonce", answering({.signer = &root, .nonce = OCSPNonce::Other}), Rule::kOCSPNonce},
      {"of nobody", answering({.signer = &stranger, .certificates = false}),
       Rule::kOCSPResponderUnknown},
      {"of a stranger", answering({.signer = &stranger}), Rule::kOCSPResponderInvalid},
      {"revoked", answering(revoked()), Rule::kRevoked, Outcome::kPermanent}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const FaultServer server(row.script);
    Verifier verifier(world.store, handle(person({server.url()})), false);
    EXPECT_NE(verifier.isValid(), 0);
    const VerificationReport report = verifier.report();
    EXPECT_EQ(report.outcome(), row.outcome);
    ASSERT_FALSE(report.findings().empty());
    EXPECT_EQ(report.findings().front().rule(), row.rule) << report.findings().front().name();
    if (row.rule == Rule::kRevoked) {
      EXPECT_EQ(report.path()[0].revocation().status(),
                VerificationReport::RevocationResult::Status::kRevoked);
      EXPECT_TRUE(report.path()[0].revocation().date().has_value());
    }
    if (row.rule == Rule::kOCSPResponderInvalid) {
      ASSERT_EQ(report.findings().front().nested().size(), 1U);
      EXPECT_EQ(report.findings().front().nested().front().rule(), Rule::kSelfSigned);
    }
  }
  const FaultServer server(answering(good()));
  Verifier verifier(world.store, handle(person({server.url()})), false);
  EXPECT_EQ(verifier.isValid(), 0);
  const auto revocation = verifier.report().path().front().revocation();
  EXPECT_EQ(revocation.status(), VerificationReport::RevocationResult::Status::kGood);
  ASSERT_EQ(revocation.decidedBy().size(), 1U);
  EXPECT_EQ(revocation.decidedBy().front().issuer, handle(root)->subject().asString());
  EXPECT_EQ(revocation.decidedBy().front().origin.place(), server.url());
}

TEST_F(OCSPVerification, AnswerThatIsNotSignedAsItShould_IsNamedAndTheCRLsDecide) {
  const Issued stranger = issueCA("O=Test,CN=Stranger");
  struct Row {
    int code;
    OCSPAnswer description;
    std::string lines;
  };
  const Row rows[] = {
      {101,
       {.signer = &stranger},
       verdictLine(stranger, X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT) +
           "6 OCSP::Client: Could not validate Responder's certificate.\n"},
      {117,
       {.signer = &root, .tampered = true},
       "6 OCSP::Client: Response Signature check failed.\n"},
      {118, {.signer = &stranger, .certificates = false}, ""},
  };
  for (const Row& row : rows) {
    const FaultServer server(answering(row.description));
    const Issued leaf = person({server.url()});
    const std::string lines =
        row.lines + "7 Verifier::checkRevocationStatus: Unhandled return value from checkOCSP: " +
        std::to_string(row.code) + "\n";
    world.source->crls.clear();
    log.clear();
    EXPECT_EQ(verdict(leaf), kNoCRL);
    EXPECT_EQ(log.text(), lines + verdictLine(leaf, kNoCRL));
    world.publish({.issuer = &root});
    log.clear();
    EXPECT_EQ(verdict(leaf), 0);
    EXPECT_EQ(ERR_peek_error(), 0UL);
    EXPECT_EQ(log.text(), lines);
    world.source->crls.clear();
    world.publish({.issuer = &root, .revoked = {{.serial = leaf}}});
    EXPECT_EQ(verdict(leaf), kRevoked);
  }
}

// --- Who is asked.

TEST_F(OCSPVerification, FlagsWithoutCRLCheck_NobodyIsConnectedTo) {
  const FaultServer server(answering(revoked()));
  const Issued leaf = person({server.url()});
  const ConnectWatch watch;
  for (const unsigned long flags : {0UL, static_cast<unsigned long>(X509_V_FLAG_CRL_CHECK_ALL)}) {
    World other;
    other.trust(root);
    Verifier::Config config;
    config.flags = static_cast<int>(flags);
    EXPECT_EQ(Verifier(other.store, handle(leaf), RefStackOfCertificate(), config, false).isValid(),
              0);
    EXPECT_EQ(other.source->crlQueries, 0);
  }
  EXPECT_TRUE(watch.ports().empty());
  EXPECT_EQ(log.text(), "");
}

TEST_F(OCSPVerification, CRLCheckAlone_NoIssuerIsInTheListAndTheCRLsDecide) {
  const FaultServer server(answering(revoked()));
  const Issued leaf = person({server.url()});
  world.publish({.issuer = &root});
  EXPECT_EQ(verdict(leaf, X509_V_FLAG_CRL_CHECK), 0) << log.text();
  ASSERT_TRUE(server.waitForEnds(1));
  EXPECT_EQ(server.connections().size(), 1U);
  EXPECT_EQ(server.connections().at(0).received, "");
  EXPECT_GT(world.source->crlQueries, 0);
}

TEST_F(OCSPVerification, OpenSSLsOwnCheck_AsksNoResponder) {
  const FaultServer server(answering(revoked()));
  const Issued leaf = person({server.url()});
  world.publish({.issuer = &root});
  const ConnectWatch watch;
  EXPECT_EQ(Verifier(world.store, handle(leaf), true).isValid(), 0);
  EXPECT_TRUE(watch.ports().empty());
}

TEST_F(OCSPVerification, Locations_TheFirstThatConnectsIsAsked) {
  const FaultServer silentOnce(Scripts::notFound());
  const FaultServer server(answering(good()));
  const ReservedPort port;
  const std::string refused = "http://127.0.0.1:" + port.text() + "/";
  const auto with = [&](const std::string& locations) {
    return issue({.subject = "O=Test,CN=Person",
                  .issuer = &root,
                  .extensions = {{"authorityInfoAccess", locations}}});
  };
  const std::string url = server.url();
  // What is no URI is not looked at.
  EXPECT_EQ(verdict(with("caIssuers;URI:http://a.test/ca,OCSP;email:a@b.test,OCSP;DNS:a.test,"
                         "OCSP;URI:" +
                         url)),
            0);
  EXPECT_EQ(log.text(), "");
  EXPECT_EQ(server.requests().size(), 1U);
  // What cannot be connected to is passed over.
  EXPECT_EQ(verdict(with("OCSP;URI:ldap://a.test/x,OCSP;URI:" + refused + ",OCSP;URI:" + url)), 0);
  EXPECT_EQ(log.text(), "7 OCSP::Client: unhandled uri: ldap://a.test/x scheme = ldap:\n" +
                            unreachableLine(refused));
  EXPECT_EQ(server.requests().size(), 2U);
  // What was connected to and gave nothing is not: the CRLs decide.
  EXPECT_EQ(verdict(with("OCSP;URI:" + silentOnce.url() + ",OCSP;URI:" + url)), kNoCRL);
  EXPECT_EQ(server.requests().size(), 2U);
}

TEST_F(OCSPVerification, Responders_StandInTheReport) {
  const FaultServer server(answering(good()));
  const FaultServer missing(Scripts::notFound());
  const ReservedPort port;
  const std::string refused = "http://127.0.0.1:" + port.text() + "/";
  const auto responders = [&](const Issued& subject) {
    Verifier verifier(world.store, handle(subject), false);
    verifier.isValid();
    Texts texts = textsOf(verifier.report().sources());
    std::erase_if(texts, [](const std::string& one) { return !one.starts_with("responder"); });
    return texts;
  };
  std::string secret = server.url("/a?token");
  secret.insert(std::string("http://").size(), "user:secret@");
  EXPECT_EQ(responders(person({"ldap://a.test/x", refused, secret})),
            (Texts{"responder refused ldap://a.test/x: not spoken: ldap:",
                   "responder failed " + refused + ": could not connect: Connection refused",
                   "responder found " + server.url("/a")}));
  EXPECT_EQ(responders(person({missing.url("/")})),
            Texts{"responder failed " + missing.url("/") + ": HTTP status 404: Not Found"});
  EXPECT_EQ(
      responders(naming({server.url("/")},
                        {.subject = "O=Test,CN=Forged", .issuer = &root, .badSignature = true})),
      Texts{"responder refused " + server.url("/") +
            ": no trust anchor vouches for the certificate that names the host"});
}

// --- The certificate is a forgery.

TEST_F(OCSPVerification, ForgedLeaf_NobodyIsConnectedTo) {
  const FaultServer server(answering(revoked()));
  const Issued forged =
      naming({server.url("/a"), server.url("/b")},
             {.subject = "O=Test,CN=Forged", .issuer = &root, .badSignature = true});
  world.publish({.issuer = &root});
  const ConnectWatch watch;
  EXPECT_EQ(verdict(forged), X509_V_ERR_CERT_SIGNATURE_FAILURE);
  EXPECT_TRUE(watch.ports().empty());
  EXPECT_EQ(log.count("Verifier: no connection is made for a certificate that no trust anchor "
                      "vouches for: CN=Forged,O=Test"),
            1U)
      << log.text();
  EXPECT_EQ(log.lines().at(0).priority, 6);
  world.source->crls.clear();
  EXPECT_EQ(verdict(forged), kNoCRL);
  EXPECT_TRUE(watch.ports().empty());
  // With the same names and an honest signature the responder is asked.
  EXPECT_EQ(verdict(person({server.url()})), kRevoked);
  EXPECT_EQ(watch.ports().size(), 1U);
}

TEST_F(OCSPVerification, ForgersWords_StayOneLineOfTheLog) {
  const ReservedPort port;
  const Issued forged =
      naming({"http://127.0.0.1:" + port.text()},
             {.subject = "CN=a\n6 b\x1b[2J", .issuer = &root, .badSignature = true});
  const ConnectWatch watch;
  EXPECT_EQ(verdict(forged), kNoCRL);
  EXPECT_TRUE(watch.ports().empty());
  EXPECT_EQ(log.count("CN=a\\0A6 b\\1B[2J"), 2U) << log.text();  // the refusal and the verdict
  for (const std::string& text : log.texts()) {
    EXPECT_EQ(text.find_first_of("\n\x1b"), std::string::npos) << text;
  }
}

TEST_F(OCSPVerification, ForgedIntermediate_NobodyIsConnectedToForWhatIsBelowItEither) {
  const FaultServer server(answering(good()));
  const Issued inter =
      naming({server.url()},
             {.subject = "O=Test,CN=Inter", .issuer = &root, .ca = true, .badSignature = true});
  world.trust(inter);
  world.publish({.issuer = &inter});
  world.publish({.issuer = &root});
  const Issued leaf = naming({server.url()}, {.subject = "O=Test,CN=Leaf", .issuer = &inter});
  const ConnectWatch watch;
  EXPECT_EQ(verdict(leaf), X509_V_ERR_CERT_SIGNATURE_FAILURE) << log.text();
  EXPECT_TRUE(watch.ports().empty());
  EXPECT_EQ(log.count("no trust anchor vouches for: CN=Leaf,O=Test"), 1U) << log.text();
  EXPECT_EQ(log.count("no trust anchor vouches for: CN=Inter,O=Test"), 1U) << log.text();
}

// All that came in one mail: the CA is made with the sender's key, and has the name of the root
// over it, which never signed anything.
TEST_F(OCSPVerification, ChainOfAForgedCA_NobodyIsConnectedTo) {
  const FaultServer server(answering(good()));
  const std::shared_ptr<EVP_PKEY> strangers = makeKey();
  const auto chain = [&](const std::shared_ptr<EVP_PKEY>& signer) {
    const Issued inter =
        naming({server.url()},
               {.subject = "O=Test,CN=Inter", .issuer = &root, .ca = true, .signer = signer});
    return std::pair(naming({server.url()}, {.subject = "O=Test,CN=Leaf", .issuer = &inter}),
                     inter);
  };
  const ConnectWatch watch;
  const auto [leaf, inter] = chain(strangers);
  EXPECT_EQ(Verifier(world.store, handle(leaf), stackOf({inter}), false).isValid(), kNoCRL);
  EXPECT_TRUE(watch.ports().empty()) << log.text();
  EXPECT_EQ(log.count("no trust anchor vouches for: CN=Leaf,O=Test"), 1U) << log.text();
  // With the root's signature the responder is asked, about each of the two.
  const auto [genuine, between] = chain(root.key);
  EXPECT_EQ(Verifier(world.store, handle(genuine), stackOf({between}), false).isValid(), 0);
  EXPECT_EQ(watch.ports().size(), 2U) << log.text();
}

TEST_F(OCSPVerification, OverrideThatAsksByItself_ConnectsForNoForgeryEither) {
  const FaultServer server(answering(good()));
  const std::string uri = "URI:" + server.url("/ca.crl");
  for (const bool forgery : {false, true}) {
    const Issued leaf = naming({server.url()}, {.subject = "O=Test,CN=Leaf",
                                                .issuer = &root,
                                                .crlDistributionPoints = {{.fullNames = {uri}}},
                                                .badSignature = forgery});
    Probe verifier(world.store, handle(leaf), false);
    verifier.onCheck = [&](const std::list<RefCertificate>& chain) {
      const RefAuthorityInformationAccess aia(
          chain.front()->find(ASN1::RefObjectIdentifier("1.3.6.1.5.5.7.1.1")));
      EXPECT_EQ(verifier.checkOCSP(chain.front(), aia, chain),
                forgery ? OCSP::kNoAnswer : OCSP::kGood);
      CRLContainer container(verifier);
      verifier.getCRLs(chain.front(), container);
      return 1;
    };
    const ConnectWatch watch;
    EXPECT_EQ(verifier.isValid(), forgery ? X509_V_ERR_CERT_SIGNATURE_FAILURE : 0) << log.text();
    EXPECT_EQ(watch.ports().size(), forgery ? 0U : 2U) << log.text();
  }
}

// --- The address is refused.

TEST_F(OCSPVerification, AddressThatIsRefused_TheResponderCannotBeReachedAndTheCRLsDecide) {
  const FaultServer server(answering(revoked()));
  const Issued leaf = person({server.url()});
  world.publish({.issuer = &root});
  Verifier verifier(world.store, handle(leaf), false);
  verifier.addressPolicy(AddressPolicy::publicAndPrivate());
  const ConnectWatch watch;
  EXPECT_EQ(verifier.isValid(), 0);
  EXPECT_TRUE(watch.ports().empty());
  EXPECT_EQ(log.text(),
            "6 HTTP::Connection: the address policy refuses a loopback address: 127.0.0.1\n" +
                unreachableLine(server.url()));
}

// --- Bounds.

TEST_F(OCSPVerification, NetworkTime_IsSharedByOCSPAndCRLs) {
  const FaultServer responder(Scripts::silence());
  const FaultServer lists(Scripts::silence());
  const Issued leaf =
      naming({responder.url()},
             {.subject = "O=Test,CN=Person",
              .issuer = &root,
              .crlDistributionPoints = {{.fullNames = {"URI:" + lists.url("/a.crl")}},
                                        {.fullNames = {"URI:" + lists.url("/b.crl")}}}});
  Verifier verifier(world.store, handle(leaf), false);
  verifier.maxNetworkTime(1);
  const Stopwatch watch;
  EXPECT_EQ(verifier.isValid(), kNoCRL);
  EXPECT_TRUE(watch.took(1s));
  EXPECT_EQ(log.text(),
            noDataLine(leaf) +
                "6 Verifier: the time for the network is spent, the rest of this verification "
                "reaches no host\n" +
                verdictLine(leaf, kNoCRL));
  EXPECT_EQ(responder.connections().size(), 1U);
  EXPECT_EQ(lists.connections().size(), 1U);
}

// Whoever keeps the responder from answering must not keep the CRLs away with it.
TEST_F(OCSPVerification, ResponderThatNeverAnswers_LeavesHalfOfTheTimeToTheCRLs) {
  const FaultServer responder(Scripts::silence());
  std::string crl;
  const FaultServer lists([&crl](Peer& peer) {
    if (peer.readRequest()) peer.write(Scripts::response(crl));
  });
  // Which responders do not matter: they share the half.
  const Issued leaf = naming({responder.url("/a"), responder.url("/b")},
                             {.subject = "O=Test,CN=Person",
                              .issuer = &root,
                              .crlDistributionPoints = {{.fullNames = {"URI:" + lists.url()}}}});
  for (const bool revokes : {false, true}) {
    clearPrivateView();
    log.clear();
    crl = der(makeCRL(revokes ? CRLOptions{.issuer = &root, .revoked = {{.serial = leaf}}}
                              : CRLOptions{.issuer = &root})
                  .get());
    Verifier verifier(world.store, handle(leaf), false);
    verifier.maxNetworkTime(1);
    EXPECT_EQ(verifier.isValid(), revokes ? kRevoked : 0) << log.text();
    EXPECT_EQ(log.text(),
              noDataLine(leaf) + (revokes ? verdictLine(leaf, kRevoked) : std::string()));
  }
  EXPECT_EQ(lists.connections().size(), 2U);
}

// --- The responder's own certificate.

TEST_F(OCSPVerification, ResponderInTheChain_IsNotVerified) {
  const FaultServer server(answering(good()));
  const VerifyWatch watch;
  EXPECT_EQ(verdict(person({server.url()})), 0);
  EXPECT_EQ(watch.runs().size(), 1U);  // the certificate's own
}

TEST_F(OCSPVerification, DelegatedResponder_IsVerifiedInsideAndAsksNobody) {
  // Its own certificate names a responder and a CRL, which are not asked.
  const FaultServer second(answering(revoked()));
  const Issued signer = naming(
      {second.url()}, {.subject = "O=Test,CN=Responder",
                       .issuer = &root,
                       .crlDistributionPoints = {{.fullNames = {"URI:" + second.url("/crl")}}}});
  const FaultServer server(answering({.signer = &signer}));
  const Issued leaf = person({server.url()});
  Verifier verifier(world.store, handle(leaf), false);
  const VerifyWatch watch;
  EXPECT_EQ(verifier.isValid(), 0) << log.text();
  ASSERT_EQ(watch.runs().size(), 2U);
  const VerificationSeen& outer = watch.runs().front();
  const VerificationSeen& nested = watch.runs().back();
  EXPECT_EQ(outer.context, static_cast<X509_STORE_CTX*>(verifier));
  EXPECT_EQ(outer.parent, nullptr);
  EXPECT_EQ(nested.parent, outer.context);
  EXPECT_NE(nested.store, outer.store);
  EXPECT_EQ(nested.flags, outer.flags & ~static_cast<unsigned long>(X509_V_FLAG_CRL_CHECK));
  EXPECT_TRUE(second.connections().empty());
  EXPECT_EQ(world.source->crlQueries, 0);
  EXPECT_EQ(log.text(), "");
}

TEST_F(OCSPVerification, AnswersSigner_DoesNotStayInTheStore) {
  const Issued inter = issueCA("O=Test,CN=Inter", &root);
  const Issued signer = issue({.subject = "O=Test,CN=Responder", .issuer = &inter});
  // The responder sends the certificate of its issuer along; the nested verification does not see
  // it, since only the chain is given to it.
  const FaultServer server(answering({.signer = &signer, .firstCertificates = {&inter}}));
  EXPECT_EQ(verdict(person({server.url()})), kNoCRL);
  EXPECT_EQ(log.count("Could not validate Responder's certificate."), 1U) << log.text();
}

}  // namespace
}  // namespace Velantrix::Test
