/// @file
/// Certificates and CRLs in a directory of PEM files that are named by a hash.
///
/// @code
///   HashDirLookupMethod directory("/var/lib/crls");
///   std::list<RefCertificateRevocationList> crls;
///   directory.getBySubject(certificate->issuer(), crls);
/// @endcode
#pragma once

#include <pkx509/LookupMethod.h>
#include <velantrix/EmailAddress.h>
#include <velantrix/Export.h>
#include <velantrix/File.h>
#include <velantrix/NonCopyable.h>
#include <velantrix/Time.h>
#include <velantrix/Uri.h>

#include <list>
#include <optional>
#include <string>
#include <string_view>

namespace Velantrix {
struct FileStamp;
}

namespace Velantrix::Crypto::PKX509 {

/// A lookup method over one hash directory.
///
/// | what is looked for             | key                                            |
/// |--------------------------------|------------------------------------------------|
/// | certificates by subject        | `DistinguishedName::hash()` of the subject     |
/// | CRLs by issuer                 | `DistinguishedName::hash()` of the issuer      |
/// | certificates by e-mail address | SHA-1 of `EmailAddress::address()`             |
/// | CRLs by URI                    | SHA-1 of `Uri::canonicalized()`                |
///
/// The hash of a name is OpenSSL's, so directories made by `openssl rehash` work. Of a SHA-1 the
/// first four bytes count, little endian.
///
/// A file is named by its key in lower-case hexadecimal without leading zeros, followed by ".0" for
/// a certificate and ".r0" for a CRL. `DirectoryParser` tells how names are read.
///
/// **What it is not.** Nothing is verified: whoever can write to the directory decides what is
/// found. It answers the list queries and does not serve OpenSSL's single-object queries; OpenSSL
/// has a hash-directory lookup of its own (`ObjectStore::add(dir, fileType)`).
///
/// **Errors.** A directory that does not exist is an empty one. A directory that cannot be read,
/// and a file whose name matches but whose content is neither, throw `Exception`.
///
/// **What is returned** may be shared: what has not changed is not read again by the same process
/// (`FileCache`), and handles of two look-ups may be of one object.
///
/// **Threads.** It keeps no state between calls. Files are replaced whole, so readers in other
/// threads and processes see the old content or the new one.
class PKX509_EXPORT HashDirLookupMethod : public LookupMethod {
 public:
  explicit HashDirLookupMethod(const std::string& directory);
  ~HashDirLookupMethod() override;

  using LookupMethod::getBySubject;
  void getBySubject(const DistinguishedName& subject, std::list<RefCertificate>& out) override;
  void getBySubject(const DistinguishedName& issuer,
                    std::list<RefCertificateRevocationList>& out) override;
  /// CRLs that were added for that URI and are still fresh. A file that names another URI, because
  /// the keys collide, is passed over.
  virtual void getBySubject(const Uri& uri, std::list<RefCertificateRevocationList>& out);
  /// As the form below, with @p address made an `EmailAddress`.
  void getByEmailAddress(const std::string& base, const std::string& address,
                         std::list<RefCertificate>& out) override;
  /// Certificates that were added for that address. A file that names another address, because the
  /// keys collide, is passed over.
  /// @param base not used: a hash directory has no parts to choose from
  virtual void getByEmailAddress(const std::string& base, const EmailAddress& address,
                                 std::list<RefCertificate>& out);

  /// Writes the certificate under the key of the address, replacing what was there, also when that
  /// was another address of the same key. The file begins with a line that names the address. A null
  /// address writes nothing.
  virtual void add(const EmailAddress& address, const RefCertificate& certificate);
  /// Writes each CRL under the key of the URI. All go to one name, so the last one stays; an empty
  /// list changes nothing. The file begins with lines that name the URI and the time at which the
  /// CRL runs out.
  virtual void add(const Uri& uri, const std::list<RefCertificateRevocationList>& crls);
  /// The name of the file that `add()` writes for the CRLs of @p uri.
  static std::string fileName(const Uri& uri);

 private:
  std::string directory_;
};

/// Takes the files of a directory that carry one key, for `File::Selector`.
///
/// A name is made of blanks, '.', hexadecimal digits, 'r' and 'S' only. What stands before its
/// first '.' is read as a hexadecimal number of 32 bits. A CRL scan also wants 'r' right after that
/// '.'; a certificate scan does not look at the suffix, so it opens the CRL files of its key as
/// well and finds no certificates in them.
///
/// A CRL is passed over when its `nextUpdate` has gone by, or, when it has none, when its file is
/// more than a day old.
class PKX509_EXPORT DirectoryParser : public File::Processor, private NonCopyable {
 public:
  /// @param hash the key that file names must carry
  /// @param type `TypeCertificate` or `TypeCRL`; any other value loads nothing
  DirectoryParser(unsigned int hash, Object::Type type, std::list<RefCertificate>& certificates,
                  std::list<RefCertificateRevocationList>& crls);
  /// As above; files that say that they were written for something else are passed over. Files that
  /// say nothing are not.
  /// @param writtenFor for CRLs the normal form of a URI, for certificates a mail address as the
  ///                   files have it; nothing to take all files
  DirectoryParser(unsigned int hash, Object::Type type, std::list<RefCertificate>& certificates,
                  std::list<RefCertificateRevocationList>& crls, const std::string& writtenFor);
  ~DirectoryParser() override;

  /// Whether a file of that name is opened at all.
  bool wants(std::string_view fileName) const;
  /// Loads one file. Always 0: the scan goes on.
  int process(const File::Path& path) override;

 private:
  friend struct HashDirScan;

  void load(const File::Path& path, const std::optional<FileStamp>& seen);
  // False when there is no time left to wait for another thread that reads the file.
  bool loadCertificates(const File::Path& path, const std::optional<FileStamp>& seen);
  bool loadCRL(const File::Path& path, const std::optional<FileStamp>& seen);

  std::list<RefObject> objects;
  Time now;
  unsigned int hash;
  Object::Type type;
  std::list<RefCertificate>& certificates;
  std::list<RefCertificateRevocationList>& crls;
  std::string origin;  // what files have to name if they name any; empty when all will do
};

}  // namespace Velantrix::Crypto::PKX509
