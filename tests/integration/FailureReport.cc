#include "integration/FailureReport.h"

#include "integration/JsonSchema.h"
#include "unit/report/CountedOutcome.h"

#include <pkx509/FixedPaths.h>
#include <pkx509/HashDirLookup.h>
#include <velantrix/Uri.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <sstream>
#include <stdexcept>

namespace Velantrix::Test {

namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;

constexpr std::int64_t kPatience =
    120;  // seconds that a busy machine takes from one step to another

// What depends on when it was measured is right when it is near, and how long something took always is.
bool isRight(const ReportDetail& expected, const Report::Value& found) {
  if (expected.value.index() != found.index()) return false;
  if (expected.name == "milliseconds") return true;
  if (expected.name == "secondsFromCheckTime") {
    return std::abs(std::get<std::int64_t>(expected.value) - std::get<std::int64_t>(found)) <=
           kPatience;
  }
  if (expected.name == "checkTime") {
    return std::abs(std::get<Time>(expected.value).seconds() - std::get<Time>(found).seconds()) <=
           kPatience;
  }
  return expected.value == found;
}

void appendTexts(const ReportFinding& finding, std::string& all) {
  all += std::string(finding.name()) + "\n" + finding.certificate().subject() + "\n" +
         finding.certificate().issuer() + "\n" + finding.origin().place() + "\n" +
         finding.origin().file() + "\n";
  for (const ReportDetail& one : finding.details()) {
    if (const auto* const text = std::get_if<std::string>(&one.value)) all += *text + "\n";
  }
  for (const ReportFinding& one : finding.nested()) appendTexts(one, all);
}

std::string originText(const ReportOrigin& origin) {
  return std::to_string(static_cast<int>(origin.kind())) + " " + origin.place() + " " +
         origin.file();
}

// One message for all that is wrong with a report, since it is printed with it.
struct Complaints {
  void add(const std::string& complaint) { text += complaint + "\n"; }
  void check(bool right, const std::string& complaint) {
    if (!right) add(complaint);
  }

