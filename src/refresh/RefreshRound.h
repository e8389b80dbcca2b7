// One round over many URIs: a few hosts at once, the URIs of each host one after the other.
//
//   RefreshRound round({.parallel = 4}, listener);
//   const auto entries = round.run(uris, [&](const Uri& uri) { return refresh(uri); });
#pragma once

#include <pkx509/CRLRefresh.h>
#include <velantrix/NonCopyable.h>

#include <functional>
#include <vector>

namespace Velantrix::Crypto::PKX509 {

class RefreshRound : private NonCopyable {
 public:
  using Work = std::function<CRLRefresh::Entry(const Uri& uri)>;

  // The listener is borrowed and may be empty.
  RefreshRound(unsigned int parallel, const CRLRefresh::Listener& listener)
      : parallel_(parallel), listener_(listener) {}

  // An entry for each URI, in the order of their normal forms, equal ones once. The work is done by as
  // many threads at once as may be, this one among them; it deals with being stopped itself. What it or
  // the listener throws ends the round, and is thrown when all threads have ended.
  std::vector<CRLRefresh::Entry> run(std::vector<Uri> uris, const Work& work);

 private:
  unsigned int parallel_;
  const CRLRefresh::Listener& listener_;
};

}  // namespace Velantrix::Crypto::PKX509
