#include "foundation/base/URIReference.h"

#include "foundation/base/DotSegments.h"

#include <boost/url/parse.hpp>
#include <boost/url/url_view.hpp>

#include <string>

namespace Velantrix {

namespace {

// The components of RFC 3986, 3; an authority and a query with the mark in front of them, so that one
// that is empty is not one that is missing.
struct Parts {
  std::string authority;
  std::string path;
  std::string query;
};

// Boost.URL's string types change from release to release.
template <class Text>
std::string copyOf(const Text& text) {
  return std::string(text.data(), text.size());
}

// Boost.URL only parses here: 1.81's own resolution loses an absolute path.
Parts partsOf(const boost::urls::url_view& url) {
  Parts parts;
  if (url.has_authority()) parts.authority = "//" + copyOf(url.encoded_authority());
  parts.path = copyOf(url.encoded_path());
  if (url.has_query()) parts.query = "?" + copyOf(url.encoded_query());
  return parts;
}

// 5.2.3
std::string merged(const Parts& base, const std::string& path) {
  if (!base.authority.empty() && base.path.empty()) return "/" + path;
  return base.path.substr(0, base.path.rfind('/') + 1) + path;
}

// 5.2.2, for a reference that has no scheme.
Parts transformed(const Parts& base, Parts reference) {
  if (reference.authority.empty()) {
    reference.authority = base.authority;
    if (reference.path.empty()) {
      reference.path = base.path;
      if (reference.query.empty()) reference.query = base.query;
      return reference;
    }
    if (!reference.path.starts_with('/')) reference.path = merged(base, reference.path);
  }
  if (reference.path.starts_with('/')) reference.path = withoutDotSegments(reference.path);
  return reference;
}

}  // namespace

Uri resolveReference(const Uri& base, std::string_view reference) {
  const std::string text(reference.substr(0, reference.find('#')));
  const auto parsed = boost::urls::parse_uri_reference(text);
  const auto parsedBase = boost::urls::parse_uri(base.asString());
  if (!parsed || !parsedBase) return {};
  if (parsed->has_scheme()) return Uri(text);
  const Parts target = transformed(partsOf(*parsedBase), partsOf(*parsed));
  return Uri(base.scheme() + target.authority + target.path + target.query);
}

}  // namespace Velantrix
