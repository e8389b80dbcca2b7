/// @file
/// A mail address as a look-up key.
///
/// @code
///   const EmailAddress address("someone@example.com");
///   std::list<RefCertificate> found;
///   if (!address.isNull()) lookup.getByEmailAddress("", address, found);
/// @endcode
#pragma once

#include <velantrix/Export.h>

#include <string>

namespace Velantrix {

/// The text of a mail address, unchanged.
///
/// Nothing is normalised: "A@example.com" and "a@example.com" are two addresses, because the local
/// part of an address is case-sensitive (RFC 5321, 2.4) and because the text itself is hashed into
/// file names. The syntax of RFC 5321 is *not* checked either. What is refused, by being null, is
/// what cannot be an address at all or could forge log lines: a text without '@', with nothing
/// before or after it, or with a control character.
class PKX509_EXPORT EmailAddress {
 public:
  /// The null address.
  EmailAddress() = default;
  /// Null when @p text is no address, see above. Never throws for its content.
  explicit EmailAddress(const std::string& text);

  bool isNull() const noexcept { return address_.empty(); }
  /// The text as given; empty for a null address.
  const std::string& address() const noexcept { return address_; }

  bool operator==(const EmailAddress&) const = default;

 private:
  std::string address_;
};

}  // namespace Velantrix
