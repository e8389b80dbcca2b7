// Makes a described PKI real and asks the library.
//
//   Realisation real(pki);
//   for (const Query& query : pki.queries) compare(model.verify(query), real.verify(query));
//
// Certificates and CRLs are OpenSSL's, encoded and read back; keys come from a pool that is made
// once. Needs a private view of the file system: the machine's CRL directory is filled.
#pragma once

#include "model/Model.h"
#include "support/Files.h"
#include "unit/verify/World.h"

#include <memory>
#include <string>
#include <vector>

namespace Velantrix::Test::Random {

class Realisation {
 public:
  explicit Realisation(const Description& pki);

  /// On one store, query after query.
  Outcome verify(const Query& query);
  HandOuts handOuts(int certificate);

 private:
  class Source;

  void makeCertificate(const CertificateDescription& described);
  void makeCRL(const CRLDescription& described);
  void makeStore();
  RefCertificate handleOf(int certificate) const;
  RefStackOfCertificate untrusted() const;
  int indexOf(const X509* certificate) const;
  int indexOf(const X509_CRL* crl) const;

  const Description& pki_;
  std::vector<Issued> issued_;
  std::vector<RefCertificate> certificates_;
  std::vector<RefCertificateRevocationList> crls_;
  std::unique_ptr<TempDir> directory_;
  RefObjectStore store_;
};

}  // namespace Velantrix::Test::Random
