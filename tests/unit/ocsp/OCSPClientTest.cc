// What the client does without a network: whom it believes, and when it asks nobody.
#include "foundation/net/http/HTTPAccess.h"
#include "support/LogCapture.h"
#include "support/OCSPBuilder.h"
#include "unit/ocsp/Bytes.h"
#include "unit/ocsp/VerifyWatch.h"
#include "unit/verify/World.h"

#include <velantrix/Uri.h>

#include <openssl/err.h>

#include <cstring>
#include <ctime>
#include <functional>
#include <gtest/gtest.h>
#include <memory>

namespace Velantrix::Test {
namespace {

using namespace std::string_literals;
using std::chrono::hours;

constexpr int kNotValid = 101;
constexpr int kWrongSignature = 117;
constexpr int kUnknown = 118;

constexpr char kNotValidLine[] = "6 OCSP::Client: Could not validate Responder's certificate.\n";
constexpr char kSignatureLine[] = "6 OCSP::Client: Response Signature check failed.\n";

constexpr unsigned char kNothing[] = {0x05, 0x00};  // NULL

class OCSPClient : public testing::Test {
 protected:
  OCSPClient() { world.trust(root); }

  /// A responder's certificate; authorised by RFC 6960, 4.2.2.2, unless something is changed.
  Issued responder(const CertificateOptions& changed = {}) const {
    CertificateOptions options = changed;
    options.subject = "O=Test,CN=Responder";
    if (options.issuer == nullptr) options.issuer = &root;
    return issue(options);
  }
  std::string answer(const OCSPAnswer& description) const {
    return ocspAnswer(description, ocspRequest(leaf, root));
  }
  int judge(const std::string& der) {
    const Answer read(der);
    OCSP::Client client(verifier, chain);
    return client.isSignatureValid(read.response, read.basic);
  }

