/// @file
/// Pairs of cross-certificates, as directories keep them (RFC 4523, 2.3).
///
/// @code
///   RefCrossCertificatePair pair(value);                  // a value of the directory
///   if (!pair->forward().empty()) use(pair->forward());   // issued to the directory entry's CA
///   if (!pair->reverse().empty()) use(pair->reverse());   // issued by it
/// @endcode
#pragma once

#include <velantrix/Buffer.h>
#include <velantrix/Certificate.h>
#include <velantrix/Export.h>
#include <velantrix/Refcounted.h>

namespace Velantrix::Crypto::PKX509 {

/// An immutable CertificatePair, with explicit tags. Several threads may read it at once.
///
/// @code{.asn1}
///   SEQUENCE { forward [0] Certificate OPTIONAL, reverse [1] Certificate OPTIONAL }
/// @endcode
///
/// Whether the two belong together (each the other's issuer) is not checked.
class PKX509_EXPORT CrossCertificatePair : public RefImpl {
 public:
  /// @throws Exception when @p der is not the DER of such a pair, to its last octet
  explicit CrossCertificatePair(const Buffer& der);

  /// Empty when absent.
  RefCertificate forward() const { return forward_; }
  /// Empty when absent.
  RefCertificate reverse() const { return reverse_; }

 private:
  RefCertificate forward_;
  RefCertificate reverse_;
};

/// A handle to a `CrossCertificatePair`.
class PKX509_EXPORT RefCrossCertificatePair : public Ref<CrossCertificatePair> {
 public:
  using Ref<CrossCertificatePair>::Ref;
  RefCrossCertificatePair() noexcept = default;
  /// @throws Exception as `CrossCertificatePair` does
  explicit RefCrossCertificatePair(const Buffer& der);
};

}  // namespace Velantrix::Crypto::PKX509
