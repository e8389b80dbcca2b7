/// @file
/// The trust store that verifications run against.
///
/// @code
///   RefObjectStore store("/etc/ssl/certs", X509_FILETYPE_PEM);
///   store->add(RefLookupMethod(new HashDirLookupMethod("/var/lib/crls")));
///   Verifier verifier(store, certificate, false);
///   int verdict = verifier.isValid();
/// @endcode
#pragma once

#include <pkx509/LookupMethod.h>
#include <pkx509/Object.h>
#include <velantrix/CRLDistributionPoint.h>
#include <velantrix/Certificate.h>
#include <velantrix/CertificateRevocationList.h>
#include <velantrix/DistinguishedName.h>
#include <velantrix/Export.h>
#include <velantrix/GeneralName.h>
#include <velantrix/NonCopyable.h>
#include <velantrix/Refcounted.h>
#include <velantrix/Uri.h>

#include <openssl/x509_vfy.h>

#include <list>
#include <memory>
#include <set>
#include <string>

namespace Velantrix::Crypto::PKX509 {

class ObjectStore;

/// The handle to an `ObjectStore`. A store lives as long as any handle holds it.
class PKX509_EXPORT RefObjectStore : public Ref<ObjectStore> {
 public:
  using Ref<ObjectStore>::Ref;
  RefObjectStore() noexcept = default;
  /// Makes a store over an OpenSSL hash directory, see `ObjectStore`.
  RefObjectStore(const std::string& name, int fileType);

  /// The OpenSSL store, borrowed. Asking an empty handle is a programming error and stops the
  /// process; no exception is thrown. `if (store)` and `store == nullptr` do not ask.
  operator x509_store_st*() const;
};

/// Certificates that are trusted, sources that are asked on demand, and a cache of what they gave.
///
/// A store owns one OpenSSL `X509_STORE` with an OpenSSL hash directory attached to it; OpenSSL
/// builds chains from that directory and from the lookup methods added here. What the directory and
/// the methods give to OpenSSL **is trusted**: a self-signed certificate there is a trust anchor.
///
/// Beside it stands the store's own list of objects. Certificates in it can be found as issuers of
/// CRLs; they are **not** handed to OpenSSL and make nothing trusted. CRLs found by name or by URI
/// and issuers found in directories are appended to it as a cache. Nothing ever removes an element,
/// so a long-lived store grows with what is asked of it: make a store per verification, or a
/// `clone()` of a prepared one.
///
/// **Untrusted certificates that came with a message** belong into the object list of a store made
/// for that one verification (see `Verifier`), never into a long-lived one: a stranger's
/// certificate with a CA's name would be taken for the issuer of that CA's CRLs from then on.
///
/// **Threads.** Nothing is locked, and the `find` operations change the object list also on a const
/// store: one store is used by one thread at a time.
class PKX509_EXPORT ObjectStore : public RefImpl, private NonCopyable {
 public:
  /// @param name     directory of certificates named by subject hash, as `openssl rehash` makes it;
  ///                 one that does not exist is an empty one
  /// @param fileType `X509_FILETYPE_PEM` (1), `X509_FILETYPE_ASN1` (2) or `X509_FILETYPE_DEFAULT`
  ///                 (3)
  /// @throws Exception "X509::ObjectStore" when OpenSSL cannot make a store
  ObjectStore(const std::string& name, int fileType);
  ~ObjectStore() override;

  /// A new store over the same directory with the same lookup methods (shared, not copied) and an
  /// empty object list.
  RefObjectStore clone() const;

  /// The OpenSSL store, borrowed. What it has found in its directories all stores of the process share
  /// (`FileCache`): nobody may change it.
  X509_STORE* native() const noexcept { return x509Store.get(); }
  /// As given to the constructor.
  const std::string& directory() const noexcept { return name; }
  const std::list<RefLookupMethod>& methods() const noexcept { return methodList; }
  const std::list<RefObject>& objects() const noexcept { return objectList; }

  /// Attaches another hash directory of OpenSSL's.
  /// @return what `X509_LOOKUP_ctrl` returns (1 on success), 0 when there is no lookup to ask
  int add(const std::string& dir, int fileType);
  /// Attaches a lookup method. OpenSSL knows a method once however often it is added; `methods()`
  /// lists every call. A lookup that is new to the store calls the method's `initialize()`.
  /// @throws Exception when OpenSSL cannot register the method; it is not listed then. What
  ///         `initialize()` throws reaches the caller, and the method stays attached.
  void add(const RefLookupMethod& method);
  /// Appends to the object list only; OpenSSL does not see it.
  void add(const RefObject& object);
  /// Appends each certificate to the object list, in order.
  void add(const std::list<RefCertificate>& certificates);

  /// @name Queries
  /// They append to @p out and never clear it. Exceptions of a source leave them; what was appended
  /// before stays.
  /// @{

  /// Certificates with that subject, from the lookup methods in their order. Duplicates are kept.
  void find(const DistinguishedName& subject, std::list<RefCertificate>& out) const;
  /// CRLs of that issuer, from the lookup methods in their order; each is cached, however often it
  /// was before.
  void find(const DistinguishedName& issuer, std::list<RefCertificateRevocationList>& out) const;
  /// CRLs that the URI names, from the cache or the network (see `URILookup`). All of @p out is
  /// then cached again, what it held before included. As long as @p out holds something, the
  /// network is not asked.
  void find(const Uri& uri, std::list<RefCertificateRevocationList>& out) const;
  /// CRLs by a directory name (of their issuer) or by a URI; other kinds of names find nothing.
  void find(const GeneralName& name, std::list<RefCertificateRevocationList>& out) const;
  /// CRLs that may serve one distribution point of a certificate (RFC 5280, 4.2.1.13).
  void find(const RefCertificate& certificate, const RefCRLDistributionPoint& point,
            std::list<RefCertificateRevocationList>& out) const;

  /// The certificate that issued a CRL: first among the store's objects, then in the store's
  /// directory, last from the lookup methods. Names, key identifiers and the right to sign CRLs
  /// decide; **the signature is not verified here**.
  /// @param score OpenSSL's CRL score bits of the last candidate with the right name; unchanged
  ///              when there was none
  /// @return a reference into the store, valid as long as the store; empty when nothing was found
  const RefCertificate& findIssuer(const RefCertificateRevocationList& crl,
                                   unsigned int& score) const;
  /// Every certificate with that subject that the store knows: among its objects, in its directory,
  /// from the lookup methods. Duplicates are kept.
  void findAll(const DistinguishedName& subject, std::list<RefCertificate>& out) const;
  /// @}

 private:
  friend class LookupMethod;
  struct PKX509_EXPORT StoreDeleter {
    void operator()(X509_STORE* store) const noexcept;
  };

  const RefCertificate* firstIssuer(const RefCertificateRevocationList& crl,
                                    const std::list<RefCertificate>& candidates,
                                    unsigned int& score) const;
  void findInDirectory(const DistinguishedName& subject, std::list<RefCertificate>& out) const;
  void remember(LookupMethod* method);
  void forget(LookupMethod* method) noexcept;

  // The destructor releases these in the order that OpenSSL's callbacks need; see there.
  std::unique_ptr<X509_STORE, StoreDeleter> x509Store;
  std::string name;
  int fileType;
  std::list<RefLookupMethod> methodList;
  mutable std::list<RefObject> objectList;
  RefCertificate spareCertificate;
  std::set<LookupMethod*> pointedFrom;  // methods whose store() named this store
};

}  // namespace Velantrix::Crypto::PKX509
