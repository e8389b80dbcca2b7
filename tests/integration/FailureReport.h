// Failures as an operator meets them: certificates, directories and servers that are really there, and
// what the report, its line, the log and the tool say about each.
//
//   Failure failure{.name = "expired", .leaf = leaf, .untrusted = {inter}};
//   failure.told = {.rule = Rule::kExpired, .outcome = Outcome::kPermanent, .code = 10, .about = leaf};
//   expect({failure});
//
// The outcome stands in every row, though the rule has one: the table of rules is what is tested too.
#pragma once

#include "integration/ToolFixture.h"
#include "support/FaultScripts.h"
#include "support/FaultServer.h"
#include "support/Handles.h"
#include "support/LogCapture.h"
#include "support/Pki.h"
#include "support/PrivateView.h"
#include "unit/verify/World.h"

#include <pkx509/ConformingVerifier.h>
#include <pkx509/FixedPaths.h>
#include <pkx509/VerificationReport.h>

#include <functional>
#include <gtest/gtest.h>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

namespace Velantrix::Test {

using Report = VerificationReport;
using ReportOrigin = VerificationReport::Origin;
using ReportFinding = VerificationReport::Finding;
using ReportDetail = VerificationReport::Detail;

using ReportDetails = std::vector<ReportDetail>;

inline ReportDetails operator+(ReportDetails left, const ReportDetails& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

/// What the decisive finding has to say.
struct Told {
  Rule rule = Rule::kUnexplained;
  Outcome outcome = Outcome::kPermanent;
  int code = 0;  ///< the verdict
  Issued about = {};
  int depth = 0;
  ReportDetails values = {};  ///< among others
  ReportOrigin origin = {};
  std::vector<std::string> inLine = {};  ///< beside rule, certificate, place and advice
  std::vector<Rule> below = {};          ///< of the first findings that hang below it
};

/// A CRL or an answer, as findings name it.
struct Said {
  ReportDetails values = {};
  ReportOrigin origin = {};
};

enum class Who { kConforming, kClassic, kOpenSSL };

struct Failure {
  std::string name;
  Issued leaf;
  std::list<Issued> untrusted = {};
  Told told = {};
  std::vector<Who> also = {};     ///< say the same beside the conforming verifier
  std::map<Who, int> codes = {};  ///< and so do these, with verdicts of their own
  std::set<std::string> policies = {};
  int flags = 0;           ///< beside the default ones
  Arguments options = {};  ///< of the tool, where it takes any of these
  std::function<void(RefObjectStore&)> attach = {};
  std::function<void(Verifier&)> prepare = {};
};

/// What was said about a failure.
struct Heard {
  Report report;
  int verdict = 0;  ///< of isValid(); X509_V_ERR_UNSPECIFIED after an exception
  std::vector<LogCapture::Line> lines = {};
};

/// Nothing that moves the cursor, ends the line or turns the direction of what is written.
inline testing::AssertionResult isFitToShow(std::string_view text) {
  static constexpr std::string_view kUnfit[] = {"\u061c", "\u200e", "\u200f", "\u202a", "\u202b",
                                                "\u202c", "\u202d", "\u202e", "\u2028", "\u2029",
                                                "\u2066", "\u2067", "\u2068", "\u2069", "\ufeff"};
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto octet = static_cast<unsigned char>(text[i]);
    const bool isC1 =
        octet == 0xc2 && i + 1 < text.size() && static_cast<unsigned char>(text[i + 1]) < 0xa0;
    if (octet < 0x20 || octet == 0x7f || isC1) {
      return testing::AssertionFailure() << "control character at " << i << " in " << text;
    }
  }
  for (const std::string_view one : kUnfit) {
    if (text.find(one) != std::string_view::npos) {
      return testing::AssertionFailure() << "direction or separator in " << text;
    }
  }
  return testing::AssertionSuccess();
}

inline Report::Value valueOf(const ASN1_TIME* time) {
  std::tm parts{};
  if (ASN1_TIME_to_tm(time, &parts) != 1) throw std::runtime_error("ASN1_TIME_to_tm");
  return Time::then(::timegm(&parts), true);
}

inline Report::Value valueOf(const When& when) { return Time::then(when.time(), true); }

inline std::string nameOf(const Issued& issued) { return handle(issued)->subject().asString(); }

inline std::string textOf(const Report::Value& value) {
  if (const auto* const text = std::get_if<std::string>(&value)) return "\"" + *text + "\"";
  if (const auto* const time = std::get_if<Time>(&value)) {
    return "@" + std::to_string(time->seconds());
  }
  return std::to_string(std::get<std::int64_t>(value));
}

/// A finding and what hangs below it, for whoever reads of a test that fails.
inline std::string textOf(const ReportFinding& finding, const std::string& indent = "  ") {
  std::string text = indent + std::string(finding.name()) + ", depth " +
                     std::to_string(finding.depth()) + ", " + finding.certificate().subject() +
                     ", code " + std::to_string(finding.code()) + ", from " +
                     std::to_string(static_cast<int>(finding.origin().kind())) + " " +
                     finding.origin().place() + " " + finding.origin().file() + "\n";
  for (const ReportDetail& one : finding.details()) {
    text += indent + "  " + std::string(one.name) + " " + textOf(one.value) + "\n";
  }
  for (const ReportFinding& one : finding.nested()) text += textOf(one, indent + "    ");
  return text;
}

inline std::string textOf(const Report& report) {
  std::string text = "code " + std::to_string(report.code()) + ", " +
                     std::string(nameOf(report.outcome())) + ": " + report.line() + "\n";
  for (const ReportFinding& one : report.findings()) text += textOf(one);
  for (const Report::Source& one : report.sources()) {
    text += "  source " + std::to_string(static_cast<int>(one.kind())) + " " + one.origin() +
            " -> " + std::to_string(static_cast<int>(one.result())) + " " +
            std::to_string(one.found()) + " " + one.reason() + "\n";
  }
  return text;
}

/// One web server for many places: what answers a request for each path, as a whole HTTP response.
class Places {
 public:
  using Answer = std::function<std::string(const std::string& request)>;

