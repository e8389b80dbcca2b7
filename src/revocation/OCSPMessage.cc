#include "revocation/OCSPMessage.h"

#include "foundation/openssl/Der.h"
#include "foundation/openssl/MemoryCheck.h"

#include <new>
#include <string_view>
#include <utility>

namespace Velantrix::Crypto::PKX509::Revocation {

namespace {

// 4.2.1: "The value for response SHALL be the DER encoding of BasicOCSPResponse", A.2: "The body of
// the message is the binary value of the DER encoding of the OCSPResponse". What was read is written
// again, so that there is nothing behind either of them, and nobody else reads them in another way.
bool isDer(const std::string& body, int status, OCSP_BASICRESP* basic) {
  const MemoryCheck memory;
  const Owned<OCSP_RESPONSE> again(OCSP_response_create(status, basic));
  if (again == nullptr) {
    memory.orThrow();
    return false;
  }
  return encodeWhole(i2d_OCSP_RESPONSE, again.get()) == body;
}

// 4.2.1: version [0] EXPLICIT Version DEFAULT v1; 4.2.2.3: it "MUST be v1 (value is 0)". OpenSSL has
// no getter for it.
bool isVersion1(const OCSP_BASICRESP* basic) {
  const std::string der = encodeWhole(i2d_OCSP_RESPDATA, OCSP_resp_get0_respdata(basic));
  const std::optional<DerHeader> data = derHeader(octets(der), octets(der) + der.size());
  if (!data || !data->isWholeSequence()) return false;
  const std::optional<DerHeader> first = derHeader(data->content, data->next);
  if (!first) return false;
  if (first->tagClass != V_ASN1_CONTEXT_SPECIFIC || first->tag != 0) return true;
  const std::string_view version(reinterpret_cast<const char*>(first->content),
                                 static_cast<std::size_t>(first->next - first->content));
  using namespace std::string_view_literals;
  return version == "\x02\x01\0"sv;
}

OCSPMessage refusal(Reason reason, const std::string& detail) {
  OCSPMessage message;
  message.refused = reason;
  message.detail = detail;
  return message;
}

}  // namespace

Owned<OCSP_CERTID> ocspIdentifier(const EVP_MD* digest, const RefCertificate& certificate,
                                  const RefCertificate& issuer) {
  // 4.1.1: issuerNameHash is of the issuer field of the certificate that is asked about.
  const MemoryCheck memory;
  Owned<OCSP_CERTID> id(OCSP_cert_to_id(digest, certificate, issuer));
  if (id == nullptr) memory.orThrow();
  return id;
}

std::string encodeOCSPRequest(const RefCertificate& certificate, const RefCertificate& issuer,
                              std::string nonce) {
  Owned<OCSP_CERTID> id = ocspIdentifier(EVP_sha1(), certificate, issuer);
  if (id == nullptr) return {};
  const Owned<OCSP_REQUEST> request(OCSP_REQUEST_new());
  if (request == nullptr || OCSP_request_add0_id(request.get(), id.get()) == nullptr) {
    throw std::bad_alloc();
  }
  static_cast<void>(id.release());
  if (!nonce.empty() &&
      OCSP_request_add1_nonce(request.get(), reinterpret_cast<unsigned char*>(nonce.data()),
                              static_cast<int>(nonce.size())) != 1) {
    throw std::bad_alloc();
  }
  return encodeWhole(i2d_OCSP_REQUEST, request.get());
}

OCSPMessage decodeOCSPResponse(const std::string& body) {
  const Owned<OCSP_RESPONSE> response = decodeWhole(d2i_OCSP_RESPONSE, octets(body), body.size());
  if (response == nullptr) return refusal(Reason::kMalformed, "no OCSPResponse");
  // 4.2.1: OCSPResponseStatus; the others come without an answer.
  const int status = OCSP_response_status(response.get());
  if (status != OCSP_RESPONSE_STATUS_SUCCESSFUL) {
    return refusal(Reason::kNotSuccessful, OCSP_response_status_str(status));
  }
  // 4.2.1: responseType is id-pkix-ocsp-basic, which OpenSSL looks at.
  const MemoryCheck memory;
  OCSPMessage message;
  message.basic.reset(OCSP_response_get1_basic(response.get()));
  if (message.basic == nullptr) {
    memory.orThrow();
    return refusal(Reason::kMalformed, "no BasicOCSPResponse");
  }
  if (!isDer(body, status, message.basic.get())) return refusal(Reason::kMalformed, "not DER");
  if (!isVersion1(message.basic.get())) return refusal(Reason::kMalformed, "not version 1");
  return message;
}

bool isUnknownAndCritical(X509_EXTENSION* extension) noexcept {
  if (X509_EXTENSION_get_critical(extension) == 0) return false;
  switch (OBJ_obj2nid(X509_EXTENSION_get_object(extension))) {
    case NID_id_pkix_OCSP_Nonce:          // 4.4.1
    case NID_id_pkix_OCSP_CrlID:          // 4.4.2
    case NID_id_pkix_OCSP_archiveCutoff:  // 4.4.4
    case NID_crl_reason:                  // 4.4.5, RFC 5280, 5.3.1
    case NID_invalidity_date:             // 4.4.5, RFC 5280, 5.3.2
    case NID_id_pkix_OCSP_valid:          // 4.4.8: id-pkix-ocsp 9, whatever OpenSSL calls it
    case NID_ct_cert_scts:                // RFC 6962, 3.3: says nothing of the status
      return false;
    default:  // among them the certificateIssuer of 4.4.5: it would be about another's certificate
      return true;
  }
}

}  // namespace Velantrix::Crypto::PKX509::Revocation
