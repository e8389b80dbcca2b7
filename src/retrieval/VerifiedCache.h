// The cache of fetched CRLs for those who put in only what they have verified.
//
//   VerifiedCache cache(kCRLCacheDirectory);
//   if (const auto entry = cache.read(uri)) ...           // believed as little as the network
//   cache.store(uri, crl, key, {validators, fetched});    // signed by the verified issuer's key
//   cache.confirm(uri, asked, {validators, fetched});     // the host says that nothing has changed
//
// Directory, file names and limits are those of `CRLCache`, which others write into as well: what one
// reads may be anybody's. What the host said beside a CRL stands in the header of its file, which
// `HashFileHeader` has; readers that do not know of it pass over it.
//
// A file is replaced as a whole, and is on the disk before it has its name. Used from any number of
// threads and processes. One with a URI whose path has dot segments is no file of that URI (RFC 3986,
// 5.2.4: the name of the file has none, while the host is asked with them), so nothing is written for it.
#pragma once

#include "foundation/net/http/WebClient.h"

#include <velantrix/CertificateRevocationList.h>
#include <velantrix/Time.h>
#include <velantrix/Uri.h>

#include <openssl/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Velantrix::Crypto::PKX509 {

class VerifiedCache {
 public:
  explicit VerifiedCache(std::string directory) : directory_(std::move(directory)) {}

  // What the header of a file says beside the CRL. A time in the future is none.
  struct Notes {
    LW::HTTP::Validators validators = {};
    std::optional<Time> fetched = {};  // when the host last said that it has just this
  };

  struct Entry {
    std::list<RefCertificateRevocationList> crls = {};  // the first one of the file
    Notes notes = {};
    Time stored = {};  // when the file came to be
  };

  // What the file for the URI has, whatever its dates; nothing where there is none, or one for another
  // URI. Throws Exception when it cannot be read. What a verification decodes is counted; where that
  // is too much, there is nothing.
  std::optional<Entry> read(const Uri& uri) const;
  // The same of the content of a file; without `stored`.
  static std::optional<Entry> entryIn(std::string_view content, const Uri& uri);

  enum class Stored {
    kStored,
    kSame,    // it is there already: only its notes are new
    kOlder,   // what is there is of the same issuer, key and scope, and not older
    kOther,   // what is there is signed by that key for another scope, and has not run out
    kRefused  // it is not signed by that key, or the path of the URI has dot segments
  };
  // Stores a CRL that the URI gave. The key is its issuer's, whose certificate has been verified:
  // borrowed. What is there makes way
  // - when that key has not signed it, or it cannot be read: whatever its number;
  // - when it is of the same issuer, scope and kind (complete or delta) and older: by its number, by
  //   thisUpdate where the numbers are equal or missing;
  // - when it has run out, and is of another scope or has the earlier thisUpdate.
  // Throws Exception when the cache cannot be written, and when another writer does not come to its
  // end; what was there is there then.
  Stored store(const Uri& uri, const RefCertificateRevocationList& crl, EVP_PKEY* key,
               const Notes& notes);

  // The host has said that what has these validators is what it has. Nothing is noted where the file
  // has others by now, and soon after the last time: a rewritten file costs as much as a new one, and
  // no more than about 1 MiB each minute is spent on one. Validators that the host did not repeat stay.
  // Throws Exception as `store` does.
  void confirm(const Uri& uri, const LW::HTTP::Validators& asked, const Notes& notes);

  // Removes the file of the URI. False when there is none. Throws Exception as `store` does.
  bool flush(const Uri& uri);
  // Removes all files of the cache, and what killed writers left. Returns their names. Throws Exception
  // as `store` does.
  std::vector<std::string> flushAll();

  struct Listed {
    std::string file = {};  // its path
    std::uint64_t size = 0;
    Time stored = {};
    std::string uri = {};  // empty where the file does not say
    Notes notes = {};
    RefCertificateRevocationList crl = {};  // empty where there is a problem
    std::string problem = {};               // why it cannot be read
  };
  // Shows every file of the cache, by name, and has one at a time in memory. Throws Exception when the
  // directory cannot be read, and what `seen` throws.
  void visit(const std::function<void(const Listed&)>& seen) const;

 private:
  std::string directory_;
};

}  // namespace Velantrix::Crypto::PKX509
