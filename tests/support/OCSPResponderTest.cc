#include "support/Command.h"
#include "support/Exchange.h"
#include "support/OCSPResponder.h"

#include <gtest/gtest.h>
#include <stdexcept>
#include <system_error>

namespace Velantrix::Test {
namespace {

using namespace std::chrono_literals;

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

#define EXPECT_CONTAINS(text, part) EXPECT_TRUE(contains(text, part)) << (text)
#define EXPECT_LACKS(text, part) EXPECT_FALSE(contains(text, part)) << (text)

class Responder : public testing::Test {
 protected:
  /// What the openssl command, as a client, says of the answer about the certificate.
  std::string ask(const OCSPResponder& responder, const Issued& cert,
                  const std::string& path = "/") const {
    const TempDir directory;
    writeFile(directory / "ca.crt", pem(ca.get()));
    writeFile(directory / "cert.crt", pem(cert.get()));
    const auto result = runCommand({"openssl", "ocsp", "-CAfile", directory / "ca.crt", "-issuer",
                                    directory / "ca.crt", "-cert", directory / "cert.crt", "-url",
                                    responder.url(path), "-resp_text"});
    return result.out + result.err;
  }

  Issued ca = issueCA("CN=CA");
  Issued leaf = issue({.subject = "CN=Leaf", .issuer = &ca});
};

TEST_F(Responder, Index_DecidesWhatIsAnswered) {
  const Issued held = issue({.subject = "CN=Held", .issuer = &ca});
  const Issued removed = issue({.subject = "CN=Removed", .issuer = &ca});
  const Issued strange = issue({.subject = "CN=Strange", .issuer = &ca});
  const OCSPResponder responder(
      {.ca = &ca,
       .index = {{.serial = leaf},
                 {.serial = 7, .revoked = true},
                 {.serial = held,
                  .revoked = true,
                  .reason = CRL_REASON_CERTIFICATE_HOLD,
                  .date = "20240229120000Z"},
                 {.serial = removed, .revoked = true, .reason = CRL_REASON_REMOVE_FROM_CRL}}});

  const std::string good = ask(responder, leaf);
  EXPECT_CONTAINS(good, "Response verify OK");
  EXPECT_CONTAINS(good, "Cert Status: good");
  EXPECT_CONTAINS(good, "OCSP Nonce:");
  EXPECT_LACKS(good, "Nonce in response");  // no complaint
  EXPECT_LACKS(good, "Next Update");
  EXPECT_CONTAINS(good, "Responder Id: CN = CA");

  const std::string seven = ask(responder, issue({.issuer = &ca, .serial = 7}));
  EXPECT_CONTAINS(seven, "Cert Status: revoked");
  EXPECT_LACKS(seven, "Revocation Reason");
  const std::string revoked = ask(responder, held);
  EXPECT_CONTAINS(revoked, "Cert Status: revoked");
  EXPECT_CONTAINS(revoked, "Revocation Reason: certificateHold (0x6)");
  EXPECT_CONTAINS(revoked, "Revocation Time: Feb 29 12:00:00 2024 GMT");
  EXPECT_CONTAINS(ask(responder, removed), "Revocation Reason: removeFromCRL (0x8)");
  EXPECT_CONTAINS(ask(responder, strange), "Cert Status: unknown");
}

TEST_F(Responder, AllReasons_AreThoseOfTheIndex) {
  for (int reason = 0; reason <= CRL_REASON_REMOVE_FROM_CRL; ++reason) {
    if (reason == 7) continue;  // not assigned
    const OCSPResponder responder(
        {.ca = &ca, .index = {{.serial = leaf, .revoked = true, .reason = reason}}});
    EXPECT_CONTAINS(ask(responder, leaf), "(0x" + std::to_string(reason) + ")");
  }
}

TEST_F(Responder, ReasonWithoutAName_Throws) {
  for (const int reason : {7, 9, 10, -3}) {
    EXPECT_THROW(
        OCSPResponder({.ca = &ca, .index = {{.serial = leaf, .revoked = true, .reason = reason}}}),
        std::runtime_error);
  }
}

TEST_F(Responder, NewIndex_KeepsTheUrl) {
  OCSPResponder responder({.ca = &ca});
  const std::string url = responder.url();
  EXPECT_EQ(responder.aia(), "OCSP;URI:" + url);
  const Issued later =
      issue({.issuer = &ca, .extensions = {{"authorityInfoAccess", responder.aia()}}});
  EXPECT_CONTAINS(ask(responder, later), "Cert Status: unknown");
  responder.setIndex({{.serial = later}});
  EXPECT_CONTAINS(ask(responder, later), "Cert Status: good");
  responder.setIndex({{.serial = later, .revoked = true}});
  EXPECT_CONTAINS(ask(responder, later), "Cert Status: revoked");
  EXPECT_EQ(responder.url(), url);
}

TEST_F(Responder, DelegatedSigner_IsInTheAnswer) {
  const Issued signer = issue(
      {.subject = "CN=Signer", .issuer = &ca, .extensions = {{"extendedKeyUsage", "OCSPSigning"}}});
  const OCSPResponder responder({.ca = &ca, .signer = &signer, .index = {{.serial = leaf}}});
  const std::string answer = ask(responder, leaf);
  EXPECT_CONTAINS(answer, "Response verify OK");
  EXPECT_CONTAINS(answer, "Responder Id: CN = Signer");
  EXPECT_CONTAINS(answer, "Subject: CN=Signer");
}

TEST_F(Responder, NoCertificates_AnswerHasNone) {
  const Issued signer = issue(
      {.subject = "CN=Signer", .issuer = &ca, .extensions = {{"extendedKeyUsage", "OCSPSigning"}}});
  const OCSPResponder responder(
      {.ca = &ca, .signer = &signer, .index = {{.serial = leaf}}, .certificates = false});
  EXPECT_CONTAINS(ask(responder, leaf), "signer certificate not found");
}

TEST_F(Responder, SignerOfAnotherCA_AnswersAllTheSame) {
  const Issued stranger = issueCA("CN=Stranger");
  const OCSPResponder responder({.ca = &ca, .signer = &stranger, .index = {{.serial = leaf}}});
  const std::string answer = ask(responder, leaf);
  EXPECT_CONTAINS(answer, "Cert Status: good");
  EXPECT_CONTAINS(answer, "Response Verify Failure");
}

TEST_F(Responder, ByKey_AnswerNamesTheKey) {
  const OCSPResponder responder({.ca = &ca, .index = {{.serial = leaf}}, .byKey = true});
  const std::string answer = ask(responder, leaf);
  EXPECT_CONTAINS(answer, "Response verify OK");
  EXPECT_LACKS(answer, "Responder Id: CN = CA");
}

TEST_F(Responder, BadSignature_DoesNotVerify) {
  const OCSPResponder responder({.ca = &ca, .index = {{.serial = leaf}}, .badSignature = true});
  EXPECT_CONTAINS(ask(responder, leaf), "Response Verify Failure");
}

TEST_F(Responder, NextUpdate_IsGiven) {
  const OCSPResponder responder({.ca = &ca, .index = {{.serial = leaf}}, .nextUpdate = 90min});
  EXPECT_CONTAINS(ask(responder, leaf), "Next Update: ");
}

TEST_F(Responder, MaxRequests_EndsAfterTheLast) {
  const OCSPResponder responder({.ca = &ca, .index = {{.serial = leaf}}, .maxRequests = 2});
  EXPECT_CONTAINS(ask(responder, leaf), "Cert Status: good");
  EXPECT_TRUE(responder.running());
  EXPECT_CONTAINS(ask(responder, leaf), "Cert Status: good");
  EXPECT_FALSE(responder.waitForRequests(3));  // returns when it has ended
  EXPECT_FALSE(responder.running());
  EXPECT_LACKS(ask(responder, leaf), "Cert Status");
}

TEST_F(Responder, PathWithTwoSlashes_IsAnswered) {
  const OCSPResponder responder({.ca = &ca, .index = {{.serial = leaf}}});
  EXPECT_CONTAINS(ask(responder, leaf, "//ocsp"), "Cert Status: good");
  ASSERT_TRUE(responder.waitForRequests(1));
  EXPECT_EQ(responder.requests().at(0), "POST //ocsp HTTP/1.0");
}

TEST_F(Responder, StoppedAndStarted_HasItsUrlAndItsLogStill) {
  OCSPResponder responder({.ca = &ca, .index = {{.serial = leaf}}});
  ask(responder, leaf);
  ASSERT_TRUE(responder.waitForRequests(1));
  responder.stop();
  EXPECT_FALSE(responder.running());
  EXPECT_THROW(connectTo(portOf(responder.url())), std::system_error);
  responder.start();
  EXPECT_CONTAINS(ask(responder, leaf), "Cert Status: good");
  EXPECT_TRUE(responder.waitForRequests(2));
}

TEST_F(Responder, CannotStart_ThrowsWithWhatItSays) {
  OCSPResponder responder({.ca = &ca});
  responder.stop();
  const Descriptor other = bindTo(portOf(responder.url()));
  ASSERT_EQ(listen(other.number(), 1), 0);
  try {
    responder.start();
    FAIL() << "no exception";
  } catch (const std::runtime_error& error) {
    EXPECT_CONTAINS(std::string(error.what()), "ended without: ACCEPT");
    EXPECT_CONTAINS(std::string(error.what()), "in use");
  }
}

}  // namespace
}  // namespace Velantrix::Test
