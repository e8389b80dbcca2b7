/// @file
/// Makes certificates out of files, of bytes and of OpenSSL's objects, and lists what else is beside
/// them.
///
/// @code
///   std::list<RefCertificate> certificates;
///   CertificateFactory::read(File::Path("/etc/ssl/certs/ca-certificates.crt"), certificates);
///   RefCertificate shared = CertificateFactory()(X509_STORE_CTX_get0_cert(ctx), false);
///   RefCertificate owned = CertificateFactory()(X509_dup(x), true);
///   for (const CertificateFactory::Item& item : CertificateFactory::readAll(value)) show(item);
/// @endcode
///
/// **What is read.** PEM: every block of type CERTIFICATE, X509 CERTIFICATE and TRUSTED
/// CERTIFICATE; text around blocks and blocks of other types are passed over. DER: one certificate
/// or several end to end. An input that can be read and holds something else only, a CRL or a key,
/// has no certificates and is not an error; neither is an input of no octets. Everything else is:
/// text without a block, a block that cannot be decoded, an encrypted certificate (nothing here
/// ever asks for a passphrase), octets that are left over, more than 128 MiB.
#pragma once

#include <velantrix/Buffer.h>
#include <velantrix/Certificate.h>
#include <velantrix/CertificateRevocationList.h>
#include <velantrix/Export.h>
#include <velantrix/File.h>

#include <openssl/x509.h>

#include <list>
#include <string>

namespace Velantrix::Crypto::PKX509 {

/// It has no state: one object serves any number of threads.
class PKX509_EXPORT CertificateFactory {
 public:
  CertificateFactory() = default;

  /// Appends every certificate of the file to @p certificates, in the order of the file. When it
  /// throws, the list is as it was.
  /// @throws Exception, which names the file, when it cannot be read; see the top of this file
  static void read(const File::Path& path, std::list<RefCertificate>& certificates);
  /// The same for data in memory, which is not needed afterwards.
  static void read(const Buffer& data, std::list<RefCertificate>& certificates);

  /// What stands at one place of an input: exactly one of the three is set.
  struct Item {
    RefCertificate certificate;
    RefCertificateRevocationList crl;
    std::string problem;  ///< why what is there cannot be read, in a few words
  };

  /// Every certificate and every CRL of @p data, in the order in which they stand there. Other
  /// objects, keys for example, are passed over. @p data is not needed afterwards.
  ///
  /// This is for who shows or sorts what somebody else put together: unlike `read` it does not give
  /// up at what cannot be read. A certificate or CRL that is broken or encrypted is an item with a
  /// problem at its place, and the PEM blocks behind it are items as usual. Where the end of
  /// something cannot be told, in octets behind DER that are nothing known and in a PEM block that
  /// is malformed itself, the item with the problem is the last one. An input that is neither PEM
  /// nor DER is a single problem. What has no problem is decoded and no more: nothing is verified.
  /// @throws Exception when @p data is larger than 128 MiB
  static std::list<Item> readAll(const Buffer& data);

  /// Wraps @p x509 itself, not a copy: the handle converts back to the same pointer.
  /// @param x509  null makes an empty handle
  /// @param adopt true takes over the caller's reference, also when it throws; false takes a
  ///              reference of its own
  RefCertificate operator()(x509_st* x509, bool adopt) const;
};

}  // namespace Velantrix::Crypto::PKX509
