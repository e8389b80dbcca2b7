/// @file
/// The base of every source of certificates and CRLs that plugs into OpenSSL's certificate store.
///
/// @code
///   class Memory : public LookupMethod {
///    public:
///     Memory() : LookupMethod("Memory") {}
///     using LookupMethod::getBySubject;  // an override of one form hides the other two
///
///     RefObject getBySubject(Object::Type type, const DistinguishedName& name) override {
///       RefObject first;
///       for (const RefCertificate& certificate : certificates) {
///         if (type != Object::TypeCertificate || certificate->subject() != name) continue;
///         if (!first) first = RefObject(certificate);
///         X509_STORE_add_cert(askingStore(), certificate);  // all that have the name
///       }
///       return first;
///     }
///     void getBySubject(const DistinguishedName& name, std::list<RefCertificate>& out) override {
///       for (const RefCertificate& certificate : certificates) {
///         if (certificate->subject() == name) out.push_back(certificate);
///       }
///     }
///     void getBySubject(const DistinguishedName& name,
///                       std::list<RefCertificateRevocationList>& out) override {
///       for (const RefCertificateRevocationList& crl : crls) {
///         if (crl->crlInfo().issuer() == name) out.push_back(crl);
///       }
///     }
///
///     std::list<RefCertificate> certificates;
///     std::list<RefCertificateRevocationList> crls;
///   };
///
///   RefObjectStore store("", X509_FILETYPE_PEM);
///   store->add(RefLookupMethod(new Memory));
/// @endcode
#pragma once

#include <pkx509/Object.h>
#include <velantrix/ASN1.h>
#include <velantrix/Buffer.h>
#include <velantrix/DistinguishedName.h>
#include <velantrix/Export.h>
#include <velantrix/NonCopyable.h>

#include <boost/smart_ptr/shared_ptr.hpp>
#include <openssl/x509_vfy.h>

#include <list>
#include <memory>
#include <string>

namespace Velantrix::Crypto::PKX509 {

class ObjectStore;
class RefObjectStore;

/// A source of certificates and CRLs.
///
/// The object owns an OpenSSL `X509_LOOKUP_METHOD` table whose entries are the static `s_`
/// functions below. Each of them finds the object again, turns OpenSSL's arguments into the
/// certificate model, calls the virtual operation of the same name and hands the answer back.
///
/// A source is attached with `ObjectStore::add(const RefLookupMethod&)`, and one source may serve
/// several stores. **The table works only where it was attached that way**: the store remembers
/// which of its lookups belongs to which method, and a table that somebody registers with
/// `X509_STORE_add_lookup` by hand answers "not found".
///
/// **Who asks for what.** A source overrides every form that is asked for what it has; what it does
/// not override finds nothing, and a verification that finds no CRL ends with code 3.
///
/// | form                                     | asked by                          | trusted |
/// |------------------------------------------|-----------------------------------|---------|
/// | `RefObject getBySubject` (a certificate) | OpenSSL, while it builds a path   | **yes** |
/// | `RefObject getBySubject` (a CRL)         | OpenSSL's own revocation check    | no      |
/// | `getBySubject` (list of certificates)    | `ObjectStore::findIssuer`         | no      |
/// | `getBySubject` (list of CRLs)            | `Verifier::getCRLs`               | no      |
/// | `getByEmailAddress`                      | programs, the tool's `find`       | up to them |
/// | the other `RefObject` forms              | nobody in a verification          |         |
///
/// - *A certificate, by OpenSSL*: the issuer of each certificate of a path, that of the issuer of a
///   CRL and of an OCSP responder included; only where OpenSSL's store has none of that name yet.
///   **A self-signed certificate becomes a trust anchor**, and with `X509_V_FLAG_PARTIAL_CHAIN`
///   every certificate does. Others still need the signature of their issuer. In a
///   `ConformingVerifier` that goes for sources of trust only, see `isTrustSource()`.
/// - *A CRL, by OpenSSL*: with `useOpenSSLRevocation`, on the path of a CRL's issuer. OpenSSL uses
///   only what was added to its store, and checks it.
/// - *A list of certificates*: for the issuer of a CRL that neither the store's objects nor its
///   directory know. It has to be on the path, or is verified by itself, and the CRL's signature
///   with its key. A `ConformingVerifier` has all of them as candidates for its paths.
/// - *A list of CRLs*: those of a certificate, by its issuer's name and by the directory names in
///   its distribution points. They are checked in full. Delta CRLs belong to the answer; the
///   verifier chooses.
///
/// The list forms append to the caller's list and never clear it. In one verification, those that
/// are nested in it included, each of them is asked once for a name.
///
/// **Several certificates with one name**, as a CA has after a change of its key, or one that
/// others have cross-certified: OpenSSL takes one answer, and where that is not the issuer that it
/// looks for, it goes on with the others of that name *in its store*. A `RefObject` form that has
/// several answers therefore adds all of them to the store that asks, see `askingStore()`, and
/// returns any. Otherwise what the other key signed is not valid. Names and key identifiers tell
/// who issued what: two roots with one name are told apart where they have an authority key
/// identifier of their own. What was added stays as long as that store, and a name that is in there
/// is not asked for again.
///
/// **Lifetime of answers.** What a query hands to OpenSSL is kept alive by the store until the same
/// lookup answers again, so an implementation need not keep a reference of its own.
///
/// **Exceptions** may leave the virtual operations. While a `Verifier` runs they are carried around
/// OpenSSL and thrown by `Verifier::isValid()`; without one they pass to whoever called OpenSSL.
///
/// **Threads.** Nothing is locked. A method is called on the thread of the verification that uses
/// its store; one with a cache of its own guards it itself.
class PKX509_EXPORT LookupMethod : private NonCopyable {
 public:
  /// @throws std::bad_alloc when OpenSSL cannot allocate the table
  explicit LookupMethod(const std::string& name);
  virtual ~LookupMethod();

