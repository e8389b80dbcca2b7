// Reads the values of options that are more than a text.
#pragma once

#include <pkx509/AddressPolicy.h>
#include <velantrix/Uri.h>

#include <chrono>
#include <ctime>
#include <string>
#include <string_view>
#include <vector>

namespace Velantrix::Tool {

/// A point in time: "2026-11-21T05:00:00Z" and "2026-11-21" (the begin of that day), both UTC, or
/// "@" and seconds since the epoch. Seconds may have a fraction, "05:00:00.5", which is cut off.
/// Always positive.
/// @throws ToolError for anything else, also for days and hours that no calendar has
std::time_t parseTime(const std::string& text);

/// A verification flag of OpenSSL by the name of its constant, with or without "X509_V_FLAG_", in
/// any case of letters, "-" for "_": "X509_STRICT", "crl-check-all".
/// @throws ToolError for an unknown name
unsigned long parseFlag(const std::string& name);

/// The names that `parseFlag` knows, without the prefix, in the order of the alphabet.
std::vector<std::string_view> flagNames();

/// OpenSSL's `KU_*` bits of key usages by their names in RFC 5280, 4.2.1.3, in any case of letters
/// and separated by commas: "digitalSignature,nonRepudiation". At least one; "contentCommitment",
/// which is the newer name of the second, is known as well.
/// @throws ToolError for an unknown name
int parseKeyUsage(const std::string& names);

/// A kind of addresses that `AddressPolicy::publicAndPrivate()` refuses, by its name: "loopback",
/// "link-local", "multicast" or "unspecified"; "all" for all of them.
/// @param policy allows it from then on
/// @throws ToolError for an unknown name
void allowAddresses(const std::string& kind, Crypto::PKX509::AddressPolicy& policy);

/// How long something may take, as --deadline gives it: a whole number and a unit, "500ms", "10s" or "2m";
/// seconds where there is none. Above 0, a day at most.
/// @throws ToolError for anything else
std::chrono::milliseconds parseDuration(const std::string& text);

/// The part of a CRL's life that --share gives: above 0 and below 1.
/// @throws ToolError for anything else
double parseShare(const std::string& text);

/// The HTTP proxy that --proxy gives.
/// @throws ToolError when it is none, "http://HOST" or "http://HOST:PORT"
Uri parseProxy(const std::string& text);

/// Checks that @p text is a dotted object identifier that the library takes.
/// @throws ToolError when it is not
void requirePolicy(const std::string& text);

/// Checks that the library takes @p text, the value of --email, for a mail address.
/// @throws ToolError when it does not
void requireEmailAddress(const std::string& text);

}  // namespace Velantrix::Tool
