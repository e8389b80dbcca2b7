#include "JsonText.h"
#include "Report.h"
#include "ReportJson.h"

#include <utility>

namespace Velantrix::Tool {

namespace {

Value chainOf(const Report& report) {
  Value::Array chain;
  for (const Report::Link& link : report.chain) {
    chain.push_back(
        Value::Object{{"subject", link.subject}, {"issuer", link.issuer}, {"serial", link.serial}});
  }
  return chain;
}

Value retrievalOf(const Report& report) {
  Value::Array failures;
  for (const Report::Retrieval& failure : report.retrieval) {
    failures.push_back(
        Value::Object{{"what", failure.what}, {"uri", failure.uri}, {"reason", failure.reason}});
  }
  return failures;
}

Value valueOf(const Report& report) {
  Value::Object members = {{"schemaVersion", kSchemaVersion},
                           {"file", report.file},
                           {"verdict", report.valid() ? "valid" : "invalid"},
                           {"outcome", nameOf(report.found.outcome())},
                           {"code", report.code},
                           {"text", report.text},
                           {"verifier", report.verifier}};
  if (report.pathKnown) {
    members.emplace_back("depth", report.depth);
    members.emplace_back("chain", chainOf(report));
  }
  if (!report.notes.empty()) {
    members.emplace_back("notes", Value::Array(report.notes.begin(), report.notes.end()));
  }
  if (!report.retrieval.empty()) members.emplace_back("retrieval", retrievalOf(report));
  addReport(members, report.found);
  members.emplace_back("log", logValue(report.log));
  return members;
}

}  // namespace

Value logValue(const std::vector<Report::LogLine>& lines) {
  Value::Array log;
  for (const Report::LogLine& line : lines) {
    log.push_back(Value::Object{{"priority", line.priority}, {"text", line.text}});
  }
  return log;
}

std::string jsonReport(const std::vector<Report>& reports) {
  Value::Array all;
  for (const Report& report : reports) all.push_back(valueOf(report));
  return jsonText(all);
}

}  // namespace Velantrix::Tool
