#include "Responders.h"

#include <velantrix/ASN1.h>
#include <velantrix/AuthorityInformationAccess.h>
#include <velantrix/GeneralName.h>

#include <openssl/x509v3.h>

namespace Velantrix::Tool {

using namespace Crypto::PKX509;

std::vector<Uri> respondersNamedBy(const RefCertificate& certificate) {
  std::vector<Uri> uris;
  const RefAuthorityInformationAccess access(
      certificate->find(Crypto::ASN1::RefObjectIdentifier("1.3.6.1.5.5.7.1.1")));
  if (!access) return uris;
  for (const RefGeneralName& name : access->ocspGeneralNames()) {
    if (name->type() == GEN_URI) uris.push_back(name->uri());
  }
  return uris;
}

}  // namespace Velantrix::Tool
