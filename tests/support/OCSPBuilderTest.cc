#include "support/Command.h"
#include "support/OCSPBuilder.h"

#include <gtest/gtest.h>
#include <stdexcept>

namespace Velantrix::Test {
namespace {

using namespace std::string_literals;

class OCSPBuilder : public testing::Test {
 protected:
  OCSPBuilder() { writeFile(work / "ca.crt", pem(ca.get())); }

  /// What the openssl command says of an answer to a request about the leaf.
  std::string read(const OCSPAnswer& description) const {
    const std::string request = ocspRequest(leaf, ca);
    writeFile(work / "req.der", request);
    writeFile(work / "resp.der", ocspAnswer(description, request));
    const auto result = runCommand({"openssl", "ocsp", "-respin", work / "resp.der", "-reqin",
                                    work / "req.der", "-CAfile", work / "ca.crt", "-resp_text"});
    return result.out + result.err;
  }

  const Issued ca = issueCA("CN=CA");
  const Issued leaf = issue({.subject = "CN=Leaf", .issuer = &ca});
  TempDir work;
};

TEST_F(OCSPBuilder, EveryOption_IsWhatTheCommandReads) {
  const Issued stranger = issueCA("CN=Stranger");
  const Issued signer = issue(
      {.subject = "CN=Signer", .issuer = &ca, .extensions = {{"extendedKeyUsage", "OCSPSigning"}}});
  struct Row {
    const char* name;
    OCSPAnswer description;
    std::vector<std::string> parts;
    std::vector<std::string> missing = {};
  };
  const Row rows[] = {
      {"good",
       {.signer = &ca},
       {"Response verify OK", "Cert Status: good", "Serial Number: " + Serial(leaf).hex(),
        "Responder Id: CN = CA", "Subject: CN=CA"},
       {"Nonce in response", "WARNING"}},
      {"revoked",
       {.signer = &ca,
        .singles = {{.status = V_OCSP_CERTSTATUS_REVOKED,
                     .reason = CRL_REASON_SUPERSEDED,
                     .revoked = "20240229120000Z"}}},
       {"Cert Status: revoked", "Reason: superseded", "Revocation Time: Feb 29 12:00:00 2024 GMT"}},
      {"unknown",
       {.signer = &ca, .singles = {{.status = V_OCSP_CERTSTATUS_UNKNOWN}}},
       {"Cert Status: unknown"}},
      {"times",
       {.signer = &ca,
        .singles = {{.thisUpdate = "20240229120000Z", .nextUpdate = "20240301120000Z"}}},
       {"This Update: Feb 29 12:00:00 2024 GMT", "Next Update: Mar  1 12:00:00 2024 GMT"}},
      {"no next update",
       {.signer = &ca, .singles = {{.nextUpdate = {}}}},
       {"This Update"},
       {"Next Update"}},
      {"another certificate",
       {.signer = &ca, .singles = {{.certificate = &ca, .issuer = &ca}}},
       {"Serial Number: " + Serial(ca).hex()}},
      {"another digest",
       {.signer = &ca, .singles = {{.certificate = &leaf, .issuer = &ca, .digest = EVP_sha256()}}},
       {"Hash Algorithm: sha256"}},
      {"by key", {.signer = &ca, .byKey = true}, {"verify OK"}, {"Responder Id: CN = CA"}},
      {"no certificates",
       {.signer = &signer, .certificates = false},
       {"signer certificate not found"}},
      {"delegated",
       {.signer = &signer, .firstCertificates = {&leaf}},
       {"Response verify OK", "Subject: CN=Leaf", "Subject: CN=Signer"}},
      {"no nonce", {.signer = &ca, .nonce = OCSPNonce::Absent}, {"WARNING: no nonce"}},
      {"another nonce", {.signer = &ca, .nonce = OCSPNonce::Other}, {"Nonce Verify error"}},
      {"stranger", {.signer = &stranger}, {"Response Verify Failure"}},
      {"bad signature", {.signer = &ca, .badSignature = true}, {"Response Verify Failure"}},
      {"tampered", {.signer = &ca, .tampered = true}, {"Response Verify Failure"}},
      {"changed",
       {.signer = &ca, .change = [](std::string& basic) { basic = "\x30\0"s; }},
       {},
       {"Cert Status"}},
      {"extensions",
       {.signer = &ca,
        .singles = {{.extensions = {{"1.2.3.4", true, "\x05\0"s}}}},
        .extensions = {{"1.2.3.5", false, "\x05\0"s}}},
       {"Response verify OK", "1.2.3.4: critical", "1.2.3.5: "},
       {"1.2.3.5: critical"}},
      {"production",
       {.signer = &ca, .producedAt = "20240229120000Z"},
       {"Response verify OK", "Produced At: Feb 29 12:00:00 2024 GMT"}},
      {"digest", {.signer = &ca, .digest = EVP_sha384()}, {"ecdsa-with-SHA384", "verify OK"}},
      {"another key", {.signer = &ca, .key = stranger.key}, {"Response Verify Failure"}},
      {"key of its own", {.signer = &ca, .key = ca.key}, {"Response verify OK", "Subject: CN=CA"}},
      {"changed data",
       {.signer = &ca,
        .singles = {{.thisUpdate = "20240229120000Z", .nextUpdate = "20240301120000Z"}},
        .changeData =
            [](std::string& data) { data.replace(data.find("20240301"), 8, "20240302"); }},
       {"Response verify OK", "Next Update: Mar  2 12:00:00 2024 GMT"}},
      {"try later", {.status = OCSP_RESPONSE_STATUS_TRYLATER}, {"trylater"}},
  };
  for (const Row& row : rows) {
    const std::string text = read(row.description);
    for (const std::string& part : row.parts) {
      EXPECT_NE(text.find(part), std::string::npos) << row.name << ": " << part << "\n" << text;
    }
    for (const std::string& part : row.missing) {
      EXPECT_EQ(text.find(part), std::string::npos) << row.name << ": " << part << "\n" << text;
    }
  }
}

TEST_F(OCSPBuilder, Mistakes_Throw) {
  const std::string request = ocspRequest(leaf, ca);
  EXPECT_THROW(ocspAnswer({}, request), std::runtime_error);
  EXPECT_THROW(ocspAnswer({.signer = &ca}, "garbage"), std::runtime_error);
  EXPECT_THROW(httpBody("no header"), std::runtime_error);
}

TEST(DerElement, Lengths_AreAsShortAsCanBe) {
  EXPECT_EQ(derElement(0x04, ""), "\x04\0"s);
  EXPECT_EQ(derElement(0x04, std::string(127, 'x')).substr(0, 2), "\x04\x7f");
  EXPECT_EQ(derElement(0x04, std::string(128, 'x')).substr(0, 3), "\x04\x81\x80");
  EXPECT_EQ(derElement(0x30, std::string(256, 'x')).substr(0, 4), "\x30\x82\x01\0"s);
}

TEST(HTTPBody, Body_IsAllAfterTheFirstEmptyLine) {
  EXPECT_EQ(httpBody("POST / HTTP/1.0\r\nA: b\r\n\r\nbody\r\n\r\n"), "body\r\n\r\n");
}

}  // namespace
}  // namespace Velantrix::Test
