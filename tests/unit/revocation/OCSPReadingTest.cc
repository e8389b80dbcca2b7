#include "revocation/OCSPReading.h"
#include "unit/revocation/OCSPWorld.h"

#include <openssl/err.h>
#include <openssl/x509err.h>

#include <gtest/gtest.h>
#include <string>

namespace Velantrix::Test {
namespace {

using namespace std::string_literals;

constexpr char kNonceType[] = "1.3.6.1.5.5.7.48.1.2";

TEST(OCSPReading, Request_HasANewNonceOf32Octets) {
  const OCSPWorld world;
  const OCSPQuestion again(handle(world.leaf), handle(world.ca));
  const std::string header = "\x04\x22\x04\x20";
  const std::string& request = world.question.request();
  ASSERT_NE(request.find(header), std::string::npos);
  const std::string nonce = request.substr(request.find(header) + 4, 32);
  EXPECT_EQ(nonce.size(), 32U);
  EXPECT_EQ(again.request().size(), request.size());
  EXPECT_EQ(again.request().find(nonce), std::string::npos);
}

TEST(OCSPReading, Evidence_IsSignersNameTimesAndOrigin) {
  const OCSPWorld world;
  const OCSPReading reading =
      world.read({.signer = &world.ca,
                  .singles = {{.thisUpdate = "20240229120000Z", .nextUpdate = "99990101000000Z"}}});
  EXPECT_EQ(wordFor(reading), "good");
  EXPECT_EQ(reading.detail, "");
  EXPECT_EQ(reading.statement.kind, Statement::Kind::kOCSP);
  EXPECT_EQ(reading.statement.responder, handle(world.ca));
  EXPECT_EQ(reading.statement.thisUpdate, Time::then(1709208000, true));
  EXPECT_EQ(reading.statement.nextUpdate, Time::then(253370764800, true));
  EXPECT_EQ(reading.statement.from.kind, Provenance::Kind::kNetwork);
  EXPECT_EQ(reading.statement.from.place, "http://ocsp");

  const OCSPReading open = world.read({.signer = &world.ca, .singles = {{.nextUpdate = {}}}});
  EXPECT_EQ(wordFor(open), "good");
  EXPECT_EQ(open.statement.nextUpdate, std::nullopt);
}

TEST(OCSPReading, EvidenceOfWhatIsRefused_IsWhatIsKnown) {
  const OCSPWorld world;
  const OCSPReading expired =
      world.read({.signer = &world.ca,
                  .singles = {{.thisUpdate = "20240101000000Z", .nextUpdate = "20240229120000Z"}}});
  EXPECT_EQ(wordFor(expired), "expired");
  EXPECT_NE(expired.detail, "");
  EXPECT_EQ(expired.statement.kind, Statement::Kind::kOCSP);
  EXPECT_EQ(expired.statement.responder, handle(world.ca));
  EXPECT_EQ(expired.statement.nextUpdate, Time::then(1709208000, true));

  const OCSPReading later = world.read({.status = OCSP_RESPONSE_STATUS_TRYLATER});
  EXPECT_EQ(wordFor(later), "not successful");
  EXPECT_EQ(later.detail, "trylater");
  EXPECT_EQ(later.statement.from.place, "http://ocsp");
}

// Whom it names is told before anybody has looked at the signature.
TEST(OCSPReading, ResponderOfWhatIsRefused_IsAsItNamesItself) {
  const OCSPWorld world;
  const Issued stranger = issueCA("CN=Stranger");
  const OCSPReading named = world.read({.signer = &stranger});
  EXPECT_EQ(wordFor(named), "signer not allowed");
  EXPECT_EQ(named.statement.issuer, "CN=Stranger");
  ASSERT_NE(named.aboutSigner, nullptr);
  EXPECT_EQ(named.aboutSigner->certificate, handle(stranger));

  const OCSPReading byKey = world.read({.signer = &stranger, .byKey = true, .certificates = false});
  EXPECT_EQ(wordFor(byKey), "signer unknown");
  EXPECT_EQ(byKey.statement.issuer.substr(0, 4), "key ");
  EXPECT_EQ(byKey.statement.issuer.size(), 44U) << "SHA-1";
  EXPECT_EQ(byKey.aboutSigner, nullptr);

  const OCSPReading other = world.read({.signer = &world.ca, .nonce = OCSPNonce::Other});
  EXPECT_EQ(wordFor(other), "other nonce");
  EXPECT_EQ(other.statement.issuer, "CN=CA");
  EXPECT_EQ(other.detail.substr(0, 17), "its nonce is 0410");

  const OCSPReading early =
      world.read({.signer = &world.ca, .producedAt = When(std::chrono::hours(48))});
  EXPECT_EQ(wordFor(early), "not yet valid");
  EXPECT_GT(*early.statement.producedAt, world.moment.now);
  EXPECT_EQ(early.statement.responder, handle(world.ca));
}

// RFC 6960, 4.4.1; RFC 8954, 2.1
TEST(OCSPReading, Nonce_IsThatOfTheRequestOrAbsent) {
  const OCSPWorld world;
  const std::string& request = world.question.request();
  const std::string nonce = request.substr(request.find("\x04\x22\x04\x20") + 2, 34);
  const auto with = [&](std::vector<RawExtension> extensions) {
    return world.verdict(
        {.signer = &world.ca, .nonce = OCSPNonce::Absent, .extensions = std::move(extensions)});
  };
  EXPECT_EQ(world.verdict({.signer = &world.ca, .nonce = OCSPNonce::Same}), "good");
  EXPECT_EQ(world.verdict({.signer = &world.ca, .nonce = OCSPNonce::Other}), "other nonce");
  EXPECT_EQ(with({}), "good");
  EXPECT_EQ(with({{kNonceType, false, nonce}}), "good");
  EXPECT_EQ(with({{kNonceType, true, nonce}}), "good");
  EXPECT_EQ(with({{kNonceType, false, nonce}, {kNonceType, false, nonce}}), "other nonce");
  EXPECT_EQ(with({{kNonceType, false, nonce + '\0'}}), "other nonce");
  EXPECT_EQ(with({{kNonceType, false, nonce.substr(2)}}), "other nonce");
  EXPECT_EQ(with({{kNonceType, false, "\x04\x1f" + nonce.substr(2, 31)}}), "other nonce");
  EXPECT_EQ(with({{kNonceType, false, ""}}), "other nonce");
}

// RFC 5019, 4.
TEST(OCSPReading, WithoutANonceOfItsOwn_AnyNonceIsPassedOver) {
  const OCSPWorld world;
  const OCSPQuestion question(handle(world.leaf), handle(world.ca), false);
  const OCSPQuestion again(handle(world.leaf), handle(world.ca), false);
  EXPECT_EQ(question.request(), ocspRequest(world.leaf, world.ca, false));
  EXPECT_EQ(question.request(), again.request());
  const auto word = [&](const OCSPAnswer& description) {
    return wordFor(question.read({.object = ocspAnswer(description, world.question.request())},
                                 world.settings, world.moment));
  };
  EXPECT_EQ(word({.signer = &world.ca, .nonce = OCSPNonce::Absent}), "good");
  EXPECT_EQ(word({.signer = &world.ca}), "good");
  EXPECT_EQ(word({.signer = &world.ca, .extensions = {{kNonceType, false, "\x05\0"s}}}), "good");
  EXPECT_EQ(word({.signer = &world.ca, .badSignature = true}), "wrong signature");
}

TEST(OCSPReading, UnknownCriticalExtension_IsRefused) {
  const OCSPWorld world;
  const auto with = [&](const RawExtension& extension) {
    return world.verdict({.signer = &world.ca, .extensions = {extension}});
  };
  EXPECT_EQ(with({"1.2.3.4", true, "\x05\0"s}), "unknown critical extension");
  EXPECT_EQ(with({"1.2.3.4", false, "\x05\0"s}), "good");
  EXPECT_EQ(with({"1.3.6.1.5.5.7.48.1.9", true, "\x05\0"s}), "good");
}

TEST(OCSPReading, AnswerToAnotherQuestion_IsRefused) {
  const OCSPWorld world;
  const Issued other = issue({.issuer = &world.ca});
  const OCSPQuestion question(handle(other), handle(world.ca));
  const std::string answer = ocspAnswer({.signer = &world.ca}, question.request());
  EXPECT_EQ(wordFor(world.read(answer)), "other nonce");
  const std::string stored =
      ocspAnswer({.signer = &world.ca, .nonce = OCSPNonce::Absent}, question.request());
  EXPECT_EQ(wordFor(world.read(stored)), "other certificate");
}

TEST(OCSPReading, ErrorsOfTheCaller_Stay) {
  const OCSPWorld world;
  const Issued stranger = issueCA("CN=CA");
  ERR_clear_error();
  ERR_raise(ERR_LIB_X509, X509_R_WRONG_TYPE);
  const unsigned long before = ERR_peek_error();
  EXPECT_EQ(wordFor(world.read("garbage")), "malformed");
  EXPECT_EQ(world.verdict({.signer = &stranger}), "wrong signature");
  EXPECT_EQ(ERR_get_error(), before);
  EXPECT_EQ(ERR_get_error(), 0U);
}

// No octet can be changed or left out so that the certificate becomes a good one.
TEST(OCSPReading, DamagedRevocation_IsNeverGood) {
  const OCSPWorld world;
  const std::string answer = ocspAnswer(
      {.signer = &world.ca,
       .singles = {{.status = V_OCSP_CERTSTATUS_REVOKED, .reason = CRL_REASON_KEY_COMPROMISE}},
       .certificates = false},
      world.question.request());
  ASSERT_EQ(wordFor(world.read(answer)), "revoked");
  for (std::size_t i = 0; i < answer.size(); ++i) {
    EXPECT_EQ(wordFor(world.read(answer.substr(0, i))), "malformed") << i;
    for (const int change : {0x01, 0x80, 0xff}) {
      std::string damaged = answer;
      damaged[i] = static_cast<char>(damaged[i] ^ change);
      const OCSPReading reading = world.read(damaged);
      EXPECT_TRUE(reading.refused.has_value()) << i << ' ' << change;
    }
  }
  EXPECT_EQ(ERR_peek_error(), 0U);
}

}  // namespace
}  // namespace Velantrix::Test
