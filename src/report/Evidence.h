// What a verification leaves behind for its report. It is kept raw: texts are made when somebody reads.
#pragma once

#include "report/ObjectOrigins.h"
#include "report/Objection.h"
#include "report/RevocationOutcome.h"
#include "report/SourceRecord.h"

#include <pkx509/VerificationReport.h>
#include <velantrix/Certificate.h>
#include <velantrix/Time.h>

#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace Velantrix::Crypto::PKX509 {

struct Evidence {
  // What left the verification as an exception.
  struct Thrown {
    enum class Kind { kLibrary, kClientIdentity, kMemory, kOther };
    Kind kind = Kind::kOther;
    std::string text = {};
  };
  // Where the program decided in the library's place.
  enum class Intervention {
    kNone,
    kCallbackAccepted,  // with the last objection
    kCallbackRefused,
    kOverrideAccepted,
    kOverrideRefused
  };

  bool verified = false;  // a verification has taken place
  int code = 1;           // the verdict of isValid(); after an exception X509_V_ERR_UNSPECIFIED
  std::optional<VerificationReport::Finding> earlier = {};  // of a failure that stands
  bool earlierStands = false;                               // it is what the verdict is
  const char* refusal = nullptr;                            // why it was not begun
  bool pathVerified = false;                 // by OpenSSL alone, before revocation was looked at
  bool fellShort = false;                    // with nothing else against it
  std::vector<std::string_view> spent = {};  // what there is no more of; literals
  std::optional<Thrown> thrown = {};
  Intervention intervention = Intervention::kNone;
  bool callbackDecides = false;  // the program's own has the last word on what OpenSSL objects to
  std::vector<Objection> objections = {};  // the verdict's last
  std::optional<Objection> signer = {};    // to the path of who signed the CRL of an objection
  std::vector<Revocation::Outcome> revocation = {};  // by depth
  std::optional<int> failedDepth = {};               // whose revocation decided
  SourceRecord sources = {};
  ObjectOrigins origins = {};
  VerificationReport::Totals totals = {};
};

// What only the verifier can tell when the report is made.
struct Surroundings {
  std::vector<RefCertificate> path = {};                 // as far as it was built
  std::vector<VerificationReport::Origin> origins = {};  // of its certificates
  // What is wrong with the path beside its revocation, found by a second look.
  std::vector<Objection> again = {};
  Time checked = {};
  int securityLevel = 0;
  int maximumDepth = 0;
  std::set<std::string> requiredPolicies = {};
  std::string trustDirectory = {};
  bool issuerCameAlong = false;  // one of the name of the end's issuer, which has not issued it
  std::string crlDirectory = {};
  bool hasCRLSources = false;  // lookup methods, or that directory
  bool rulesOnly = false;      // for an outcome: findings go without what explains them
};

// What a verification leaves for the one around it.
struct LeftBehind {
  Evidence evidence = {};  // the one around has all of the sources and origins
  Surroundings surroundings = {};
};

// On a certificate that was not verified at all, since the key usage that is asked for does not fit.
VerificationReport keyUsageReport(const RefCertificate& certificate);

VerificationReport makeReport(const Evidence& evidence, const Surroundings& surroundings);

// That of the report, for less than the report costs where only rules are asked for.
Outcome outcomeOf(const Evidence& evidence, const Surroundings& surroundings);
// For `Statistics`: one that is nested in none has ended so.
void countVerification(Outcome outcome) noexcept;

// Of a nested verification, for the report of the one around it.
std::vector<VerificationReport::Finding> findingsOf(const LeftBehind& nested,
                                                    const Evidence& around);

}  // namespace Velantrix::Crypto::PKX509
