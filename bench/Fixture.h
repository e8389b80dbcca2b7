// What the measurements verify: a root, an intermediate, a leaf, and a CRL of each of the two CAs.
#pragma once

#include "support/Files.h"
#include "support/Pki.h"

#include <pkx509/LookupMethod.h>
#include <pkx509/ObjectStore.h>
#include <velantrix/StackOfCertificate.h>

#include <openssl/x509_vfy.h>

#include <list>
#include <string>
#include <vector>

namespace Velantrix::Bench {

// A source that has its CRLs at hand.
class FoundCRLs : public Crypto::PKX509::LookupMethod {
 public:
  FoundCRLs();

  using LookupMethod::getBySubject;
  void getBySubject(const Crypto::PKX509::DistinguishedName& issuer,
                    std::list<Crypto::PKX509::RefCertificateRevocationList>& out) override;

  std::list<Crypto::PKX509::RefCertificateRevocationList> crls;
};

struct Chain {
  explicit Chain(Test::KeyKind kind, std::size_t crlEntries = 0);
  Chain(const Chain&) = delete;
  Chain& operator=(const Chain&) = delete;

  Test::TempDir directory;  // root and both CRLs, named as openssl rehash names them
  Test::Issued root;
  Test::Issued intermediate;
  Test::Issued leaf;
  Crypto::Owned<X509_CRL> rootCRL;
  Crypto::Owned<X509_CRL> intermediateCRL;  // with the entries asked for; the leaf is none of them
  std::string leafDer;

  // The intermediate alone, for OpenSSL; borrowed.
  STACK_OF(X509) * untrusted() const { return untrusted_.get(); }

 private:
  Crypto::Owned<STACK_OF(X509)> untrusted_;
};

// The chain as the library sees it: a store over the chain's directory that has found both CRLs.
struct LibraryChain {
  explicit LibraryChain(const Chain& chain);

  // Puts objects in the place of the found CRLs that nothing has been asked of yet.
  void renewCRLs(const Chain& chain) const;

  Crypto::PKX509::RefObjectStore store;
  Crypto::PKX509::RefCertificate leaf;
  Crypto::PKX509::RefStackOfCertificate untrusted;
  std::list<Crypto::PKX509::RefCertificate> intermediates;  // the same
};

// Waits until what is read of the chain's directory is kept, as where a daemon has it: its files have to be
// there for two seconds.
void settle(const Chain& chain);

// One verification in a store of its own over the chain's directory.
using Verify = bool (*)(const Crypto::PKX509::RefObjectStore& store,
                        const Crypto::PKX509::RefCertificate& leaf,
                        const Crypto::PKX509::RefStackOfCertificate& untrusted);
bool freshVerify(const Chain& chain, const LibraryChain& objects,
                 const Crypto::PKX509::RefCertificate& leaf, Verify verify);

// An OpenSSL store with the same root and CRLs and the flags of the library's default
// configuration.
Crypto::Owned<X509_STORE> openSSLStore(const Chain& chain);

// One bare verification; false when the certificate is not valid.
bool openSSLVerify(X509_STORE* store, X509* leaf, STACK_OF(X509) * untrusted);

// One verification by the library, with the one verifier or the other.
bool libraryVerify(const Crypto::PKX509::RefObjectStore& store,
                   const Crypto::PKX509::RefCertificate& leaf,
                   const Crypto::PKX509::RefStackOfCertificate& untrusted);
bool conformingVerify(const Crypto::PKX509::RefObjectStore& store,
                      const Crypto::PKX509::RefCertificate& leaf,
                      const Crypto::PKX509::RefStackOfCertificate& untrusted);
// The same, and the report is read.
bool libraryReport(const Crypto::PKX509::RefObjectStore& store,
                   const Crypto::PKX509::RefCertificate& leaf,
                   const Crypto::PKX509::RefStackOfCertificate& untrusted);
bool conformingReport(const Crypto::PKX509::RefObjectStore& store,
                      const Crypto::PKX509::RefCertificate& leaf,
                      const Crypto::PKX509::RefStackOfCertificate& untrusted);

}  // namespace Velantrix::Bench
