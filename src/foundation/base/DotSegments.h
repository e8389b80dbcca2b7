// Whether a path says "." or "..", which a normal form leaves out and a server may read in its own
// way.
#pragma once

#include <string>
#include <string_view>

namespace Velantrix {

/// Whether one of the segments of @p path is "." or "..", their dots percent-encoded or not
/// (RFC 3986, 3.3 and 6.2.2.2).
/// @param path of a URI, or any other text in which hexadecimal digits follow each '%'
bool hasDotSegments(std::string_view path);

/// RFC 3986, 5.2.4, for a path that begins with a slash: "." goes, ".." takes the segment before it
/// along, and one at the end leaves the slash.
std::string withoutDotSegments(std::string_view path);

}  // namespace Velantrix
