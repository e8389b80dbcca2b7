// What was found out about one certificate: a value, with the evidence.
#pragma once

#include "report/Objection.h"
#include "report/Provenance.h"

#include <velantrix/Certificate.h>
#include <velantrix/CertificateRevocationList.h>
#include <velantrix/Time.h>

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Velantrix::Crypto::PKX509 {

struct LeftBehind;  // Evidence.h

namespace Revocation {

enum class Status {
  kGood,
  kRevoked,
  kUndetermined,
  kNotNeeded  // no revocation information is ever published about it (RFC 9608)
};

// Why a CRL or an OCSP answer does not count. It neither helps nor harms then.
enum class Reason {
  kMalformed,
  kUnknownCriticalExtension,
  kNotYetValid,
  kExpired,
  kOtherIssuer,
  kOutOfScope,
  kNoBase,      // there is no complete CRL that the delta CRL updates (RFC 5280, 5.2.4)
  kSuperseded,  // a newer one of the same issuer and scope decides
  kSignerUnknown,
  kSignerNotValid,  // it has no path to the trust anchor
  kSignerRevoked,
  kSignerUndetermined,  // whether it is revoked could not be found out
  kSignerNotAllowed,    // by its key usage, or by what makes a responder one
  kRestsOnItself,       // its signer is valid only if what it says is believed
  kNamesItsSigner,      // it revokes its signer's certificate
  kWrongSignature,
  kTooWeak,        // its signature, or its signer's key
  kNoAnswer,       // the responder gave none
  kNotSuccessful,  // the responder said why it does not answer
  kOtherNonce,
  kOtherCertificate,  // it is about others only
  kTooManyNested,
  kStatusUnknown,  // the responder does not know the certificate (RFC 6960, 2.2)
  kNotVerified     // its signature: the time was over, or somebody asked to stop
};

// What somebody has said and signed.
struct Statement {
  enum class Kind { kCRL, kDeltaCRL, kOCSP, kCertificate };

  Kind kind = Kind::kCRL;
  std::string issuer = {};  // or the responder, by its name or the hash of its key
  // Of who signed an OCSP answer, where that is known; then it says what stands before, which is left out.
  RefCertificate responder = {};
  std::string number = {};  // of a CRL
  std::optional<Time> thisUpdate = {};
  std::optional<Time> nextUpdate = {};
  Provenance from = {};
  // Where it is one that was read; then it says what stands before, which is left out.
  RefCertificateRevocationList crl = {};
  std::optional<Time> producedAt = {};  // of an OCSP answer
};

struct Outcome;

// What was found out about who signed a statement, where the statement does not count for it.
struct AboutSigner {
  RefCertificate certificate = {};                      // the signer's
  std::optional<Objection> objection = {};              // of OpenSSL's to its path
  std::shared_ptr<const Outcome> revocation = {};       // its own, or that of who is to blame
  std::shared_ptr<const LeftBehind> verification = {};  // of its own
  RefCertificate blamed = {};  // on the signer's path, where it is not the signer itself
};

struct SetAside {
  Statement statement = {};
  Reason reason = Reason::kMalformed;
  std::string detail = {};
  std::shared_ptr<const AboutSigner> signer = {};
};

struct Revoked {
  std::optional<int> reason = {};  // a CRLReason
  std::optional<Time> date = {};
};

struct Outcome {
  // A stranger decides how much there is to be set aside.
  static constexpr std::size_t kMaximumSetAside = 64;

  void setAsideFor(Reason reason, const Statement& statement, const std::string& detail = {},
                   const std::shared_ptr<const AboutSigner>& signer = {}) {
    if (setAside.size() < kMaximumSetAside) {
      setAside.push_back({statement, reason, detail, signer});
    } else {
      ++leftOut;
    }
  }

  Status status = Status::kUndetermined;
  int code = 0;          // an X509_V_ERR_* code; X509_V_OK for what is not refused
  Revoked revoked = {};  // where it is
  std::vector<Statement> decidedBy = {};
  std::vector<SetAside> setAside = {};
  std::size_t leftOut = 0;  // of what was set aside
  bool cut = false;         // a source that was asked may have more
  // OpenSSL's reason bits that no CRL which counts speaks about, where some do: those then follow.
  unsigned int uncoveredReasons = 0;
  std::vector<Statement> covering = {};
};

}  // namespace Revocation
}  // namespace Velantrix::Crypto::PKX509
