/// @file
/// One GeneralName (RFC 5280, 4.2.1.6), as distribution points and access descriptions hold them.
///
/// @code
///   for (const RefGeneralName& name : point->issuers()) {
///     if (name->type() == GEN_DIRNAME) search(name->dn());
///     if (name->type() == GEN_URI && !name->uri().isNull()) fetch(name->uri());
///   }
/// @endcode
#pragma once

#include <velantrix/DistinguishedName.h>
#include <velantrix/Export.h>
#include <velantrix/Refcounted.h>
#include <velantrix/Uri.h>

#include <openssl/x509v3.h>

#include <list>
#include <memory>

namespace Velantrix::Crypto::PKX509 {

/// An immutable GENERAL_NAME. Several threads may read it at once.
///
/// It does not check what the name says: an URI that is none is kept, with a null `uri()`.
class PKX509_EXPORT GeneralName : public RefImpl {
 public:
  /// Copies @p native, which must not be null and stays the caller's.
  /// @throws Exception when OpenSSL cannot copy it
  explicit GeneralName(const GENERAL_NAME* native);
  /// Shares @p native, which must not be null and nobody changes any more. A shared pointer that
  /// points into an extension and owns that extension makes a name without a copy.
  /// @throws Exception when a directory name cannot be encoded
  explicit GeneralName(std::shared_ptr<const GENERAL_NAME> native);

  /// OpenSSL's number: `GEN_DIRNAME` 4, `GEN_URI` 6, ...
  int type() const noexcept;
  /// The name of a directoryName; the empty name for every other type.
  const DistinguishedName& dn() const noexcept { return dn_; }
  /// The URI of a uniformResourceIdentifier; null for every other type, and for text that is no
  /// URI. It is read anew each time.
  Uri uri() const;

  /// OpenSSL's `GENERAL_NAME_cmp`: directory names by the canonical comparison, everything else
  /// octet for octet, types included.
  bool operator==(const GeneralName& other) const noexcept;
  bool operator!=(const GeneralName& other) const noexcept { return !(*this == other); }

  /// Borrowed, never null.
  const GENERAL_NAME* native() const noexcept { return native_.get(); }

 private:
  std::shared_ptr<const GENERAL_NAME> native_;
  DistinguishedName dn_;
};

/// A handle to a `GeneralName`.
class PKX509_EXPORT RefGeneralName : public Ref<GeneralName> {
 public:
  using Ref<GeneralName>::Ref;
  RefGeneralName() noexcept = default;
  /// Copies @p native; null makes an empty handle.
  explicit RefGeneralName(const GENERAL_NAME* native);
};

}  // namespace Velantrix::Crypto::PKX509
