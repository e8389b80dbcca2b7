#include "revocation/OCSPSigner.h"

#include "foundation/model/ExtensionDecoder.h"
#include "foundation/model/StrictTime.h"
#include "foundation/openssl/KnownSignatures.h"
#include "foundation/openssl/MemoryCheck.h"
#include "foundation/openssl/OpenSSLOwners.h"
#include "revocation/SignatureStrength.h"

#include <velantrix/CertificateFactory.h>
#include <velantrix/Exception.h>

#include <openssl/x509_vfy.h>

#include <algorithm>
#include <array>
#include <cstddef>

namespace Velantrix::Crypto::PKX509::Revocation {

namespace {

// How many certificates of an answer, of those that have the signer's name or key, are looked at:
// each may cost the verification of two signatures.
constexpr int kMaximumDelegates = 16;

// 4.2.1: KeyHash is the "SHA-1 hash of responder's public key (excluding the tag and length
// fields)". It is computed: a subject key identifier is whatever the certificate's issuer put there.
bool hasKeyHash(const X509* candidate, const ASN1_OCTET_STRING* keyHash) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> hash{};
  unsigned int length = 0;
  if (X509_pubkey_digest(candidate, EVP_sha1(), hash.data(), &length) != 1) return false;
  const unsigned char* const named = ASN1_STRING_get0_data(keyHash);
  return ASN1_STRING_length(keyHash) == static_cast<int>(length) &&
         std::equal(named, named + length, hash.begin());
}

// 4.2.1: ResponderID ::= CHOICE { byName, byKey }
bool isResponder(const OCSP_BASICRESP* basic, const X509* candidate) {
  const ASN1_OCTET_STRING* keyHash = nullptr;
  const X509_NAME* name = nullptr;
  if (OCSP_resp_get0_id(basic, &keyHash, &name) != 1) return false;
  if (name != nullptr) return X509_NAME_cmp(name, X509_get_subject_name(candidate)) == 0;
  return hasKeyHash(candidate, keyHash);
}

// 4.2.2.2, 3: "Includes a value of id-kp-OCSPSigning in an extended key usage extension".
// anyExtendedKeyUsage is another value.
bool hasOCSPSigning(const RefCertificate& candidate) {
  const Owned<EXTENDED_KEY_USAGE> purposes =
      decodeOnlyExtension(X509_get0_extensions(candidate->native()), NID_ext_key_usage,
                          d2i_EXTENDED_KEY_USAGE, "Revocation::OCSPSigner");
  for (int i = 0; i < sk_ASN1_OBJECT_num(purposes.get()); ++i) {
    if (OBJ_obj2nid(sk_ASN1_OBJECT_value(purposes.get(), i)) == NID_OCSP_sign) return true;
  }
  return false;
}

// RFC 5280, 4.2.1.12: id-kp-OCSPSigning goes with digitalSignature and nonRepudiation.
bool hasKeyUsageForAnswers(const RefCertificate& candidate) {
  return (candidate->keyUsage() & (KU_DIGITAL_SIGNATURE | KU_NON_REPUDIATION)) != 0;
}

bool haveSameKey(const X509* one, const X509* other) {
  const EVP_PKEY* const key = X509_get0_pubkey(one);
  const EVP_PKEY* const otherKey = X509_get0_pubkey(other);
  return key != nullptr && otherKey != nullptr && EVP_PKEY_eq(key, otherKey) == 1;
}

class SignerSearch {
 public:
  SignerSearch(const OCSP_BASICRESP* basic, const RefCertificate& certificate,
               const RefCertificate& issuer, const RevocationSettings& settings,
               const Moment& moment)
      : basic_(basic),
        certificate_(certificate),
        issuer_(issuer),
        settings_(settings),
        moment_(moment) {}

  // 4.2.2.2: one of the three criteria has to be met.
  OCSPSigner find() {
    if (findCA() || findConfigured() || findDelegate()) signer_.refused.reset();
    return signer_;
  }

 private:
  // 4.2.2.2, 2: "Is the certificate of the CA that issued the certificate in question".
  bool findCA() { return isResponder(basic_, issuer_) && hasSigned(issuer_); }

  // 4.2.2.2, 1: "Matches a local configuration of OCSP signing authority".
  bool findConfigured() {
    return std::any_of(settings_.ocspResponders.begin(), settings_.ocspResponders.end(),
                       [this](const RefCertificate& responder) {
                         return !responder.empty() && isResponder(basic_, responder) &&
                                isConfiguredSigner(responder);
                       });
  }

  bool isConfiguredSigner(const RefCertificate& responder) {
    if (isInQuestion(responder)) return refuse(Reason::kSignerNotAllowed, responder);
    return isTimely(responder) && hasSigned(responder);
  }

