// `pkx509 ocsp`: asks an OCSP responder about a certificate.
#include "Input.h"
#include "JsonText.h"
#include "LogCollector.h"
#include "Printable.h"
#include "Report.h"
#include "ReportJson.h"
#include "ReportOptions.h"
#include "Responders.h"
#include "StandardStreams.h"
#include "Status.h"
#include "Subcommands.h"

#include <pkx509/FixedPaths.h>
#include <pkx509/OCSP.h>
#include <pkx509/ObjectStore.h>
#include <pkx509/VerificationReport.h>
#include <pkx509/Verifier.h>
#include <velantrix/Uri.h>

#include <algorithm>
#include <exception>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Velantrix::Tool {

using namespace Crypto;
using namespace Crypto::PKX509;

namespace {

struct OCSPOptions {
  std::string file;
  std::string chainFile;
  std::optional<std::string> caDirectory;
  std::optional<std::string> uri;
  unsigned int timeout = 0;
  ReportOptions output;
};

struct Asked {
  std::optional<std::string> uri;  // of the responder that was reached
  int code = OCSP::kNoAnswer;
  VerificationReport report;
  std::vector<Report::LogLine> log;
};

const char* meaningOf(const Asked& asked) {
  switch (asked.code) {
    case OCSP::kGood:
      return "the responder knows of no revocation";
    case OCSP::kRevoked:
      return "the certificate is revoked";
    case OCSP::kResponderNotValid:
      return "the responder's certificate is not valid";
    case OCSP::kSignatureWrong:
      return "the signature of the answer is wrong";
    case OCSP::kResponderUnknown:
      return "the responder's certificate is not known";
    default:
      return asked.uri ? "the responder gave no usable answer" : "no responder was reached";
  }
}

const char* answerWord(int code) {
  if (code == OCSP::kGood) return "good";
  return code == OCSP::kRevoked ? "revoked" : "none";
}

std::vector<Uri> respondersOf(const OCSPOptions& options, const std::list<RefCertificate>& chain) {
  if (options.uri) {
    Uri uri(*options.uri);
    if (uri.isNull()) throw ToolError("--uri: \"" + *options.uri + "\" is no URI");
    return {uri};
  }
  const RefCertificate& certificate = chain.front();
  if (std::none_of(chain.begin(), chain.end(), [&](const RefCertificate& issuer) {
        return certificate->issuedBy(issuer, false);
      })) {
    throw ToolError(options.file + ": no certificate of " + options.chainFile +
                    " has signed it, so the responders it names are not asked; --uri names one");
  }
  std::vector<Uri> uris;
  try {
    uris = respondersNamedBy(certificate);
  } catch (const std::exception& error) {
    throw ToolError(describe(options.file, error));
  }
  if (uris.empty()) throw ToolError(options.file + ": it names no OCSP responder; --uri names one");
  return uris;
}

Asked ask(const OCSPOptions& options, const std::list<RefCertificate>& chain) {
  const std::vector<Uri> responders = respondersOf(options, chain);
  const RefObjectStore store(options.caDirectory.value_or(kCADirectory), X509_FILETYPE_PEM);
  Verifier verifier(store, chain.front(), false);
  LogCollector log;
  Asked asked;
  try {
    for (const Uri& responder : responders) {
      OCSP::Client client(verifier, chain);
      client.maxQueryTime(options.timeout);
      if (client.connect(responder)) {
        asked.uri = responder.asString();
        asked.code = client.isRevoked(chain.front());
        asked.report = client.report();
        break;
      }
      // Of several that were not reached one that may be there later tells more than the others.
      if (asked.report.outcome() != Outcome::kTemporary || &responder == &responders.front()) {
        asked.report = client.report();
      }
    }
  } catch (const std::exception& error) {
    if (!options.output.quiet) writeLog(options.file, log.take());
    throw ToolError(describe(options.file, error));
  }
  asked.log = log.take();
  return asked;
}

std::string answerJson(const OCSPOptions& options, const Asked& asked) {
  Value::Object members = {{"schemaVersion", kSchemaVersion},
                           {"file", options.file},
                           {"uri", asked.uri ? Value(*asked.uri) : Value()},
                           {"answer", answerWord(asked.code)}};
  addAnswer(members, asked.report);
  members.emplace_back("code", asked.code);
  members.emplace_back("text", meaningOf(asked));
  members.emplace_back("log", logValue(asked.log));
  return jsonText(Value::Array{members});
}

std::string answerText(const OCSPOptions& options, const Asked& asked) {
  const std::string word = answerWord(asked.code);
  std::string text = printable(options.file) + ": " + (word == "none" ? "no answer" : word) +
                     ", code " + std::to_string(asked.code) + " (" + meaningOf(asked) + ")" +
                     (asked.uri ? ", from " + printable(*asked.uri) : std::string()) + "\n";
  return asked.report.valid() ? text : text + "  " + asked.report.line() + '\n';
}

void writeAnswer(const OCSPOptions& options, const Asked& asked) {
  if (options.output.quiet) return;
  if (options.output.json) {
    writeOutput(answerJson(options, asked));
    return;
  }
  writeLog(options.file, asked.log);
  writeOutput(answerText(options, asked));
}

int runOCSP(const OCSPOptions& options) {
  requireOneStandardInput({options.file, options.chainFile});
  if (options.caDirectory) requireHashDirectory("--ca-dir", *options.caDirectory);
  std::list<RefCertificate> chain = readCertificates(options.file);
  std::list<RefCertificate> rest = readCertificates(options.chainFile);
  chain.splice(chain.end(), rest);

  const Asked asked = ask(options, chain);
  writeAnswer(options, asked);
  if (asked.code == OCSP::kGood) return kAllValid;
  return statusFor(asked.report.outcome(), asked.code == OCSP::kRevoked ? kNotValid : kError,
                   options.output);
}

constexpr char kOCSPHelp[] = R"(
Asks about the first certificate of CERT. FILE holds its issuer, and whatever other certificates are on
its path; the others in CERT count as well. Without --uri the responders that the certificate names are
tried until one can be connected to, provided that the issuer's signature is on the certificate: what a
forgery names is not connected to.

An answer counts when it is signed by the issuer or another certificate of the path, or by one that came
with the answer and is valid against the trusted certificates of DIR. It is asked and judged exactly as
in a verification: HTTP/1.0 POST, port 80 unless the URI names another; the times in the answer are not
compared with the clock, and an answer that does not mention the certificate means good.

Output:
  A line with the answer, its code and the responder: good (0), revoked (1), no usable answer (2, 101
  the responder's certificate is not valid, 117 the signature is wrong, 118 the responder's certificate
  is unknown); where it is not good a line below with rule, source and what to do. Log lines go to
  standard error, as "CERT: <priority> text". With --json an array of one object: schemaVersion (1),
  file, uri (null when no responder was reached), answer ("good", "revoked" or "none"), outcome ("valid",
  "permanent", "temporary" or "local"), where it is not good line, then findings (the decisive one first)
  and sources, both as "pkx509 verify --json" has them, code, text, log (objects with priority, text);
  docs/pkx509.schema.json describes them. With --quiet there is no output but errors.

Exit status:
  0   Good.
  1   Revoked.
  2   No usable answer, wrong usage, or something that cannot be read.
  75  With --tempfail: no usable answer, and the outcome is temporary.

Examples:
  pkx509 ocsp --chain intermediates.pem person.pem
  pkx509 ocsp --chain ca.pem --uri http://ocsp.example.com/ --timeout 5 person.pem
)";

}  // namespace

void addOCSPCommand(CommandLine& commandLine) {
  const auto options = std::make_shared<OCSPOptions>();
  Subcommand command = commandLine.add("ocsp", "Asks an OCSP responder about a certificate.");
  command.argument("CERT", "certificate to ask about; - for standard input", options->file);
  command.requiredOption("--chain", "FILE", "its issuer and the rest of its path",
                         options->chainFile);
  command.option("--uri", "URI", "the responder, default those that the certificate names",
                 options->uri);
  command.option("--ca-dir", "DIR", std::string("trusted certificates, default ") + kCADirectory,
                 options->caDirectory);
  command.numberOption("--timeout", "SECONDS", "seconds for the query, default 30",
                       options->timeout, 1, 3600);
  addAnswerOptions(command, options->output);
  command.footer(kOCSPHelp);
  command.action([options] { return runOCSP(*options); });
}

}  // namespace Velantrix::Tool
