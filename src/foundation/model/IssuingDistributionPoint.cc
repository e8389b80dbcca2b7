#include "foundation/model/ReasonFlags.h"
#include "foundation/openssl/References.h"

#include <velantrix/IssuingDistributionPoint.h>

namespace Velantrix::Crypto::PKX509 {

// An ASN1_BOOLEAN is -1 when it is absent; all four default to false.
IssuingDistributionPoint::IssuingDistributionPoint(const ISSUING_DIST_POINT* native)
    : name_(notNull(native)->distpoint),
      reasons_(reasonFlags(native->onlysomereasons)),
      onlyUser_(native->onlyuser > 0),
      onlyCA_(native->onlyCA > 0),
      onlyAttr_(native->onlyattr > 0),
      indirectCRL_(native->indirectCRL > 0) {}

RefIssuingDistributionPoint::RefIssuingDistributionPoint(const ISSUING_DIST_POINT* native) {
  if (native != nullptr) *this = RefIssuingDistributionPoint(new IssuingDistributionPoint(native));
}

}  // namespace Velantrix::Crypto::PKX509
