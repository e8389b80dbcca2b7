// OCSP requests and answers for tests, made in the process with OpenSSL alone.
//
//   const std::string request = ocspRequest(leaf, ca);
//   const std::string answer = ocspAnswer({.signer = &ca}, request);          // good
//   const std::string other = ocspAnswer(
//       {.signer = &ca, .singles = {{.status = V_OCSP_CERTSTATUS_REVOKED}}, .byKey = true},
//       request);
//   FaultServer server(Scripts::answerWith(
//       [&](const std::string& http) { return ocspAnswer({.signer = &ca}, httpBody(http)); }));
//
// Like Pki.h it uses nothing of the library under test, the defaults make a right answer to the
// request, and every option takes it away from that in one way. All texts are DER. Failures throw
// std::runtime_error.
#pragma once

#include "support/Pki.h"

#include <openssl/ocsp.h>

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Velantrix::Test {

/// What an answer says about one certificate.
struct OCSPSingle {
  int status = V_OCSP_CERTSTATUS_GOOD;
  int reason = kAbsent;  ///< CRL_REASON_*, of revoked ones
  When revoked = std::chrono::hours(-2);
  When thisUpdate = std::chrono::hours(-1);
  std::optional<When> nextUpdate = When(std::chrono::hours(24));
  /// In place of the certificate that the request names. Both are borrowed for the call.
  const Issued* certificate = nullptr;
  const Issued* issuer = nullptr;
  const EVP_MD* digest = EVP_sha1();  ///< of a certificate named here
  std::vector<RawExtension> extensions = {};
};

enum class OCSPNonce {
  Same,  ///< what the request has, also when that is none
  Absent,
  Other
};

/// Certificates are borrowed for the call.
struct OCSPAnswer {
  const Issued* signer = nullptr;  ///< needed when there is an answer at all
  std::vector<OCSPSingle> singles = {OCSPSingle{}};
  OCSPNonce nonce = OCSPNonce::Same;
  bool byKey = false;                                 ///< names its signer by key, not by name
  bool certificates = true;                           ///< carries its signer's certificate
  std::vector<const Issued*> firstCertificates = {};  ///< carried before that one
  int status = OCSP_RESPONSE_STATUS_SUCCESSFUL;       ///< others have no answer with them
  bool badSignature = false;                          ///< the signature is changed after signing
  bool tampered = false;  ///< what was signed is changed after that: the time of production
  std::vector<RawExtension> extensions = {};  ///< behind the nonce
  std::optional<When> producedAt = {};        ///< in place of now
  const EVP_MD* digest = EVP_sha256();        ///< of the signature
  std::shared_ptr<EVP_PKEY> key = {};         ///< signs in place of the signer's, but as P-256
  /// Changes the DER of the ResponseData before it is signed. Then, too, the key has to be P-256.
  std::function<void(std::string& data)> changeData = nullptr;
  /// Changes the DER of the BasicOCSPResponse after it was signed.
  std::function<void(std::string& basic)> change = nullptr;
};

/// A request with a SHA-1 identifier, and a nonce when asked for.
std::string ocspRequest(const Issued& certificate, const Issued& issuer, bool nonce = true);

std::string ocspAnswer(const OCSPAnswer& description, std::string_view request);

/// An OCSPResponse with these bytes as its answer, whatever they are. An empty type is that of a
/// BasicOCSPResponse.
std::string ocspResponseOf(std::string_view basic, const std::string& type = {});

/// One element of DER.
std::string derElement(unsigned char tag, std::string_view content);

/// What follows the header of an HTTP message.
std::string httpBody(std::string_view message);

}  // namespace Velantrix::Test
