// What an OCSP answer says about one certificate, after RFC 6960, 3.2 and 4.2.2.2.
//
//   const OCSPQuestion question(certificate, issuer);
//   for (const Offered<std::string>& answer : sources.ocsp(uri, question.request()).found) {
//     const OCSPReading reading = question.read(answer, settings, moment);
//     ...
//   }
#pragma once

#include "report/RevocationOutcome.h"
#include "revocation/Offered.h"

#include <pkx509/RevocationSettings.h>
#include <velantrix/Certificate.h>
#include <velantrix/NonCopyable.h>
#include <velantrix/Time.h>

#include <openssl/ocsp.h>

#include <memory>
#include <optional>
#include <string>

namespace Velantrix::Crypto::PKX509::Revocation {

// The moment that the verification is about, and the moment at which it takes place.
struct Moment {
  Time checked = {};
  Time now = {};
};

struct OCSPReading {
  enum class Status { kGood, kRevoked, kUnknown };

  // Why the answer does not count; none when it does. Then the members below the statement are set.
  std::optional<Reason> refused = {};
  std::string detail = {};
  std::shared_ptr<const AboutSigner> aboutSigner = {};  // where it is to blame
  // Also of an answer that does not count, as far as it was read.
  Statement statement = {};

  Status status = Status::kUnknown;
  Revoked revoked = {};
  // Who signed it, when it is neither the CA itself nor a responder of the settings: a certificate that
  // the same key as the certificate in question has signed, and that may sign answers (RFC 6960,
  // 4.2.2.2). That it has a valid path, and is not revoked, is still to be found out.
  RefCertificate delegate = {};
  bool delegateNeedsNoCheck = false;  // it has id-pkix-ocsp-nocheck (RFC 6960, 4.2.2.2.1)
};

class OCSPQuestion : private NonCopyable {
 public:
  // The issuer is that of the verified path. Throws std::bad_alloc.
  OCSPQuestion(const RefCertificate& certificate, const RefCertificate& issuer,
               bool withNonce = true);
  ~OCSPQuestion();

  // The DER of an OCSPRequest for the certificate alone. Empty when OpenSSL cannot make one: then there
  // is nothing to ask with.
  const std::string& request() const noexcept { return request_; }
  // Throws std::bad_alloc.
  OCSPReading read(const Offered<std::string>& answer, const RevocationSettings& settings,
                   const Moment& moment) const;

 private:
  bool accept(const std::string& body, const RevocationSettings& settings, const Moment& moment,
              OCSPReading& reading) const;
  bool accept(OCSP_BASICRESP* basic, const RevocationSettings& settings, const Moment& moment,
              OCSPReading& reading) const;

  RefCertificate certificate_;
  RefCertificate issuer_;
  bool withNonce_;
  std::string nonce_;
  std::string request_;
};

}  // namespace Velantrix::Crypto::PKX509::Revocation
