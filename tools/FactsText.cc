#include "Facts.h"
#include "Printable.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace Velantrix::Tool {

namespace {

struct Label {
  std::string_view key;
  std::string_view text;
  std::string_view absent = "none";
  bool words = false;  // an array of words goes on one line, one of names on a line for each
};

constexpr std::array kLabels = {
    Label{"subject", "subject"},
    Label{"issuer", "issuer"},
    Label{"serial", "serial"},
    Label{"notBefore", "not before"},
    Label{"notAfter", "not after"},
    Label{"keyAlgorithm", "key algorithm"},
    Label{"keyBits", "key bits"},
    Label{"subjectKeyIdentifier", "subject key id"},
    Label{"authorityKeyIdentifier", "authority key id"},
    Label{"keyUsage", "key usage", "not restricted", true},
    Label{"ca", "CA"},
    Label{"pathLength", "path length"},
    Label{"selfSigned", "self-signed"},
    Label{"crlDistributionPoints", "CRL distribution point"},
    Label{"ocsp", "OCSP location"},
    Label{"emails", "email address"},
    Label{"crlNumber", "CRL number"},
    Label{"baseCRLNumber", "base CRL number", "none (no delta CRL)"},
    Label{"thisUpdate", "this update"},
    Label{"nextUpdate", "next update"},
    Label{"issuingDistributionPoint", "issuing distribution point"},
    Label{"entries", "entries"},
    Label{"unhandledCriticalExtension", "unhandled critical extension"},
    Label{"fullName", "name"},
    Label{"relativeName", "relative name"},
    Label{"onlyUser", "only user certificates"},
    Label{"onlyCA", "only CA certificates"},
    Label{"onlyAttribute", "only attribute certificates"},
    Label{"indirect", "indirect"},
    Label{"reasons", "reasons", "none", true},
    Label{"crlIssuers", "CRL issuer"},
};

constexpr std::size_t kColumn = 32;  // where values begin
constexpr std::size_t kAllReasons = 8;

Label labelOf(std::string_view key) {
  const auto* const found = std::find_if(kLabels.begin(), kLabels.end(),
                                         [key](const Label& label) { return label.key == key; });
  return found == kLabels.end() ? Label{key, key} : *found;
}

void writeLine(std::string& out, std::size_t indent, std::string_view label,
               std::string_view value) {
  const std::size_t begin = out.size();
  out.append(indent, ' ').append(label);
  if (!value.empty()) {
    out.append(std::max(kColumn, out.size() - begin + 1) - (out.size() - begin), ' ').append(value);
  }
  out += '\n';
}

std::string wordsOf(const Facts::Array& array) {
  std::string words;
  for (const Facts& word : array) words.append(words.empty() ? "" : ", ").append(*word.text());
  return words;
}

std::string scalarText(const Facts& value) {
  if (const bool* const truth = value.truth()) return *truth ? "yes" : "no";
  if (const std::int64_t* const number = value.number()) return std::to_string(*number);
  const std::string text = printable(*value.text());
  return text.empty() ? "empty" : text;
}

void writeFact(std::string& out, std::size_t indent, const Label& label, const Facts& value);

void writeObject(std::string& out, std::size_t indent, std::string_view heading,
                 const Facts::Object& object) {
  writeLine(out, indent, heading, {});
  for (const auto& [key, value] : object) writeFact(out, indent + 2, labelOf(key), value);
}

void writeArray(std::string& out, std::size_t indent, const Label& label,
                const Facts::Array& array) {
  if (array.empty()) {
    writeLine(out, indent, label.text, "none");
    return;
  }
  if (label.words) {
    const bool allReasons = label.key == "reasons" && array.size() == kAllReasons;
    writeLine(out, indent, label.text, allReasons ? "all" : wordsOf(array));
    return;
  }
  std::size_t number = 0;
  for (const Facts& value : array) {
    if (const Facts::Object* const object = value.object()) {
      writeObject(out, indent, std::string(label.text) + ' ' + std::to_string(++number), *object);
    } else {
      writeLine(out, indent, label.text, scalarText(value));
    }
  }
}

void writeFact(std::string& out, std::size_t indent, const Label& label, const Facts& value) {
  if (value.isNull()) {
    writeLine(out, indent, label.text, label.absent);
  } else if (const Facts::Array* const array = value.array()) {
    writeArray(out, indent, label, *array);
  } else if (const Facts::Object* const object = value.object()) {
    writeObject(out, indent, label.text, *object);
  } else {
    writeLine(out, indent, label.text, scalarText(value));
  }
}

}  // namespace

bool hasProblems(const Facts& facts) { return !facts.at("problems").object()->empty(); }

std::string factsText(const Facts& facts) {
  const Facts& problems = facts.at("problems");
  const bool crl = *facts.at("type").text() == "crl";
  std::string out = printable(*facts.at("file").text());
  out += crl ? ": CRL\n" : ": certificate\n";
  for (const auto& [key, value] : *facts.object()) {
    if (key == "file" || key == "type" || key == "problems") continue;
    const Label label = labelOf(key);
    if (const Facts* const problem = problems.find(key)) {
      writeLine(out, 2, label.text, "broken: " + printable(*problem->text()));
    } else {
      writeFact(out, 2, label, value);
    }
  }
  return out;
}

}  // namespace Velantrix::Tool
