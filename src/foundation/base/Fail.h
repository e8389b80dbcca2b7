// The one way in which the library throws its exception.
//
//   constexpr Origin kHere{"LDAPTls", "LDAPTls"};
//   ...
//   if (context == nullptr) fail(kHere, "There is no TLS to be had.");
#pragma once

#include <velantrix/Exception.h>

#include <string>

namespace Velantrix {

/// Whose failure it is; texts that live as long as the process, or the call.
struct Origin {
  const char* context;  ///< the component or operation that failed
  const char* file;     ///< the source file's name, without directory and suffix
};

/// Throws an `Exception` of code `kFailure` with that detail.
/// @param line the caller's, unless it is given
[[noreturn]] inline void fail(const Origin& origin, const std::string& detail,
                              unsigned int line = __builtin_LINE()) {
  throw Exception(origin.context, Exception::kFailure, origin.file, line).stringParameter(detail);
}

}  // namespace Velantrix
