// `pkx509 verify`: verifies certificates.
#include "Content.h"
#include "DirectoryWarnings.h"
#include "Input.h"
#include "LogCollector.h"
#include "OptionValues.h"
#include "Progress.h"
#include "Report.h"
#include "ReportOptions.h"
#include "StandardStreams.h"
#include "Status.h"
#include "Subcommands.h"
#include "Terminal.h"
#include "Verification.h"

#include <pkx509/FixedPaths.h>

#include <algorithm>
#include <cstddef>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Velantrix::Tool {

namespace {

struct VerifyOptions {
  std::vector<std::string> files;
  std::vector<std::string> untrustedFiles;
  std::vector<std::string> policies;
  VerificationSettings settings;
  unsigned int securityLevel = static_cast<unsigned int>(settings.revocation.securityLevel);
  std::optional<std::string> ldap;
  std::optional<std::string> bindDn;
  ReportOptions output;
};

// Finds what is wrong with the command line before anything is verified.
void prepare(VerifyOptions& options) {
  std::vector<std::string> files = options.files;
  files.insert(files.end(), options.untrustedFiles.begin(), options.untrustedFiles.end());
  requireOneStandardInput(files);
  VerificationSettings& settings = options.settings;
  settings.revocation.securityLevel = static_cast<int>(options.securityLevel);
  if (options.bindDn && !options.ldap) throw ToolError("--bind-dn goes with --ldap");
  if (options.ldap) {
    settings.ldap = {ldapServer(*options.ldap), options.bindDn.value_or(""), ""};
  }
  for (const std::string& policy : options.policies) {
    requirePolicy(policy);
    settings.policies.insert(policy);
  }
  requireHashDirectory("--ca-dir", settings.caDirectory);
  for (const std::string& directory : settings.crlDirectories) {
    requireHashDirectory("--crl-dir", directory);
  }
  warnAboutTrustDirectory(settings.caDirectory);
  warnAboutCRLDirectories(settings.crlDirectories);
  for (const std::string& file : options.untrustedFiles) {
    std::list<Crypto::PKX509::RefCertificate> certificates = readCertificates(file);
    settings.untrusted.splice(settings.untrusted.end(), certificates);
  }
}

Report reportOn(const VerifyOptions& options, const std::string& file, LogCollector& log,
                Progress& progress) {
  Report report;
  try {
    const Progress::Step step(progress);
    report = verify(options.settings, readCertificates(file));
  } catch (const ToolError&) {
    throw;
  } catch (const std::exception& error) {
    if (!options.output.json && !options.output.quiet) writeLog(file, log.take());
    throw ToolError(describe(file, error));
  }
  report.file = file;
  report.log = log.take();
  return report;
}

// Nothing, and a line on standard error, where there is no verdict.
std::optional<Report> attempt(const VerifyOptions& options, const std::string& file,
                              LogCollector& log, Progress& progress) {
  try {
    return reportOn(options, file, log, progress);
  } catch (const ToolError& error) {
    writeErrorLine(std::string("pkx509: ") + error.what());
    static_cast<void>(log.take());
    return std::nullopt;
  }
}

int statusOf(const std::optional<Report>& report, const ReportOptions& options) {
  if (!report) return kError;
  return report->valid() ? kAllValid : statusFor(report->found.outcome(), kNotValid, options);
}

int runVerify(VerifyOptions& options) {
  LogCollector log;
  static_cast<void>(wantsColour(options.output.colour));  // a wrong word is found before any work
  prepare(options);
  Progress progress(options.files.size());
  int status = kAllValid;
  std::vector<Report> reports;
  for (const std::string& file : options.files) {
    std::optional<Report> report = attempt(options, file, log, progress);
    status = worse(status, statusOf(report, options.output));
    if (!report) continue;
    if (options.output.json) {
      reports.push_back(std::move(*report));
    } else {
      writeText(*report, options.output);
    }
  }
  writeJson(reports, options.output);
  return status;
}

constexpr std::string_view kBeforeFlags = R"(
The first certificate of a FILE is the one verified; others in the same file count as untrusted
certificates, from which the path may be built. CRLs are looked for in every --crl-dir, and in
/opsadmin/etc/cert/server/crl for what CRL distribution points do not settle. Directories hold PEM files
that are named by a hash, as "openssl rehash" names them.

With --ldap certificates and CRLs are looked for in that LDAP directory as well, in the entry with the
name of whom they belong to. A root that is found there only is not trusted. Without --bind-dn the tool
binds with an empty name and no password; with a DN, whatever it is, it does not bind at all and searches
as nobody. ldaps servers have to show a certificate that OpenSSL's default directory of trusted
certificates vouches for. With the flag EXPLICIT_POLICY a path must have one of the policies.

Path and revocation are held against RFC 5280, 6960 and 9608 to the letter. --security-level is
OpenSSL's, 0, 80, 112, 128, 192 or 256 bits, of certificates, CRLs and OCSP answers. CRL servers and OCSP
responders are contacted at public and private addresses; KIND allows others: loopback, link-local,
multicast, unspecified or all.

With --classic the verifier is the one of daemons that do not ask for another. It has leniencies that
others rely on: they are listed in docs/CONFORMANCE.md, and a good OCSP answer hides a revoked CA, to name
one. What an LDAP directory gives is trusted then, a root found there is a trust anchor. CRLs of
directories are looked for only where a certificate names no distribution point. There is no security
level, and every address is contacted.

TIME is in UTC: 2026-11-21T05:00:00Z, 2026-11-21 (the begin of that day), or @ and seconds since the
epoch. OpenSSL verifies as of a whole second: of 05:00:00.5 and @1795237200.5 the fraction is cut off.

DURATION is a whole number and ms, s or m: 500ms, 10s, 2m; seconds without a unit, a day at most. It counts
for each certificate by itself, from when its verification begins: files, hosts and computing. Without
--deadline there is no such bound, and hosts take a minute at most. A certificate that is not settled by
then is not valid for now: the line says that the time is spent, and the outcome is temporary.

NAME is that of a constant of OpenSSL, with or without X509_V_FLAG_, in any case, with "_" or "-":
)";