  std::string text = {};
};

void checkVerdict(const Heard& heard, const Told& told, Complaints& complaints) {
  complaints.check(heard.verdict == told.code, "verdict " + std::to_string(heard.verdict) +
                                                   " in place of " + std::to_string(told.code));
  complaints.check(heard.report.code() == heard.verdict, "the report has another verdict");
  complaints.check(heard.report.outcome() == told.outcome,
                   "outcome should be " + std::string(nameOf(told.outcome)));
}

void checkFinding(const ReportFinding& finding, const Told& told, Complaints& complaints) {
  const auto same = [&](const std::string& what, const auto& found, const auto& expected) {
    complaints.check(found == expected, what + " should be " + std::string(expected));
  };
  same("rule", finding.name(), factsOf(told.rule).name);
  same("subject", finding.certificate().subject(), nameOf(told.about));
  same("issuer", finding.certificate().issuer(), handle(told.about)->issuer().asString());
  same("serial", finding.certificate().serial(), Serial(told.about).hex());
  same("depth", std::to_string(finding.depth()), std::to_string(told.depth));
  complaints.check(finding.origin() == told.origin, "origin should be " + originText(told.origin));
  for (const ReportDetail& one : told.values) {
    const Report::Value* const found = finding.find(one.name);
    complaints.check(found != nullptr && isRight(one, *found),
                     std::string(one.name) + " should be " + textOf(one.value));
  }
  const std::vector<ReportFinding>& below = finding.nested();
  if (below.size() < told.below.size() ||
      !std::equal(told.below.begin(), told.below.end(), below.begin(),
                  [](Rule rule, const ReportFinding& one) { return one.rule() == rule; })) {
    complaints.add("below it should be");
    for (const Rule rule : told.below) complaints.add("    " + std::string(factsOf(rule).name));
  }
}

void checkLine(const Heard& heard, const Told& told, Complaints& complaints) {
  const std::string line = heard.report.line();
  const RuleFacts& facts = factsOf(told.rule);
  complaints.check(line.size() <= Report::kMaximumLine, "the line is too long");
  const testing::AssertionResult fit = isFitToShow(line);
  complaints.check(fit, std::string("line: ") + fit.message());
  complaints.check(line.starts_with(std::string(facts.name) + ": "), "the line begins otherwise");
  // That it is the caller's own, or came along, needs no words; what is in the cache is known by its URI.
  const bool byPlace =
      told.origin.kind() == ReportOrigin::Kind::kCache || told.origin.file().empty();
  std::vector<std::string> parts{nameOf(told.about), "depth " + std::to_string(told.depth),
                                 "serial " + Serial(told.about).hex(), std::string(facts.advice),
                                 byPlace ? told.origin.place() : told.origin.file()};
  parts.insert(parts.end(), told.inLine.begin(), told.inLine.end());
  for (const std::string& part : parts) {
    complaints.check(line.find(part) != std::string::npos, "the line has no \"" + part + "\"");
  }
  const auto logged = std::count_if(
      heard.lines.begin(), heard.lines.end(),
      [&](const LogCapture::Line& one) { return one.priority == 5 && one.text == line; });
  complaints.check(logged == 1, "logged " + std::to_string(logged) + " times");
}

std::string timeText(const Time& time) {
  const std::time_t seconds = time.seconds();
  std::tm parts{};
  char text[32] = {};
  if (::gmtime_r(&seconds, &parts) == nullptr) throw std::runtime_error("gmtime_r");
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
  return text;
}

Json jsonOf(const Report::Value& value) {
  if (const auto* const text = std::get_if<std::string>(&value)) return *text;
  if (const auto* const time = std::get_if<Time>(&value)) return timeText(*time);
  return std::get<std::int64_t>(value);
}

bool isMeasured(std::string_view name) {
  return name == "milliseconds" || name == "secondsFromCheckTime" || name == "checkTime";
}

void checkJson(const Json& document, const Told& told, Complaints& complaints) {
  const auto same = [&](const std::string& what, const Json& found, const Json& expected) {
    complaints.check(found == expected, what + " should be " + expected.dump());
  };
  same("code", document.at("code"), told.code);
  same("outcome", document.at("outcome"), nameOf(told.outcome));
  complaints.check(document.value("line", "").starts_with(factsOf(told.rule).name), "other line");
  const Json& finding = document.at("findings").at(0);
  same("rule", finding.at("rule"), factsOf(told.rule).name);
  same("advice", finding.at("advice"), factsOf(told.rule).advice);
  same("depth", finding.at("depth"), told.depth);
  same("subject", finding.at("certificate").at("subject"), nameOf(told.about));
  same("serial", finding.at("certificate").at("serial"), Serial(told.about).hex());
  // What was fetched for the library is in the cache for the tool.
  same("place", finding.at("origin").value("place", ""), told.origin.place());
  for (const ReportDetail& one : told.values) {
    const std::string name(one.name);
    const Json& details = finding.at("details");
    complaints.check(details.contains(name), name + " is missing");
    if (!isMeasured(name) && details.contains(name))
      same(name, details.at(name), jsonOf(one.value));
  }
}

// Lines are folded, and names may be of any length.
std::string unfolded(std::string_view text) {
  std::string all;
  for (const char c : text) {
    if (c > ' ' && c < 0x7f) all += c;
  }
  return all;
}

// Of each file; what belongs to it is indented.
std::vector<std::string> sectionsOf(const std::string& text) {
  std::vector<std::string> sections;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    if (line.starts_with('/')) sections.emplace_back();
    if (!sections.empty()) sections.back() += line + "\n";
  }
  return sections;
}

void checkTree(const std::string& tree, const Told& told, Complaints& complaints) {
  const std::string all = unfolded(tree);
  std::vector<std::string> parts{std::string(factsOf(told.rule).name),
                                 std::string(factsOf(told.rule).advice),
                                 nameOf(told.about),
                                 "depth " + std::to_string(told.depth),
                                 Serial(told.about).hex(),
                                 told.origin.place()};
  for (const ReportDetail& one : told.values) {
    if (isMeasured(one.name)) continue;
    const Json value = jsonOf(one.value);
    parts.push_back(value.is_string() ? value.get<std::string>() : value.dump());
  }
  for (const std::string& part : parts) {
    complaints.check(all.find(unfolded(part)) != std::string::npos, "the tree has no " + part);
  }
  std::istringstream in(tree);
  for (std::string line; std::getline(in, line);) {
    const testing::AssertionResult fit = isFitToShow(line);
    complaints.check(fit, std::string("tree: ") + fit.message());
  }
}

}  // namespace

