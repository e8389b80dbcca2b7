#include "ReportWords.h"

#include <array>
#include <cctype>
#include <cstdio>
#include <ctime>
#include <system_error>

namespace Velantrix::Tool {

using Crypto::PKX509::Outcome;

namespace {

using Origin = VerificationReport::Origin;
using Revocation = VerificationReport::RevocationResult;
using Source = VerificationReport::Source;

struct DetailLabel {
  std::string_view name;
  std::string_view text;
};

// Those that are not the words of their name.
constexpr std::array kDetailLabels = {
    DetailLabel{"secondsFromCheckTime", "distance"},
    DetailLabel{"crlNumber", "CRL number"},
    DetailLabel{"baseCRLNumber", "base CRL number"},
    DetailLabel{"crlIssuer", "CRL issuer"},
    DetailLabel{"text", "detail"},
    DetailLabel{"casBelow", "CAs below"},
    DetailLabel{"uri", "URI"},
    DetailLabel{"httpStatus", "HTTP status"},
    DetailLabel{"errno", "system error"},
};

std::string_view leadOf(Origin::Kind kind) {
  switch (kind) {
    case Origin::Kind::kCaller:
      return "given to be verified";
    case Origin::Kind::kMessage:
      return "came along with it";
    case Origin::Kind::kPath:
      return "on the path";
    case Origin::Kind::kStore:
      return "the store";
    case Origin::Kind::kTrustDirectory:
      return "trust directory";
    case Origin::Kind::kMachineCRLs:
      return "CRL directory";
    case Origin::Kind::kLookupMethod:
      return "look-up method";
    case Origin::Kind::kLDAP:
      return "LDAP";
    case Origin::Kind::kCache:
      return "cache";
    case Origin::Kind::kNetwork:
      return "the network";
    case Origin::Kind::kAnswer:
      return "came with the OCSP answer";
    case Origin::Kind::kSettings:
      return "named in the settings";
    case Origin::Kind::kMemory:
      return "known already";
    case Origin::Kind::kUnknown:
      break;
  }
  return "";
}

std::string counted(std::uint64_t number, const char* one, const char* more) {
  return std::to_string(number) + ' ' + (number == 1 ? one : more);
}

std::string foundText(const Source& source, std::size_t found) {
  switch (source.wanted()) {
    case Source::Wanted::kCertificates:
      return "found " + counted(found, "certificate", "certificates");
    case Source::Wanted::kCRLs:
      return "found " + counted(found, "CRL", "CRLs");
    case Source::Wanted::kAnswer:
      break;
  }
  return "answered";
}

std::string wordsOf(const Source& source, std::size_t found) {
  switch (source.result()) {
    case Source::Result::kFound:
      return foundText(source, found);
    case Source::Result::kNothing:
      return "nothing there";
    case Source::Result::kFailed:
      return "failed";
    case Source::Result::kRefused:
      return "not asked";
    case Source::Result::kCut:
      return foundText(source, found) + ", there may be more";
  }
  return "";
}

}  // namespace

std::string_view wordOf(Origin::Kind kind) noexcept {
  switch (kind) {
    case Origin::Kind::kCaller:
      return "caller";
    case Origin::Kind::kMessage:
      return "message";
    case Origin::Kind::kPath:
      return "path";
    case Origin::Kind::kStore:
      return "store";
    case Origin::Kind::kTrustDirectory:
      return "trust-directory";
    case Origin::Kind::kMachineCRLs:
      return "machine-crls";
    case Origin::Kind::kLookupMethod:
      return "lookup-method";
    case Origin::Kind::kLDAP:
      return "ldap";
    case Origin::Kind::kCache:
      return "cache";
    case Origin::Kind::kNetwork:
      return "network";
    case Origin::Kind::kAnswer:
      return "answer";
    case Origin::Kind::kSettings:
      return "settings";
    case Origin::Kind::kMemory:
      return "memory";
    case Origin::Kind::kUnknown:
      break;
  }
  return "unknown";
}

std::string_view wordOf(Revocation::Status status) noexcept {
  switch (status) {
    case Revocation::Status::kGood:
      return "good";
    case Revocation::Status::kRevoked:
      return "revoked";
    case Revocation::Status::kUndetermined:
      return "undetermined";
    case Revocation::Status::kNotNeeded:
      return "not-needed";
    case Revocation::Status::kNotChecked:
      break;
  }
  return "not-checked";
}

std::string_view wordOf(Revocation::Statement::Kind kind) noexcept {
  switch (kind) {
    case Revocation::Statement::Kind::kDeltaCRL:
      return "delta-crl";
    case Revocation::Statement::Kind::kOCSP:
      return "ocsp";
    case Revocation::Statement::Kind::kCRL:
      break;
  }
  return "crl";
}

std::string_view wordOf(Source::Kind kind) noexcept {
  switch (kind) {
    case Source::Kind::kDirectory:
      return "directory";
    case Source::Kind::kLDAP:
      return "ldap";
    case Source::Kind::kCache:
      return "cache";
    case Source::Kind::kCRLServer:
      return "crl-server";
    case Source::Kind::kOCSPResponder:
      return "ocsp-responder";
    case Source::Kind::kLookupMethod:
      break;
  }
  return "lookup-method";
}

std::string_view wordOf(Source::Wanted wanted) noexcept {
  switch (wanted) {
    case Source::Wanted::kCRLs:
      return "crls";
    case Source::Wanted::kAnswer:
      return "answer";
    case Source::Wanted::kCertificates:
      break;
  }
  return "certificates";
}

std::string_view wordOf(Source::Result result) noexcept {
  switch (result) {
    case Source::Result::kFound:
      return "found";
    case Source::Result::kNothing:
      return "nothing";
    case Source::Result::kRefused:
      return "refused";
    case Source::Result::kCut:
      return "cut";
    case Source::Result::kFailed:
      break;
  }
  return "failed";
}

std::string timeText(const Time& time) {
  const std::time_t seconds = time.seconds();
  std::tm parts{};
  if (::gmtime_r(&seconds, &parts) == nullptr) return "@" + std::to_string(time.seconds());
  // RFC 3339 wants four digits of the year, of which strftime would leave out zeros.
  std::array<char, 64> text{};
  static_cast<void>(std::snprintf(text.data(), text.size(), "%04lld-%02d-%02dT%02d:%02d:%02dZ",
                                  1900LL + parts.tm_year, parts.tm_mon + 1, parts.tm_mday,
                                  parts.tm_hour, parts.tm_min, parts.tm_sec));
  return text.data();
}

std::string durationText(std::int64_t seconds) {
  struct Unit {
    std::uint64_t seconds;
    const char* one;
    const char* more;
  };
  static constexpr Unit kUnitsInWords[] = {{86400, "day", "days"},
                                           {3600, "hour", "hours"},
                                           {60, "minute", "minutes"},
                                           {1, "second", "seconds"}};
  const std::uint64_t magnitude =
      seconds < 0 ? -static_cast<std::uint64_t>(seconds) : static_cast<std::uint64_t>(seconds);
  for (const Unit& unit : kUnitsInWords) {
    if (const std::uint64_t count = magnitude / unit.seconds; count > 0) {
      return counted(count, unit.one, unit.more);
    }
  }
  return "0 seconds";
}

std::string shortTimeText(std::uint64_t microseconds) {
  if (microseconds < 1000) return std::to_string(microseconds) + " us";
  if (microseconds < 1000000) return std::to_string(microseconds / 1000) + " ms";
  const std::uint64_t tenths = microseconds / 100000;
  return std::to_string(tenths / 10) + '.' + std::to_string(tenths % 10) + " s";
}

std::string detailLabel(std::string_view detailName) {
  for (const DetailLabel& label : kDetailLabels) {
    if (label.name == detailName) return std::string(label.text);
  }
  std::string words;
  for (const char c : detailName) {
    const bool begin = std::isupper(static_cast<unsigned char>(c)) != 0;
    if (begin) words += ' ';
    words += static_cast<char>(begin ? std::tolower(static_cast<unsigned char>(c)) : c);
  }
  return words;
}

std::string valueText(const VerificationReport::Detail& detail) {
  if (const auto* const text = std::get_if<std::string>(&detail.value)) return *text;
  if (const auto* const time = std::get_if<Time>(&detail.value)) return timeText(*time);
  const std::int64_t number = std::get<std::int64_t>(detail.value);
  if (detail.name == "secondsFromCheckTime") {
    return durationText(number) + (number < 0 ? " before" : " after") + " the time of the check";
  }
  if (detail.name == "errno") {
    return std::generic_category().message(static_cast<int>(number)) + " (" +
           std::to_string(number) + ")";
  }
  return std::to_string(number);
}

std::string originText(const Origin& origin) {
  // Whoever has the file need not know which method found it.
  if (origin.kind() == Origin::Kind::kLookupMethod && !origin.file().empty()) {
    return "file " + origin.file();
  }
  std::string text(leadOf(origin.kind()));
  // A file has its directory in its name.
  for (const std::string* const part : {&origin.place(), &origin.file()}) {
    if (part->empty() || (part == &origin.place() && origin.file().starts_with(*part))) continue;
    text += (text.empty() ? "" : " ") + *part;
  }
  return text;
}

std::string_view kindText(Source::Kind kind) noexcept {
  switch (kind) {
    case Source::Kind::kDirectory:
      return "directory";
    case Source::Kind::kLDAP:
      return "LDAP";
    case Source::Kind::kCache:
      return "cache";
    case Source::Kind::kCRLServer:
      return "CRL server";
    case Source::Kind::kOCSPResponder:
      return "OCSP responder";
    case Source::Kind::kLookupMethod:
      break;
  }
  return "look-up method";
}

std::string resultText(const Source& source, const Effort& effort) {
  std::string text = wordsOf(source, effort.found);
  if (!source.reason().empty()) text += ": " + source.reason();
  if (source.httpStatus() != 0 && source.reason().find("HTTP") == std::string::npos) {
    text += ", HTTP status " + std::to_string(source.httpStatus());
  }
  if (source.errorNumber() != 0 && source.reason().empty()) {
    text += ": " + std::generic_category().message(source.errorNumber());
  }
  if (effort.bytes != 0) text += ", " + counted(effort.bytes, "byte", "bytes");
  if (source.age()) text += ", " + durationText(*source.age()) + " old";
  if (effort.times > 1) text += ", asked " + std::to_string(effort.times) + " times";
  return effort.microseconds == 0 ? text : text + ", " + shortTimeText(effort.microseconds);
}

std::string outcomeText(Outcome outcome) {
  const std::string name(nameOf(outcome));
  switch (outcome) {
    case Outcome::kPermanent:
      return name + ": waiting does not help";
    case Outcome::kTemporary:
      return name + ": it may be valid later";
    case Outcome::kLocal:
      return name + ": something on this machine has to be mended";
    case Outcome::kValid:
      break;
  }
  return name;
}

}  // namespace Velantrix::Tool
