// Parts of a URI as others are told them.
#pragma once

#include <velantrix/Uri.h>

#include <string>

namespace Velantrix {

/// Host and port, without the user; no port when the URI names none. Empty without a host.
inline std::string authorityOf(const Uri& uri) {
  const std::string& host = uri.hostname();
  std::string text = host.find(':') == std::string::npos ? host : "[" + host + "]";
  if (!host.empty() && uri.port() != 0) text += ":" + std::to_string(uri.port());
  return text;
}

/// The URI without what may be secret: user and password, query, fragment.
inline std::string withoutSecrets(const Uri& uri) {
  const std::string authority = authorityOf(uri);
  return uri.scheme() + (authority.empty() ? "" : "//" + authority) + uri.path();
}

/// Path and query: what is asked of the host (RFC 9112, 3.2.1).
inline std::string requestTarget(const Uri& uri) {
  const std::string text = uri.asString().substr(0, uri.asString().find('#'));
  const std::size_t query = text.find('?');
  return uri.path() + (query == std::string::npos ? "" : text.substr(query));
}

}  // namespace Velantrix
