#include "support/Command.h"
#include "support/LogCapture.h"
#include "support/OCSPBuilder.h"
#include "unit/ocsp/Bytes.h"
#include "unit/verify/World.h"

#include <openssl/err.h>

#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <optional>

namespace Velantrix::Test {
namespace {

using namespace std::string_literals;
using std::chrono::hours;

constexpr char kMismatch[] = "7 OCSP::BasicResponse: Request Nonce and Reply Nonce do not match.\n";

/// The exception that a call must throw.
template <class Call>
std::optional<Exception> thrown(Call call) {
  try {
    call();
  } catch (const Exception& e) {
    return e;
  }
  return std::nullopt;
}

template <class Call>
void expectFailure(Call call, const std::string& context, const std::string& text) {
  const std::optional<Exception> e = thrown(call);
  ASSERT_TRUE(e.has_value());
  EXPECT_EQ(e->context(), context);
  EXPECT_EQ(e->code(), 4);
  EXPECT_STREQ(e->file(), "OCSP");
  EXPECT_GT(e->line(), 0U);
  EXPECT_EQ(e->stringParameter(), text);
}

void removeNonce(OCSP_REQUEST* request) {
  const int at = OCSP_REQUEST_get_ext_by_NID(request, NID_id_pkix_OCSP_Nonce, -1);
  ASSERT_GE(at, 0);
  X509_EXTENSION_free(OCSP_REQUEST_delete_ext(request, at));
}

class OCSPMessages : public testing::Test {
 protected:
  /// A request as the library makes it.
  OCSP::Request request() const { return OCSP::Request(handle(leaf), handle(ca)); }
  std::string answerTo(const OCSP::Request& asked, const OCSPAnswer& description) const {
    return ocspAnswer(description, textOf(asked.pdu()));
  }
  static std::string openssl(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {"openssl", "ocsp"});
    const CommandResult result = runCommand(arguments);
    EXPECT_EQ(result.status, 0) << result.err;
    return result.out;
  }

