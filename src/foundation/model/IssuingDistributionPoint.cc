#include "foundation/model/ReasonFlags.h"
#include "foundation/openssl/References.h"

#include <velantrix/IssuingDistributionPoint.h>

#include <utility>

namespace Velantrix::Crypto::PKX509 {

namespace {

RefCRLDistributionPointName nameIn(const std::shared_ptr<const ISSUING_DIST_POINT>& point) {
  if (notNull(point.get())->distpoint == nullptr) return RefCRLDistributionPointName();
  return RefCRLDistributionPointName(new CRLDistributionPointName(
      std::shared_ptr<const DIST_POINT_NAME>(point, point->distpoint)));
}

}  // namespace

// An ASN1_BOOLEAN is -1 when it is absent; all four default to false.
IssuingDistributionPoint::IssuingDistributionPoint(const ISSUING_DIST_POINT& native,
                                                   RefCRLDistributionPointName name)
    : name_(std::move(name)),
      reasons_(reasonFlags(native.onlysomereasons)),
      onlyUser_(native.onlyuser > 0),
      onlyCA_(native.onlyCA > 0),
      onlyAttr_(native.onlyattr > 0),
      indirectCRL_(native.indirectCRL > 0) {}

IssuingDistributionPoint::IssuingDistributionPoint(const ISSUING_DIST_POINT* native)
    : IssuingDistributionPoint(*notNull(native), RefCRLDistributionPointName(native->distpoint)) {}

IssuingDistributionPoint::IssuingDistributionPoint(
    const std::shared_ptr<const ISSUING_DIST_POINT>& native)
    : IssuingDistributionPoint(*notNull(native.get()), nameIn(native)) {}

RefIssuingDistributionPoint::RefIssuingDistributionPoint(const ISSUING_DIST_POINT* native) {
  if (native != nullptr) *this = RefIssuingDistributionPoint(new IssuingDistributionPoint(native));
}

}  // namespace Velantrix::Crypto::PKX509
