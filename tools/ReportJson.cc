#include "ReportJson.h"

#include "ReportWords.h"

#include <optional>
#include <string>
#include <utility>

namespace Velantrix::Tool {

using Crypto::PKX509::RuleFacts;

namespace {

using Finding = VerificationReport::Finding;
using Revocation = VerificationReport::RevocationResult;

Value valueOf(const std::optional<Time>& time) { return time ? Value(timeText(*time)) : Value(); }

Value valueOf(const VerificationReport::Value& value) {
  if (const auto* const text = std::get_if<std::string>(&value)) return *text;
  if (const auto* const time = std::get_if<Time>(&value)) return timeText(*time);
  return std::get<std::int64_t>(value);
}

Value valueOf(const VerificationReport::Origin& origin) {
  Value::Object members = {{"kind", wordOf(origin.kind())}};
  if (!origin.place().empty()) members.emplace_back("place", origin.place());
  if (!origin.file().empty()) members.emplace_back("file", origin.file());
  return members;
}

Value::Object membersOf(const VerificationReport::Subject& certificate) {
  return {{"subject", certificate.subject()},
          {"issuer", certificate.issuer()},
          {"serial", certificate.serial()}};
}

Value::Object membersOf(const RuleFacts& facts) {
  return {{"rule", facts.name},
          {"outcome", nameOf(facts.outcome)},
          {"title", facts.title},
          {"advice", facts.advice}};
}

// NOLINTNEXTLINE(misc-no-recursion): as deep as verifications are nested
Value valueOf(const Finding& finding) {
  Value::Object members = membersOf(factsOf(finding.rule()));
  if (finding.depth() >= 0) members.emplace_back("depth", finding.depth());
  if (!finding.certificate().empty()) {
    members.emplace_back("certificate", membersOf(finding.certificate()));
  }
  members.emplace_back("code", finding.code());
  Value::Object details;
  for (const VerificationReport::Detail& detail : finding.details()) {
    details.emplace_back(detail.name, valueOf(detail.value));
  }
  members.emplace_back("details", std::move(details));
  members.emplace_back("origin", valueOf(finding.origin()));
  Value::Array nested;
  for (const Finding& one : finding.nested()) nested.push_back(valueOf(one));
  members.emplace_back("findings", std::move(nested));
  return members;
}

Value valueOf(const Revocation::Statement& statement) {
  Value::Object members = {{"kind", wordOf(statement.kind)}, {"issuer", statement.issuer}};
  if (!statement.number.empty()) members.emplace_back("number", statement.number);
  members.emplace_back("thisUpdate", valueOf(statement.thisUpdate));
  members.emplace_back("nextUpdate", valueOf(statement.nextUpdate));
  if (statement.entries) members.emplace_back("entries", *statement.entries);
  members.emplace_back("origin", valueOf(statement.origin));
  return members;
}

Value valueOf(const Revocation& revocation) {
  Value::Object members = {{"status", wordOf(revocation.status())}};
  if (revocation.date()) members.emplace_back("date", timeText(*revocation.date()));
  if (!revocation.reason().empty()) members.emplace_back("reason", revocation.reason());
  Value::Array statements;
  for (const Revocation::Statement& one : revocation.decidedBy()) {
    statements.push_back(valueOf(one));
  }
  members.emplace_back("decidedBy", std::move(statements));
  return members;
}

Value valueOf(const VerificationReport::Link& link) {
  Value::Object members = membersOf(link.certificate());
  members.emplace_back("sha256", link.fingerprint());
  members.emplace_back("notBefore", valueOf(link.notBefore()));
  members.emplace_back("notAfter", valueOf(link.notAfter()));
  members.emplace_back("origin", valueOf(link.origin()));
  members.emplace_back("revocation", valueOf(link.revocation()));
  return members;
}

Value valueOf(const VerificationReport::Source& source) {
  Value::Object members = {{"kind", wordOf(source.kind())}, {"wanted", wordOf(source.wanted())},
                           {"origin", source.origin()},     {"result", wordOf(source.result())},
                           {"found", source.found()},       {"fromMemory", source.fromMemory()}};
  if (!source.reason().empty()) members.emplace_back("reason", source.reason());
  if (source.httpStatus() != 0) members.emplace_back("httpStatus", source.httpStatus());
  if (source.errorNumber() != 0) members.emplace_back("errno", source.errorNumber());
  if (source.age()) members.emplace_back("ageSeconds", *source.age());
  members.emplace_back("bytes", source.bytes());
  members.emplace_back("microseconds", source.microseconds());
  return members;
}

template <class Range>
Value arrayOf(const Range& range) {
  Value::Array array;
  for (const auto& one : range) array.push_back(valueOf(one));
  return array;
}

Value totalsOf(const VerificationReport& report) {
  const VerificationReport::Totals& totals = report.totals();
  return Value::Object{{"microseconds", totals.microseconds},
                       {"networkMicroseconds", totals.networkMicroseconds},
                       {"networkBytes", totals.networkBytes},
                       {"lookups", totals.lookups}};
}

}  // namespace

void addReport(Value::Object& members, const VerificationReport& report) {
  if (!report.valid()) members.emplace_back("line", report.line());
  members.emplace_back("checkTime", timeText(report.checkTime()));
  members.emplace_back("path", arrayOf(report.path()));
  members.emplace_back("findings", arrayOf(report.findings()));
  members.emplace_back("sources", arrayOf(report.sources()));
  members.emplace_back("totals", totalsOf(report));
  members.emplace_back("leftOut", Value::Object{{"path", report.pathLeftOut()},
                                                {"findings", report.findingsLeftOut()},
                                                {"sources", report.sourcesLeftOut()}});
}

void addAnswer(Value::Object& members, const VerificationReport& report) {
  members.emplace_back("outcome", nameOf(report.outcome()));
  if (!report.valid()) members.emplace_back("line", report.line());
  members.emplace_back("findings", arrayOf(report.findings()));
  members.emplace_back("sources", arrayOf(report.sources()));
}

}  // namespace Velantrix::Tool