  const Issued root = issueCA("O=Test,CN=Root");
  const Issued leaf = issue({.subject = "O=Test,CN=Leaf", .issuer = &root});
  World world;
  std::list<RefCertificate> chain{handle(leaf), handle(root)};
  Verifier verifier{world.store, handle(leaf), false};
  LogCapture log;
};

TEST_F(OCSPClient, NoBasicResponse_IsNoAnswer) {
  for (const std::string& der :
       {""s, answer({.status = OCSP_RESPONSE_STATUS_TRYLATER}), ocspResponseOf("garbage")}) {
    EXPECT_EQ(judge(der), 2);
  }
  EXPECT_EQ(log.text(), "");
}

struct AnswerRow {
  const char* name;
  OCSPAnswer description;
  int verdict;
  std::string lines = {};
  std::size_t nested = 0;  ///< verifications of the responder's certificate
};

TEST_F(OCSPClient, WhoMayAnswer) {
  const Issued authorised = responder({.extensions = {{"extendedKeyUsage", "OCSPSigning"}}});
  const Issued plain = responder();
  const Issued mail = responder({.extensions = {{"extendedKeyUsage", "emailProtection"}}});
  const Issued expired = responder({.notBefore = hours(-48), .notAfter = hours(-24)});
  const Issued early = responder({.notBefore = hours(24)});
  const Issued forged = responder({.badSignature = true});
  const Issued stranger = issueCA("O=Test,CN=Stranger");
  const Issued strangers = responder({.issuer = &stranger});
  const Issued rootTwin = issueCA("O=Test,CN=Root");  // the name of the root, and another key
  const Issued nameless = responder({.subjectKeyId = KeyId::Absent});
  const Issued wrongId = responder({.subjectKeyId = KeyId::Wrong});

  const AnswerRow rows[] = {
      // In the chain: trusted without being verified.
      {"issuer by name", {.signer = &root}, 0},
      {"issuer by key", {.signer = &root, .byKey = true}, 0},
      {"issuer by name, not sent", {.signer = &root, .certificates = false}, 0},
      {"issuer by key, not sent", {.signer = &root, .byKey = true, .certificates = false}, 0},
      // Meant so, though it lets a certificate vouch for itself.
      {"the certificate itself", {.signer = &leaf}, 0},
      // Only in the answer: verified, and nothing else is asked of it.
      {"delegated", {.signer = &authorised}, 0, "", 1},
      {"delegated, by key", {.signer = &authorised, .byKey = true}, 0, "", 1},
      {"without id-kp-OCSPSigning", {.signer = &plain}, 0, "", 1},
      {"for mail only", {.signer = &mail}, 0, "", 1},
      {"after another", {.signer = &plain, .firstCertificates = {&stranger}}, 0, "", 1},
      {"trusted by nobody", {.signer = &stranger}, kNotValid, kNotValidLine, 1},
      {"issued by a stranger", {.signer = &strangers}, kNotValid, kNotValidLine, 1},
      {"expired", {.signer = &expired}, kNotValid, kNotValidLine, 1},
      {"not yet valid", {.signer = &early}, kNotValid, kNotValidLine, 1},
      {"forged", {.signer = &forged}, kNotValid, kNotValidLine, 1},
      {"the issuer's name only", {.signer = &rootTwin}, kNotValid, kNotValidLine, 1},
      // The first that fits is taken, and no other is tried.
      {"behind its twin",
       {.signer = &plain, .firstCertificates = {&authorised}},
       kWrongSignature,
       kSignatureLine,
       1},
      {"behind an expired twin",
       {.signer = &plain, .firstCertificates = {&expired}},
       kNotValid,
       kNotValidLine,
       1},
      {"issuer behind its twin",
       {.signer = &root, .firstCertificates = {&rootTwin}},
       kNotValid,
       kNotValidLine,
       1},
      // Not found.
      {"not sent", {.signer = &plain, .certificates = false}, kUnknown},
      {"by key, not sent", {.signer = &plain, .byKey = true, .certificates = false}, kUnknown},
      {"by key without the extension", {.signer = &nameless, .byKey = true}, kUnknown},
      {"by key with another one", {.signer = &wrongId, .byKey = true}, kUnknown},
      // The name is the issuer's, the key is not.
      {"the issuer's name, not sent",
       {.signer = &rootTwin, .certificates = false},
       kWrongSignature,
       kSignatureLine},
  };
  for (const AnswerRow& row : rows) {
    SCOPED_TRACE(row.name);
    log.clear();
    const std::string der = answer(row.description);
    const VerifyWatch watch;
    EXPECT_EQ(judge(der), row.verdict);
    EXPECT_EQ(watch.runs().size(), row.nested);
    EXPECT_EQ(ERR_peek_error(), 0UL);
    // Before the line of the client stands that of the nested verification.
    std::string lines;
    for (const LogCapture::Line& line : log.lines()) {
      if (line.priority == 6) lines += "6 " + line.text + "\n";
    }
    EXPECT_EQ(lines, row.lines);
    EXPECT_EQ(log.count("is not valid"), row.verdict == kNotValid ? 1U : 0U) << log.text();
  }
}

// The time that the caller set is that of the responder's certificate as well.
// What an answer says beside the status, changed and signed again by whoever it names.
std::string resigned(const std::string& der, const Issued& signer,
                     const std::function<void(OCSP_BASICRESP*)>& edit) {
  const auto* position = reinterpret_cast<const unsigned char*>(der.data());
  const std::unique_ptr<OCSP_BASICRESP, decltype(&OCSP_BASICRESP_free)> basic(
      d2i_OCSP_BASICRESP(nullptr, &position, static_cast<long>(der.size())), OCSP_BASICRESP_free);
  EXPECT_NE(basic, nullptr);
  edit(basic.get());
  EXPECT_EQ(OCSP_basic_sign(basic.get(), signer.get(), signer.key.get(), EVP_sha256(), nullptr,
                            OCSP_NOTIME),
            1);
  unsigned char* encoded = nullptr;
  const int length = i2d_OCSP_BASICRESP(basic.get(), &encoded);
  std::string out(encoded, encoded + length);
  OPENSSL_free(encoded);
  return out;
}

// Meant so, though RFC 6960, 4.4, has extensions that are critical refused when they are unknown.
TEST_F(OCSPClient, CriticalExtensions_AreNotLookedAt) {
  const Owned<ASN1_OBJECT> oid(OBJ_txt2obj("1.2.3.4.5", 1));
  const Owned<ASN1_OCTET_STRING> value(ASN1_OCTET_STRING_new());
  ASSERT_EQ(ASN1_OCTET_STRING_set(value.get(), kNothing, sizeof kNothing), 1);
  const Owned<X509_EXTENSION> critical(
      X509_EXTENSION_create_by_OBJ(nullptr, oid.get(), 1, value.get()));
  for (const bool ofTheWhole : {false, true}) {
    OCSPAnswer description{.signer = &root};
    description.change = [&](std::string& der) {
      der = resigned(der, root, [&](OCSP_BASICRESP* basic) {
        EXPECT_EQ(ofTheWhole
                      ? OCSP_BASICRESP_add_ext(basic, critical.get(), -1)
                      : OCSP_SINGLERESP_add_ext(OCSP_resp_get0(basic, 0), critical.get(), -1),
                  1);
      });
    };
    const std::string der = answer(description);
    EXPECT_NE(der.find("\x06\x04\x2a\x03\x04\x05\x01\x01\xff"), std::string::npos);
    EXPECT_EQ(judge(der), 0) << log.text();
  }
}

// Meant so, as with thisUpdate and nextUpdate.
TEST_F(OCSPClient, TimeOfProduction_IsNotLookedAt) {
  for (const char* time : {"20010101000000Z", "20990101000000Z"}) {
    OCSPAnswer description{.signer = &root};
    description.change = [&](std::string& der) {
      const std::size_t at = der.find("\x18\x0f") + 2;  // the first time of the answer
      der = resigned(der.replace(at, std::strlen(time), time), root, [](OCSP_BASICRESP*) {});
    };
    const std::string der = answer(description);
    const Answer read(der);
    const ASN1_GENERALIZEDTIME* const produced = OCSP_resp_get0_produced_at(read.basic);
    EXPECT_EQ(std::string(produced->data, produced->data + produced->length), time);
    EXPECT_EQ(judge(der), 0) << log.text();
  }
}

TEST_F(OCSPClient, TimeOfTheOuterVerification_CountsForTheResponder) {
  const Issued now = responder({.notAfter = hours(24)});
  const Issued later = responder({.notBefore = hours(24), .notAfter = hours(72)});
  EXPECT_EQ(judge(answer({.signer = &now})), 0) << log.text();
  EXPECT_EQ(judge(answer({.signer = &later})), kNotValid);
  X509_VERIFY_PARAM_set_time(X509_STORE_CTX_get0_param(verifier),
                             std::time(nullptr) + 48 * 60 * 60);
  EXPECT_EQ(judge(answer({.signer = &now})), kNotValid);
  EXPECT_EQ(judge(answer({.signer = &later})), 0) << log.text();
}

TEST_F(OCSPClient, TamperedAnswer_IsAWrongSignature) {
  const Issued delegated = responder();
  for (const Issued* const signer : {&root, &delegated}) {
    for (const bool byKey : {false, true}) {
      EXPECT_EQ(judge(answer({.signer = signer, .byKey = byKey})), 0);
      for (const bool data : {false, true}) {
        log.clear();
        EXPECT_EQ(judge(answer(
                      {.signer = signer, .byKey = byKey, .badSignature = !data, .tampered = data})),
                  kWrongSignature);
        EXPECT_EQ(log.text(), kSignatureLine);
        EXPECT_EQ(ERR_peek_error(), 0UL);
      }
    }
  }
}

// Byte for byte: none of them can be changed so that the answer is still accepted and says
// something else.
TEST_F(OCSPClient, EveryByteChanged_TheAnswerIsNotTurned) {
  const OCSP::Request asked(handle(leaf), handle(root));
  const std::string whole = ocspAnswer(
      {.signer = &root, .singles = {{.status = V_OCSP_CERTSTATUS_REVOKED}}, .certificates = false},
      textOf(asked.pdu()));
  OCSP::Client client(verifier, chain);
  int accepted = 0;
  for (std::size_t i = 0; i < whole.size(); ++i) {
    std::string changed = whole;
    changed[i] = static_cast<char>(changed[i] ^ 2);
    try {
      const Answer read(changed);
      if (client.isSignatureValid(read.response, read.basic) != 0) continue;
      ++accepted;
      EXPECT_EQ(read.response.find(read.basic, asked.id()).status, 1) << i;
    } catch (const Exception&) {
    }
  }
  EXPECT_LT(accepted, 10);  // the status of the response is not signed
}

TEST_F(OCSPClient, NestedVerification_HasItsParentAndItsOwnStoreAndChecksNoRevocation) {
  const Issued inter = issueCA("O=Test,CN=Inter", &root);
  const Issued delegated = responder({.issuer = &inter});
  const Issued below = issue({.subject = "O=Test,CN=Below", .issuer = &inter});
  const std::list<RefCertificate> path{handle(below), handle(inter), handle(root)};
  Verifier outer(world.store, handle(below), stackOf({inter}), false);
  OCSP::Client client(outer, path);
  const Answer read(ocspAnswer({.signer = &delegated}, ocspRequest(below, inter)));
  // A CRL revokes the responder; nobody asks.
  world.publish({.issuer = &inter, .revoked = {{.serial = delegated}}});
  X509_STORE* const store = world.store;
  const unsigned long storeFlags = X509_VERIFY_PARAM_get_flags(X509_STORE_get0_param(store));
  const int objects = sk_X509_OBJECT_num(X509_STORE_get0_objects(store));

  const VerifyWatch watch;
  EXPECT_EQ(client.isSignatureValid(read.response, read.basic), 0) << log.text();
  ASSERT_EQ(watch.runs().size(), 1U);
  const VerificationSeen& nested = watch.runs().front();
  EXPECT_NE(nested.context, static_cast<X509_STORE_CTX*>(outer));
  EXPECT_EQ(nested.parent, static_cast<X509_STORE_CTX*>(outer));
  EXPECT_EQ(nested.target, read.basic.certificates().front()->native());
  EXPECT_NE(nested.store, store);
  EXPECT_EQ(nested.untrusted, (std::vector<const X509*>{below.get(), inter.get(), root.get()}));
  EXPECT_EQ(nested.flags & X509_V_FLAG_CRL_CHECK, 0UL);
  EXPECT_EQ(nested.flags | X509_V_FLAG_CRL_CHECK,
            X509_VERIFY_PARAM_get_flags(X509_STORE_CTX_get0_param(outer)));
  EXPECT_EQ(world.source->crlQueries, 0);
  EXPECT_EQ(X509_VERIFY_PARAM_get_flags(X509_STORE_get0_param(store)), storeFlags);
  EXPECT_EQ(sk_X509_OBJECT_num(X509_STORE_get0_objects(store)), objects);
  EXPECT_EQ(log.text(), "");
}

// --- Asking nobody.

TEST_F(OCSPClient, NoIssuerInTheChain_IsNoAnswerWithoutAWord) {
  const Issued stranger = issueCA("O=Test,CN=Stranger");
  for (const std::list<RefCertificate>& path :
       {std::list<RefCertificate>(), std::list<RefCertificate>{handle(leaf)},
        std::list<RefCertificate>{handle(leaf), handle(stranger)}}) {
    OCSP::Client client(verifier, path);
    EXPECT_EQ(client.isRevoked(handle(leaf)), 2);
  }
  EXPECT_EQ(log.text(), "");
}

TEST_F(OCSPClient, NeverConnected_IsNoAnswerAndALineWithoutText) {
  OCSP::Client client(verifier, chain);
  EXPECT_EQ(client.isRevoked(handle(leaf)), 2);
  ASSERT_EQ(log.lines().size(), 1U);
  EXPECT_EQ(log.lines().at(0).category, 0x4000000U);
  EXPECT_EQ(log.lines().at(0).flags, 0U);
  EXPECT_EQ(log.lines().at(0).format, "%d\x01%s");
  EXPECT_EQ(log.lines().at(0).raw, "0\x01");
}

TEST_F(OCSPClient, EmptyHandles_AreNoAnswer) {
  OCSP::Client client(verifier, chain);
  EXPECT_EQ(client.isRevoked(RefCertificate()), 2);
  const std::list<RefCertificate> hole{RefCertificate(), handle(root)};
  OCSP::Client other(verifier, hole);
  EXPECT_EQ(other.isRevoked(handle(leaf)), 2);
}

TEST_F(OCSPClient, OtherSchemes_AreRefusedByName) {
  OCSP::Client client(verifier, chain);
  struct Scheme {
    const char* uri;
    const char* name;
  };
  const Scheme rows[] = {
      {"ldap://ldap.test/cn=ocsp", "ldap:"},
      {"FTP://ftp.test/ocsp", "ftp:"},
      {"httpx://a.test/", "httpx:"},
      {"urn:ocsp", "urn:"},
  };
  for (const Scheme& row : rows) {
    log.clear();
    EXPECT_FALSE(client.connect(Uri(row.uri)));
    EXPECT_EQ(log.text(),
              "7 OCSP::Client: unhandled uri: "s + row.uri + " scheme = " + row.name + "\n");
  }
  log.clear();
  EXPECT_FALSE(client.connect(Uri("no uri")));
  EXPECT_EQ(log.text(), "7 OCSP::Client: unhandled uri:  scheme = \n");
  EXPECT_EQ(client.isRevoked(handle(leaf)), 2);
}

TEST_F(OCSPClient, HostThatIsNone_IsNoConnection) {
  OCSP::Client client(verifier, chain);
  for (const std::string& uri : {"http:///ocsp"s, "http:ocsp"s, "http://256.256.256.256/"s}) {
    log.clear();
    EXPECT_FALSE(client.connect(Uri(uri)));
    EXPECT_EQ(log.text(), "6 OCSP::Client: Could not connect to uri: " + uri + "\n");
  }
}

TEST(OCSPAddress, Port_Is80WhereTheURINamesNoneForHTTPSToo) {
  struct Endpoint {
    const char* uri;
    unsigned short port;
  };
  const Endpoint rows[] = {
      {"http://127.0.0.1/", 80},
      {"https://127.0.0.1/", 80},
      {"https://127.0.0.1:443/", 443},
      {"http://127.0.0.1:8080/", 8080},
  };
  for (const Endpoint& row : rows) {
    const auto endpoint = LW::HTTP::endpointFor(IPAddress("127.0.0.1"), Uri(row.uri));
    EXPECT_EQ(endpoint.port(), row.port) << row.uri;
    EXPECT_EQ(endpoint.address().to_string(), "127.0.0.1");
  }
  const auto six = LW::HTTP::endpointFor(IPAddress("::1"), Uri("http://[::1]/"));
  EXPECT_TRUE(six.address().is_v6());
}

}  // namespace
}  // namespace Velantrix::Test
