// An LDAP server on loopback that says one thing and nothing more.
//
//   ldapServer().answer(octets);                    // to whoever connects next
//   LDAPConnection connection(ldapServer().server(), false);
//
// It does not wait for a request: the answer and the end of what it sends are there as soon as the
// client looks for them. A thread of its own serves, since the client connects and asks in one go.
#pragma once

#include "support/Descriptor.h"

#include <velantrix/LDAPConnection.h>
#include <velantrix/NonCopyable.h>

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

namespace Velantrix::Fuzz {

class LDAPServer : private NonCopyable {
 public:
  LDAPServer();

  /// Without TLS, and with StartTLS; the server's certificate does not matter.
  LDAPConnection::RefServer server(bool startTls = false) const;
  /// What the next connection is told. There has to be one before the next answer.
  void answer(std::string octets);

 private:
  void run();
  void serve(const Test::Descriptor& client);

  Test::Descriptor listener_;
  std::uint16_t port_ = 0;
  std::mutex mutex_;
  std::string answer_;
};

/// The one of this process. It lives as long.
LDAPServer& ldapServer();

/// An element of BER with a definite length (RFC 4511, 5.1). Its content is borrowed.
struct Tlv {
  unsigned char tag = 0;
  std::size_t head = 0;      ///< octets of tag and length
  std::uint64_t length = 0;  ///< octets that follow, as the length says
  std::string_view content;  ///< what there is of them
  bool whole() const { return content.size() == length; }
};

/// The element in front, also when it is cut short; nothing while its length is not known, and for
/// lengths of more than four octets.
std::optional<Tlv> berFront(std::string_view octets);

/// Takes the element in front if it is whole and has that tag.
std::optional<std::string_view> berTake(std::string_view& octets, unsigned char tag);

/// Choices stand in front of an input as an OCTET STRING, so that all of the input can be DER,
/// whose elements change places. What is not chosen is 0.
class Choices {
 public:
  /// Takes them from the input.
  explicit Choices(std::string_view& input) : octets_(berTake(input, 0x04).value_or("")) {}
  unsigned int operator[](std::size_t i) const {
    return i < octets_.size() ? static_cast<unsigned char>(octets_[i]) : 0;
  }

 private:
  std::string_view octets_;
};

}  // namespace Velantrix::Fuzz
