/// @file
/// Which kinds of addresses may be contacted for a stranger's certificate.
///
/// @code
///   verifier.addressPolicy(AddressPolicy::publicAndPrivate());  // this verification
///
///   AddressPolicy policy = AddressPolicy::publicOnly();          // all of the process
///   policy.allow(AddressPolicy::Kind::kLoopback);                // a responder of its own
///   AddressPolicy::process(policy);
/// @endcode
#pragma once

#include <velantrix/Export.h>

#include <array>
#include <cstddef>
#include <optional>

namespace Velantrix::Crypto::PKX509 {

/// What may be connected to: a set of kinds of addresses, as a plain value.
///
/// The hosts of CRLs and the OCSP responders are named by the certificate that is being verified,
/// and a CA whose anchor is trusted may still name, on purpose or not, a service on the appliance
/// itself or on a network that only the appliance reaches. The policy says where it does not go.
///
/// **What is judged** is the address that is connected to, at the connection: whatever the name was
/// and however often it is resolved, and numeric hosts in the same way. A refused address behaves
/// as a host that cannot be reached, and leaves a line in the log, one for each kind in a
/// verification.
///
/// **What it is asked for**: connections over http and https, of OCSP clients and of look-ups by
/// URI. *The LDAP server and the name servers are not subject to it*: the operator names them, no
/// certificate does.
///
/// **Who consents.** A connection needs the consent of the verification's policy
/// (`Verifier::addressPolicy`) and of the process's; both allow everything unless told otherwise.
/// Verifications that are nested in another one have the outermost one's. Outside a verification
/// the process's alone counts.
///
/// **IPv6 addresses that stand for an IPv4 address** are judged by that one: IPv4-mapped and
/// IPv4-compatible (RFC 4291, 2.5.5), IPv4-translated (RFC 2765) and those behind a NAT64's
/// well-known prefix (RFC 6052). 6to4 (RFC 3056), Teredo (RFC 4380), ISATAP (RFC 5214) and a
/// NAT64's local prefix (RFC 8215), which carry IPv4 addresses somewhere inside, are judged by
/// themselves and by those.
class PKX509_EXPORT AddressPolicy {
 public:
  enum class Kind : unsigned char {
    kUnspecified,  ///< ::, 0.0.0.0/8 and the reserved 240.0.0.0/4: no host's
    kLoopback,     ///< 127.0.0.0/8, ::1
    kLinkLocal,    ///< 169.254.0.0/16, fe80::/10
    kMulticast,    ///< 224.0.0.0/4, ff00::/8, and the broadcast address 255.255.255.255
    /// RFC 1918 (10.0.0.0/8, 172.16.0.0/12, 192.168.0.0/16), RFC 6598 (100.64.0.0/10), RFC 4193
    /// (fc00::/7), the former site-local fec0::/10 and what else RFC 6890 has for use inside a
    /// network: 192.0.0.0/24, 198.18.0.0/15, 64:ff9b:1::/48
    kPrivate,
    kPublic  ///< any other
  };
  using IPv4 = std::array<unsigned char, 4>;   ///< in network byte order, as all addresses here
  using IPv6 = std::array<unsigned char, 16>;  ///< see `IPv4`

  /// Allows everything.
  constexpr AddressPolicy() noexcept = default;

  static constexpr AddressPolicy everything() noexcept { return {}; }
  /// Refuses what is on the machine itself, on its links, and what is no host's.
  static constexpr AddressPolicy publicAndPrivate() noexcept {
    return publicOnly().allow(Kind::kPrivate);
  }
  static constexpr AddressPolicy publicOnly() noexcept {
    AddressPolicy policy;
    policy.allowed_ = bit(Kind::kPublic);
    return policy;
  }

  constexpr AddressPolicy& allow(Kind kind) noexcept {
    allowed_ = static_cast<unsigned char>(allowed_ | bit(kind));
    return *this;
  }
  constexpr AddressPolicy& refuse(Kind kind) noexcept {
    allowed_ = static_cast<unsigned char>(allowed_ & ~bit(kind));
    return *this;
  }
  constexpr bool allows(Kind kind) const noexcept { return (allowed_ & bit(kind)) != 0; }

  static constexpr Kind kindOf(const IPv4& address) noexcept;
  /// Of an address that stands for an IPv4 address, that one's.
  static constexpr Kind kindOf(const IPv6& address) noexcept;

  /// The kind for which the address is refused; none when it may be connected to.
  constexpr std::optional<Kind> refusal(const IPv4& address) const noexcept {
    return refusalOf(kindOf(address));
  }
  constexpr std::optional<Kind> refusal(const IPv6& address) const noexcept;

  friend constexpr bool operator==(const AddressPolicy&, const AddressPolicy&) noexcept = default;

  /// Sets the policy of the process, for every connection that is opened from then on. May be
  /// called by any thread at any time.
  static void process(const AddressPolicy& policy) noexcept;
  /// The policy of the process.
  static AddressPolicy process() noexcept;

