/// @file
/// Assertions that stay on in every build type.
///
/// They guard against programming errors of the caller (a dereferenced empty handle), never against
/// input: bad input is an exception or a verdict. `NDEBUG` has no say here, because a library that
/// decides about trust must stop rather than go on from a state that nobody meant.
///
/// @code
///   const ObjectStore* const px = store.get();
///   PKX509_ASSERT(px != 0);
/// @endcode
#pragma once

#include <velantrix/Export.h>

namespace Velantrix {

/// Writes "file:line: function: Assertion `expression' failed." to standard error and aborts.
[[noreturn]] PKX509_EXPORT void assertionFailed(const char* expression, const char* file,
                                                unsigned int line, const char* function) noexcept;

}  // namespace Velantrix

#define PKX509_ASSERT(expression)  \
  (static_cast<bool>(expression) ? \
       static_cast<void>(0)        \
     : ::Velantrix::assertionFailed(#expression, __FILE__, __LINE__, __func__))
