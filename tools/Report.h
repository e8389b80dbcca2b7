// What is said about one certificate, and how it is written.
#pragma once

#include "Terminal.h"
#include "Value.h"

#include <pkx509/VerificationReport.h>

#include <openssl/x509_vfy.h>

#include <string>
#include <vector>

namespace Velantrix::Tool {

/// The outcome of one verification. Texts are as the library gives them; writers escape.
struct Report {
  struct Link {
    std::string subject;
    std::string issuer;
    std::string serial;
  };
  struct LogLine {
    int priority;
    std::string text;
  };

  /// What could not be fetched or cached, and why.
  struct Retrieval {
    std::string what;
    std::string uri;
    std::string reason;
  };

  static constexpr const char* kClassic = "classic";
  static constexpr const char* kConforming = "conforming";

  bool valid() const noexcept { return code == X509_V_OK; }

  std::string file;
  int code = X509_V_ERR_UNSPECIFIED;   ///< `X509_V_ERR_*`, or -1 of the simple verifier
  std::string text;                    ///< OpenSSL's, for the code
  std::string verifier = kConforming;  ///< which one decided
  bool pathKnown = true;               ///< false: depth and chain are no part of the report
  int depth = 0;                       ///< of the certificate that failed; 0 is the one verified
  std::vector<Link> chain;             ///< as far as it was built, the certificate verified first
  std::vector<std::string> notes;      ///< what whoever chose the flags may not expect of them
  std::vector<LogLine> log;
  std::vector<Retrieval> retrieval;
  Crypto::PKX509::VerificationReport found;  ///< why
};

/// For people. Log lines are not part of it, see `writeLog`.
/// @param explain whether a tree says why, in the place of the chain
std::string textReport(const Report& report, const TextStyle& style, bool explain);

/// The log without the line that the text report has as well.
std::vector<Report::LogLine> logWithoutLine(const Report& report);

/// Writes log lines to standard error, each as "SUBJECT: <priority> text".
void writeLog(const std::string& subject, const std::vector<Report::LogLine>& lines);

/// Writes what could not be fetched or cached to standard error, each as "SUBJECT: what: uri: reason".
void writeRetrieval(const std::string& subject, const std::vector<Report::Retrieval>& failures);

/// Log lines for programs: an array of objects.
Value logValue(const std::vector<Report::LogLine>& lines);
/// For programs: an array of all reports. Bytes that are not UTF-8 are replaced by U+FFFD.
std::string jsonReport(const std::vector<Report>& reports);

}  // namespace Velantrix::Tool
