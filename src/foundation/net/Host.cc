#include "foundation/net/HostResolver.h"

#include <velantrix/Host.h>

#include <string>
#include <vector>

namespace Velantrix {

std::string IPAddress::asString(bool plain) const {
  if (plain || text_.find(':') == std::string::npos) return text_;
  return "[" + text_ + "]";
}

const IPAddress& Host::address() const {
  if (!address_.has_value()) {
    const std::vector<std::string> addresses = resolveHost(name_.asString()).addresses;
    address_ = addresses.empty() ? IPAddress() : IPAddress(addresses.front());
  }
  return *address_;
}

}  // namespace Velantrix
