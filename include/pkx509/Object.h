/// @file
/// What an object store keeps and a lookup method answers: one certificate, CRL or
/// cross-certificate pair, together with the OpenSSL pointer that goes into OpenSSL's own result
/// record.
///
/// @code
///   RefObject object(certificate);            // shares the certificate
///   if (object->type == Object::TypeCertificate) use(object->certificate);
/// @endcode
#pragma once

#include <velantrix/Certificate.h>
#include <velantrix/CertificateRevocationList.h>
#include <velantrix/CrossCertificatePair.h>
#include <velantrix/Export.h>

#include <boost/smart_ptr/shared_ptr.hpp>

#include <cstdint>
#include <type_traits>

namespace Velantrix::Crypto::PKX509 {

/// A pointer to OpenSSL's object, which reads as a `void*` does. That of a CRL need not be there yet: it is
/// made when the pointer is first read (`CertificateRevocationList::native()`), which takes its time and
/// memory where the list is long. Who wants to know whether there is one asks for the type of the `Object`.
class PKX509_EXPORT ObjectData {
 public:
  /// Null.
  ObjectData() noexcept = default;
  ObjectData(void* pointer) noexcept  // NOLINT(google-explicit-constructor): as the pointer itself
      : value_(reinterpret_cast<std::uintptr_t>(pointer)) {}

  /// @throws std::bad_alloc when the object of a CRL is asked for first and cannot be made
  operator void*() const;  // NOLINT(google-explicit-constructor)
  template <class T, class = std::enable_if_t<std::is_object_v<T>>>
  explicit operator T*() const {
    return static_cast<T*>(static_cast<void*>(*this));
  }

 private:
  friend class Object;
  explicit ObjectData(const CertificateRevocationList& crl) noexcept;

  // A pointer as it is, or one to a CertificateRevocationList with the lowest bit set. It has the size and,
  // for certificates, the content of a pointer.
  std::uintptr_t value_ = 0;
};

/// One object of a store.
///
/// `type` and `data` mirror the record that OpenSSL's lookups fill. `data` is borrowed: the handle
/// beside it owns the OpenSSL object, and outlives each use of `data`. An `Object` is written when it is made and only read after.
class PKX509_EXPORT Object {
 public:
  /// OpenSSL's `X509_LOOKUP_TYPE` values, which are passed through in both directions unchanged.
  enum Type : int {
    TypeNone = 0,                  ///< default-constructed objects and cross-certificate pairs
    TypeCertificate = 1,           ///< `X509_LU_X509`
    TypeCRL = 2,                   ///< `X509_LU_CRL`
    TypeCrossCertificatePair = 99  ///< only ever a request; no object carries it
  };

  Object();
  /// An empty handle gives an object of `TypeNone`.
  explicit Object(const RefCertificate& certificate);
  /// An empty handle gives an object of `TypeNone`.
  explicit Object(const RefCertificateRevocationList& crl);
  /// A pair is never handed to OpenSSL, so its object stays `TypeNone` without `data`; it is found
  /// by walking a store's objects.
  explicit Object(const RefCrossCertificatePair& pair);
  virtual ~Object();

  Type type = TypeNone;
  ObjectData data;  ///< `X509*` or `X509_CRL*`, borrowed from the handle; null otherwise
  RefCertificate certificate;
  RefCertificateRevocationList crl;
  RefCrossCertificatePair crossPair;
};

/// Shared ownership of an `Object`, with the semantics of `boost::shared_ptr`.
///
/// Counts are atomic. Dereferencing an empty handle is a programming error and stops the process
/// (assertion "px != 0"), in every build type.
class PKX509_EXPORT RefObject : public boost::shared_ptr<Object> {
 public:
  RefObject() noexcept = default;
  explicit RefObject(const RefCertificate& certificate);
  explicit RefObject(const RefCertificateRevocationList& crl);
  explicit RefObject(const RefCrossCertificatePair& pair);
  RefObject(const RefObject&) noexcept = default;
  RefObject& operator=(const RefObject& other) noexcept;

  Object* operator->() const;
  Object& operator*() const;
  /// True when the handle holds nothing.
  bool empty() const noexcept { return get() == nullptr; }
};

}  // namespace Velantrix::Crypto::PKX509
