/// @file
/// What a key store answers with: a key, its certificate, or either.
///
/// @code
///   KeyCertificatePair found(true);
///   found.certificate(certificate);
///   if (!found.certificate().empty() && found.key().empty()) ...   // somebody else's certificate
///   KeyCertificatePair nothing(false);
/// @endcode
#pragma once

#include <velantrix/Certificate.h>
#include <velantrix/Export.h>
#include <velantrix/Key.h>

#include <optional>

namespace Velantrix::Crypto::PKX509 {

/// A value: copies have handles of their own, to the same key and certificate.
///
/// A pair either has a body, whose key and certificate may both be missing, or is empty: "the store
/// looked and has this much" differs from "the store has no answer". Whether key and certificate
/// belong together is not checked.
class PKX509_EXPORT KeyCertificatePair {
 public:
  /// @param withBody true makes a pair whose key and certificate can be set; false an empty pair
  explicit KeyCertificatePair(bool withBody);

  /// True without a body.
  bool empty() const noexcept { return !body_.has_value(); }

  /// Empty handles when there is none, and for an empty pair.
  RefKey key() const;
  RefCertificate certificate() const;

  /// @throws Exception with code 1 on an empty pair
  void key(const RefKey& key);
  /// @throws Exception with code 1 on an empty pair
  void certificate(const RefCertificate& certificate);

 private:
  struct Body {
    RefKey key;
    RefCertificate certificate;
  };

  std::optional<Body> body_;
};

}  // namespace Velantrix::Crypto::PKX509
