// An OCSP responder on loopback that gives everybody the same answer.
#pragma once

#include "support/Descriptor.h"

#include <string>
#include <string_view>
#include <thread>

namespace Velantrix::Bench {

// It has a thread, which answers one request on each connection, one connection after the other.
class PreparedResponder {
 public:
  explicit PreparedResponder(std::string_view answer);
  ~PreparedResponder();
  PreparedResponder(const PreparedResponder&) = delete;
  PreparedResponder& operator=(const PreparedResponder&) = delete;

  std::string port() const;

 private:
  void serve() const;

  const std::string response_;
  Test::Descriptor listener_;
  Test::Descriptor stop_;
  std::thread thread_;  // last: it uses all the others
};

}  // namespace Velantrix::Bench