constexpr std::string_view kAfterFlags = R"(
Set by default are CRL_CHECK, CRL_CHECK_ALL, POLICY_CHECK, EXTENDED_CRL_SUPPORT and USE_DELTAS, and with
--classic X509_STRICT. --flag and --no-flag work in the order in which they are given. With CRL_CHECK and
without CRL_CHECK_ALL only the certificate itself is checked for revocation, with --classic only by CRLs:
no OCSP responder is asked. A note says so where the certificate names one.

Output:
  For each certificate its verdict, OpenSSL's code and text for it, the depth at which it failed, the
  verifier that decided and the path that was built. Under the verdict of one that is not valid stands
  why, on one line: rule, certificate, values, source and what to do; docs/REASONS.md has a section for
  each rule. Log lines go to standard error, as "FILE: <priority> text", and so does which CRL could not
  be fetched or kept in the cache, as "FILE: not fetched: URI: reason" and "FILE: not cached: URI: reason".
  With --explain a tree says why it is valid or is not: what was found against it, each certificate of the
  path with its revocation status and who says so, and the sources that were asked. It is as wide as the
  terminal, 80 columns where there is none, and has boxes where the locale is UTF-8.
  With --json everything goes to standard output, as an array of an object for each certificate:
  schemaVersion (1), file, verdict ("valid" or "invalid"), outcome (see below), code, text, verifier
  ("conforming" or "classic"), depth, chain (objects with subject, issuer, serial), where there are some,
  notes (texts) and retrieval (objects with what, uri, reason), where it is not valid line, then checkTime,
  path, findings (objects with rule, outcome, title, advice, certificate, details, origin, findings),
  sources, totals, leftOut, log (objects with priority, text). docs/pkx509.schema.json describes all of it.
  JSON is never coloured, and with NO_COLOR set in the environment or TERM being "dumb", --color=auto is
  "never".
  Warnings go to standard error, as "pkx509: warning: PATH: reason": a directory of trusted certificates
  that has none, a file in it or among the CRLs that cannot be read, a cache of CRLs that is not there.
  With --quiet there is no output but errors and warnings.

Outcome:
  permanent  Waiting does not help: revoked, forged, expired, not allowed.
  temporary  It may be valid later: a host that does not answer, a CRL that has expired, ...
  local      Something on this machine has to be mended: directories, files, settings.

Exit status:
  0   All certificates are valid.
  1   At least one is not.
  2   Wrong usage, or something that cannot be read: a certificate, a directory, a malformed CRL in a
      directory. A line on standard error names it. Certificates that could be verified are reported
      all the same, the others are not.
  75  With --tempfail: at least one is not valid, and the outcome of all of these is temporary. Of several
      certificates 2 counts before 1, and 1 before 75.

