// URIs: normal form, parts, and the names of cache files.
#include "Fuzz.h"

#include <pkx509/HashDirLookup.h>
#include <velantrix/Uri.h>

#include <algorithm>
#include <charconv>
#include <string_view>

namespace Velantrix::Fuzz::URITarget {
namespace {

using Crypto::PKX509::DirectoryParser;
using Crypto::PKX509::HashDirLookupMethod;
using Crypto::PKX509::Object;

bool isPrintableAscii(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return c > 0x20 && c < 0x7f; });
}

/// That a scan for the key of a file of the cache takes the file.
void checkFileName(const Uri& uri) {
  std::string name;
  PKX509_ASSERT(accepted([&] { name = HashDirLookupMethod::fileName(uri); }));
  unsigned int key = 0;
  const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), key, 16);
  PKX509_ASSERT(error == std::errc() && std::string_view(end) == ".r0");
  std::list<Crypto::PKX509::RefCertificate> certificates;
  std::list<Crypto::PKX509::RefCertificateRevocationList> crls;
  PKX509_ASSERT(DirectoryParser(key, Object::TypeCRL, certificates, crls).wants(name));
  PKX509_ASSERT(!DirectoryParser(key + 1, Object::TypeCRL, certificates, crls).wants(name));
}

}  // namespace

PKX509_FUZZ_TARGET(uri) {
  begin();
  const std::string given = text(data, size);
  Uri uri;
  PKX509_ASSERT(accepted([&] { uri = Uri(given); }));  // what is none is a null one
  if (uri.isNull()) {
    PKX509_ASSERT(uri.canonicalized().empty() && uri.scheme().empty() && uri.path().empty());
    PKX509_ASSERT(uri == Uri());
    return 0;
  }
  PKX509_ASSERT(uri.asString() == given);
  // They go into a request line, into log lines and into the first line of a cache file.
  for (const std::string* part :
       {&uri.scheme(), &uri.hostname(), &uri.path(), &uri.asString(), &uri.canonicalized()}) {
    PKX509_ASSERT(isPrintableAscii(*part));
  }
  PKX509_ASSERT(uri.scheme().size() > 1 && uri.scheme().find(':') == uri.scheme().size() - 1);
  PKX509_ASSERT(std::none_of(uri.scheme().begin(), uri.scheme().end(),
                             [](char c) { return c >= 'A' && c <= 'Z'; }));
  PKX509_ASSERT(!uri.path().empty());
  PKX509_ASSERT(uri.path().find_first_of("?#") == std::string::npos);
  PKX509_ASSERT(uri.canonicalized().starts_with(uri.scheme()));

  const Uri canonical(uri.canonicalized());
  PKX509_ASSERT(!canonical.isNull() && canonical == uri && uri == canonical);
  PKX509_ASSERT(canonical.canonicalized() == uri.canonicalized());
  PKX509_ASSERT(canonical.scheme() == uri.scheme());
  PKX509_ASSERT(canonical.hostname().empty() == uri.hostname().empty());
  checkFileName(uri);
  return 0;
}

}  // namespace Velantrix::Fuzz::URITarget