 private:
  static constexpr unsigned char bit(Kind kind) noexcept {
    return static_cast<unsigned char>(1U << static_cast<unsigned int>(kind));
  }
  constexpr std::optional<Kind> refusalOf(Kind kind) const noexcept {
    return allows(kind) ? std::nullopt : std::optional(kind);
  }

  template <std::size_t size, class... Octets>
  static constexpr bool begins(const std::array<unsigned char, size>& address,
                               Octets... octets) noexcept {
    std::size_t at = 0;
    return ((address[at++] == octets) && ...);
  }
  static constexpr IPv4 inside(const IPv6& address, std::size_t at) noexcept {
    return {address[at], address[at + 1], address[at + 2], address[at + 3]};
  }
  // Whether the address is but another way to write the IPv4 address in its last four octets.
  static constexpr bool standsForIPv4(const IPv6& address) noexcept;

  unsigned char allowed_ = 0x3f;  // a bit for each kind
};

constexpr AddressPolicy::Kind AddressPolicy::kindOf(const IPv4& address) noexcept {
  if (begins(address, 0)) return Kind::kUnspecified;
  if (begins(address, 127)) return Kind::kLoopback;
  if (begins(address, 169, 254)) return Kind::kLinkLocal;
  if (begins(address, 255, 255, 255, 255)) return Kind::kMulticast;
  if (address[0] >= 240) return Kind::kUnspecified;
  if (address[0] >= 224) return Kind::kMulticast;
  const bool isPrivate = begins(address, 10) ||                                 // RFC 1918
                         (begins(address, 172) && address[1] / 16 == 1) ||      // RFC 1918
                         begins(address, 192, 168) ||                           // RFC 1918
                         (begins(address, 100) && address[1] / 64 == 1) ||      // RFC 6598
                         begins(address, 192, 0, 0) ||                          // RFC 6890
                         begins(address, 198, 18) || begins(address, 198, 19);  // RFC 2544
  return isPrivate ? Kind::kPrivate : Kind::kPublic;
}

constexpr bool AddressPolicy::standsForIPv4(const IPv6& address) noexcept {
  if (begins(address, 0, 0x64, 0xff, 0x9b, 0, 0, 0, 0, 0, 0, 0, 0)) return true;  // RFC 6052, 2.1
  if (!begins(address, 0, 0, 0, 0, 0, 0, 0, 0)) return false;
  const IPv4 middle = inside(address, 8);
  if (middle == IPv4{0, 0, 0xff, 0xff}) return true;  // RFC 4291, 2.5.5.2
  if (middle == IPv4{0xff, 0xff, 0, 0}) return true;  // RFC 2765, 2.1
  // RFC 4291, 2.5.5.1; :: and ::1 are what they are.
  return middle == IPv4{} && inside(address, 12) != IPv4{} &&
         inside(address, 12) != IPv4{0, 0, 0, 1};
}

constexpr AddressPolicy::Kind AddressPolicy::kindOf(const IPv6& address) noexcept {
  if (standsForIPv4(address)) return kindOf(inside(address, 12));
  if (address == IPv6{}) return Kind::kUnspecified;
  if (address == IPv6{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}) return Kind::kLoopback;
  if (begins(address, 0xff)) return Kind::kMulticast;
  if (begins(address, 0xfe) && address[1] / 64 == 2) return Kind::kLinkLocal;
  const bool isPrivate = address[0] / 2 == 0xfc / 2 ||                       // RFC 4193
                         (begins(address, 0xfe) && address[1] / 64 == 3) ||  // RFC 3879
                         begins(address, 0, 0x64, 0xff, 0x9b, 0, 1);         // RFC 8215
  return isPrivate ? Kind::kPrivate : Kind::kPublic;
}

constexpr std::optional<AddressPolicy::Kind> AddressPolicy::refusal(
    const IPv6& address) const noexcept {
  if (const std::optional<Kind> own = refusalOf(kindOf(address))) return own;
  if (begins(address, 0x20, 0x02)) return refusal(inside(address, 2));  // 6to4: RFC 3056, 2
  if (begins(address, 0, 0x64, 0xff, 0x9b, 0, 1)) return refusal(inside(address, 12));  // RFC 8215
  if (begins(address, 0x20, 0x01, 0, 0)) {
    // Teredo: RFC 4380, 4; the client's address with its bits inverted, and that of its server.
    IPv4 client = inside(address, 12);
    for (unsigned char& octet : client) octet = static_cast<unsigned char>(octet ^ 0xffU);
    const std::optional<Kind> refused = refusal(client);
    return refused.has_value() ? refused : refusal(inside(address, 4));
  }
  // ISATAP: RFC 5214, 6.1; the second bit says whether the IPv4 address is unique.
  const IPv4 middle = inside(address, 8);
  if (middle == IPv4{0, 0, 0x5e, 0xfe} || middle == IPv4{2, 0, 0x5e, 0xfe}) {
    return refusal(inside(address, 12));
  }
  return std::nullopt;
}

}  // namespace Velantrix::Crypto::PKX509