Examples:
  pkx509 verify person.pem
  pkx509 verify --ca-dir /etc/ssl/certs --crl-dir crls --untrusted chain.pem person.pem
  pkx509 verify --explain --untrusted chain.pem person.pem
  pkx509 verify --classic person.pem
  pkx509 verify --quiet --tempfail --deadline 10s person.pem
  pkx509 verify --json --at 2026-11-21T05:00:00Z a.pem b.der
  openssl s_client -showcerts -connect mx.example.com:465 </dev/null | pkx509 verify -
)";

// The names in lines of at most `width` columns, each with two blanks in front.
std::string flagLines(std::size_t width) {
  std::string lines;
  std::string line;
  for (const std::string_view name : flagNames()) {
    if (!line.empty() && line.size() + 2 + name.size() > width) {
      lines += line + '\n';
      line.clear();
    }
    line.append(line.empty() ? "  " : " ").append(name);
  }
  return lines + line + '\n';
}

std::string verifyHelp() {
  return std::string(kBeforeFlags).append(flagLines(98)).append(kAfterFlags.substr(1));
}

}  // namespace

void addVerifyCommand(CommandLine& commandLine) {
  const auto options = std::make_shared<VerifyOptions>();
  VerificationSettings& settings = options->settings;
  settings.caDirectory = Crypto::PKX509::kCADirectory;

  Subcommand command = commandLine.add(
      "verify", "Verifies certificates: path to a trusted root, revocation of all of it.");
  command.argument("FILE", "certificate to verify, PEM or DER; - for standard input",
                   options->files);
  command.option("--ca-dir", "DIR",
                 std::string("trusted certificates, default ") + Crypto::PKX509::kCADirectory,
                 settings.caDirectory);
  command.repeatableOption("--untrusted", "FILE", "certificates to build the path from; repeatable",
                           options->untrustedFiles);
  command.repeatableOption("--crl-dir", "DIR", "CRLs; repeatable", settings.crlDirectories);
  command.option("--ldap", "URI",
                 "LDAP directory of certificates and CRLs, ldap://HOST or ldaps://HOST",
                 options->ldap);
  command.option("--bind-dn", "DN",
                 "name for the LDAP directory; a name suppresses the bind, see below",
                 options->bindDn);
  command.repeatableOption("--policy", "OID",
                           "acceptable certificate policy, default any; repeatable",
                           options->policies);
  // The order among these two counts.
  command.repeatableOption("--flag", "NAME", "sets a verification flag, see below; repeatable",
                           [options](const std::string& name) {
                             const unsigned long bits = parseFlag(name);
                             options->settings.setFlags |= bits;
                             options->settings.clearedFlags &= ~bits;
                           });
  command.repeatableOption("--no-flag", "NAME", "clears a verification flag; repeatable",
                           [options](const std::string& name) {
                             const unsigned long bits = parseFlag(name);
                             options->settings.setFlags &= ~bits;
                             options->settings.clearedFlags |= bits;
                           });
  command.option("--at", "TIME", "verifies as of that time, see below",
                 [options](const std::string& text) { options->settings.at = parseTime(text); });
  command.option(
      "--deadline", "DURATION", "gives a certificate no more time than that, see below",
      [options](const std::string& text) { options->settings.deadline = parseDuration(text); });
  command.numberOption("--security-level", "N",
                       "how strong keys and signatures have to be, 0 to 5, default 2",
                       options->securityLevel, 0, 5);
  command.repeatableOption(
      "--allow-address", "KIND", "hosts at such addresses may be contacted, see below; repeatable",
      [options](const std::string& kind) { allowAddresses(kind, options->settings.addresses); });
  command.flag("--classic", "verifies with the leniencies that daemons rely on, see below",
               settings.classic);
  command.excludes("--security-level", "--classic");
  command.excludes("--allow-address", "--classic");
  command.flag("--openssl-revocation",
               "OpenSSL's revocation check in place of the library's, with --classic",
               settings.openSSLRevocation);
  command.needs("--openssl-revocation", "--classic");
  addReportOptions(command, options->output);
  command.footer(verifyHelp());
  command.action([options] { return runVerify(*options); });
}

}  // namespace Velantrix::Tool
