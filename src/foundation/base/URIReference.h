// Where a reference leads from a URI.
//
//   resolveReference(Uri("http://host/a/b?q"), "../c");  // "http://host/c"
#pragma once

#include <velantrix/Uri.h>

#include <string_view>

namespace Velantrix {

/// RFC 3986, 5.2, without the fragment. What is a URI by itself is taken as it stands. Null when the
/// reference is none, or leads nowhere.
/// @param base not null
Uri resolveReference(const Uri& base, std::string_view reference);

}  // namespace Velantrix
