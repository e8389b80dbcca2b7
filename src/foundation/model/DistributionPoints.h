// The distribution points of a certificate, without a handle for each: a stranger's certificate can
// have one for each two octets of the extension.
#pragma once

#include <velantrix/CRLDistributionPoint.h>
#include <velantrix/Certificate.h>

#include <openssl/x509v3.h>

#include <memory>

namespace Velantrix::Crypto::PKX509 {

class DistributionPoints {
 public:
  /// @throws Exception as `Certificate::crlDistributionPoints` does, whichever point is broken
  explicit DistributionPoints(const Certificate& certificate);
  /// Those of an extension of the same syntax, freshestCRL (RFC 5280, 4.2.1.15 and 5.2.6), where
  /// @p extensions, which may be null, have it.
  /// @param context what the exception names
  /// @throws Exception as the other constructor does
  DistributionPoints(const STACK_OF(X509_EXTENSION) * extensions, int nid, const char* context);

  /// 0 when the certificate has none.
  int count() const { return points_ == nullptr ? 0 : sk_DIST_POINT_num(points_.get()); }
  /// The point at @p index. It keeps all of the extension, and copies nothing of it.
  RefCRLDistributionPoint operator[](int index) const;

 private:
  std::shared_ptr<const CRL_DIST_POINTS> points_;
};

}  // namespace Velantrix::Crypto::PKX509
