// Which addresses a thread may connect to.
//
//   const AddressAdmission admission(policy);  // holds for this thread from here on
//   if (!AddressAdmission::admits(endpoint.address())) return false;
//
// Hosts that a stranger names are contacted with the consent of whoever verifies and of the
// process. Clients ask here when they know the address, without knowing who verifies.
#pragma once

#include <pkx509/AddressPolicy.h>
#include <velantrix/NonCopyable.h>

#include <boost/asio/ip/address.hpp>

#include <string>

namespace Velantrix {

class AddressAdmission : private NonCopyable {
 public:
  using Policy = Crypto::PKX509::AddressPolicy;

  /// Makes a policy that of this thread, in place of none or of another, until it is destroyed.
  explicit AddressAdmission(const Policy& policy) noexcept;
  ~AddressAdmission();

  /// Whether the address may be connected to from this thread. A refusal is logged, once for each
  /// kind while one policy is the thread's.
  static bool admits(const boost::asio::ip::address& address) { return refusal(address).empty(); }
  /// The same; what is refused, "a loopback address: 127.0.0.1", or nothing.
  static std::string refusal(const boost::asio::ip::address& address);

 private:
  static void say(Policy::Kind kind, const std::string& what);

  Policy policy_;
  Policy told_;  // refuses the kinds for which a line has been written
  AddressAdmission* outer_;
};

}  // namespace Velantrix
