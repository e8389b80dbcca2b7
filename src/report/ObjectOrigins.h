// Where the certificates and CRLs of a verification were read from, by their identity.
//
//   ObjectOrigins::note(crl, {Origin::Kind::kMachineCRLs, directory, path});   // who reads it
//   ...
//   const std::optional<Origin> origin = origins.of(crl);
#pragma once

#include "report/SharedText.h"

#include <pkx509/VerificationReport.h>
#include <velantrix/Certificate.h>
#include <velantrix/CertificateRevocationList.h>

#include <cstddef>
#include <optional>
#include <vector>

namespace Velantrix::Crypto::PKX509 {

class ObjectOrigins {
 public:
  using Origin = VerificationReport::Origin;

  // An origin while it is noted, which costs next to nothing: it is made when somebody reads.
  struct Where {
    Origin::Kind kind = Origin::Kind::kUnknown;
    SharedText place = {};
    SharedText file = {};
  };

  // Of certificates and of CRLs each. What is read beyond that is told without its file.
  static constexpr std::size_t kMaximumObjects = 256;

  // For the outermost run of this thread; the first note on an object stays. Nothing happens outside a
  // run, nor when there is no memory for it.
  static void note(const RefCertificate& certificate, const Where& origin) noexcept;
  static void note(const RefCertificateRevocationList& crl, const Where& origin) noexcept;

  // Nothing when nobody has noted it.
  std::optional<Origin> of(const X509* certificate) const;
  std::optional<Origin> of(const RefCertificateRevocationList& crl) const;

 private:
  // The handles are held, so that no other object takes the address.
  template <class Handle>
  struct Known {
    Handle object;
    Where origin;
  };

  std::vector<Known<RefCertificate>> certificates_;
  std::vector<Known<RefCertificateRevocationList>> crls_;
};

}  // namespace Velantrix::Crypto::PKX509
