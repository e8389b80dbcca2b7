#include "revocation/OCSPReading.h"

#include "foundation/base/Hex.h"
#include "foundation/model/ExtensionDecoder.h"
#include "foundation/openssl/Der.h"
#include "foundation/openssl/OpenSSLOwners.h"
#include "revocation/NullExtension.h"
#include "revocation/OCSPMessage.h"
#include "revocation/OCSPSigner.h"
#include "revocation/OCSPSingleResponses.h"

#include <velantrix/DistinguishedName.h>
#include <velantrix/Exception.h>

#include <openssl/rand.h>

#include <algorithm>
#include <cstddef>
#include <memory>
#include <string_view>

namespace Velantrix::Crypto::PKX509::Revocation {

namespace {

// RFC 8954, 2.1: a client "MUST use a length of 32 octets".
constexpr int kNonceLength = 32;

// Octets of what an answer decides the length of.
constexpr std::size_t kMaximumShown = 40;

// Without random numbers there is none, and any nonce in an answer is another's.
std::string newNonce() {
  std::string nonce(kNonceLength, '\0');
  if (RAND_bytes(reinterpret_cast<unsigned char*>(nonce.data()), kNonceLength) != 1) return {};
  return nonce;
}

bool refuse(OCSPReading& reading, Reason reason, const std::string& detail) {
  reading.refused = reason;
  reading.detail = detail;
  return false;
}

// RFC 5280, 4.2: a critical extension that is not recognised.
bool hasUnknownCriticalExtension(OCSP_BASICRESP* basic) {
  for (int i = 0; i < OCSP_BASICRESP_get_ext_count(basic); ++i) {
    if (isUnknownAndCritical(OCSP_BASICRESP_get_ext(basic, i))) return true;
  }
  return false;
}

// RFC 6960, 4.4.1; RFC 8954, 2.1: extnValue is the DER of Nonce ::= OCTET STRING(SIZE(1..32)).
bool isNonce(X509_EXTENSION* extension, const std::string& nonce) {
  std::string expected;
  appendDer(expected, V_ASN1_OCTET_STRING, false, nonce);
  const ASN1_OCTET_STRING* const value = X509_EXTENSION_get_data(extension);
  return !nonce.empty() &&
         expected == std::string_view(reinterpret_cast<const char*>(ASN1_STRING_get0_data(value)),
                                      static_cast<std::size_t>(ASN1_STRING_length(value)));
}

std::string hexOf(const ASN1_OCTET_STRING* value) {
  const auto length = static_cast<std::size_t>(ASN1_STRING_length(value));
  return hexText(ASN1_STRING_get0_data(value), std::min(length, kMaximumShown));
}

// An answer without a nonce passes: responders sign beforehand (RFC 5019, 4). One that has one has
// that of the request, and no other beside it. Else what it has.
std::optional<std::string> otherNonce(OCSP_BASICRESP* basic, const std::string& nonce) {
  const int first = OCSP_BASICRESP_get_ext_by_NID(basic, NID_id_pkix_OCSP_Nonce, -1);
  if (first < 0) return std::nullopt;
  if (OCSP_BASICRESP_get_ext_by_NID(basic, NID_id_pkix_OCSP_Nonce, first) >= 0) {
    return "it has several nonces";
  }
  X509_EXTENSION* const only = OCSP_BASICRESP_get_ext(basic, first);
  if (isNonce(only, nonce)) return std::nullopt;
  return "its nonce is " + hexOf(X509_EXTENSION_get_data(only));
}

// Who says to have signed it: 4.2.1, ResponderID. Nobody has looked at the signature.
std::string namedResponder(const OCSP_BASICRESP* basic) {
  const ASN1_OCTET_STRING* keyHash = nullptr;
  const X509_NAME* name = nullptr;
  if (OCSP_resp_get0_id(basic, &keyHash, &name) != 1) return {};
  return name != nullptr ? DistinguishedName(name).asString() : "key " + hexOf(keyHash);
}

// 4.2.2.2.1: "trust a responder for the lifetime of the responder's certificate". What is not
// written as it has to be says nothing.
bool hasNoCheck(const RefCertificate& delegate) {
  try {
    const X509_EXTENSION* const extension =
        onlyExtension(X509_get0_extensions(delegate->native()),
                      OBJ_nid2obj(NID_id_pkix_OCSP_noCheck), "Revocation::OCSPReading");
    return extension != nullptr && holdsNull(extension);
  } catch (const Exception&) {
    return false;  // there are two
  }
}

bool takeSigner(const OCSPSigner& signer, OCSPReading& reading) {
  if (signer.refused) {
    if (!signer.about.certificate.empty()) {
      reading.aboutSigner = std::make_shared<const AboutSigner>(signer.about);
    }
    return refuse(reading, *signer.refused, "");
  }
  reading.statement.responder = signer.certificate;
  if (!signer.isDelegate) return true;
  reading.delegate = signer.certificate;
  reading.delegateNeedsNoCheck = hasNoCheck(signer.certificate);
  return true;
}

}  // namespace

OCSPQuestion::OCSPQuestion(const RefCertificate& certificate, const RefCertificate& issuer,
                           bool withNonce)
    : certificate_(certificate), issuer_(issuer), withNonce_(withNonce) {
  const ErrorScope errors;
  if (withNonce_) nonce_ = newNonce();
  request_ = encodeOCSPRequest(certificate_, issuer_, nonce_);
}

OCSPQuestion::~OCSPQuestion() = default;

OCSPReading OCSPQuestion::read(const Offered<std::string>& answer,
                               const RevocationSettings& settings, const Moment& moment) const {
  const ErrorScope errors;
  OCSPReading reading;
  reading.statement.kind = Statement::Kind::kOCSP;
  reading.statement.from = answer.from;
  try {
    static_cast<void>(accept(answer.object, settings, moment, reading));
  } catch (const Exception& failure) {
    refuse(reading, Reason::kMalformed, failure.stringParameter());
  }
  return reading;
}

// RFC 6960, 3.2, in the order in which one step needs the other.
bool OCSPQuestion::accept(const std::string& body, const RevocationSettings& settings,
                          const Moment& moment, OCSPReading& reading) const {
  // 4.2.1: it is an answer at all
  const OCSPMessage message = decodeOCSPResponse(body);
  if (message.refused) return refuse(reading, *message.refused, message.detail);
  OCSP_BASICRESP* const basic = message.basic.get();
  const bool accepted = accept(basic, settings, moment, reading);
  if (!accepted && reading.statement.responder.empty()) {
    reading.statement.issuer = namedResponder(basic);
  }
  return accepted;
}

bool OCSPQuestion::accept(OCSP_BASICRESP* basic, const RevocationSettings& settings,
                          const Moment& moment, OCSPReading& reading) const {
  // 4.4
  if (hasUnknownCriticalExtension(basic)) {
    return refuse(reading, Reason::kUnknownCriticalExtension, "in the answer");
  }
  // 4.4.1; RFC 5019, 4: "Clients that do not include a nonce in the request MUST ignore any nonce that
  // may be present in the response."
  const std::optional<std::string> other =
      withNonce_ ? otherNonce(basic, nonce_) : std::optional<std::string>();
  if (other) return refuse(reading, Reason::kOtherNonce, *other);
  // 3.2 (2) to (4), 4.2.2.2
  const OCSPSigner signer = findOCSPSigner(basic, certificate_, issuer_, settings, moment);
  if (!takeSigner(signer, reading)) return false;
  // 3.2 (1), (5), (6)
  readSingleResponses(basic, certificate_, issuer_, settings, moment, reading);
  return !reading.refused;
}

}  // namespace Velantrix::Crypto::PKX509::Revocation
