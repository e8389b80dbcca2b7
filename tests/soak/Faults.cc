#include "soak/Faults.h"

namespace Velantrix::Test::Soak {

namespace {

// The slow ones cost a second each, so they are rare.
constexpr std::array<FaultKind, kFaults> kKinds = {{
    //                             web, responders, directory
    {Fault::None, "well", {0, 0, 0}, false, false},
    {Fault::Stopped, "stopped", {4, 4, 2}, false, false},
    {Fault::Refused, "refused", {20, 20, 20}, false, false},
    {Fault::Closed, "closed", {20, 20, 20}, false, false},
    {Fault::Reset, "reset", {20, 20, 20}, false, false},
    {Fault::Cut, "cut short", {30, 30, 30}, false, false},
    {Fault::Garbage, "garbage", {20, 20, 20}, false, false},
    {Fault::Flipped, "one bit flipped", {30, 30, 10}, true, true},
    {Fault::NotFound, "404", {20, 20, 0}, false, false},
    {Fault::Html, "HTML page", {20, 20, 0}, false, false},
    {Fault::TooLong, "headers without end", {20, 20, 0}, false, false},
    {Fault::Endless, "body without end", {2, 10, 0}, true, false},
    {Fault::Promise, "4 GiB announced", {20, 20, 0}, false, false},
    {Fault::BadSignature, "bad signature", {30, 30, 0}, false, true},
    {Fault::Stranger, "signed by a stranger", {30, 30, 0}, false, true},
    {Fault::Expired, "expired CRL", {30, 0, 0}, false, false},
    {Fault::OtherNonce, "other nonce", {0, 30, 0}, false, false},
    {Fault::TryLater, "try later", {0, 20, 0}, false, false},
    {Fault::Late, "late", {4, 4, 4}, true, false},
    {Fault::Trickle, "trickle", {2, 2, 2}, true, false},
    {Fault::Silence, "silence", {2, 2, 2}, true, false},
}};

}  // namespace

const FaultKind& kindOf(Fault fault) { return kKinds.at(static_cast<std::size_t>(fault)); }

std::span<const FaultKind> allFaults() { return kKinds; }

const char* nameOf(Service service) {
  constexpr std::array<const char*, kServices> kNames = {"web server", "OCSP", "LDAP"};
  return kNames.at(static_cast<std::size_t>(service));
}

}  // namespace Velantrix::Test::Soak
