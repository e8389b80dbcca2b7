#include "support/OCSPBuilder.h"

#include <array>
#include <memory>
#include <stdexcept>

namespace Velantrix::Test {

namespace {

template <class T, void (*function)(T*)>
struct FreeBy {
  void operator()(T* object) const noexcept { function(object); }
};
using OwnedBasic = std::unique_ptr<OCSP_BASICRESP, FreeBy<OCSP_BASICRESP, &OCSP_BASICRESP_free>>;
using OwnedId = std::unique_ptr<OCSP_CERTID, FreeBy<OCSP_CERTID, &OCSP_CERTID_free>>;
using OwnedRequest = std::unique_ptr<OCSP_REQUEST, FreeBy<OCSP_REQUEST, &OCSP_REQUEST_free>>;
using OwnedResponse = std::unique_ptr<OCSP_RESPONSE, FreeBy<OCSP_RESPONSE, &OCSP_RESPONSE_free>>;

void must(bool done, const char* function) {
  if (!done) throw std::runtime_error(std::string("OCSPBuilder: ") + function);
}

template <class T, class I2d>
std::string encoded(T* object, I2d i2d) {
  unsigned char* bytes = nullptr;
  const int length = i2d(object, &bytes);
  const Crypto::OwnedMemory<unsigned char> owner(bytes);
  must(length > 0, "i2d");
  return std::string(bytes, bytes + length);
}

OwnedRequest decodedRequest(std::string_view der) {
  const std::vector<unsigned char> bytes(der.begin(), der.end());
  const unsigned char* at = bytes.data();
  OwnedRequest request(d2i_OCSP_REQUEST(nullptr, &at, static_cast<long>(bytes.size())));
  must(request != nullptr, "d2i_OCSP_REQUEST");
  return request;
}

Owned<ASN1_TIME> makeTime(const std::optional<When>& when) {
  if (!when.has_value()) return nullptr;
  Owned<ASN1_TIME> time(ASN1_TIME_set(nullptr, when->time()));
  must(time != nullptr, "ASN1_TIME_set");
  return time;
}

OwnedId makeId(const OCSPSingle& single, OCSP_REQUEST* request) {
  OwnedId id;
  if (single.certificate != nullptr) {
    must(single.issuer != nullptr, "a certificate without its issuer");
    id.reset(OCSP_cert_to_id(single.digest, single.certificate->get(), single.issuer->get()));
  } else {
    OCSP_ONEREQ* const first = OCSP_request_onereq_get0(request, 0);
    must(first != nullptr, "the request asks about nothing");
    id.reset(OCSP_CERTID_dup(OCSP_onereq_get0_id(first)));
  }
  must(id != nullptr, "OCSP_CERTID");
  return id;
}

void add(OCSP_BASICRESP* basic, const OCSPSingle& single, OCSP_REQUEST* request) {
  const OwnedId id = makeId(single, request);
  const Owned<ASN1_TIME> revoked = makeTime(single.revoked);
  const Owned<ASN1_TIME> thisUpdate = makeTime(single.thisUpdate);
  const Owned<ASN1_TIME> nextUpdate = makeTime(single.nextUpdate);
  OCSP_SINGLERESP* const added =
      OCSP_basic_add1_status(basic, id.get(), single.status, single.reason, revoked.get(),
                             thisUpdate.get(), nextUpdate.get());
  must(added != nullptr, "OCSP_basic_add1_status");
  for (const RawExtension& description : single.extensions) {
    must(OCSP_SINGLERESP_add_ext(added, makeExtension(description).get(), -1) == 1,
         "OCSP_SINGLERESP_add_ext");
  }
}

void addNonce(OCSP_BASICRESP* basic, OCSPNonce nonce, OCSP_REQUEST* request) {
  if (nonce == OCSPNonce::Same) must(OCSP_copy_nonce(basic, request) > 0, "OCSP_copy_nonce");
  if (nonce == OCSPNonce::Other) {
    std::array<unsigned char, 16> other{};
    must(OCSP_basic_add1_nonce(basic, other.data(), static_cast<int>(other.size())) == 1,
         "OCSP_basic_add1_nonce");
  }
}

void setProducedAt(OCSP_BASICRESP* basic, const When& when) {
  // There is a getter only.
  auto* const producedAt = const_cast<ASN1_GENERALIZEDTIME*>(OCSP_resp_get0_produced_at(basic));
  must(ASN1_GENERALIZEDTIME_set(producedAt, when.time()) != nullptr, "ASN1_GENERALIZEDTIME_set");
}

std::string signatureOf(const std::string& data, EVP_PKEY* key, const EVP_MD* digest) {
  const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(),
                                                                        EVP_MD_CTX_free);
  const auto* const bytes = reinterpret_cast<const unsigned char*>(data.data());
  std::size_t length = 0;
  must(EVP_DigestSignInit(context.get(), nullptr, digest, nullptr, key) == 1 &&
           EVP_DigestSign(context.get(), nullptr, &length, bytes, data.size()) == 1,
       "EVP_DigestSignInit");
  std::string signature(length, '\0');
  must(EVP_DigestSign(context.get(), reinterpret_cast<unsigned char*>(signature.data()), &length,
                      bytes, data.size()) == 1,
       "EVP_DigestSign");
  signature.resize(length);
  return signature;
}

/// The same answer with its data changed, and with a signature by another key.
std::string signedAgain(OCSP_BASICRESP* basic, const OCSPAnswer& description) {
  std::string data = encoded(OCSP_resp_get0_respdata(basic), i2d_OCSP_RESPDATA);
  if (description.changeData) description.changeData(data);
  EVP_PKEY* const key = description.key ? description.key.get() : description.signer->key.get();
  std::string certificates;
  const STACK_OF(X509)* const stack = OCSP_resp_get0_certs(basic);
  for (int i = 0; i < sk_X509_num(stack); ++i) certificates += der(sk_X509_value(stack, i));
  if (!certificates.empty()) certificates = derElement(0xa0, derElement(0x30, certificates));
  return derElement(0x30, data + encoded(OCSP_resp_get0_tbs_sigalg(basic), i2d_X509_ALGOR) +
                              derElement(0x03, std::string(1, '\0') +
                                                   signatureOf(data, key, description.digest)) +
                              certificates);
}

/// Changes the octet of the whole that stands so far before the end of this part of it. It is the
/// lowest bit that changes: a digit stays a digit.
void changeNearEnd(std::string& whole, const ASN1_STRING* part, std::size_t before) {
  const unsigned char* const bytes = ASN1_STRING_get0_data(part);
  const std::string text(bytes, bytes + ASN1_STRING_length(part));
  const std::size_t at = whole.find(text);
  must(at != std::string::npos && text.size() > before, "no such part");
  char& octet = whole.at(at + text.size() - 1 - before);
  octet = static_cast<char>(octet ^ 1);
}

}  // namespace

