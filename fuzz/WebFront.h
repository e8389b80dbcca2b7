// A web server on loopback that has a body for some paths, and remembers who was asked for.
//
//   webFront().serve({{"/0/1", der}});
//   ...                                     // verify something that names webFront().uri("/0/1")
//   const auto asked = webFront().asked();  // the paths, one for each connection since
//
// A thread of its own serves one connection after the other.
#pragma once

#include "support/Descriptor.h"

#include <velantrix/NonCopyable.h>

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace Velantrix::Fuzz {

class WebFront : private NonCopyable {
 public:
  WebFront();

  std::string uri(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(port_) + path;
  }
  /// What there is from now on; 404 for other paths. What was asked for is forgotten.
  void serve(std::map<std::string, std::string> bodies);
  /// Waits until every connection that was made before has been served. One that asked for nothing
  /// has an empty path.
  std::vector<std::string> asked();

 private:
  void run();
  void answer(const Test::Descriptor& client);
  std::string responseTo(const std::string& path);

  Test::Descriptor listener_;
  std::uint16_t port_ = 0;
  std::mutex mutex_;
  std::map<std::string, std::string> bodies_;
  std::vector<std::string> asked_;
};

/// The one of this process. It lives as long.
WebFront& webFront();

}  // namespace Velantrix::Fuzz
