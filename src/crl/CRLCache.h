// The directory of fetched CRLs, kept below its limits.
#pragma once

#include <velantrix/CertificateRevocationList.h>
#include <velantrix/File.h>
#include <velantrix/Time.h>
#include <velantrix/Uri.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <string>
#include <vector>

namespace Velantrix::Crypto::PKX509 {

// Writes into a hash directory, and makes room there first. Strangers' certificates say what is
// fetched, so without limits they could fill the disk.
//
// Only files that HashDirLookupMethod::add(const Uri&, ...) can have named are counted and removed:
// whatever else lies in the directory is somebody else's.
//
// One writer at a time makes room and writes, over all threads and processes: each counts on what
// it has counted.
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
  // the directory cannot be read or written, and when another writer does not come to its end.
  void add(const Uri& uri, const std::list<RefCertificateRevocationList>& crls);
  // Removes the file for `uri` if it still holds just that CRL: another process may have put a
  // better one in its place. Throws Exception when the file cannot be read.
  void remove(const Uri& uri, const RefCertificateRevocationList& crl);

  // The file for a URI, whether or not there is one.
  File::Path fileFor(const Uri& uri) const;

  // A new content of a file.
  struct Content {
    std::uint64_t atMost = 0;  // octets of the file: its size is between the two
    std::uint64_t atLeast = 0;
    std::function<bool()> wanted = {};  // asked when nobody else writes any more; none: it is
    std::function<void()> write =
        {};  // by a FileMediaOut; called once more where the disk was full
  };
  // How large the file for a CRL is, without a header.
  static Content contentFor(const Uri& uri, const RefCertificateRevocationList& crl);
  // Makes room for the file and has it written, unless that is wanted no more. True when it was
  // written. Throws Exception as `add` does.
  bool write(const Uri& uri, const Content& content);

  // Removes the file for the URI where `wanted`, asked when nobody else writes, says so. False when
  // there is none, or it is no regular file. Throws Exception as `add` does.
  bool removeIf(const Uri& uri, const std::function<bool(const File::Path&)>& wanted);
  // Removes all that counts, and says what went. Throws Exception as `add` does.
  std::vector<std::string> removeAll();

  struct CachedFile {
    File::Path path;
    std::uint64_t size;
    Time created;
  };
  // The files that are whole, by name. Throws Exception when the directory cannot be read.
  std::vector<CachedFile> files() const;

 private:
  // Where one more file of `bytes` bytes would not fit, removes what has expired and what killed
  // writers left, and then the oldest files until it fits with some to spare. The file named
  // `replaced` makes way in any case.
  void makeRoom(const std::string& replaced, std::uint64_t bytes);
  // After a failure to write: when the disk may be too full for it, removes all that has expired or
  // was left, unless that cannot be enough either. True when something was removed. The size of
  // what is to be written is between the two.
  bool makeRoomOnDisk(std::uint64_t atMost, std::uint64_t atLeast);

  std::string directory_;
  Limits limits_;
};

}  // namespace Velantrix::Crypto::PKX509
