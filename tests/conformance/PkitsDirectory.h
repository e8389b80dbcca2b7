// The directory that belongs to NIST PKITS, as a source of CRLs.
//
//   auto* const directory = new PkitsDirectory(test.crls);      // the store owns it
//   store->add(RefLookupMethod(directory));
//   directory->serve(store);
//
// The suite describes a directory in LDIF (RFC 2849): which CRL stands at which entry. That is not
// always the entry of the CRL's issuer. Partitioned and indirect CRLs stand where distribution
// points lead, and some entries hold a CRL that somebody else issued, to see whether it is taken.
// The source answers as a search of the subtree below the name would, and it answers OpenSSL's own
// queries too: like a directory service it then puts what it found into OpenSSL's store.
#pragma once

#include <pkx509/LookupMethod.h>
#include <pkx509/ObjectStore.h>
#include <velantrix/CertificateRevocationList.h>
#include <velantrix/DistinguishedName.h>

#include <list>
#include <string>
#include <vector>

namespace Velantrix::Test {

class PkitsDirectory : public Crypto::PKX509::LookupMethod {
 public:
  /// @param crls the CRLs of the suite that this directory holds
  explicit PkitsDirectory(const std::vector<std::string>& crls);

  /// Gives CRLs that OpenSSL asks for to this store, which outlives the source's use.
  void serve(const Crypto::PKX509::RefObjectStore& store) { store_ = store->native(); }
  /// Holds certificates as well, each at its subject's entry.
  void add(const Crypto::PKX509::RefCertificate& certificate) {
    certificates_.push_back(certificate);
  }
  /// Finds CRLs by the name of their issuer as well, as a hash directory does.
  void answerIssuers();
  /// Answers a query for CRLs with all of them, whatever name is asked for.
  void answerAnyName() { anyName_ = true; }

  using LookupMethod::getBySubject;
  Crypto::PKX509::RefObject getBySubject(Crypto::PKX509::Object::Type type,
                                         const Crypto::PKX509::DistinguishedName& wanted) override;
  void getBySubject(const Crypto::PKX509::DistinguishedName& subject,
                    std::list<Crypto::PKX509::RefCertificate>& out) override;
  void getBySubject(const Crypto::PKX509::DistinguishedName& wanted,
                    std::list<Crypto::PKX509::RefCertificateRevocationList>& out) override;

 private:
  struct Entry {
    std::vector<Crypto::PKX509::DistinguishedName> names;  // its own and those above it
    Crypto::PKX509::RefCertificateRevocationList crl;
  };

  std::vector<Entry> entries_;
  std::list<Crypto::PKX509::RefCertificate> certificates_;
  bool anyName_ = false;
  X509_STORE* store_ = nullptr;  // borrowed
};

/// Where the suite's LDIF puts a CRL: names in the form of RFC 4514, in the file's order.
std::vector<std::string> pkitsEntriesOf(const std::string& crl);

}  // namespace Velantrix::Test
