// Of what kind an object may be, by its first octets. Trying a decoder costs a thousand times as
// much, and an input can have an object for each ten octets.
#pragma once

#include <cstddef>

namespace Velantrix::Crypto {

/// What is kept in DER files. The values are bits.
enum class ObjectKind : unsigned int {
  kCertificate = 0x01,
  kCRL = 0x02,
  kRequest = 0x04,       ///< PKCS #10, which OpenSSL calls X509_REQ
  kPublicKey = 0x08,     ///< SubjectPublicKeyInfo
  kPrivateKey = 0x10,    ///< PKCS #8
  kEncryptedKey = 0x20,  ///< PKCS #8, encrypted, which has the form of OpenSSL's X509_SIG
  kPkcs7 = 0x40,
  kPkcs12 = 0x80,
};

class ObjectKinds {
 public:
  /// The kinds that an encoding of @p length octets from @p der on can be of. OpenSSL's decoders of
  /// all other kinds refuse it; whether one of these takes it is for the decoder to say.
  static ObjectKinds possible(const unsigned char* der, std::size_t length) noexcept;

  bool has(ObjectKind kind) const noexcept {
    return (bits_ & static_cast<unsigned int>(kind)) != 0;
  }

 private:
  template <class... Kinds>
  static ObjectKinds of(Kinds... kinds) noexcept {
    ObjectKinds all;
    all.bits_ = (0U | ... | static_cast<unsigned int>(kinds));
    return all;
  }

  unsigned int bits_ = 0;
};

/// Whether a whole element of DER is an object of one of the kinds. Keys are not decoded, but what
/// holds them is.
bool isKnownObject(const unsigned char* der, std::size_t length);

}  // namespace Velantrix::Crypto