  std::string put(const std::string& path, Answer answer) {
    answers_[path] = std::move(answer);
    return server_.url(path);
  }
  std::string put(const std::string& path, const std::string& response) {
    return put(path, [response](const std::string& /*request*/) { return response; });
  }
  const FaultServer& server() const { return server_; }

 private:
  // Nothing is put any more when it is asked.
  void serve(Peer& peer) {
    while (const auto request = peer.readRequest()) {
      // The classic OCSP client brings a slash of its own.
      const std::size_t begin = request->find_first_not_of('/', request->find('/')) - 1;
      const auto found = answers_.find(request->substr(begin, request->find(' ', begin) - begin));
      if (found == answers_.end() || !peer.write(found->second(*request))) return;
    }
  }

  std::map<std::string, Answer> answers_;
  FaultServer server_{[this](Peer& peer) { serve(peer); }};  // last: it uses the others
};

/// Every text in the report, with a line's end behind each.
std::string allTextsOf(const Report& report);

class FailureReport : public ToolFixture {
 protected:
  // No PKI of the openssl command is needed.
  static void SetUpTestSuite() {}
  static void TearDownTestSuite() {}
  void SetUp() override;
  void TearDown() override { Verifier::logReportLine(false); }

  /// An intermediate CA below the root.
  Issued issuer(const std::string& name, CertificateOptions options = {}) const;
  /// A certificate of a person.
  static Issued leafOf(const Issued& issuer, CertificateOptions options = {});
  /// Puts it into the machine's directory and returns where it is.
  static Said install(const CRLOptions& options);
  static Said saidBy(const X509_CRL* crl, const Issued& issuer);
  /// Served by `places`.
  Said serve(const std::string& path, const CRLOptions& options);
  /// Once it was fetched.
  static Said inCache(Said said);
  static std::string installText(const X509_CRL* crl, std::string_view text);
  /// An issuer that revokes nobody.
  void installGood(const Issued& issuer) const { install({.issuer = &issuer}); }

  Heard hear(Who who, const Failure& failure);
  Report reportOf(const Failure& failure) { return hear(Who::kConforming, failure).report; }
  /// Report, line and log of each, and what the tool says.
  void expect(const std::vector<Failure>& failures);
  void expectTool(const std::vector<Failure>& failures) const;
  /// "verify" with all hosts allowed, of a file for each.
  CommandResult verifyWithTool(const std::vector<Failure>& failures,
                               const Arguments& options) const;
  static void expectTold(const Heard& heard, const Told& told);

  Places places;
  const Issued root = issueCA("O=Test,CN=Root");
  const Issued inter = issueCA("O=Test,CN=Inter", &root);
};

}  // namespace Velantrix::Test