std::string allTextsOf(const Report& report) {
  std::string all = report.line() + "\n";
  for (const ReportFinding& one : report.findings()) appendTexts(one, all);
  for (const Report::Link& one : report.path()) {
    all += one.certificate().subject() + "\n" + one.certificate().issuer() + "\n" +
           one.origin().place() + "\n" + one.origin().file() + "\n" + one.revocation().reason() +
           "\n";
    for (const auto& said : one.revocation().decidedBy()) {
      all += said.issuer + "\n" + said.origin.place() + "\n" + said.origin.file() + "\n";
    }
  }
  for (const Report::Source& one : report.sources())
    all += one.origin() + "\n" + one.reason() + "\n";
  return all;
}

void FailureReport::SetUp() {
  ToolFixture::SetUp();
  addToDirectory(kCADirectory, root.get());
  for (const Issued& one : {root, inter}) installGood(one);
}

Issued FailureReport::issuer(const std::string& name, CertificateOptions options) const {
  options.subject = "O=Test,CN=" + name;
  if (options.issuer == nullptr) options.issuer = &root;
  options.ca = true;
  return issue(options);
}

Issued FailureReport::leafOf(const Issued& issuer, CertificateOptions options) {
  if (options.subject == CertificateOptions().subject) options.subject = "O=Test,CN=Anna";
  options.issuer = &issuer;
  return issue(options);
}

Said FailureReport::saidBy(const X509_CRL* crl, const Issued& issuer) {
  Said said;
  said.values = {{"crlIssuer", nameOf(issuer)},
                 {"thisUpdate", valueOf(X509_CRL_get0_lastUpdate(crl))},
                 {"nextUpdate", valueOf(X509_CRL_get0_nextUpdate(crl))}};
  X509_CRL* const counted = const_cast<X509_CRL*>(crl);  // OpenSSL takes it so, and looks at it
  const int entries = sk_X509_REVOKED_num(X509_CRL_get_REVOKED(counted));
  said.values.push_back({"entries", std::int64_t{std::max(entries, 0)}});
  return said;
}

Said FailureReport::install(const CRLOptions& options) {
  const Owned<X509_CRL> crl = makeCRL(options);
  Said said = saidBy(crl.get(), *options.issuer);
  const std::string file = addToDirectory(kCRLDirectory, crl.get()).string();
  said.values.insert(said.values.end(), {{"directory", kCRLDirectory}, {"file", file}});
  said.origin = {ReportOrigin::Kind::kMachineCRLs, kCRLDirectory, file};
  return said;
}

Said FailureReport::inCache(Said said) {
  const std::string& uri = said.origin.place();
  said.origin = {ReportOrigin::Kind::kCache, uri,
                 (fs::path(kCRLCacheDirectory) / HashDirLookupMethod::fileName(Uri(uri))).string()};
  return said;
}

Said FailureReport::serve(const std::string& path, const CRLOptions& options) {
  const Owned<X509_CRL> crl = makeCRL(options);
  Said said = saidBy(crl.get(), *options.issuer);
  const std::string uri = places.put(path, Scripts::response(der(crl.get())));
  said.values.push_back({"uri", uri});
  said.origin = {ReportOrigin::Kind::kNetwork, uri};
  return said;
}

std::string FailureReport::installText(const X509_CRL* crl, std::string_view text) {
  int index = 0;
  fs::path file;
  do {
    file = fs::path(kCRLDirectory) / crlHashName(crl, index++);
  } while (fs::exists(fs::symlink_status(file)));
  writeFile(file, text);
  return file.string();
}