  /// As given to the constructor.
  const std::string& methodName() const noexcept { return name; }

  /// Nothing in the library calls it; `s_new_item` answers 1 without asking.
  virtual int newItem();
  /// OpenSSL is about to free a lookup of this method.
  virtual void clear();
  /// A lookup was made for a store. The result is not looked at when a store attaches the method.
  virtual int initialize();
  /// A store that uses this method is being freed.
  virtual int finish();
  /// A control request of OpenSSL, see `s_ctrl`.
  virtual int control(int cmd, const char* argc, long argl, char** ret);
  /// One object with that name: a certificate's subject, a CRL's issuer. An object of another type
  /// than the one asked for counts as not found. Where there are several, see above.
  virtual RefObject getBySubject(Object::Type type, const DistinguishedName& name);
  virtual RefObject getByIssuerSerial(Object::Type type, const DistinguishedName& issuer,
                                      const ASN1::Integer& serial);
  virtual RefObject getByFingerPrint(Object::Type type, const Buffer& fingerPrint);
  virtual RefObject getByAlias(Object::Type type, const Buffer& alias);
  /// Appends every certificate with that subject.
  virtual void getBySubject(const DistinguishedName& subject, std::list<RefCertificate>& out);
  /// Appends every CRL of that issuer.
  virtual void getBySubject(const DistinguishedName& issuer,
                            std::list<RefCertificateRevocationList>& out);
  /// Appends every certificate for that e-mail address. What the first text means is the source's
  /// business (a search base for a directory service, nothing for a hash directory).
  virtual void getByEmailAddress(const std::string& base, const std::string& address,
                                 std::list<RefCertificate>& out);

  /// Remembers the store that @p s holds, which may be none; an empty handle changes nothing. The
  /// pointer does not keep the store alive; a store that dies takes itself out of the methods that
  /// point to it.
  void store(RefObjectStore& s);

  /// Whether what this source has may end a path in a `ConformingVerifier`. It may by default, and
  /// not for an `LDAPLookupMethod`, where users write what stands under their names.
  ///
  /// What only other sources answer is then a candidate for the middle of a path and never its end,
  /// self-signed or not. Of a source that may, the `RefObject` form says so: of a name for which it
  /// has an answer all count that the list form has, of another name none does. A `Verifier` takes
  /// no notice.
  bool isTrustSource() const noexcept;
  /// To be said before a store has asked: what it was answered before stays as it was.
  void trustSource(bool is) noexcept;