  // 4.2.2.2, 3: a certificate "issued by the CA that issued the certificate in question".
  bool findDelegate() {
    const STACK_OF(X509)* const sent = OCSP_resp_get0_certs(basic_);
    int candidates = 0;
    for (int i = 0; i < sk_X509_num(sent) && candidates < kMaximumDelegates; ++i) {
      if (!isResponder(basic_, sk_X509_value(sent, i))) continue;
      ++candidates;
      if (isDelegatedSigner(sk_X509_value(sent, i))) return true;
    }
    return false;
  }

  bool isDelegatedSigner(X509* sent) {
    const RefCertificate candidate = CertificateFactory()(sent, false);
    if (!isDelegate(candidate)) return refuse(Reason::kSignerNotAllowed, candidate);
    // One that has expired does not hide another of the same key.
    signer_.isDelegate = isTimely(candidate) && hasSigned(candidate);
    return signer_.isDelegate;
  }

  // 4.2.2.2: "issued directly by the CA that is identified in the request", and recognised "only if
  // the delegation certificate and the certificate being checked for revocation were signed by the
  // same key". The signature comes last, it is what costs.
  bool isDelegate(const RefCertificate& candidate) const {
    try {
      return !isInQuestion(candidate) && candidate->issuer() == issuer_->subject() &&
             hasOCSPSigning(candidate) && hasKeyUsageForAnswers(candidate) &&
             isSignedByHolder(candidate, issuer_);
    } catch (const Exception&) {
      return false;  // an extension that cannot be read allows nothing
    }
  }

  // Nobody is asked about himself, under whatever certificate of his key.
  bool isInQuestion(const RefCertificate& candidate) const {
    return haveSameKey(candidate, certificate_);
  }

  // 3.2 (2): "The signature on the response is valid". The key is one that somebody vouches for.
  bool hasSigned(const RefCertificate& candidate) {
    EVP_PKEY* const key = X509_get0_pubkey(candidate);
    if (key == nullptr) return refuse(Reason::kSignerNotAllowed, candidate);
    const X509_ALGOR* const algorithm = OCSP_resp_get0_tbs_sigalg(basic_);
    const MemoryCheck memory;
    if (ASN1_item_verify(ASN1_ITEM_rptr(OCSP_RESPDATA), algorithm, OCSP_resp_get0_signature(basic_),
                         OCSP_resp_get0_respdata(basic_), key) != 1) {
      memory.orThrow();
      return refuse(Reason::kWrongSignature, candidate);
    }
    if (!reachesLevel(settings_.securityLevel, algorithm, key)) {
      return refuse(Reason::kTooWeak, candidate);
    }
    signer_.certificate = candidate;
    return true;
  }

  // RFC 5280, 4.1.2.5: from notBefore through notAfter.
  bool isTimely(const RefCertificate& candidate) {
    const std::optional<Time> notBefore = strictTime(X509_get0_notBefore(candidate));
    const std::optional<Time> notAfter = strictTime(X509_get0_notAfter(candidate));
    const bool hasBegun = notBefore && *notBefore <= moment_.checked;
    if (hasBegun && notAfter && moment_.checked <= *notAfter) return true;
    const int code = hasBegun ? X509_V_ERR_CERT_HAS_EXPIRED : X509_V_ERR_CERT_NOT_YET_VALID;
    return refuse(Reason::kSignerNotValid, candidate, Objection{candidate, 0, code});
  }

  // Of several candidates the one that came furthest says why there is no signer; of those that came
  // as far as each other, the first.
  bool refuse(Reason reason, const RefCertificate& candidate,
              const std::optional<Objection>& objection = {}) {
    constexpr std::array<Reason, 5> kOrder = {Reason::kSignerUnknown, Reason::kSignerNotAllowed,
                                              Reason::kSignerNotValid, Reason::kWrongSignature,
                                              Reason::kTooWeak};
    const auto reached = std::find(kOrder.begin(), kOrder.end(), *signer_.refused);
    if (reason == *signer_.refused || std::find(reached, kOrder.end(), reason) == kOrder.end()) {
      return false;
    }
    signer_.refused = reason;
    signer_.about = {.certificate = candidate, .objection = objection};
    return false;
  }

  const OCSP_BASICRESP* basic_;
  const RefCertificate& certificate_;
  const RefCertificate& issuer_;
  const RevocationSettings& settings_;
  const Moment& moment_;
  OCSPSigner signer_ = {.refused = Reason::kSignerUnknown};
};

}  // namespace

OCSPSigner findOCSPSigner(const OCSP_BASICRESP* basic, const RefCertificate& certificate,
                          const RefCertificate& issuer, const RevocationSettings& settings,
                          const Moment& moment) {
  return SignerSearch(basic, certificate, issuer, settings, moment).find();
}

}  // namespace Velantrix::Crypto::PKX509::Revocation
