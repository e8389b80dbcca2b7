// What is told of the cache of fetched CRLs.
#pragma once

#include "report/SourceRecord.h"

#include <velantrix/File.h>
#include <velantrix/Uri.h>

#include <exception>
#include <string>

namespace Velantrix::Crypto::PKX509 {

// Where it has what came from the URI.
File::Path cacheFile(const Uri& uri);
// A question to it.
SourceUse cacheUse(const Uri& uri);
// What an exception says, without the path of the cache in front.
std::string reasonOf(const std::exception& failure);
// That something could not be stored: it costs a fetch next time, not the result.
void tellNotStored(const Uri& uri, const std::exception& failure) noexcept;

}  // namespace Velantrix::Crypto::PKX509
