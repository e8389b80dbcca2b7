#include "JsonText.h"
#include "Report.h"

#include <nlohmann/json.hpp>

namespace Velantrix::Tool {

namespace {

using Json = nlohmann::ordered_json;

Json toJson(const Report& report) {
  Json chain = Json::array();
  for (const Report::Link& link : report.chain) {
    chain.push_back({{"subject", link.subject}, {"issuer", link.issuer}, {"serial", link.serial}});
  }
  Json log = Json::array();
  for (const Report::LogLine& line : report.log) {
    log.push_back({{"priority", line.priority}, {"text", line.text}});
  }
  Json json = {{"file", report.file},
               {"verdict", report.valid() ? "valid" : "invalid"},
               {"code", report.code},
               {"text", report.text}};
  if (report.pathKnown) {
    json["depth"] = report.depth;
    json["chain"] = std::move(chain);
  }
  json["log"] = std::move(log);
  return json;
}

}  // namespace

std::string jsonReport(const std::vector<Report>& reports) {
  Json all = Json::array();
  for (const Report& report : reports) all.push_back(toJson(report));
  return jsonText(all);
}

}  // namespace Velantrix::Tool
