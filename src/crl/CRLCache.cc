#include "crl/CRLCache.h"

#include "foundation/base/Hex.h"
#include "foundation/base/TemporaryName.h"
#include "store/HashFileHeader.h"

#include <pkx509/HashDirLookup.h>
#include <velantrix/File.h>
#include <velantrix/Time.h>

#include <openssl/x509.h>

#include <algorithm>
#include <exception>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string_view>
#include <system_error>
#include <vector>

namespace Velantrix::Crypto::PKX509 {

namespace {

// "4a6481c9.r0", and the file beside it that a killed writer leaves.
bool isCacheName(std::string_view name) {
  constexpr std::size_t kKeyDigits = 8;
  constexpr std::string_view kSuffix = ".r0";
  const std::string_view key = name.substr(0, name.find_first_not_of(kLowerHexDigits));
  if (key.empty() || key.size() > kKeyDigits) return false;
  // Keys are written without zeros in front; `openssl rehash` writes them with.
  if (key.size() > 1 && key.front() == '0') return false;
  name.remove_prefix(key.size());
  if (!name.starts_with(kSuffix)) return false;
  name.remove_prefix(kSuffix.size());
  return name.empty() || isTemporarySuffix(name);
}

struct CachedFile {
  File::Path path;
  std::uint64_t size;
  Time created;
};

class Collector : public File::Processor {
 public:
  explicit Collector(const std::string& except) : except_(except) {}

  int process(const File::Path& path) override {
    if (path.name() == except_) return 0;
    try {
      const File::Status status = path.status(false);
      if (status.isRegular()) files.push_back({path, status.size(), status.creationTime()});
    } catch (const std::exception&) {
      // It went away meanwhile, as it may when several processes share the cache.
    }
    return 0;
  }

  std::vector<CachedFile> files;

 private:
  const std::string& except_;
};

// When the CRL in the file runs out, by the file's header; none when it does not say. Hardly a URI
// needs more than the first block, and there may be a thousand files to look into.
std::optional<Time> expiryOf(const File::Path& path) {
  constexpr std::size_t kFirstBlock = std::size_t{4} * 1024;
  std::ifstream file(path.asString(), std::ios::binary);
  std::string head;
  for (const std::size_t size : {kFirstBlock, HashFileHeader::kMaximumSize}) {
    const std::size_t had = head.size();
    head.resize(size);
    file.read(head.data() + had, static_cast<std::streamsize>(size - had));
    head.resize(had + static_cast<std::size_t>(file.gcount()));
    const HashFileHeader header = HashFileHeader::parse(head);
    // A number that the block cuts off is not whole.
    if (header.expires.has_value() && head.find("-----BEGIN") != std::string::npos) {
      return header.expires;
    }
    if (head.size() < size) break;
  }
  return HashFileHeader::parse(head).expires;
}

// The size of the file for a CRL, generously: in PEM there are four characters for three octets,
// and line ends.
std::uint64_t fileSize(const Uri& uri, const RefCertificateRevocationList& crl) {
  constexpr std::uint64_t kFrame = 4096;
  const int der = i2d_X509_CRL(crl, nullptr);
  return static_cast<std::uint64_t>(std::max(der, 0)) / 2 * 3 + uri.canonicalized().size() + kFrame;
}

}  // namespace

void CRLCache::add(const Uri& uri, const std::list<RefCertificateRevocationList>& crls) {
  if (crls.empty()) return;
  makeRoom(HashDirLookupMethod::fileName(uri), fileSize(uri, crls.back()));
  HashDirLookupMethod(directory_).add(uri, crls);
}

void CRLCache::makeRoom(const std::string& replaced, std::uint64_t bytes) {
  Collector collector(replaced);
  File::Selector(File::Path(directory_), collector, isCacheName).start();
  std::vector<CachedFile>& files = collector.files;
  std::size_t count = files.size() + 1;
  for (const CachedFile& file : files) bytes += file.size;
  const auto fits = [&] { return count <= limits_.files && bytes <= limits_.bytes; };
  const auto remove = [&](const CachedFile& file) {
    std::error_code error;
    if (!std::filesystem::remove(file.path.asString(), error) && error) return;
    --count;
    bytes -= file.size;
  };
  if (fits()) return;

  const Time now = Time::now();
  std::erase_if(files, [&](const CachedFile& file) {
    const std::optional<Time> expires = expiryOf(file.path);
    if (!expires.has_value() || !(*expires < now)) return false;
    remove(file);
    return true;
  });
  std::sort(files.begin(), files.end(),
            [](const CachedFile& a, const CachedFile& b) { return a.created < b.created; });
  for (auto oldest = files.begin(); oldest != files.end() && !fits(); ++oldest) remove(*oldest);
}

}  // namespace Velantrix::Crypto::PKX509
