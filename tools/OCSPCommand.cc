#include "OCSPCommand.h"

#include "Input.h"
#include "JsonText.h"
#include "LogCollector.h"
#include "OCSPHelp.h"
#include "Printable.h"
#include "Report.h"
#include "StandardStreams.h"
#include "Status.h"

#include <pkx509/FixedPaths.h>
#include <pkx509/OCSP.h>
#include <pkx509/ObjectStore.h>
#include <pkx509/Verifier.h>
#include <velantrix/AuthorityInformationAccess.h>
#include <velantrix/Uri.h>

#include <openssl/x509v3.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <exception>
#include <list>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

namespace Velantrix::Tool {

using namespace Crypto;
using namespace Crypto::PKX509;

namespace {

enum Answer : int {
  kGood = 0,
  kRevoked = 1,
  kNone = 2,
  kResponderNotValid = 101,
  kSignatureWrong = 117,
  kResponderUnknown = 118
};

struct Options {
  std::string file;
  std::string chainFile;
  std::optional<std::string> caDirectory;
  std::optional<std::string> uri;
  unsigned int timeout = 0;
  bool json = false;
};

struct Asked {
  std::optional<std::string> uri;  // of the responder that was reached
  int code = kNone;
  std::vector<Report::LogLine> log;
};

const char* textOf(const Asked& asked) {
  switch (asked.code) {
    case kGood:
      return "the responder knows of no revocation";
    case kRevoked:
      return "the certificate is revoked";
    case kResponderNotValid:
      return "the responder's certificate is not valid";
    case kSignatureWrong:
      return "the signature of the answer is wrong";
    case kResponderUnknown:
      return "the responder's certificate is not known";
    default:
      return asked.uri ? "the responder gave no usable answer" : "no responder was reached";
  }
}

const char* wordOf(int code) {
  if (code == kGood) return "good";
  return code == kRevoked ? "revoked" : "none";
}

// The URIs among the responders that a certificate names.
std::vector<Uri> namedBy(const RefCertificate& certificate) {
  std::vector<Uri> uris;
  const RefAuthorityInformationAccess access(
      certificate->find(ASN1::RefObjectIdentifier("1.3.6.1.5.5.7.1.1")));
  if (access.empty()) return uris;
  for (const RefGeneralName& name : access->ocspGeneralNames()) {
    if (name->type() == GEN_URI) uris.push_back(name->uri());
  }
  return uris;
}

std::vector<Uri> respondersOf(const Options& options, const std::list<RefCertificate>& chain) {
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
    uris = namedBy(certificate);
  } catch (const std::exception& error) {
    throw ToolError(describe(options.file, error));
  }
  if (uris.empty()) throw ToolError(options.file + ": it names no OCSP responder; --uri names one");
  return uris;
}

Asked ask(const Options& options, const std::list<RefCertificate>& chain) {
  const std::vector<Uri> responders = respondersOf(options, chain);
  const RefObjectStore store(options.caDirectory.value_or(kCADirectory), X509_FILETYPE_PEM);
  Verifier verifier(store, chain.front(), false);
  LogCollector log;
  Asked asked;
  try {
    for (const Uri& responder : responders) {
      OCSP::Client client(verifier, chain);
      client.maxQueryTime(options.timeout);
      if (!client.connect(responder)) continue;
      asked.uri = responder.asString();
      asked.code = client.isRevoked(chain.front());
      break;
    }
  } catch (const std::exception& error) {
    for (const Report::LogLine& line : log.take()) writeErrorLine(logLine(options.file, line));
    throw ToolError(describe(options.file, error));
  }
  asked.log = log.take();
  return asked;
}

std::string jsonOf(const Options& options, const Asked& asked) {
  using Json = nlohmann::ordered_json;
  Json log = Json::array();
  for (const Report::LogLine& line : asked.log) {
    log.push_back({{"priority", line.priority}, {"text", line.text}});
  }
  Json all = Json::array();
  all.push_back({{"file", options.file},
                 {"uri", asked.uri ? Json(*asked.uri) : Json()},
                 {"answer", wordOf(asked.code)},
                 {"code", asked.code},
                 {"text", textOf(asked)},
                 {"log", std::move(log)}});
  return jsonText(all);
}

int run(const Options& options) {
  requireOneStandardInput({options.file, options.chainFile});
  if (options.caDirectory) requireHashDirectory("--ca-dir", *options.caDirectory);
  std::list<RefCertificate> chain = readCertificates(options.file);
  std::list<RefCertificate> rest = readCertificates(options.chainFile);
  chain.splice(chain.end(), rest);

  const Asked asked = ask(options, chain);
  if (options.json) {
    writeOutput(jsonOf(options, asked));
  } else {
    for (const Report::LogLine& line : asked.log) writeErrorLine(logLine(options.file, line));
    const std::string word = asked.code > kRevoked ? "no answer" : wordOf(asked.code);
    writeOutput(printable(options.file) + ": " + word + ", code " + std::to_string(asked.code) +
                " (" + textOf(asked) + ")" +
                (asked.uri ? ", from " + printable(*asked.uri) : std::string()) + "\n");
  }
  if (asked.code == kGood) return kAllValid;
  return asked.code == kRevoked ? kNotValid : kError;
}

}  // namespace

void addOCSPCommand(CLI::App& app, Action& action) {
  CLI::App* const command =
      app.add_subcommand("ocsp", "Asks an OCSP responder about a certificate.");
  const auto options = std::make_shared<Options>();
  command->add_option("CERT", options->file, "certificate to ask about; - for standard input")
      ->required()
      ->type_name("");
  command->add_option("--chain", options->chainFile, "its issuer and the rest of its path")
      ->required()
      ->type_name("FILE");
  command
      ->add_option_function<std::string>(
          "--uri", [options](const std::string& text) { options->uri = text; },
          "the responder, default those that the certificate names")
      ->type_name("URI");
  command
      ->add_option_function<std::string>(
          "--ca-dir", [options](const std::string& text) { options->caDirectory = text; },
          std::string("trusted certificates, default ") + kCADirectory)
      ->type_name("DIR");
  command->add_option("--timeout", options->timeout, "seconds for the query, default 30")
      ->type_name("SECONDS")
      ->check(CLI::Range(1U, 3600U));
  command->add_flag("--json", options->json, "prints JSON");
  command->footer(ocspHelp());
  command->callback([options, &action] { action = [options] { return run(*options); }; });
}

}  // namespace Velantrix::Tool
