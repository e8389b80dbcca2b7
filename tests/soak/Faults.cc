#include "soak/Faults.h"

namespace Velantrix::Test::Soak {

namespace {

using Slow = std::array<bool, kServices>;
constexpr Slow kFast = {false, false, false};
constexpr Slow kSlow = {true, true, true};
constexpr Slow kForDirectory = {false, false, true};  // lengths are in every part of an answer

// The slow ones cost a second each, so they are rare.
constexpr std::array<FaultKind, kFaults> kKinds = {{
    //                             web, responders, directory
    {Fault::None, "well", {0, 0, 0}, kFast, false},
    {Fault::Stopped, "stopped", {4, 4, 2}, kFast, false},
    {Fault::Refused, "refused", {20, 20, 20}, kFast, false},
    {Fault::Closed, "closed", {20, 20, 20}, kFast, false},
    {Fault::Reset, "reset", {20, 20, 20}, kFast, false},
    {Fault::Cut, "cut short", {30, 30, 30}, kFast, false},
    {Fault::Garbage, "garbage", {20, 20, 20}, kForDirectory, false},
    {Fault::Flipped, "one bit flipped", {30, 30, 10}, kSlow, true},
    {Fault::NotFound, "404", {20, 20, 0}, kFast, false},
    {Fault::Html, "HTML page", {20, 20, 0}, kFast, false},
    {Fault::TooLong, "headers without end", {20, 20, 0}, kFast, false},
    {Fault::Endless, "body without end", {2, 10, 0}, kSlow, false},
    {Fault::Promise, "4 GiB announced", {20, 20, 0}, kFast, false},
    {Fault::BadSignature, "bad signature", {30, 30, 0}, kFast, true},
    {Fault::Stranger, "signed by a stranger", {30, 30, 0}, kFast, true},
    {Fault::Expired, "expired CRL", {30, 0, 0}, kFast, false},
    {Fault::OtherNonce, "other nonce", {0, 30, 0}, kFast, false},
    {Fault::TryLater, "try later", {0, 20, 0}, kFast, false},
    {Fault::Late, "late", {4, 4, 4}, kSlow, false},
    {Fault::Trickle, "trickle", {2, 2, 2}, kSlow, false},
    {Fault::Silence, "silence", {2, 2, 2}, kSlow, false},
}};

}  // namespace

const FaultKind& kindOf(Fault fault) { return kKinds.at(static_cast<std::size_t>(fault)); }

std::span<const FaultKind> allFaults() { return kKinds; }

const char* nameOf(Service service) {
  constexpr std::array<const char*, kServices> kNames = {"web server", "OCSP", "LDAP"};
  return kNames.at(static_cast<std::size_t>(service));
}

}  // namespace Velantrix::Test::Soak
