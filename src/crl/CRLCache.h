// The directory of fetched CRLs, kept below its limits.
#pragma once

#include <velantrix/CertificateRevocationList.h>
#include <velantrix/Uri.h>

#include <cstddef>
#include <cstdint>
#include <list>
#include <string>

namespace Velantrix::Crypto::PKX509 {

// Writes into a hash directory, and makes room there first. Strangers' certificates say what is
// fetched, so without limits they could fill the disk.
//
// Only files that HashDirLookupMethod::add(const Uri&, ...) can have named are counted and removed:
// whatever else lies in the directory is somebody else's.
class CRLCache {
 public:
  struct Limits {
    std::size_t files = 1000;
    std::uint64_t bytes = std::uint64_t{1024} * 1024 * 1024;
  };

  explicit CRLCache(const std::string& directory) : CRLCache(directory, Limits()) {}
  CRLCache(const std::string& directory, const Limits& limits)
      : directory_(directory), limits_(limits) {}

  // Stores what was fetched from `uri`; of several CRLs the last one stays. Throws Exception when
  // the directory cannot be read or written.
  void add(const Uri& uri, const std::list<RefCertificateRevocationList>& crls);

 private:
  // Removes files until one more, of `bytes` bytes, fits: expired ones, then the oldest. The file
  // named `replaced` makes way in any case.
  void makeRoom(const std::string& replaced, std::uint64_t bytes);

  std::string directory_;
  Limits limits_;
};

}  // namespace Velantrix::Crypto::PKX509
