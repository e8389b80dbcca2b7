#include "revocation/NoRevocationAvailable.h"

#include "foundation/model/ExtensionDecoder.h"
#include "foundation/openssl/OpenSSLOwners.h"
#include "revocation/NullExtension.h"

#include <velantrix/AuthorityInformationAccess.h>
#include <velantrix/Exception.h>

#include <cstddef>

namespace Velantrix::Crypto::PKX509::Revocation {

namespace {

bool hasExtension(const RefCertificate& certificate, int nid) {
  return X509_get_ext_by_NID(certificate->native(), nid, -1) >= 0;
}

bool namesOCSPResponder(const RefCertificate& certificate) {
  const RefAuthorityInformationAccess access(
      certificate->find(ASN1::RefObjectIdentifier("1.3.6.1.5.5.7.1.1")));
  std::size_t position = 0;
  return !access.empty() && !access->nextOCSPGeneralName(position).empty();
}

// RFC 9608: where revocation information is said to be, it is not said that there is none.
bool namesAPlace(const RefCertificate& certificate) {
  return hasExtension(certificate, NID_crl_distribution_points) ||
         hasExtension(certificate, NID_freshest_crl) || namesOCSPResponder(certificate);
}

}  // namespace

NoRevocation noRevocationAvailable(const RefCertificate& certificate) {
  const ErrorScope errors;
  try {
    const X509_EXTENSION* const extension =
        onlyExtension(X509_get0_extensions(certificate->native()), OBJ_nid2obj(NID_no_rev_avail),
                      "Revocation::noRevocationAvailable");
    if (extension == nullptr) return NoRevocation::kAbsent;
    // RFC 9608: its value is NULL, and it stands in certificates of end entities only.
    const bool proper =
        holdsNull(extension) && !certificate->isCACert() && !namesAPlace(certificate);
    return proper ? NoRevocation::kAsserted : NoRevocation::kMisused;
  } catch (const Exception&) {
    // It stands there twice, or what stands beside it cannot be read.
    return NoRevocation::kMisused;
  }
}

}  // namespace Velantrix::Crypto::PKX509::Revocation
