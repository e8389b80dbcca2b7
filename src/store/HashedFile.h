// What OpenSSL's lookup of hash directories loads from one file (crypto/x509/by_file.c), kept for all
// stores of the process.
//
//   const HashedFile file = HashedFile::at("/etc/ssl/certs/0a6481c9.0", Kind::kCertificates, type);
//   if (file.state == HashedFile::State::kWhole && file.addTo(store)) ...
#pragma once

#include "foundation/filecache/FileObjects.h"
#include "foundation/openssl/OpenSSLOwners.h"

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace Velantrix::Crypto::PKX509 {

// The objects in a file, in their order. They are OpenSSL's to read and nobody's to change.
struct HashedContent : FileObjects::Value {
  enum class Kind { kCertificates, kCRLs };

  // As X509_load_cert_file() and X509_load_crl_file() read it: with trust settings, none but objects of
  // the kind in PEM, the first one in DER.
  HashedContent(const unsigned char* octets, std::size_t length, Kind kind, int fileType);

  std::size_t memory() const noexcept override { return memory_; }
  // Whether it is about that subject, or issuer of CRLs. A file may have another's hash for its name.
  bool has(const X509_NAME* name) const;

  const Kind kind;
  const int fileType;
  std::vector<Owned<X509>> certificates = {};
  std::vector<Owned<X509_CRL>> crls = {};
  // False where the file is at fault. OpenSSL has what stands before the fault all the same.
  bool whole = false;

 private:
  std::size_t memory_ = sizeof(HashedContent);
};

class HashedFile {
 public:
  using Kind = HashedContent::Kind;
  enum class State {
    kMissing,  // there is none of that name
    kOdd,      // for OpenSSL to read
    kDamaged,  // or it cannot be read
    kWhole
  };

  static HashedFile at(const std::string& path, Kind kind, int fileType);

  // False when OpenSSL could not take it all.
  bool addTo(X509_STORE* store) const;

  State state;
  std::shared_ptr<const HashedContent> content = {};  // null where there is none
};

}  // namespace Velantrix::Crypto::PKX509
