// Brings the CRL of one URI up to date where it is time for that.
//
//   Refresher refresher(means, {.share = 0.5});
//   const CRLRefresh::Entry entry = refresher.refresh(uri);
#pragma once

#include "refresh/RefreshMeans.h"

#include <pkx509/CRLRefresh.h>
#include <velantrix/NonCopyable.h>

namespace Velantrix::Crypto::PKX509 {

class Refresher : private NonCopyable {
 public:
  struct Terms {
    double share = 0.5;
    bool all = false;
  };

  // The means are borrowed.
  Refresher(RefreshMeans& means, const Terms& terms) : means_(means), terms_(terms) {}

  // Throws std::bad_alloc; what files and hosts do is in the entry.
  CRLRefresh::Entry refresh(const Uri& uri);

 private:
  RefreshMeans& means_;
  Terms terms_;
};

}  // namespace Velantrix::Crypto::PKX509
