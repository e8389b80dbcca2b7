/// @file
/// Certificates, CRLs and cross-certificate pairs from an LDAP directory (RFC 4523).
///
/// @code
///   LDAPLookupMethod* directory = new LDAPLookupMethod(
///       {LDAPConnection::RefServer("ldaps://directory.example.com"), "", ""});
///   store->add(RefLookupMethod(directory));   // takes ownership
///   directory->store(store);                  // so that what OpenSSL is given is kept
/// @endcode
#pragma once

#include <pkx509/LookupMethod.h>
#include <velantrix/Export.h>
#include <velantrix/LDAPConnection.h>
#include <velantrix/Uri.h>

#include <list>
#include <string>

namespace Velantrix::Crypto::PKX509 {

/// A lookup method over one LDAP directory.
///
/// Each query opens a connection, binds, searches the whole subtree under a base and closes the
/// connection. Where a certificate's name is looked up, its text (`DistinguishedName::asString()`)
/// is the base: the directory holds an entry, with the certificates and CRLs in it, under the name
/// of whom they belong to.
///
/// | wanted            | attributes, each with ";binary"                     |
/// |-------------------|-----------------------------------------------------|
/// | certificates (1)  | `userCertificate`, `cACertificate`                  |
/// | CRLs (2)          | `certificateRevocationList`, `deltaRevocationList`  |
/// | cross pairs (99)  | `crossCertificatePair`                              |
///
/// Every value of every attribute that comes back is taken, whatever the attribute is called and
/// whichever entry under the base it stands in.
///
/// **Who is trusted.** A `ConformingVerifier` lets nothing that only this source has end a path
/// (`isTrustSource()` is false, and may be set). For a `Verifier` what the single-object queries find
/// enters OpenSSL's store, so that a self-signed certificate in the directory *is a trust anchor from
/// then on*: whoever can write to
/// the directory, or answer in its place, decides what is trusted. Use "ldaps:" or StartTLS with
/// the peer verified, and a directory whose writers you would let into your trust store. CRLs, and
/// certificates that the list forms find, are only candidates.
///
/// **Binding.** Without a name in the configuration it binds, with an empty name and the configured
/// password; both empty is an anonymous bind. *With a name it does not bind at all* and searches
/// as nobody, as RFC 4513 has it for a connection without a bind.
///
/// **Bounds.** Connecting may take 10 seconds, a bind 10, an answer 30; 1,000 entries and 16 MiB
/// are taken of it, and a line in the log says when there was more. See `LDAPConnection`.
///
/// **Distribution points.** A `ConformingVerifier` asks the methods of its store, in their order, for
/// the "ldap:" URIs without a host that distribution points have (`getByURI()`).
///
/// **During a verification** the list forms ask the server only while a trust anchor vouches for
/// the certificate that is being checked, and find nothing otherwise; see `Verifier`. The
/// single-object queries, with which OpenSSL builds the path, are made for anybody's names.
///
/// **Nothing found** is what a base that does not exist gives, one that the server cannot make
/// sense of, one that another server holds, and an empty one that a certificate without a name
/// asks for (which would search the whole directory, and is not asked). Errors are thrown: a server
/// that is down, a time-out, a refused bind, a value that is neither certificate nor CRL. While a
/// `Verifier` runs they leave `Verifier::isValid()`.
///
/// **Threads.** It keeps nothing between queries but the configuration, which does not change.
/// Queries add to the store that `store()` named, so they are made on the thread that uses it.
class PKX509_EXPORT LDAPLookupMethod : public LookupMethod {
 public:
  struct PKX509_EXPORT Config {
    LDAPConnection::RefServer server;
    std::string bindDn;  ///< a name here *suppresses* the bind, see above
    std::string bindPassword;
  };

  /// Without a server: every query throws.
  LDAPLookupMethod();
  explicit LDAPLookupMethod(const Config& config);
  ~LDAPLookupMethod() override;

  using LookupMethod::getBySubject;
  /// As the form below, with the text of the name.
  RefObject getBySubject(Object::Type type, const DistinguishedName& name) override;
  /// As the form below, with the text of the name.
  void getBySubject(const DistinguishedName& subject, std::list<RefCertificate>& out) override;
  /// As the form below, with the text of the name.
  void getBySubject(const DistinguishedName& issuer,
                    std::list<RefCertificateRevocationList>& out) override;

  /// One object under @p base, the first, for OpenSSL. All that was found is added to the store
  /// that `store()` named, to its objects and to OpenSSL's store; without such a store nothing is
  /// added.
  /// @param type `TypeCertificate`, `TypeCRL`, or `TypeCrossCertificatePair` for a pair, both of
  ///             whose certificates go to OpenSSL's store
  /// @throws Exception "s_addAttributes" for any other @p type, before anything is sent
  virtual RefObject getBySubject(Object::Type type, const std::string& base);
  /// Appends every certificate under @p base.
  virtual void getBySubject(const std::string& base, std::list<RefCertificate>& out);
  /// Appends one CRL for each value under @p base that holds one.
  virtual void getBySubject(const std::string& base, std::list<RefCertificateRevocationList>& out);

  /// Appends the CRLs that an "ldap:" URI without a host asks for (RFC 4516; RFC 5280, 4.2.1.13), as
  /// enterprise CAs write it into distribution points. Base, scope and filter are those of the
  /// URI; the attributes are those that it names of `certificateRevocationList`,
  /// `authorityRevocationList` and `deltaRevocationList`, else all three. Nothing for any other
  /// URI: the server is this method's, and never one that a URI names.
  void getByURI(const Uri& uri, std::list<RefCertificateRevocationList>& out);

  /// Appends every certificate of entries under @p base whose `mail` is @p address. An empty base
  /// is searched here: it is the caller's.
  ///
  /// **The address becomes part of a search filter as it is.** Characters that mean something
  /// there (RFC 4515: `*`, parentheses, backslash) keep that meaning; "*" finds everybody's. A
  /// caller whose addresses come from strangers escapes them.
  void getByEmailAddress(const std::string& base, const std::string& address,
                         std::list<RefCertificate>& out) override;

  /// Directories cannot be asked for that.
  /// @throws Exception always
  RefObject getByFingerPrint(Object::Type type, const Buffer& fingerPrint) override;
  /// Directories cannot be asked for that.
  /// @throws Exception always
  RefObject getByIssuerSerial(Object::Type type, const DistinguishedName& issuer,
                              const ASN1::Integer& serial) override;

 private:
  Config config() const { return {server, bindDn, bindPassword}; }

  LDAPConnection::RefServer server;
  std::string bindDn;
  std::string bindPassword;
};

}  // namespace Velantrix::Crypto::PKX509
