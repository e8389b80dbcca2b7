#include "foundation/openssl/Der.h"
#include "revocation/OCSPMessage.h"
#include "unit/revocation/OCSPWorld.h"

#include <gtest/gtest.h>
#include <string>

namespace Velantrix::Test {
namespace {

using namespace std::string_literals;

const std::string kVersion1 = "\xa0\x03\x02\x01\0"s;
const std::string kVersion2 = "\xa0\x03\x02\x01\x01"s;

TEST(OCSPMessage, Request_AsksForOneCertificateWithANonce) {
  const Issued ca = issueCA("CN=CA");
  const Issued leaf = issue({.subject = "CN=Leaf", .issuer = &ca});
  const std::string nonce(32, 'n');
  const std::string der = encodeOCSPRequest(handle(leaf), handle(ca), nonce);
  const auto request = Crypto::decodeWhole(d2i_OCSP_REQUEST, Crypto::octets(der), der.size());
  ASSERT_NE(request, nullptr);
  ASSERT_EQ(OCSP_request_onereq_count(request.get()), 1);
  const Owned<OCSP_CERTID> expected(OCSP_cert_to_id(EVP_sha1(), leaf.get(), ca.get()));
  EXPECT_EQ(
      OCSP_id_cmp(OCSP_onereq_get0_id(OCSP_request_onereq_get0(request.get(), 0)), expected.get()),
      0);
  // RFC 6960, 4.1.1: version [0] DEFAULT v1 is absent; the list of requests comes first.
  EXPECT_EQ(contentOf(contentOf(der)).front(), '\x30');
  // RFC 8954, 2.1: the extension's value is an OCTET STRING in an OCTET STRING.
  EXPECT_NE(der.find(derElement(0x04, derElement(0x04, nonce))), std::string::npos);
  EXPECT_EQ(encodeOCSPRequest(handle(leaf), handle(ca), "").find("\x04\x22\x04\x20"),
            std::string::npos);
}

TEST(OCSPMessage, Body_IsTheDERofOneAnswerOfVersion1) {
  const OCSPWorld world;
  const std::string request = world.question.request();
  const std::string good = ocspAnswer({.signer = &world.ca}, request);
  const auto with = [&](const std::string& version) {
    return ocspAnswer(
        {.signer = &world.ca,
         .changeData =
             [version](std::string& data) { data = derElement(0x30, version + contentOf(data)); }},
        request);
  };
  const auto status = [](int code) {
    return derElement(0x30, derElement(0x0a, std::string(1, static_cast<char>(code))));
  };
  const std::string bytes = contentOf(good).substr(3);  // what follows the status
  const struct {
    const char* name;
    std::string body;
    std::string expected;
  } rows[] = {
      {"an answer", good, ""},
      {"version 1 that is said", with(kVersion1), ""},
      {"version 2", with(kVersion2), "malformed"},
      {"version of two octets", with("\xa0\x04\x02\x02\0\0"s), "malformed"},
      {"version that is none", with("\xa0\x02\x05\0"s), "malformed"},
      {"nothing", "", "malformed"},
      {"garbage", "garbage", "malformed"},
      {"more behind the answer", good + '\0', "malformed"},
      {"another answer behind it", good + good, "malformed"},
      {"cut short", good.substr(0, good.size() - 1), "malformed"},
      {"more inside the answer",
       ocspAnswer({.signer = &world.ca, .change = [](std::string& basic) { basic += "\x05\0"s; }},
                  request),
       "malformed"},
      {"indefinite length", "\x30\x80"s + contentOf(good) + "\0\0"s, "malformed"},
      {"length that is not the shortest", "\x30\x83\0"s + good.substr(2, 2) + contentOf(good),
       "malformed"},
      {"status of two octets", derElement(0x30, "\x0a\x02\0\0"s + bytes), "malformed"},
      {"status that is another in fewer bits", derElement(0x30, "\x0a\x05\x01\0\0\0\0"s + bytes),
       "malformed"},
      {"successful without an answer", status(0), "malformed"},
      {"another type", ocspResponseOf(contentOf(good), "1.3.6.1.5.5.7.48.1.2"), "malformed"},
      {"answer that is none", ocspResponseOf("\x30\0"s), "malformed"},
      {"malformedRequest", status(1), "not successful"},
      {"internalError", status(2), "not successful"},
      {"tryLater", status(3), "not successful"},
      {"no status", status(4), "not successful"},
      {"sigRequired", status(5), "not successful"},
      {"unauthorized", status(6), "not successful"},
      {"tryLater with an answer", derElement(0x30, "\x0a\x01\x03"s + bytes), "not successful"},
  };
  for (const auto& row : rows) {
    const OCSPMessage message = decodeOCSPResponse(row.body);
    EXPECT_EQ(message.refused ? wordFor(*message.refused) : "", row.expected) << row.name;
    EXPECT_EQ(message.basic == nullptr, message.refused.has_value()) << row.name;
  }
  EXPECT_EQ(decodeOCSPResponse(status(3)).detail, "trylater");
  ERR_clear_error();
}

TEST(OCSPMessage, CriticalExtension_IsOneThatIsKnown) {
  const struct {
    const char* oid;
    bool known;
  } rows[] = {
      {"1.3.6.1.5.5.7.48.1.2", true},     // nonce
      {"1.3.6.1.5.5.7.48.1.3", true},     // id-pkix-ocsp-crl
      {"1.3.6.1.5.5.7.48.1.6", true},     // archive cutoff
      {"1.3.6.1.5.5.7.48.1.9", true},     // extended revoke
      {"2.5.29.21", true},                // reason
      {"2.5.29.24", true},                // invalidity date
      {"1.3.6.1.4.1.11129.2.4.5", true},  // timestamps of certificates
      {"2.5.29.29", false},               // the issuer of another's certificate
      {"1.3.6.1.5.5.7.48.1.7", false},    // service locator
      {"2.5.29.28", false},
      {"1.2.3.4", false},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(isUnknownAndCritical(makeExtension({row.oid, true, "\x05\0"s}).get()), !row.known)
        << row.oid;
    EXPECT_FALSE(isUnknownAndCritical(makeExtension({row.oid, false, "\x05\0"s}).get())) << row.oid;
  }
}

}  // namespace
}  // namespace Velantrix::Test
