/// @file
/// Makes certificates out of files, of bytes and of OpenSSL's objects.
///
/// @code
///   std::list<RefCertificate> certificates;
///   CertificateFactory::read(File::Path("/etc/ssl/certs/ca-certificates.crt"), certificates);
///   RefCertificate shared = CertificateFactory()(X509_STORE_CTX_get0_cert(ctx), false);
///   RefCertificate owned = CertificateFactory()(X509_dup(x), true);
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
#include <velantrix/Export.h>
#include <velantrix/File.h>

#include <openssl/x509.h>

#include <list>

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

  /// Wraps @p x509 itself, not a copy: the handle converts back to the same pointer.
  /// @param x509  null makes an empty handle
  /// @param adopt true takes over the caller's reference, also when it throws; false takes a
  ///              reference of its own
  RefCertificate operator()(x509_st* x509, bool adopt) const;
};

}  // namespace Velantrix::Crypto::PKX509
