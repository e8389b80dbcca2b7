// Taking hold of OpenSSL's objects.
#pragma once

#include "foundation/base/Fail.h"
#include "foundation/openssl/OpenSSLOwners.h"

#include <velantrix/Assert.h>

namespace Velantrix::Crypto {

/// @p native itself. That it is not null is the caller's duty: for lists of members, which use it
/// before the body of a constructor could look.
template <class T>
T* notNull(T* native) {
  PKX509_ASSERT(native != nullptr);
  return native;
}

inline int takeReference(X509* object) noexcept { return X509_up_ref(object); }
inline int takeReference(X509_CRL* object) noexcept { return X509_CRL_up_ref(object); }

/// Another reference to @p object, which is not null.
/// @throws Exception in the name of @p origin and with the caller's line when OpenSSL refuses it
template <class T>
Owned<T> newReference(T* object, const Origin& origin, unsigned int line = __builtin_LINE()) {
  if (takeReference(object) != 1) fail(origin, "no reference to be had", line);
  return Owned<T>(object);
}

/// A copy of @p native, which is not null, made with OpenSSL's @p duplicate.
/// @throws Exception in the name of @p origin, with @p detail and the caller's line, when OpenSSL
///         cannot copy it
template <class T>
Owned<T> newCopy(T* (*duplicate)(const T*), const T* native, const Origin& origin,
                 const char* detail, unsigned int line = __builtin_LINE()) {
  const ErrorScope errors;
  Owned<T> copy(duplicate(notNull(native)));
  if (copy == nullptr) fail(origin, detail, line);
  return copy;
}

}  // namespace Velantrix::Crypto
