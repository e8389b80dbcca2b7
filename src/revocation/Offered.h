// What sources answer: objects, and where each comes from.
#pragma once

#include <velantrix/Time.h>

#include <string>
#include <vector>

namespace Velantrix::Crypto::PKX509::Revocation {

// Where something comes from.
struct Provenance {
  enum class Kind {
    kMessage,         // came along with the certificate, as an untrusted certificate
    kPath,            // stands on the path that was verified
    kStore,           // the store's own list of objects
    kTrustDirectory,  // the directory of the store
    kCRLDirectory,    // the machine's directory of CRLs
    kLookupMethod,
    kCache,    // of what was fetched before
    kNetwork,  // fetched now
    kAnswer,   // came along with an OCSP answer
    kSettings  // named by the operator
  };

  Kind kind = Kind::kMessage;
  std::string place =
      {};  // a directory, a URI without what may be secret; empty where the kind says it
};

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
