#include "foundation/HostResolver.h"

#include <velantrix/Host.h>

#include <boost/asio/error.hpp>
#include <boost/asio/ip/address.hpp>

namespace Velantrix {

std::string IPAddress::asString(bool plain) const {
  if (plain || text_.find(':') == std::string::npos) return text_;
  return "[" + text_ + "]";
}

const IPAddress& Host::address() const {
  if (!address_.has_value()) {
    const std::string& name = name_.asString();
    // The parser sees C strings: it would take an address with more behind a NUL for an address.
    boost::system::error_code notNumeric = boost::asio::error::invalid_argument;
    if (name.find('\0') == std::string::npos) boost::asio::ip::make_address(name, notNumeric);
    address_ = IPAddress(notNumeric ? resolveHost(name) : name);
  }
  return *address_;
}

}  // namespace Velantrix