std::string ocspRequest(const Issued& certificate, const Issued& issuer, bool nonce) {
  const OwnedRequest request(OCSP_REQUEST_new());
  OwnedId id(OCSP_cert_to_id(EVP_sha1(), certificate.get(), issuer.get()));
  must(request != nullptr && id != nullptr, "OCSP_REQUEST_new");
  must(OCSP_request_add0_id(request.get(), id.get()) != nullptr, "OCSP_request_add0_id");
  static_cast<void>(id.release());
  if (nonce) {
    must(OCSP_request_add1_nonce(request.get(), nullptr, -1) == 1, "OCSP_request_add1_nonce");
  }
  return encoded(request.get(), i2d_OCSP_REQUEST);
}

std::string ocspAnswer(const OCSPAnswer& description, std::string_view request) {
  if (description.status != OCSP_RESPONSE_STATUS_SUCCESSFUL) {
    const OwnedResponse response(OCSP_response_create(description.status, nullptr));
    must(response != nullptr, "OCSP_response_create");
    return encoded(response.get(), i2d_OCSP_RESPONSE);
  }
  must(description.signer != nullptr, "no signer");
  const OwnedRequest asked = decodedRequest(request);
  const OwnedBasic basic(OCSP_BASICRESP_new());
  must(basic != nullptr, "OCSP_BASICRESP_new");
  for (const OCSPSingle& single : description.singles) add(basic.get(), single, asked.get());
  addNonce(basic.get(), description.nonce, asked.get());
  for (const Issued* const one : description.firstCertificates) {
    must(OCSP_basic_add1_cert(basic.get(), one->get()) == 1, "OCSP_basic_add1_cert");
  }
  for (const RawExtension& extension : description.extensions) {
    must(OCSP_BASICRESP_add_ext(basic.get(), makeExtension(extension).get(), -1) == 1,
         "OCSP_BASICRESP_add_ext");
  }
  const unsigned long flags = (description.byKey ? OCSP_RESPID_KEY : 0UL) |
                              (description.certificates ? 0UL : OCSP_NOCERTS) |
                              (description.producedAt ? OCSP_NOTIME : 0UL);
  if (description.producedAt) setProducedAt(basic.get(), *description.producedAt);
  must(OCSP_basic_sign(basic.get(), description.signer->get(), description.signer->key.get(),
                       description.digest, nullptr, flags) == 1,
       "OCSP_basic_sign");
  std::string der = encoded(basic.get(), i2d_OCSP_BASICRESP);
  if (description.key || description.changeData) der = signedAgain(basic.get(), description);
  if (description.badSignature) changeNearEnd(der, OCSP_resp_get0_signature(basic.get()), 0);
  // The time ends with its zone.
  if (description.tampered) changeNearEnd(der, OCSP_resp_get0_produced_at(basic.get()), 1);
  if (description.change) description.change(der);
  return ocspResponseOf(der);
}

// RFC 6960, 4.2.1. OpenSSL could only wrap what it understands.
std::string ocspResponseOf(std::string_view basic, const std::string& type) {
  constexpr char kBasicType[] = "1.3.6.1.5.5.7.48.1.1";
  const Owned<ASN1_OBJECT> oid(OBJ_txt2obj(type.empty() ? kBasicType : type.c_str(), 1));
  must(oid != nullptr, "OBJ_txt2obj");
  const std::string bytes =
      derElement(0x30, encoded(oid.get(), i2d_ASN1_OBJECT) + derElement(0x04, basic));
  return derElement(0x30, derElement(0x0a, std::string(1, '\0')) + derElement(0xa0, bytes));
}

std::string derElement(unsigned char tag, std::string_view content) {
  std::string length;
  for (std::size_t left = content.size(); left != 0; left >>= 8U) {
    length.insert(length.begin(), static_cast<char>(left & 0xffU));
  }
  if (content.size() < 0x80) {
    length.assign(1, static_cast<char>(content.size()));
  } else {
    length.insert(length.begin(), static_cast<char>(0x80U | length.size()));
  }
  return static_cast<char>(tag) + length + std::string(content);
}

std::string httpBody(std::string_view message) {
  const std::size_t end = message.find("\r\n\r\n");
  must(end != std::string_view::npos, "no HTTP header");
  return std::string(message.substr(end + 4));
}

}  // namespace Velantrix::Test
