// What the values of a report hold.
#pragma once

#include <pkx509/VerificationReport.h>

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Velantrix::Crypto::PKX509 {

struct VerificationReport::Finding::Content {
  Rule rule = Rule::kUnexplained;
  int depth = -1;
  Subject certificate = {};
  int code = 0;
  std::vector<Detail> details = {};
  Origin origin = {};
  std::vector<Finding> nested = {};
};

struct VerificationReport::RevocationResult::Content {
  Status status = Status::kNotChecked;
  std::vector<Statement> decidedBy = {};
  std::optional<Time> date = {};
  std::string reason = {};
};

// What every report says of a certificate.
struct CertificateFacts {
  VerificationReport::Subject subject = {};
  std::string fingerprint = {};
  std::optional<Time> notBefore = {};
  std::optional<Time> notAfter = {};
  std::size_t encodedSize = 0;  // octets
};

struct VerificationReport::Link::Content {
  std::shared_ptr<const CertificateFacts> certificate = {};  // not null
  Origin origin = {};
  RevocationResult revocation = {};
};

struct VerificationReport::Source::Content {
  Kind kind = Kind::kDirectory;
  Wanted wanted = Wanted::kCertificates;
  std::string origin = {};
  bool fromMemory = false;
  Result result = Result::kNothing;
  std::size_t found = 0;
  std::string reason = {};
  int httpStatus = 0;
  int errorNumber = 0;
  std::uint64_t bytes = 0;
  std::uint64_t microseconds = 0;
  std::optional<std::int64_t> age = {};
};

struct VerificationReport::Content {
  int code = 1;  // X509_V_ERR_UNSPECIFIED
  Time checkTime = {};
  std::vector<Link> path = {};
  std::size_t pathLeftOut = 0;
  std::vector<Finding> findings = {};
  std::size_t findingsLeftOut = 0;
  std::vector<Source> sources = {};
  std::size_t sourcesLeftOut = 0;
  Totals totals = {};
};

}  // namespace Velantrix::Crypto::PKX509
