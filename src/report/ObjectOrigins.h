// Where the certificates and CRLs of a verification were read from, by the identity of OpenSSL's object.
//
//   ObjectOrigins::note(crl, {Origin::Kind::kMachineCRLs, directory, path});   // who reads it
//   ...
//   const Origin* const origin = origins.of(native);
#pragma once

#include <pkx509/VerificationReport.h>
#include <velantrix/Certificate.h>
#include <velantrix/CertificateRevocationList.h>

#include <cstddef>
#include <vector>

namespace Velantrix::Crypto::PKX509 {

class ObjectOrigins {
 public:
  using Origin = VerificationReport::Origin;

  // Of certificates and of CRLs each. What is read beyond that is told without its file.
  static constexpr std::size_t kMaximumObjects = 256;

  // For the outermost run of this thread; the first note on an object stays. Nothing happens outside a
  // run, nor when there is no memory for it.
  static void note(const RefCertificate& certificate, Origin origin) noexcept;
  static void note(const RefCertificateRevocationList& crl, Origin origin) noexcept;

  // Borrowed; null when nobody has noted it.
  const Origin* of(const X509* certificate) const noexcept;
  const Origin* of(const X509_CRL* crl) const noexcept;

 private:
  // The handles are held, so that no other object takes the address.
  template <class Handle>
  struct Known {
    Handle object;
    Origin origin;
  };

  std::vector<Known<RefCertificate>> certificates_;
  std::vector<Known<RefCertificateRevocationList>> crls_;
};

}  // namespace Velantrix::Crypto::PKX509
