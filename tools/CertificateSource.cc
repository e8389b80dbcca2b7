#include "CertificateSource.h"

#include "Input.h"

#include <pkx509/HashDirLookup.h>

namespace Velantrix::Tool {

using namespace Crypto::PKX509;

CertificateSource directorySource(const std::string& directory) {
  requireHashDirectory("--dir", directory);
  return {directory, RefLookupMethod(new HashDirLookupMethod(directory)), {}};
}

}  // namespace Velantrix::Tool
