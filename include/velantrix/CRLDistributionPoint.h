/// @file
/// CRL distribution points (RFC 5280, 4.2.1.13): where the CRLs for a certificate are to be found.
///
/// @code
///   for (const RefCRLDistributionPoint& point : certificate->crlDistributionPoints()) {
///     const RefCRLDistributionPointName name = point->distributionPointName();
///     if (!name.empty() && name->type() == CRLDistributionPointName::kFullName)
///       for (const RefGeneralName& place : name->fullName()) ...
///   }
/// @endcode
///
/// All objects here are immutable; several threads may read them at once. A stranger's list of names
/// can be long: what is decoded is kept once, and handles are made when they are asked for.
#pragma once

#include <velantrix/DistinguishedName.h>
#include <velantrix/Export.h>
#include <velantrix/GeneralName.h>
#include <velantrix/Refcounted.h>

#include <openssl/x509v3.h>

#include <list>
#include <memory>
#include <string>

namespace Velantrix::Crypto::PKX509 {

/// The reasons of RFC 5280's ReasonFlags that a distribution point can name, all together.
inline constexpr unsigned int kAllReasons = 0x807f;

/// A DistributionPointName: either a list of general names or one RDN that has to be put in front
/// of the CRL issuer's name.
class PKX509_EXPORT CRLDistributionPointName : public RefImpl {
 public:
  static constexpr int kFullName = 0;
  static constexpr int kRelativeName = 1;

  /// Copies @p native, which must not be null and stays the caller's.
  /// @throws Exception when a name in it cannot be copied
  explicit CRLDistributionPointName(const DIST_POINT_NAME* native);
  /// Shares @p native, which nobody changes any more, together with what it is a part of; null
  /// makes a full name without names.
  /// @throws Exception when a relative name in it cannot be encoded
  explicit CRLDistributionPointName(std::shared_ptr<const DIST_POINT_NAME> native);

  /// `kFullName` or `kRelativeName`.
  int type() const noexcept { return type_; }
  /// The general names of a full name, in their order; empty for a relative one.
  std::list<RefGeneralName> fullName() const;
  /// The same names as OpenSSL holds them, for who looks at them without a handle for each; null
  /// for a relative name.
  std::shared_ptr<const GENERAL_NAMES> nativeFullName() const;
  /// The text of the RDN of a relative name, ready to be put before "," and the text of the
  /// issuer's name; empty for a full name.
  std::string relativeName() const { return relativeName_.asString(); }

  /// Two full names are the same when they share a general name (RFC 5280, 6.3.3 (b)(2)(i)), two
  /// relative names when their RDNs are; a full and a relative name never are: which issuer would
  /// complete the relative one is not known here.
  bool operator==(const CRLDistributionPointName& other) const noexcept;
  bool operator!=(const CRLDistributionPointName& other) const noexcept {
    return !(*this == other);
  }
  /// True when this is a full name that holds @p name as a directory name.
  bool operator==(const DistinguishedName& name) const noexcept;
  bool operator!=(const DistinguishedName& name) const noexcept { return !(*this == name); }

 private:
  int type_ = kFullName;
  std::shared_ptr<const DIST_POINT_NAME> native_;  // null when there was nothing to copy
  DistinguishedName relativeName_;
};

/// A handle to a `CRLDistributionPointName`; empty when a distribution point has no name.
class PKX509_EXPORT RefCRLDistributionPointName : public Ref<CRLDistributionPointName> {
 public:
  using Ref<CRLDistributionPointName>::Ref;
  RefCRLDistributionPointName() noexcept = default;
  /// Copies @p native; null makes an empty handle.
  explicit RefCRLDistributionPointName(const DIST_POINT_NAME* native);
};

/// One DistributionPoint of a certificate.
class PKX509_EXPORT CRLDistributionPoint : public RefImpl {
 public:
  /// Copies @p native, which must not be null and stays the caller's.
  /// @throws Exception when a name in it cannot be copied
  explicit CRLDistributionPoint(const DIST_POINT* native);
  /// Shares @p native, which must not be null and nobody changes any more, together with what it
  /// is a part of.
  /// @throws Exception when a relative name in it cannot be encoded
  explicit CRLDistributionPoint(std::shared_ptr<const DIST_POINT> native);

  /// Empty when the point has none; RFC 5280 then wants CRL issuers.
  RefCRLDistributionPointName distributionPointName() const;
  /// The names of the CRL issuer field; empty when the certificate's issuer issues the CRL too.
  std::list<RefGeneralName> issuers() const;
  /// The same names as OpenSSL holds them, for who looks at them without a handle for each; null
  /// when the field is absent.
  std::shared_ptr<const GENERAL_NAMES> nativeIssuers() const;
  /// OpenSSL's reason bits, `kAllReasons` when the field is absent. Bits that RFC 5280 does not
  /// define are dropped.
  unsigned int reasons() const noexcept { return reasons_; }

 private:
  unsigned int reasons_;
  std::shared_ptr<const DIST_POINT> native_;
};

/// A handle to a `CRLDistributionPoint`.
class PKX509_EXPORT RefCRLDistributionPoint : public Ref<CRLDistributionPoint> {
 public:
  using Ref<CRLDistributionPoint>::Ref;
  RefCRLDistributionPoint() noexcept = default;
  /// Copies @p native; null makes an empty handle.
  explicit RefCRLDistributionPoint(const DIST_POINT* native);
};

}  // namespace Velantrix::Crypto::PKX509
