/// @file
/// From the name of a host to its address.
///
/// @code
///   const Host host(uri.hostname());
///   if (host.address().empty()) return;                 // no such host, or no answer in time
///   const std::string text = host.address().asString(true);
/// @endcode
#pragma once

#include <velantrix/Export.h>

#include <optional>
#include <string>

namespace Velantrix {

/// The name of a host, or an address as text. It may be anything: whether it is a name shows when
/// it is resolved.
class PKX509_EXPORT HostName {
 public:
  HostName(const std::string& text) : text_(text) {}  // NOLINT(google-explicit-constructor)

  const std::string& asString() const noexcept { return text_; }

 private:
  std::string text_;
};

/// An IPv4 or IPv6 address, or none. A plain value.
class PKX509_EXPORT IPAddress {
 public:
  /// No address.
  IPAddress() = default;
  /// @param text the numeric form, taken as it is
  explicit IPAddress(const std::string& text) : text_(text) {}

  bool empty() const noexcept { return text_.empty(); }
  /// @param plain true gives the numeric form alone, false puts an IPv6 address in brackets, as it
  ///              stands in a URI (RFC 3986, 3.2.2)
  std::string asString(bool plain) const;

 private:
  std::string text_;
};

/// A host, resolved when its address is asked for and not before.
///
/// The answer comes from /etc/hosts and from the name servers of /etc/resolv.conf, through c-ares:
/// the C library's resolver cannot be given a deadline. It takes at most five seconds, and no more
/// than a verification that is going on in this thread has left for the network. No thread is
/// started. One object is used by one thread at a time.
class PKX509_EXPORT Host {
 public:
  explicit Host(const HostName& name) : name_(name) {}

  /// The first address, empty when the name has none or no answer came in time. Numeric addresses
  /// are given back without asking anybody. The answer is remembered in the object.
  const IPAddress& address() const;

 private:
  HostName name_;
  mutable std::optional<IPAddress> address_;
};

}  // namespace Velantrix