Heard FailureReport::hear(Who who, const Failure& failure) {
  RefObjectStore store(kCADirectory, X509_FILETYPE_PEM);
  if (failure.attach) failure.attach(store);
  const RefStackOfCertificate untrusted = stackOf(failure.untrusted);
  Verifier::Config config;
  if (who == Who::kConforming) config.flags = ConformingVerifier::kDefaultFlags;
  config.flags |= failure.flags;
  if (!failure.policies.empty()) config.policies = failure.policies;
  std::unique_ptr<Verifier> verifier;
  if (who == Who::kConforming) {
    verifier = std::make_unique<ConformingVerifier>(store, handle(failure.leaf), untrusted, config);
  } else {
    std::list<RefCertificate> along;
    for (const Issued& one : failure.untrusted) along.push_back(handle(one));
    store->add(along);
    verifier = std::make_unique<Verifier>(store, handle(failure.leaf), untrusted, config,
                                          who == Who::kOpenSSL);
  }
  verifier->addressPolicy(AddressPolicy());
  if (failure.prepare) failure.prepare(*verifier);
  Verifier::logReportLine(who != Who::kConforming);
  const LogCapture log;
  const Statistics before = Statistics::snapshot();
  Heard heard;
  try {
    heard.verdict = verifier->isValid();
  } catch (const std::exception&) {
    heard.verdict = X509_V_ERR_UNSPECIFIED;
  }
  heard.report = verifier->report();
  EXPECT_EQ(outcomeCountedSince(before), heard.report.outcome());
  heard.lines = log.lines();
  return heard;
}

void FailureReport::expect(const std::vector<Failure>& failures) {
  for (const Failure& failure : failures) {
    SCOPED_TRACE(failure.name);
    expectTold(hear(Who::kConforming, failure), failure.told);
    for (const Who who : failure.also) {
      SCOPED_TRACE(who == Who::kClassic ? "Verifier" : "OpenSSL's revocation");
      expectTold(hear(who, failure), failure.told);
    }
    for (const auto& [who, code] : failure.codes) {
      SCOPED_TRACE(who == Who::kClassic ? "Verifier" : "OpenSSL's revocation");
      Told told = failure.told;
      told.code = code;
      expectTold(hear(who, failure), told);
    }
  }
  expectTool(failures);
}

CommandResult FailureReport::verifyWithTool(const std::vector<Failure>& failures,
                                            const Arguments& options) const {
  Arguments all = Arguments{"verify", "--allow-address", "all"} + options;
  for (std::size_t i = 0; i < failures.size(); ++i) {
    std::string content = pem(failures[i].leaf.get());
    for (const Issued& one : failures[i].untrusted) content += pem(one.get());
    all.push_back(own(std::to_string(i) + ".pem"));
    writeFile(all.back(), content);
  }
  return tool(all);
}

// The tool is told of one set of options at a time.
void FailureReport::expectTool(const std::vector<Failure>& failures) const {
  std::map<Arguments, std::vector<Failure>> batches;
  for (const Failure& one : failures) {
    const bool plain = !one.attach && !one.prepare && one.policies.empty() && one.flags == 0;
    if (plain || !one.options.empty()) batches[one.options].push_back(one);
  }
  for (const auto& [options, batch] : batches) {
    const CommandResult asJson = verifyWithTool(batch, options + Arguments{"--json"});
    const CommandResult asTree = verifyWithTool(batch, options + Arguments{"--explain"});
    const Json documents = parsed(asJson);
    ASSERT_EQ(documents.size(), batch.size());
    EXPECT_EQ(schemaViolation(Json::parse(readFile(PKX509_SCHEMA)), documents), "");
    const std::vector<std::string> trees = sectionsOf(asTree.out);
    ASSERT_EQ(trees.size(), batch.size()) << asTree.out;
    for (std::size_t i = 0; i < batch.size(); ++i) {
      SCOPED_TRACE(batch[i].name);
      Complaints complaints;
      checkJson(documents.at(i), batch[i].told, complaints);
      if (!complaints.text.empty()) ADD_FAILURE() << complaints.text << documents.at(i).dump(1);
      complaints.text.clear();
      checkTree(trees[i], batch[i].told, complaints);
      if (!complaints.text.empty()) ADD_FAILURE() << complaints.text << trees[i];
    }
  }
}

void FailureReport::expectTold(const Heard& heard, const Told& told) {
  Complaints complaints;
  checkVerdict(heard, told, complaints);
  if (heard.report.findings().empty()) {
    complaints.add("no findings");
  } else {
    checkFinding(heard.report.findings().front(), told, complaints);
  }
  checkLine(heard, told, complaints);
  if (!complaints.text.empty()) ADD_FAILURE() << complaints.text << textOf(heard.report);
}

}  // namespace Velantrix::Test
