// With PKX509_FILE_CACHE in the environment a program keeps so many octets of what files hold, or nothing for 0.
// No verdict depends on it.
#include <pkx509/FileCache.h>

#include <cstdlib>

namespace Velantrix::Test {
namespace {

bool takeLimit() {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): before there are threads.
  const char* const octets = std::getenv("PKX509_FILE_CACHE");
  if (octets != nullptr) Crypto::PKX509::FileCache::limit(std::strtoul(octets, nullptr, 10));
  return octets != nullptr;
}

[[maybe_unused]] const bool kTaken = takeLimit();

}  // namespace
}  // namespace Velantrix::Test
