#include "foundation/net/AddressAdmission.h"

#include "foundation/base/Log.h"

#include <optional>
#include <string>

namespace Velantrix {

namespace {

using Policy = Crypto::PKX509::AddressPolicy;

thread_local AddressAdmission* innermost = nullptr;

std::optional<Policy::Kind> refusedKind(const Policy& policy,
                                        const boost::asio::ip::address& address) {
  return address.is_v4() ? policy.refusal(address.to_v4().to_bytes())
                         : policy.refusal(address.to_v6().to_bytes());
}

const char* nameOf(Policy::Kind kind) {
  switch (kind) {
    case Policy::Kind::kUnspecified:
      return "n unspecified";
    case Policy::Kind::kLoopback:
      return " loopback";
    case Policy::Kind::kLinkLocal:
      return " link-local";
    case Policy::Kind::kMulticast:
      return " multicast";
    case Policy::Kind::kPrivate:
      return " private";
    case Policy::Kind::kPublic:
      break;
  }
  return " public";
}

}  // namespace

AddressAdmission::AddressAdmission(const Policy& policy) noexcept
    : policy_(policy), outer_(innermost) {
  innermost = this;
}

AddressAdmission::~AddressAdmission() { innermost = outer_; }

std::string AddressAdmission::refusal(const boost::asio::ip::address& address) {
  std::optional<Policy::Kind> refused = refusedKind(Policy::process(), address);
  if (!refused.has_value() && innermost != nullptr) {
    refused = refusedKind(innermost->policy_, address);
  }
  if (!refused.has_value()) return {};
  std::string what = std::string("a") + nameOf(*refused) + " address: " + address.to_string();
  say(*refused, what);
  return what;
}

void AddressAdmission::say(Policy::Kind kind, const std::string& what) {
  if (innermost != nullptr) {
    if (!innermost->told_.allows(kind)) return;
    innermost->told_.refuse(kind);
  }
  log(kPriorityInfo, "HTTP::Connection: the address policy refuses " + what);
}

}  // namespace Velantrix
