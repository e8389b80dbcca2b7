// What was found out about one certificate: a value, with the evidence.
#pragma once

#include "revocation/Offered.h"

#include <velantrix/Time.h>

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace Velantrix::Crypto::PKX509::Revocation {

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
  kTooManyNested
};

// What somebody has said and signed.
struct Statement {
  enum class Kind { kCRL, kDeltaCRL, kOCSP, kCertificate };

  Kind kind = Kind::kCRL;
  std::string issuer = {};  // or the responder
  std::string number = {};  // of a CRL
  std::optional<Time> thisUpdate = {};
  std::optional<Time> nextUpdate = {};
  Provenance from = {};
};

struct SetAside {
  Statement statement = {};
  Reason reason = Reason::kMalformed;
  std::string detail = {};
};

struct Revoked {
  std::optional<int> reason = {};  // a CRLReason
  std::optional<Time> date = {};
};

struct Outcome {
  // A stranger decides how much there is to be set aside.
  static constexpr std::size_t kMaximumSetAside = 64;

  void setAsideFor(Reason reason, const Statement& statement, const std::string& detail = {}) {
    if (setAside.size() < kMaximumSetAside) {
      setAside.push_back({statement, reason, detail});
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
};

}  // namespace Velantrix::Crypto::PKX509::Revocation
