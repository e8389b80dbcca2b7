#include "foundation/base/Fail.h"
#include "foundation/base/Log.h"
#include "foundation/openssl/OpenSSLOwners.h"

#include <pkx509/OCSP.h>
#include <velantrix/CertificateFactory.h>

#include <algorithm>
#include <limits>
#include <new>

namespace Velantrix::Crypto::PKX509::OCSP {

namespace {

constexpr unsigned long kMaximumRequest = 4096;

}  // namespace

ID::ID(const RefCertificate& certificate, const RefCertificate& issuer, bool owns)
    : certId(OCSP_cert_to_id(nullptr, certificate->native(), issuer->native())), ownsCertId(owns) {
  if (certId == nullptr) fail({"OCSP::ID", "OCSP"}, "No identifier can be made.");
}

ID::~ID() {
  if (ownsCertId) OCSP_CERTID_free(certId);
}

void Request::Release::operator()(OCSP_REQUEST* object) const noexcept {
  OCSP_REQUEST_free(object);
}

Request::Request(const RefCertificate& certificate, const RefCertificate& issuer)
    : request(OCSP_REQUEST_new()),
      certificateId(certificate, issuer, true),
      pduBuffer(kMaximumRequest) {
  if (request == nullptr) throw std::bad_alloc();
  // The request takes the identifier, unless it has no memory to do so. Without identifier or nonce
  // the responder's answer tells.
  if (OCSP_request_add0_id(request.get(), certificateId) != nullptr) {
    certificateId.relinquishOwnerShip();
  }
  static_cast<void>(OCSP_request_add1_nonce(request.get(), nullptr, -1));
}

Request::~Request() = default;

const LW::RefBuffer& Request::pdu() const {
  if (pduBuffer->length() != 0) return pduBuffer;
  // Measured before anything is written. OpenSSL's -1 for a request that it cannot encode becomes a
  // length that fits nowhere.
  const auto length = static_cast<std::uint32_t>(i2d_OCSP_REQUEST(request.get(), nullptr));
  if (length > pduBuffer->capacity()) fail({"OCSP::Request", "OCSP"}, "Buffer overflow");
  unsigned char* position = pduBuffer->data();
  if (length == 0 || i2d_OCSP_REQUEST(request.get(), &position) <= 0 || position == nullptr) {
    fail({"OCSP::Request", "OCSP"}, "Encode failed.");
  }
  pduBuffer->length(length);
  return pduBuffer;
}

void Response::Release::operator()(OCSP_RESPONSE* object) const noexcept {
  OCSP_RESPONSE_free(object);
}

Response::Response(const LW::Buffer& bytes) {
  const ErrorScope errors;
  if (bytes.length() == 0) {
    response.reset(OCSP_RESPONSE_new());
    if (response == nullptr) throw std::bad_alloc();
    return;
  }
  const unsigned char* position = bytes.data();
  constexpr auto kMaximum = static_cast<std::size_t>(std::numeric_limits<long>::max());
  const auto length = static_cast<long>(std::min(bytes.length(), kMaximum));
  // What follows the response is nobody's statement, and no harm.
  response.reset(d2i_OCSP_RESPONSE(nullptr, &position, length));
  if (response == nullptr) fail({"OCSP::Response", "OCSP"}, "Decode failed.");
  responseStatus = OCSP_response_status(response.get());
}

Response::~Response() = default;

Response::Status Response::find(const BasicResponse& basic, const ID& id) const {
  Status found;
  int status = 0;
  int reason = 0;
  ASN1_GENERALIZEDTIME* revocationTime = nullptr;
  ASN1_GENERALIZEDTIME* thisUpdate = nullptr;
  ASN1_GENERALIZEDTIME* nextUpdate = nullptr;
  if (OCSP_resp_find_status(basic, id, &status, &reason, &revocationTime, &thisUpdate,
                            &nextUpdate) == 0) {
    return found;
  }
  found.status = status;
  found.reason = reason;
  found.revocationTime = ASN1::RefGeneralizedTime(revocationTime, true);
  found.thisUpdate = ASN1::RefGeneralizedTime(thisUpdate, true);
  found.nextUpdate = ASN1::RefGeneralizedTime(nextUpdate, true);
  return found;
}

void BasicResponse::Release::operator()(OCSP_BASICRESP* object) const noexcept {
  OCSP_BASICRESP_free(object);
}

BasicResponse::BasicResponse(const Response& response) {
  const ErrorScope errors;
  basic.reset(OCSP_response_get1_basic(response));
}

BasicResponse::~BasicResponse() = default;

bool BasicResponse::matches(const Request& request) const {
  if (basic == nullptr) return true;
  if (OCSP_check_nonce(request, basic.get()) != 0) return true;
  log(kPriorityDebug, "OCSP::BasicResponse: Request Nonce and Reply Nonce do not match.");
  return false;
}

const std::list<RefCertificate>& BasicResponse::certificates() const {
  if (!certificateCache.empty() || basic == nullptr) return certificateCache;
  const STACK_OF(X509)* const stack = OCSP_resp_get0_certs(basic.get());
  std::list<RefCertificate> made;  // all of them or none
  for (int i = 0; i < sk_X509_num(stack); ++i) {
    made.push_back(CertificateFactory()(sk_X509_value(stack, i), false));
  }
  certificateCache.swap(made);
  return certificateCache;
}

RefCertificate s_findIssuer(const ASN1::RefOctetString& keyHash,
                            const std::list<RefCertificate>& certificates) {
  for (const RefCertificate& certificate : certificates) {
    // Two absent identifiers are equal, and yet name nothing.
    const ASN1::RefOctetString own = certificate->subjectKeyIdentifier();
    if (!own.empty() && own == keyHash) return certificate;
  }
  return RefCertificate();
}

RefCertificate s_findIssuer(const DistinguishedName& name,
                            const std::list<RefCertificate>& certificates) {
  for (const RefCertificate& certificate : certificates) {
    if (certificate->subject() == name) return certificate;
  }
  return RefCertificate();
}

}  // namespace Velantrix::Crypto::PKX509::OCSP
