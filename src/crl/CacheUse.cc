#include "crl/CacheUse.h"

#include "foundation/run/FetchRecord.h"

#include <pkx509/FixedPaths.h>
#include <pkx509/HashDirLookup.h>
#include <velantrix/Exception.h>

#include <cerrno>
#include <unistd.h>
#include <utility>

namespace Velantrix::Crypto::PKX509 {

namespace {

UseFacts cacheFacts(const Uri& uri, const std::string& reason, const std::exception& failure) {
  UseFacts facts = unreadableFacts(kCRLCacheDirectory, failure);
  facts.reason = reason;
  facts.file = cacheFile(uri).asString();
  const std::string inside = std::string(kCRLCacheDirectory) + "/.";  // of what is a directory only
  if (::access(inside.c_str(), W_OK) != 0) facts.errorNumber = errno;
  return facts;
}

}  // namespace

File::Path cacheFile(const Uri& uri) {
  return File::Path(kCRLCacheDirectory, HashDirLookupMethod::fileName(uri));
}

SourceUse cacheUse(const Uri& uri) {
  return SourceUse(SourceRecord::Source::Kind::kCache, SourceRecord::Source::Wanted::kCRLs,
                   FetchRecord::placeOf(uri));
}

std::string reasonOf(const std::exception& failure) {
  const auto* const ours = dynamic_cast<const Exception*>(&failure);
  std::string text = ours == nullptr ? failure.what() : ours->stringParameter();
  if (!text.starts_with(kCRLCacheDirectory)) return text;
  const std::size_t end = text.find(": ");
  return end == std::string::npos ? text : text.substr(end + 2);
}

void tellNotStored(const Uri& uri, const std::exception& failure) noexcept {
  try {
    const std::string reason = "cache cannot be written: " + reasonOf(failure);
    FetchRecord::notCached(uri, reason);
    SourceUse use = cacheUse(uri);
    use.noQuestion();
    use.failed(cacheFacts(uri, reason, failure));
  } catch (const std::exception&) {
    // What is only told must not cost more than the telling.
  }
}

}  // namespace Velantrix::Crypto::PKX509
