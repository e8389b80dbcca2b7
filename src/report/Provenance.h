// Where something comes from, as sources say it.
#pragma once

#include <string>

namespace Velantrix::Crypto::PKX509::Revocation {

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

}  // namespace Velantrix::Crypto::PKX509::Revocation
