// What sources answer: objects, and where each comes from.
#pragma once

#include "report/Provenance.h"

#include <velantrix/Time.h>

#include <vector>

namespace Velantrix::Crypto::PKX509::Revocation {

template <class T>
struct Offered {
  T object = {};
  Provenance from = {};
  Time fetched = {};  // when the source answered
};

// All that a source has under one name. Nothing is sorted out: what has expired, or is not valid yet,
// is for the caller to judge, who may be asking about a moment in the past.
template <class T>
struct Offers {
  std::vector<Offered<T>> found = {};
  bool cut = false;  // there may be more: the source failed, or was cut short
};

}  // namespace Velantrix::Crypto::PKX509::Revocation
