/// @file
/// The issuing distribution point of a CRL (RFC 5280, 5.2.5): which certificates the CRL is about.
///
/// @code
///   const RefIssuingDistributionPoint scope = crl->issuingDistributionPoint();
///   if (!scope.empty() && scope->onlyCA() && !certificate->isCACert()) reject();
///   if (!scope.empty()) reasons &= scope->reasons();
///   if (!scope.empty() && !scope->distributionPointName().empty()) compareNames();
/// @endcode
#pragma once

#include <velantrix/CRLDistributionPoint.h>
#include <velantrix/Export.h>
#include <velantrix/Refcounted.h>

#include <openssl/x509v3.h>

#include <memory>

namespace Velantrix::Crypto::PKX509 {

/// An immutable IssuingDistributionPoint. Several threads may read it at once.
///
/// It reports what the extension says and does not judge it: RFC 5280 allows at most one of
/// `onlyUser()`, `onlyCA()` and `onlyAttr()`, and wants the extension critical.
class PKX509_EXPORT IssuingDistributionPoint : public RefImpl {
 public:
  /// Copies @p native, which must not be null and stays the caller's.
  /// @throws Exception when a name in it cannot be copied
  explicit IssuingDistributionPoint(const ISSUING_DIST_POINT* native);
  /// Shares @p native, which must not be null and nobody changes any more.
  /// @throws Exception when a relative name in it cannot be encoded
  explicit IssuingDistributionPoint(const std::shared_ptr<const ISSUING_DIST_POINT>& native);

  /// Empty when the extension names no distribution point.
  RefCRLDistributionPointName distributionPointName() const { return name_; }
  bool onlyUser() const noexcept { return onlyUser_; }
  bool onlyCA() const noexcept { return onlyCA_; }
  bool onlyAttr() const noexcept { return onlyAttr_; }
  /// Entries may be about certificates of other issuers (RFC 5280, 5.3.3).
  bool indirectCRL() const noexcept { return indirectCRL_; }
  /// OpenSSL's reason bits, `kAllReasons` when the field is absent.
  unsigned int reasons() const noexcept { return reasons_; }

 private:
  IssuingDistributionPoint(const ISSUING_DIST_POINT& native, RefCRLDistributionPointName name);

  RefCRLDistributionPointName name_;
  unsigned int reasons_;
  bool onlyUser_;
  bool onlyCA_;
  bool onlyAttr_;
  bool indirectCRL_;
};

/// A handle to an `IssuingDistributionPoint`; empty when a CRL has none.
class PKX509_EXPORT RefIssuingDistributionPoint : public Ref<IssuingDistributionPoint> {
 public:
  using Ref<IssuingDistributionPoint>::Ref;
  RefIssuingDistributionPoint() noexcept = default;
  /// Copies @p native; null makes an empty handle.
  explicit RefIssuingDistributionPoint(const ISSUING_DIST_POINT* native);
};

}  // namespace Velantrix::Crypto::PKX509
