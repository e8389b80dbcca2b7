// A store in which there is nothing.
#pragma once

#include <pkx509/ObjectStore.h>

namespace Velantrix::Test {

inline Crypto::PKX509::RefObjectStore emptyStore() {
  return Crypto::PKX509::RefObjectStore("/nonexistent", X509_FILETYPE_PEM);
}

}  // namespace Velantrix::Test
