#include "OptionValues.h"

#include "KeyUsage.h"
#include "Status.h"

#include <velantrix/ASN1.h>
#include <velantrix/EmailAddress.h>
#include <velantrix/Exception.h>

#include <openssl/x509_vfy.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <chrono>
#include <climits>
#include <cstdint>
#include <optional>
#include <system_error>

namespace Velantrix::Tool {

namespace {

constexpr std::string_view kFlagPrefix = "X509_V_FLAG_";

struct Flag {
  std::string_view name;
  unsigned long value;
};

// The flags of OpenSSL 3.0; later releases have all of them. CB_ISSUER_CHECK is nothing but a name
// that old scripts use, and its constant goes when deprecated ones are switched off.
constexpr std::array kFlags = {
    Flag{"ALLOW_PROXY_CERTS", X509_V_FLAG_ALLOW_PROXY_CERTS},
    Flag{"CB_ISSUER_CHECK", 0},
    Flag{"CHECK_SS_SIGNATURE", X509_V_FLAG_CHECK_SS_SIGNATURE},
    Flag{"CRL_CHECK", X509_V_FLAG_CRL_CHECK},
    Flag{"CRL_CHECK_ALL", X509_V_FLAG_CRL_CHECK_ALL},
    Flag{"EXPLICIT_POLICY", X509_V_FLAG_EXPLICIT_POLICY},
    Flag{"EXTENDED_CRL_SUPPORT", X509_V_FLAG_EXTENDED_CRL_SUPPORT},
    Flag{"IGNORE_CRITICAL", X509_V_FLAG_IGNORE_CRITICAL},
    Flag{"INHIBIT_ANY", X509_V_FLAG_INHIBIT_ANY},
    Flag{"INHIBIT_MAP", X509_V_FLAG_INHIBIT_MAP},
    Flag{"NOTIFY_POLICY", X509_V_FLAG_NOTIFY_POLICY},
    Flag{"NO_ALT_CHAINS", X509_V_FLAG_NO_ALT_CHAINS},
    Flag{"NO_CHECK_TIME", X509_V_FLAG_NO_CHECK_TIME},
    Flag{"PARTIAL_CHAIN", X509_V_FLAG_PARTIAL_CHAIN},
    Flag{"POLICY_CHECK", X509_V_FLAG_POLICY_CHECK},
    Flag{"POLICY_MASK", X509_V_FLAG_POLICY_MASK},
    Flag{"SUITEB_128_LOS", X509_V_FLAG_SUITEB_128_LOS},
    Flag{"SUITEB_128_LOS_ONLY", X509_V_FLAG_SUITEB_128_LOS_ONLY},
    Flag{"SUITEB_192_LOS", X509_V_FLAG_SUITEB_192_LOS},
    Flag{"TRUSTED_FIRST", X509_V_FLAG_TRUSTED_FIRST},
    Flag{"USE_CHECK_TIME", X509_V_FLAG_USE_CHECK_TIME},
    Flag{"USE_DELTAS", X509_V_FLAG_USE_DELTAS},
    Flag{"X509_STRICT", X509_V_FLAG_X509_STRICT},
};

using Crypto::PKX509::AddressPolicy;

struct AddressKind {
  std::string_view name;
  AddressPolicy::Kind kind;
};

constexpr std::array kAddressKinds = {
    AddressKind{"loopback", AddressPolicy::Kind::kLoopback},
    AddressKind{"link-local", AddressPolicy::Kind::kLinkLocal},
    AddressKind{"multicast", AddressPolicy::Kind::kMulticast},
    AddressKind{"unspecified", AddressPolicy::Kind::kUnspecified},
};

static_assert(std::all_of(kFlags.begin(), kFlags.end(),
                          [](const Flag& flag) { return flag.value <= INT_MAX; }),
              "a verifier's configuration holds its flags in an int");

// All of `text` as a decimal number.
std::optional<std::int64_t> number(std::string_view text) {
  std::int64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

// The number that `length` digits at `offset` make.
std::optional<int> digits(std::string_view text, std::size_t offset, std::size_t length) {
  if (text.size() < offset + length) return std::nullopt;
  const std::string_view part = text.substr(offset, length);
  if (part.find_first_not_of("0123456789") != std::string_view::npos) return std::nullopt;
  const auto value = number(part);
  return value ? std::optional<int>(static_cast<int>(*value)) : std::nullopt;
}

// Seconds since the epoch of "YYYY-MM-DD".
std::optional<std::int64_t> dayStart(std::string_view text) {
  if (text.size() != 10 || text[4] != '-' || text[7] != '-') return std::nullopt;
  const auto year = digits(text, 0, 4);
  const auto month = digits(text, 5, 2);
  const auto day = digits(text, 8, 2);
  if (!year || !month || !day) return std::nullopt;
  const std::chrono::year_month_day date(std::chrono::year{*year},
                                         std::chrono::month{static_cast<unsigned int>(*month)},
                                         std::chrono::day{static_cast<unsigned int>(*day)});
  if (!date.ok()) return std::nullopt;
  return std::chrono::seconds(std::chrono::sys_days(date).time_since_epoch()).count();
}

// Takes a fraction of a second, ".5", off the end of the text. False when what follows the point is
// none.
bool cutFraction(std::string_view& text) {
  const std::size_t point = text.find('.');
  if (point == std::string_view::npos) return true;
  const std::string_view fraction = text.substr(point + 1);
  text = text.substr(0, point);
  return !fraction.empty() && fraction.find_first_not_of("0123456789") == std::string_view::npos;
}

// Seconds of "THH:MM:SSZ" or "THH:MM:SS.5Z". OpenSSL verifies as of whole seconds, so a fraction is
// cut off: the time that is meant has not come before that second has.
std::optional<std::int64_t> timeOfDay(std::string_view text) {
  if (!text.ends_with('Z')) return std::nullopt;
  text.remove_suffix(1);
  if (!cutFraction(text)) return std::nullopt;
  if (text.size() != 9 || text[0] != 'T' || text[3] != ':' || text[6] != ':') return std::nullopt;
  const auto hour = digits(text, 1, 2);
  const auto minute = digits(text, 4, 2);
  const auto second = digits(text, 7, 2);
  if (!hour || !minute || !second || *hour > 23 || *minute > 59 || *second > 59) {
    return std::nullopt;
  }
  return (*hour * 60 + *minute) * 60 + *second;
}

std::optional<std::int64_t> secondsOf(std::string_view text) {
  if (text.starts_with('@')) {
    text.remove_prefix(1);
    return cutFraction(text) ? number(text) : std::nullopt;
  }
  const auto day = dayStart(text.substr(0, 10));
  if (!day || text.size() <= 10) return day;
  const auto time = timeOfDay(text.substr(10));
  if (!time) return std::nullopt;
  return *day + *time;
}

std::string lowerCase(std::string_view text) {
  std::string lower;
  for (const char c : text) {
    lower += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  }
  return lower;
}

// 0 for a name that there is not.
unsigned int keyUsageBit(std::string_view lowerCaseName) {
  for (const NamedBit& usage : kKeyUsages) {
    if (lowerCase(usage.name) == lowerCaseName) return usage.mask;
  }
  return lowerCaseName == "contentcommitment" ? KU_NON_REPUDIATION : 0;
}

}  // namespace

std::time_t parseTime(const std::string& text) {
  constexpr std::int64_t kEndOfTime = 253402300799;  // 9999-12-31T23:59:59Z, RFC 5280's last second
  const auto seconds = secondsOf(text);
  if (!seconds) {
    throw ToolError("--at: \"" + text +
                    "\" is no time; give 2026-11-21T05:00:00Z, 2026-11-21 or @1795237200");
  }
  // To OpenSSL's verification parameters 0 means "no time given".
  if (*seconds <= 0 || *seconds > kEndOfTime) {
    throw ToolError("--at: \"" + text + "\" is not between 1970 and 9999");
  }
  return *seconds;
}

unsigned long parseFlag(const std::string& name) {
  std::string key;
  for (const char c : name) {
    key += c == '-' ? '_' : static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  }
  std::string_view wanted = key;
  if (wanted.starts_with(kFlagPrefix)) wanted.remove_prefix(kFlagPrefix.size());
  for (const Flag& flag : kFlags) {
    if (flag.name == wanted) return flag.value;
  }
  throw ToolError("\"" + name +
                  "\" is no verification flag of OpenSSL; pkx509 verify --help lists them");
}

std::vector<std::string_view> flagNames() {
  std::vector<std::string_view> names;
  names.reserve(kFlags.size());
  for (const Flag& flag : kFlags) names.push_back(flag.name);
  return names;
}

int parseKeyUsage(const std::string& names) {
  unsigned int bits = 0;
  std::size_t begin = 0;
  for (std::size_t end = 0; end != std::string::npos; begin = end + 1) {
    end = names.find(',', begin);
    const std::string name = names.substr(begin, end - begin);
    const unsigned int bit = keyUsageBit(lowerCase(name));
    if (bit == 0) {
      throw ToolError("--key-usage: \"" + name +
                      "\" is no key usage; pkx509 simple --help lists them");
    }
    bits |= bit;
  }
  return static_cast<int>(bits);
}

void allowAddresses(const std::string& kind, AddressPolicy& policy) {
  if (kind == "all") {
    policy = AddressPolicy::everything();
    return;
  }
  for (const AddressKind& known : kAddressKinds) {
    if (known.name != kind) continue;
    policy.allow(known.kind);
    return;
  }
  throw ToolError("--allow-address: \"" + kind +
                  "\" is none of loopback, link-local, multicast, unspecified and all");
}

std::chrono::milliseconds parseDuration(const std::string& text) {
  using std::chrono::milliseconds;
  constexpr milliseconds kMost = std::chrono::hours(24);
  const std::size_t digits = std::min(text.find_first_not_of("0123456789"), text.size());
  const std::string_view unit = std::string_view(text).substr(digits);
  const std::optional<std::int64_t> count = number(std::string_view(text).substr(0, digits));
  milliseconds one{0};
  if (unit == "ms") one = milliseconds(1);
  if (unit == "s" || unit.empty()) one = std::chrono::seconds(1);
  if (unit == "m") one = std::chrono::minutes(1);
  if (!count || *count <= 0 || one.count() == 0 || *count > kMost / one) {
    throw ToolError("--deadline: \"" + text +
                    "\" is no time of at most a day, like 500ms, 10s or 2m");
  }
  return *count * one;
}

double parseShare(const std::string& text) {
  double share = 0;
  const char* const end = text.data() + text.size();
  const auto [next, error] = std::from_chars(text.data(), end, share, std::chars_format::fixed);
  if (error != std::errc() || next != end || !(share > 0 && share < 1)) {
    throw ToolError("--share: \"" + text + "\" is no number between 0 and 1, like 0.5");
  }
  return share;
}

Uri parseProxy(const std::string& text) {
  Uri proxy(text);
  if (proxy.scheme() != "http:" || proxy.hostname().empty() || proxy.path() != "/") {
    throw ToolError("--proxy: \"" + text +
                    "\" is no HTTP proxy, like http://proxy.example.com:3128");
  }
  return proxy;
}

void requirePolicy(const std::string& text) {
  try {
    static_cast<void>(Crypto::ASN1::RefObjectIdentifier(text));
  } catch (const Exception&) {
    throw ToolError("--policy: \"" + text +
                    "\" is no object identifier; give one like 2.5.29.32.0");
  }
}

void requireEmailAddress(const std::string& text) {
  if (EmailAddress(text).isNull()) {
    throw ToolError("--email: \"" + text + "\" is no mail address");
  }
}

}  // namespace Velantrix::Tool
