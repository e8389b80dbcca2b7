/// @file
/// The authority information access extension (RFC 5280, 4.2.2.1): where OCSP responders are.
///
/// @code
///   RefAuthorityInformationAccess access(
///       certificate->find(ASN1::RefObjectIdentifier("1.3.6.1.5.5.7.1.1")));
///   if (!access.empty())
///     for (const RefGeneralName& responder : access->ocspGeneralNames()) ...
/// @endcode
#pragma once

#include <velantrix/Export.h>
#include <velantrix/Extension.h>
#include <velantrix/GeneralName.h>
#include <velantrix/Refcounted.h>

#include <cstddef>
#include <list>
#include <string>

namespace Velantrix::Crypto::PKX509 {

/// An immutable reading of the extension. Several threads may read it at once.
class PKX509_EXPORT AuthorityInformationAccess : public RefImpl {
 public:
  /// @throws Exception when @p extension is of another type or cannot be decoded to its last octet
  explicit AuthorityInformationAccess(const Extension& extension);

  /// The access locations of method id-ad-ocsp, in their order, of whatever type they are.
  /// Locations of other methods (id-ad-caIssuers) are left out.
  std::list<RefGeneralName> ocspGeneralNames() const;

  /// One of them after the other, for who may need only the first: a stranger can name a hundred
  /// thousand.
  /// @param position 0 for the first one; it is moved behind what is returned
  /// @return an empty handle behind the last one
  RefGeneralName nextOCSPGeneralName(std::size_t& position) const;

 private:
  std::string ocsp_;  // their encodings, end to end
};

/// A handle to an `AuthorityInformationAccess`.
class PKX509_EXPORT RefAuthorityInformationAccess : public Ref<AuthorityInformationAccess> {
 public:
  using Ref<AuthorityInformationAccess>::Ref;
  RefAuthorityInformationAccess() noexcept = default;
  /// Reads @p extension; an empty one makes an empty handle.
  /// @throws Exception as `AuthorityInformationAccess` does
  explicit RefAuthorityInformationAccess(const RefExtension& extension);
};

}  // namespace Velantrix::Crypto::PKX509
