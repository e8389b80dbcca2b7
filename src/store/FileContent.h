// What a file of a hash directory, or of the cache of fetched CRLs, has. What the process has read before is
// not read again (`FileObjects`).
//
//   const auto held = contentOf<CertificatesInFile>(path, FileStamp::at(path.asString().c_str()), isWanted);
//   if (held == nullptr) ...                       // no time to wait for who reads it
//   if (!isWanted(held->header())) return;         // written for something else
//   held->requireGood(path);
//   held->appendTo(certificates);
#pragma once

#include "foundation/base/Fail.h"
#include "foundation/base/FileReader.h"
#include "foundation/base/FileStamp.h"
#include "foundation/base/Octets.h"
#include "foundation/filecache/FileObjects.h"
#include "foundation/openssl/LibraryContext.h"
#include "store/HashFileHeader.h"

#include <velantrix/Certificate.h>
#include <velantrix/CertificateRevocationList.h>
#include <velantrix/Exception.h>
#include <velantrix/File.h>

#include <cstddef>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Velantrix::Crypto::PKX509 {

// The lines in front of a file, and its objects if somebody has wanted them.
struct FileContent : FileObjects::Value {
  HashFileHeader header() const { return HashFileHeader::parse(head); }
  // Throws why the objects cannot be read, with the name of the file in front: as the reader of memory
  // does, or, where one is given, as that of files does.
  void requireGood(const File::Path& path) const;
  void requireGood(const File::Path& path, const Origin& fileReader) const;

  std::string head = {};
  bool read = false;  // the objects
  std::optional<Exception> problem = {};
};

struct CertificatesInFile : FileContent {
  struct One {
    RefCertificate certificate;
    std::string der;  // empty where no other one may take its place
  };

  std::size_t memory() const noexcept override;
  void readObjects(Octets& content, bool kept);
  // One of the running verification is taken where it has the same octets.
  void appendTo(std::list<RefCertificate>& out) const;

  std::vector<One> certificates = {};
  std::size_t derSize = 0;
  bool lasts = true;
};

struct CRLInFile : FileContent {
  std::size_t memory() const noexcept override;

  RefCertificateRevocationList crl = {};  // the first one; empty where there is none
  std::size_t derSize = 0;

 protected:
  void readObjects(Octets& content, bool onlyFirst);
};
// Of which all has to be in order.
struct WholeCRLInFile : CRLInFile {
  void readObjects(Octets& content, bool /*kept*/) { CRLInFile::readObjects(content, false); }
};
// Of which nobody looks at what stands behind the first CRL.
struct FirstCRLInFile : CRLInFile {
  void readObjects(Octets& content, bool /*kept*/) { CRLInFile::readObjects(content, true); }
};

// Whether a file with that header is wanted; empty where each is.
using IsWantedFile = std::function<bool(const HashFileHeader&)>;

// What the content of a file is made into, of which nothing may be left.
template <class Content>
std::shared_ptr<Content> contentIn(Octets& content, const IsWantedFile& isWanted, bool kept) {
  const auto made = std::make_shared<Content>();
  const std::string_view text(reinterpret_cast<const char*>(content.data()), content.size());
  made->head = text.substr(0, HashFileHeader::parse(text).size);
  if (isWanted && !isWanted(made->header())) return made;
  made->read = true;
  try {
    made->readObjects(content, kept);
  } catch (const Exception& failure) {
    made->problem = failure;
  }
  return made;
}

// What a file has. Null when it was to come from another thread and there is no more time to wait. The
// objects are read if the file is wanted, which the caller asks again. Throws Exception when the file cannot
// be read.
// @param seen the caller's look at the file, of this moment
template <class Content>
std::shared_ptr<const Content> contentOf(const File::Path& path,
                                         const std::optional<FileStamp>& seen,
                                         const IsWantedFile& isWanted) {
  const auto make = [&](Octets& content, bool kept) {
    return contentIn<Content>(content, isWanted, kept);
  };
  // Keys of certificates belong to the library context that is the thread's when they are decoded.
  if (!isGlobalLibraryContext()) {
    Octets content = readOctets(path);
    return make(content, false);
  }
  return FileObjects::get<Content>(path, seen, make, [&](const Content& known) {
    return known.read || (isWanted && !isWanted(known.header()));
  });
}

}  // namespace Velantrix::Crypto::PKX509
