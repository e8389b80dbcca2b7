// What OpenSSL's lookup of hash directories loads from one file (crypto/x509/by_file.c).
//
//   const HashedFile file = HashedFile::at("/etc/ssl/certs/0a6481c9.0", Kind::kCertificates, type);
//   if (file.state == HashedFile::State::kWhole && file.addTo(store)) ...
#pragma once

#include "foundation/openssl/OpenSSLOwners.h"

#include <memory>
#include <string>
#include <vector>

namespace Velantrix::Crypto::PKX509 {

// The objects in a file, in their order. They are OpenSSL's to read and nobody's to change.
struct HashedContent {
  enum class Kind { kCertificates, kCRLs };

  // As X509_load_cert_file() and X509_load_crl_file() read it: with trust settings, none but objects of
  // the kind in PEM, the first one in DER.
  static HashedContent parse(const std::vector<unsigned char>& octets, Kind kind, int fileType);

  std::vector<Owned<X509>> certificates = {};
  std::vector<Owned<X509_CRL>> crls = {};
  // False where the file is at fault. OpenSSL has what stands before the fault all the same.
  bool whole = false;
};

class HashedFile {
 public:
  using Kind = HashedContent::Kind;
  enum class State {
    kMissing,  // there is none of that name
    kOdd,      // not for us to read
    kDamaged,  // as one that cannot be read
    kWhole
  };

  static HashedFile at(const std::string& path, Kind kind, int fileType);

  // False when OpenSSL could not take it all.
  bool addTo(X509_STORE* store) const;

  State state;
  std::shared_ptr<const HashedContent> content = {};  // null where there is none
};

}  // namespace Velantrix::Crypto::PKX509