  /// The table, borrowed; it lives as long as this object.
  operator x509_lookup_method_st*() const noexcept;

  /// @name What OpenSSL calls
  /// All of them answer 0 (or nothing) for a lookup that no store attached to a method. A query
  /// overwrites @p ret as OpenSSL's own lookups do: what it held is not released, and what is
  /// written is borrowed until the caller takes a reference, as `X509_STORE_CTX_get_by_subject`
  /// does.
  /// @{
  static int s_new_item(X509_LOOKUP* lookup);
  static void s_free(X509_LOOKUP* lookup);
  static int s_init(X509_LOOKUP* lookup);
  static int s_shutdown(X509_LOOKUP* lookup);
  /// Unlike the others it finds its object through the lookup's method data, which must then point
  /// to a `LookupMethod`. The library never sets method data, so control requests end with 0 unless
  /// a subclass sets it with `X509_LOOKUP_set_method_data`.
  static int s_ctrl(X509_LOOKUP* lookup, int cmd, const char* argc, long argl, char** ret);
  static int s_get_by_subject(X509_LOOKUP* lookup, X509_LOOKUP_TYPE type, const X509_NAME* name,
                              X509_OBJECT* ret);
  static int s_get_by_issuer_serial(X509_LOOKUP* lookup, X509_LOOKUP_TYPE type,
                                    const X509_NAME* name, const ASN1_INTEGER* serial,
                                    X509_OBJECT* ret);
  static int s_get_by_fingerprint(X509_LOOKUP* lookup, X509_LOOKUP_TYPE type,
                                  const unsigned char* bytes, int len, X509_OBJECT* ret);
  static int s_get_by_alias(X509_LOOKUP* lookup, X509_LOOKUP_TYPE type, const char* str, int len,
                            X509_OBJECT* ret);
  /// @}

 protected:
  LookupMethod* self;                  ///< this object; what the table's functions dispatch through
  std::string name;                    ///< as given to the constructor
  ObjectStore* objectStore = nullptr;  ///< not owned; null until `store()` is called

  /// OpenSSL's store that asks, while one of the forms that return a `RefObject` answers it on this
  /// thread; borrowed. Null otherwise. It is not always that of `objectStore`: a method may serve
  /// several stores, and the issuers of CRLs are verified against clones. A certificate that it has
  /// already may be added again.
  static X509_STORE* askingStore() noexcept;

 private:
  friend class ObjectStore;
  struct State;
  struct Answering;

  std::unique_ptr<State> state_;
};

/// Shared ownership of a `LookupMethod`. Dereferencing an empty handle is a programming error and
/// stops the process (assertion "px != 0").
class PKX509_EXPORT RefLookupMethod {
 public:
  RefLookupMethod() noexcept = default;
  /// Takes sole ownership; null is allowed. When the owner cannot be allocated @p method is deleted
  /// and the allocation failure goes on.
  explicit RefLookupMethod(LookupMethod* method);
  RefLookupMethod(const RefLookupMethod&) noexcept = default;
  RefLookupMethod& operator=(const RefLookupMethod&) noexcept = default;
  virtual ~RefLookupMethod();

  /// The held method's table, borrowed; null for an empty handle.
  operator x509_lookup_method_st*() const noexcept;
  LookupMethod* operator->() const;
  LookupMethod& operator*() const;
  /// Borrowed; null for an empty handle.
  LookupMethod* get() const noexcept { return method_.get(); }
  bool empty() const noexcept { return method_.get() == nullptr; }
  /// True when the handle holds a method.
  explicit operator bool() const noexcept { return !empty(); }
  /// Whether both hold the same method.
  bool operator==(const RefLookupMethod& other) const noexcept { return method_ == other.method_; }

 private:
  friend class ObjectStore;

  boost::shared_ptr<LookupMethod> method_;
};

}  // namespace Velantrix::Crypto::PKX509