  const Issued ca = issueCA("O=Test,CN=CA");
  const Issued leaf = issue({.subject = "O=Test,CN=Leaf", .issuer = &ca});
  const Issued other = issue({.subject = "O=Test,CN=Other", .issuer = &ca});
  TempDir work;
  LogCapture log;
};

// --- Identifiers.

TEST_F(OCSPMessages, Identifier_IsThatOfTheCertificateUnderItsIssuer) {
  const OCSP::ID id(handle(leaf), handle(ca), true);
  const OCSP::ID same(handle(leaf), handle(ca), true);
  const OCSP::ID another(handle(other), handle(ca), true);
  EXPECT_EQ(OCSP_id_cmp(id, same), 0);
  EXPECT_NE(OCSP_id_cmp(id, another), 0);
  ASN1_OBJECT* digest = nullptr;
  ASN1_INTEGER* serial = nullptr;
  ASSERT_EQ(OCSP_id_get0_info(nullptr, &digest, nullptr, &serial, id), 1);
  EXPECT_EQ(OBJ_obj2nid(digest), NID_sha1);
  EXPECT_EQ(ASN1_INTEGER_cmp(serial, X509_get0_serialNumber(leaf.get())), 0);
}

// What is not freed here, or twice, is the sanitizer's to find.
TEST_F(OCSPMessages, Identifier_IsFreedByWhoeverOwnsIt) {
  OCSP_CERTID* given = nullptr;
  {
    OCSP::ID id(handle(leaf), handle(ca), true);
    id.relinquishOwnerShip();
    given = id;
    const OCSP::ID wrapper(given);
    EXPECT_EQ(static_cast<OCSP_CERTID*>(wrapper), given);
  }
  {
    const OCSP::ID borrowing(handle(leaf), handle(ca), false);
    OCSP_CERTID_free(borrowing);
  }
  const OCSP::ID id(handle(leaf), handle(ca), true);
  EXPECT_EQ(OCSP_id_cmp(id, given), 0);
  OCSP_CERTID_free(given);
}

TEST_F(OCSPMessages, EmptyHandles_AreAnException) {
  for (const auto& [certificate, issuer] :
       {std::pair(RefCertificate(), handle(ca)), std::pair(handle(leaf), RefCertificate())}) {
    const auto identifier =
        thrown([&c = certificate, &i = issuer] { const OCSP::ID id(c, i, true); });
    ASSERT_TRUE(identifier.has_value());
    EXPECT_EQ(identifier->code(), 1);
    EXPECT_TRUE(thrown([&c = certificate, &i = issuer] { const OCSP::Request r(c, i); }));
  }
}

// --- Requests.

TEST_F(OCSPMessages, Request_IsReadByOpenSSL) {
  const OCSP::Request asked = request();
  writeFile(work / "req.der", textOf(asked.pdu()));
  writeFile(work / "ca.crt", pem(ca.get()));
  writeFile(work / "leaf.crt", pem(leaf.get()));
  const std::string read = openssl({"-reqin", work / "req.der", "-req_text"});
  EXPECT_NE(read.find("OCSP Nonce:"), std::string::npos) << read;
  // Without their nonces, the request is what the command makes of the same certificates.
  const std::string made = openssl({"-issuer", work / "ca.crt", "-cert", work / "leaf.crt",
                                    "-reqout", work / "made.der", "-req_text"});
  const auto withoutNonce = [](const std::string& text) {
    return text.substr(0, text.find("Request Extensions"));
  };
  EXPECT_EQ(withoutNonce(read), withoutNonce(made));
  EXPECT_NE(made.find("Serial Number"), std::string::npos) << made;
  // Byte for byte, the list of what is asked about stands behind the two outer elements' headers.
  EXPECT_NE(textOf(asked.pdu()).find(ocspRequest(leaf, ca, false).substr(4)), std::string::npos);
}

TEST_F(OCSPMessages, Identifier_IsTheOneInTheRequest) {
  const OCSP::Request asked = request();
  OCSP_ONEREQ* const one = OCSP_request_onereq_get0(asked, 0);
  EXPECT_EQ(OCSP_onereq_get0_id(one), static_cast<OCSP_CERTID*>(asked.id()));
  EXPECT_EQ(OCSP_request_onereq_count(asked), 1);
}

TEST_F(OCSPMessages, Nonces_Differ) {
  const OCSP::Request first = request();
  const OCSP::Request second = request();
  EXPECT_NE(textOf(first.pdu()), textOf(second.pdu()));
  removeNonce(first);
  removeNonce(second);
  EXPECT_EQ(OCSP_REQUEST_get_ext_count(first), 0);
}

TEST_F(OCSPMessages, PduTwice_IsEncodedOnce) {
  const OCSP::Request asked = request();
  const LW::RefBuffer& first = asked.pdu();
  EXPECT_EQ(first->capacity(), 4096U);
  const std::string bytes = textOf(first);
  EXPECT_FALSE(bytes.empty());
  removeNonce(asked);  // a second encoding would show it
  const LW::RefBuffer& second = asked.pdu();
  EXPECT_EQ(&first, &second);
  EXPECT_EQ(textOf(second), bytes);
}

TEST_F(OCSPMessages, Pdu_OutlivesItsRequest) {
  LW::RefBuffer kept;
  {
    const OCSP::Request asked = request();
    kept = asked.pdu();
  }
  EXPECT_NE(textOf(kept), "");
}

TEST_F(OCSPMessages, LongSerialNumber_FitsOrIsABufferOverflow) {
  const auto requestAbout = [&](std::size_t octets) {
    std::string hex(octets * 2, '1');
    const Issued issued = issue({.issuer = &ca, .serial = Serial(hex.c_str())});
    return std::make_unique<OCSP::Request>(handle(issued), handle(ca));
  };
  constexpr std::size_t kTry = 3900;
  const int length = i2d_OCSP_REQUEST(*requestAbout(kTry), nullptr);
  ASSERT_GT(length, 0);
  ASSERT_LT(length, 4096);
  const std::size_t fits = kTry + 4096 - static_cast<std::size_t>(length);
  EXPECT_EQ(requestAbout(fits)->pdu()->length(), 4096U);
  for (const std::size_t octets : {fits + 1, std::size_t{4097}, std::size_t{10000}}) {
    const auto asked = requestAbout(octets);
    for (int i = 0; i < 2; ++i) {
      expectFailure([&] { asked->pdu(); }, "OCSP::Request", "Buffer overflow");
    }
  }
}

// --- Responses.

TEST_F(OCSPMessages, NoBytes_AreAnEmptyResponse) {
  const OCSP::Request asked = request();
  const Answer answer((std::string()));
  EXPECT_NE(static_cast<OCSP_RESPONSE*>(answer.response), nullptr);
  EXPECT_EQ(answer.response.status(), 0);
  EXPECT_EQ(static_cast<OCSP_BASICRESP*>(answer.basic), nullptr);
  EXPECT_TRUE(answer.basic.matches(asked));
  EXPECT_TRUE(answer.basic.certificates().empty());
  EXPECT_EQ(answer.response.find(answer.basic, asked.id()).status, 0);
  EXPECT_EQ(ERR_peek_error(), 0UL);
  EXPECT_EQ(log.text(), "");
}

TEST_F(OCSPMessages, NoResponse_IsDecodeFailed) {
  const std::string whole = ocspAnswer({.signer = &ca}, ocspRequest(leaf, ca));
  std::vector<std::string> rows = {
      "x",
      "\0"s,
      "\x30\x00"s,
      "\x30\x80\x00\x00"s,
      "\x30\x84\xff\xff\xff\xff\x00"s,
      "<!DOCTYPE html><html></html>",
      std::string(5000, '\xff'),
      std::string(5000, '\x30'),
      der(leaf.get()),
      pem(leaf.get()),
      ocspRequest(leaf, ca),
      "HTTP/1.0 200 OK\r\n\r\n" + whole,
  };
  for (std::size_t length = 1; length < whole.size(); ++length) {
    rows.push_back(whole.substr(0, length));
  }
  for (std::size_t i = 0; i < rows.size(); ++i) {
    SCOPED_TRACE(i);
    expectFailure([&] { OCSP::Response{Bytes(rows[i])}; }, "OCSP::Response", "Decode failed.");
    EXPECT_EQ(ERR_peek_error(), 0UL);
  }
}

TEST_F(OCSPMessages, BytesAfterTheResponse_AreNobodysStatement) {
  const OCSP::Request asked = request();
  const Answer answer(answerTo(asked, {.signer = &ca}) + "and more");
  EXPECT_EQ(answer.response.status(), 0);
  EXPECT_NE(static_cast<OCSP_BASICRESP*>(answer.basic), nullptr);
}

TEST_F(OCSPMessages, Statuses_AreThoseOfTheResponder) {
  for (const int status :
       {OCSP_RESPONSE_STATUS_MALFORMEDREQUEST, OCSP_RESPONSE_STATUS_INTERNALERROR,
        OCSP_RESPONSE_STATUS_TRYLATER, OCSP_RESPONSE_STATUS_SIGREQUIRED,
        OCSP_RESPONSE_STATUS_UNAUTHORIZED, 77}) {
    const Answer answer(ocspAnswer({.status = status}, ""));
    EXPECT_EQ(answer.response.status(), status);
    EXPECT_EQ(static_cast<OCSP_BASICRESP*>(answer.basic), nullptr);
  }
  EXPECT_EQ(ERR_peek_error(), 0UL);
}

TEST_F(OCSPMessages, SuccessWithoutABasicResponse_HasNone) {
  const OCSP::Request asked = request();
  const std::string success = derElement(0x0a, "\0"s);
  std::string basicDer;
  answerTo(asked, {.signer = &ca, .change = [&](std::string& basic) { basicDer = basic; }});
  struct Row {
    const char* name;
    std::string der;
  };
  const Row rows[] = {
      {"no bytes at all", derElement(0x30, success)},
      {"another type", ocspResponseOf(basicDer, "1.2.3.4")},
      {"nothing inside", ocspResponseOf("")},
      {"garbage inside", ocspResponseOf("garbage")},
      {"half of it", ocspResponseOf(basicDer.substr(0, basicDer.size() / 2))},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const Answer answer(row.der);
    EXPECT_EQ(answer.response.status(), 0);
    EXPECT_EQ(static_cast<OCSP_BASICRESP*>(answer.basic), nullptr);
    EXPECT_TRUE(answer.basic.matches(asked));
    EXPECT_TRUE(answer.basic.certificates().empty());
    EXPECT_EQ(ERR_peek_error(), 0UL);
  }
  const Answer right(ocspResponseOf(basicDer));
  EXPECT_NE(static_cast<OCSP_BASICRESP*>(right.basic), nullptr);
}

// RFC 6960, 4.2.1: a ResponderID is [1] or [2].
TEST_F(OCSPMessages, UnknownResponderIdentifier_IsNoBasicResponse) {
  const std::string name = der(X509_get_subject_name(ca.get()));
  const std::string known = derElement(0xa1, name);
  const auto withTag = [&](unsigned int tag) {
    return ocspAnswer({.signer = &ca,
                       .change =
                           [&](std::string& basic) {
                             const std::size_t at = basic.find(known);
                             ASSERT_NE(at, std::string::npos);
                             basic.at(at) = static_cast<char>(tag);
                           }},
                      ocspRequest(leaf, ca));
  };
  EXPECT_NE(static_cast<OCSP_BASICRESP*>(Answer(withTag(0xa1)).basic), nullptr);
  for (const unsigned int tag : {0xa0U, 0xa3U, 0xbeU, 0x30U}) {
    EXPECT_EQ(static_cast<OCSP_BASICRESP*>(Answer(withTag(tag)).basic), nullptr);
  }
}

TEST_F(OCSPMessages, ResponseAndBasicResponse_MayEndInAnyOrder) {
  const std::string der = ocspAnswer({.signer = &ca}, ocspRequest(leaf, ca));
  auto response = std::make_unique<OCSP::Response>(Bytes(der));
  auto basic = std::make_unique<OCSP::BasicResponse>(*response);
  const OCSP::BasicResponse again(*response);
  response.reset();
  EXPECT_EQ(basic->certificates().size(), 1U);
  basic.reset();
  EXPECT_EQ(again.certificates().size(), 1U);
}

// Whatever was changed on the way: an exception or values, and the same as without the change
// unless something reads it. What is wrong with the signature is for the client to see.
TEST_F(OCSPMessages, EveryByteChanged_IsAnExceptionOrAValue) {
  const OCSP::Request asked = request();
  const std::string whole = answerTo(
      asked, {.signer = &ca, .singles = {{.status = V_OCSP_CERTSTATUS_REVOKED, .reason = 1}}});
  int decoded = 0;
  for (std::size_t i = 0; i < whole.size(); ++i) {
    for (const unsigned int change : {0x01U, 0x80U, 0xffU}) {
      std::string changed = whole;
      changed[i] = static_cast<char>(static_cast<unsigned char>(changed[i]) ^ change);
      try {
        const Answer answer(changed);
        static_cast<void>(answer.basic.matches(asked));
        const int status = answer.response.find(answer.basic, asked.id()).status;
        EXPECT_GE(status, 0);
        EXPECT_LE(status, 2);
        ++decoded;
        for (const RefCertificate& one : answer.basic.certificates()) {
          static_cast<void>(one->subject().asString());
        }
      } catch (const Exception&) {
      }
      ERR_clear_error();
    }
  }
  EXPECT_GT(decoded, 100);
}

// --- The nonce.

TEST_F(OCSPMessages, Nonce_OnlyTwoDifferentOnesDoNotMatch) {
  struct Row {
    const char* name;
    bool inRequest;
    OCSPNonce inAnswer;
    bool matches;
  };
  const Row rows[] = {
      {"both, the same", true, OCSPNonce::Same, true},
      {"both, different", true, OCSPNonce::Other, false},
      {"neither", false, OCSPNonce::Absent, true},
      {"only in the answer", false, OCSPNonce::Other, true},
      {"only in the request", true, OCSPNonce::Absent, true},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    log.clear();
    const OCSP::Request asked = request();
    if (!row.inRequest) removeNonce(asked);
    const Answer answer(answerTo(asked, {.signer = &ca, .nonce = row.inAnswer}));
    EXPECT_EQ(answer.basic.matches(asked), row.matches);
    EXPECT_EQ(log.text(), row.matches ? "" : kMismatch);
  }
}

// --- The certificates in an answer.

TEST_F(OCSPMessages, Certificates_AreThoseOfTheAnswerInItsOrder) {
  const Answer answer(
      ocspAnswer({.signer = &ca, .firstCertificates = {&other, &leaf}}, ocspRequest(leaf, ca)));
  const std::list<RefCertificate>& certificates = answer.basic.certificates();
  EXPECT_EQ(certificates, (std::list<RefCertificate>{handle(other), handle(leaf), handle(ca)}));
  // Made once: the second call hands out the same objects.
  const Certificate* const first = certificates.front().get();
  EXPECT_EQ(&answer.basic.certificates(), &certificates);
  EXPECT_EQ(certificates.front().get(), first);
  EXPECT_EQ(certificates.size(), 3U);
  // They live longer than the answer.
  RefCertificate kept;
  {
    const Answer shorter(ocspAnswer({.signer = &ca}, ocspRequest(leaf, ca)));
    kept = shorter.basic.certificates().front();
  }
  EXPECT_TRUE(kept == handle(ca));
}

TEST_F(OCSPMessages, NoCertificates_IsAnEmptyList) {
  const Answer answer(ocspAnswer({.signer = &ca, .certificates = false}, ocspRequest(leaf, ca)));
  EXPECT_TRUE(answer.basic.certificates().empty());
  EXPECT_TRUE(answer.basic.certificates().empty());
}

// --- The status of a certificate.

TEST_F(OCSPMessages, FindGood_HasTheTimesOfTheAnswer) {
  const When thisUpdate = "20200101120000Z";
  const When nextUpdate = "20200102120000Z";
  const OCSP::Request asked = request();
  OCSP::Response::Status status;
  status.status = 99;
  {
    const Answer answer(answerTo(
        asked, {.signer = &ca, .singles = {{.thisUpdate = thisUpdate, .nextUpdate = nextUpdate}}}));
    status = answer.response.find(answer.basic, asked.id());
  }
  EXPECT_EQ(status.status, V_OCSP_CERTSTATUS_GOOD);
  EXPECT_TRUE(status.revocationTime.empty());
  ASSERT_FALSE(status.thisUpdate.empty());
  EXPECT_EQ(status.thisUpdate->seconds(), thisUpdate.time());
  ASSERT_FALSE(status.nextUpdate.empty());
  EXPECT_EQ(status.nextUpdate->seconds(), nextUpdate.time());
}

TEST_F(OCSPMessages, FindWithoutNextUpdate_ItIsEmpty) {
  const OCSP::Request asked = request();
  const Answer answer(answerTo(asked, {.signer = &ca, .singles = {{.nextUpdate = {}}}}));
  const OCSP::Response::Status status = answer.response.find(answer.basic, asked.id());
  EXPECT_FALSE(status.thisUpdate.empty());
  EXPECT_TRUE(status.nextUpdate.empty());
}

TEST_F(OCSPMessages, FindRevoked_HasReasonAndTime) {
  const OCSP::Request asked = request();
  const When when = "20210203040506Z";
  for (const int reason : {kAbsent, 0, 1, 2, 3, 4, 5, 6, 8, 9, 10, 99}) {
    const Answer answer(answerTo(
        asked,
        {.signer = &ca,
         .singles = {{.status = V_OCSP_CERTSTATUS_REVOKED, .reason = reason, .revoked = when}}}));
    const OCSP::Response::Status status = answer.response.find(answer.basic, asked.id());
    EXPECT_EQ(status.status, 1);
    EXPECT_EQ(status.reason, reason);
    ASSERT_FALSE(status.revocationTime.empty());
    EXPECT_EQ(status.revocationTime->seconds(), when.time());
  }
}

TEST_F(OCSPMessages, FindUnknown) {
  const OCSP::Request asked = request();
  const Answer answer(
      answerTo(asked, {.signer = &ca, .singles = {{.status = V_OCSP_CERTSTATUS_UNKNOWN}}}));
  EXPECT_EQ(answer.response.find(answer.basic, asked.id()).status, 2);
}

TEST_F(OCSPMessages, FindWhatIsNotListed_IsTheDefaultWhichIsGood) {
  const OCSP::Request asked = request();
  struct Row {
    const char* name;
    std::vector<OCSPSingle> singles;
  };
  const Issued twin = issueCA("O=Test,CN=CA");  // the same name with another key
  const Row rows[] = {
      {"nothing", {}},
      {"another certificate",
       {{.status = V_OCSP_CERTSTATUS_REVOKED, .certificate = &other, .issuer = &ca}}},
      {"another issuer's key",
       {{.status = V_OCSP_CERTSTATUS_REVOKED, .certificate = &leaf, .issuer = &twin}}},
      {"another digest",
       {{.status = V_OCSP_CERTSTATUS_REVOKED,
         .certificate = &leaf,
         .issuer = &ca,
         .digest = EVP_sha256()}}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const Answer answer(answerTo(asked, {.signer = &ca, .singles = row.singles}));
    const OCSP::Response::Status status = answer.response.find(answer.basic, asked.id());
    EXPECT_EQ(status.status, 0);
    EXPECT_EQ(status.reason, 0);
    EXPECT_TRUE(status.revocationTime.empty());
    EXPECT_TRUE(status.thisUpdate.empty());
    EXPECT_TRUE(status.nextUpdate.empty());
  }
}

TEST_F(OCSPMessages, FindAmongSeveral_TheFirstOfTheCertificateCounts) {
  const OCSP::Request asked = request();
  const OCSPSingle about{.status = V_OCSP_CERTSTATUS_REVOKED, .reason = 4};
  const Answer answer(answerTo(
      asked, {.signer = &ca, .singles = {{.certificate = &other, .issuer = &ca}, about, {}}}));
  EXPECT_EQ(answer.response.find(answer.basic, asked.id()).status, 1);
  const OCSP::ID id(handle(other), handle(ca), true);
  EXPECT_EQ(answer.response.find(answer.basic, id).status, 0);
  EXPECT_FALSE(answer.response.find(answer.basic, id).thisUpdate.empty());
}

TEST_F(OCSPMessages, FindWithATimeThatIsNone_IsAnException) {
  const OCSP::Request asked = request();
  const Answer answer(answerTo(asked, {.signer = &ca,
                                       .singles = {{.thisUpdate = "20200101120000Z"}},
                                       .change = [](std::string& basic) {
                                         const std::size_t at = basic.find("20200101120000Z");
                                         ASSERT_NE(at, std::string::npos);
                                         basic.replace(at, 15, "2020-1-1 12:00!");
                                       }}));
  EXPECT_THROW(answer.response.find(answer.basic, asked.id()), Exception);
}

// --- Who answers.

class OCSPIssuerSearch : public testing::Test {
 protected:
  static ASN1::RefOctetString keyId(const Issued& issued) {
    return ASN1::RefOctetString(X509_get0_subject_key_id(issued.get()));
  }
  static DistinguishedName subject(const Issued& issued) {
    return DistinguishedName(X509_get_subject_name(issued.get()));
  }
  static std::list<RefCertificate> listOf(const std::vector<const Issued*>& all) {
    std::list<RefCertificate> handles;
    for (const Issued* const one : all) handles.push_back(handle(*one));
    return handles;
  }

  const Issued first = issueCA("O=Test,CN=Twin");
  const Issued second = issue({.subject = "O=Test,CN=Twin", .ca = true, .key = first.key});
  const Issued stranger = issueCA("O=Test,CN=Stranger");
};

TEST_F(OCSPIssuerSearch, TwoFit_TheFirstOfTheList) {
  for (const auto& [list, wanted] :
       {std::pair(listOf({&stranger, &first, &second}), handle(first)),
        std::pair(listOf({&stranger, &second, &first}), handle(second))}) {
    EXPECT_EQ(OCSP::s_findIssuer(subject(first), list)->native(), wanted->native());
    EXPECT_EQ(OCSP::s_findIssuer(keyId(first), list)->native(), wanted->native());
  }
}

TEST_F(OCSPIssuerSearch, NothingFits_IsAnEmptyHandle) {
  const std::list<RefCertificate> list = listOf({&first, &second});
  EXPECT_TRUE(OCSP::s_findIssuer(subject(stranger), list).empty());
  EXPECT_TRUE(OCSP::s_findIssuer(keyId(stranger), list).empty());
  EXPECT_TRUE(OCSP::s_findIssuer(subject(first), {}).empty());
  EXPECT_TRUE(OCSP::s_findIssuer(keyId(first), {}).empty());
}

TEST_F(OCSPIssuerSearch, Names_AreComparedAsNames) {
  const Issued shout = issueCA("O=TEST,CN=twin");
  EXPECT_FALSE(OCSP::s_findIssuer(subject(shout), listOf({&first})).empty());
}

TEST_F(OCSPIssuerSearch, KeyHash_IsHeldAgainstTheExtensionAndNotTheKey) {
  const Issued bare = issue({.subject = "CN=Bare", .subjectKeyId = KeyId::Absent});
  const Issued wrong = issue({.subject = "CN=Wrong", .subjectKeyId = KeyId::Wrong});
  const auto hashOfKey = [](const Issued& issued) {
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned int length = 0;
    EXPECT_EQ(X509_pubkey_digest(issued.get(), EVP_sha1(), digest.data(), &length), 1);
    const Owned<ASN1_OCTET_STRING> octets(ASN1_OCTET_STRING_new());
    EXPECT_EQ(ASN1_OCTET_STRING_set(octets.get(), digest.data(), static_cast<int>(length)), 1);
    return ASN1::RefOctetString(octets.get());
  };
  ASSERT_TRUE(hashOfKey(first) == keyId(first));
  EXPECT_TRUE(OCSP::s_findIssuer(hashOfKey(bare), listOf({&bare, &wrong})).empty());
  EXPECT_TRUE(OCSP::s_findIssuer(hashOfKey(wrong), listOf({&bare, &wrong})).empty());
  EXPECT_EQ(OCSP::s_findIssuer(keyId(wrong), listOf({&bare, &wrong}))->native(), wrong.get());
  // Nor is an empty handle the identifier of a certificate that has none.
  EXPECT_TRUE(OCSP::s_findIssuer(ASN1::RefOctetString(), listOf({&bare})).empty());
}

// --- Answers that the openssl command made.

TEST_F(OCSPMessages, AnswersOfTheCommand_AreRead) {
  writeFile(work / "ca.crt", pem(ca.get()));
  writeFile(work / "ca.key", pem(ca.key.get()));
  const Issued unlisted = issue({.issuer = &ca});
  writeFile(work / "index.txt", "V\t99991231235959Z\t\t" + Serial(leaf).hex() +
                                    "\tunknown\t/CN=1\n"
                                    "R\t99991231235959Z\t240229120000Z,superseded\t" +
                                    Serial(other).hex() + "\tunknown\t/CN=2\n");
  struct Row {
    const char* name;
    const Issued& certificate;
    std::vector<std::string> more;
    int status;
    int reason;
    std::size_t certificates;
  };
  const Row rows[] = {
      {"good", leaf, {"-nmin", "5"}, 0, 0, 1},
      {"good by key without certificates", leaf, {"-resp_key_id", "-resp_no_certs"}, 0, 0, 0},
      {"revoked", other, {}, 1, CRL_REASON_SUPERSEDED, 1},
      {"unknown", unlisted, {}, 2, 0, 1},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const OCSP::Request asked(handle(row.certificate), handle(ca));
    writeFile(work / "req.der", textOf(asked.pdu()));
    std::vector<std::string> arguments = {
        "-index", work / "index.txt", "-CA",    work / "ca.crt",  "-rsigner", work / "ca.crt",
        "-rkey",  work / "ca.key",    "-reqin", work / "req.der", "-respout", work / "resp.der"};
    arguments.insert(arguments.end(), row.more.begin(), row.more.end());
    openssl(arguments);
    const Answer answer(readFile(work / "resp.der"));
    EXPECT_EQ(answer.response.status(), 0);
    EXPECT_EQ(OCSP_check_nonce(asked, answer.basic), 1);
    EXPECT_TRUE(answer.basic.matches(asked));
    EXPECT_FALSE(answer.basic.matches(request()));
    EXPECT_EQ(answer.basic.certificates().size(), row.certificates);
    const OCSP::Response::Status status = answer.response.find(answer.basic, asked.id());
    EXPECT_EQ(status.status, row.status);
    EXPECT_EQ(status.reason, row.reason);
    EXPECT_EQ(status.revocationTime.empty(), row.status != 1);
    if (row.status == 1) {
      EXPECT_EQ(status.revocationTime->seconds(), When("20240229120000Z").time());
    }
    EXPECT_EQ(status.nextUpdate.empty(), row.more.empty() || row.more.front() != "-nmin");
  }
}

}  // namespace
}  // namespace Velantrix::Test
