// Where a verifier has certificates, CRLs and OCSP answers from: directories, the store with its lookup
// methods, what came along with the certificate, the cache and the network.
//
//   VerifierSources sources(store, untrusted);
//   for (const auto& crl : sources.crls(certificate->issuer()).found) ...
//
// Every source is asked once in a verification for equal names, and what one cannot give keeps none
// of the others from answering. The store's list of objects stays as it is.
#pragma once

#include "revocation/RevocationSources.h"

#include <pkx509/ObjectStore.h>
#include <velantrix/StackOfCertificate.h>

#include <memory>
#include <string>
#include <vector>

namespace Velantrix::Crypto::PKX509 {

class LDAPLookupMethod;

class VerifierSources : public Revocation::RevocationSources {
 public:
  // The untrusted certificates may be none.
  VerifierSources(const RefObjectStore& store, const RefStackOfCertificate& untrusted)
      : store_(store), untrusted_(untrusted) {}

  // In the order directory of the store, lookup methods, objects of the store, untrusted ones; those
  // that are equal octet for octet once, from the first. What a daemon's own lookup method throws
  // that is no `Velantrix::Exception` leaves this and the next.
  Revocation::Offers<RefCertificate> certificates(const DistinguishedName& subject) override;
  // In the order directory of CRLs, lookup methods, and the directory of the store where these have no
  // complete list of the issuer that is current; equal ones once.
  Revocation::Offers<RefCertificateRevocationList> crls(const DistinguishedName& name) override;
  // An "ldap:" URI without a host is asked of the store's LDAP methods, any other one of cache and host.
  Revocation::Offers<RefCertificateRevocationList> crls(const Uri& uri) override;
  void isForged(const Uri& uri, const RefCertificateRevocationList& crl) override;
  void isGenuine(const Uri& uri, const RefCertificateRevocationList& crl,
                 const Revocation::Path& path) override;
  Revocation::Offers<RefCertificateRevocationList> crlsOfHost(const Uri& uri) override;
  std::shared_ptr<void> shareForResponders() override;
  bool wantsNonce() const override;
  Revocation::Offers<std::string> ocsp(const Uri& responder, const std::string& request) override;
  void isOfUse(const Uri& responder, const std::string& request,
               const Revocation::Offered<std::string>& answer, const Time& nextUpdate) override;
  void isOfNoUse(const Uri& responder, const std::string& request) override;

 private:
  std::vector<LDAPLookupMethod*> directories() const;
  Revocation::Offers<RefCertificateRevocationList> crlsOfDirectories(const Uri& uri);

  RefObjectStore store_;
  RefStackOfCertificate untrusted_;
};

}  // namespace Velantrix::Crypto::PKX509
