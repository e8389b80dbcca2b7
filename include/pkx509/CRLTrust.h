/// @file
/// Whether somebody whom the trust anchors vouch for has signed a CRL, for who has no certificate at
/// hand that the CRL would be about.
///
/// @code
///   const CRLTrust trust("/etc/ssl/certs", intermediates);
///   const std::string objection = trust.objection(Uri("http://crl.example.com/ca.crl"), crl);
///   if (!objection.empty()) std::cerr << objection << '\n';
/// @endcode
#pragma once

#include <pkx509/FixedPaths.h>
#include <velantrix/Certificate.h>
#include <velantrix/CertificateRevocationList.h>
#include <velantrix/Export.h>
#include <velantrix/Uri.h>

#include <list>
#include <memory>
#include <string>

namespace Velantrix::Crypto::PKX509 {

/// What `refresh()` asks of a CRL before it stores it: that it keeps to the form of RFC 5280, and is
/// signed by the key of a certificate that allows that and has a valid path to a trust anchor, as a
/// `ConformingVerifier` builds it.
///
/// **What it does not check**: the CRL's times; whether its issuer is revoked; whether it covers any
/// certificate. A verification asks all that with the certificate at hand, and signatures again.
///
/// **Threads.** Several may ask one object.
class PKX509_EXPORT CRLTrust {
 public:
  /// @param trustDirectory hash directory of the trust anchors, in PEM
  /// @param certificates   may be the issuers, and stand in the middle of their paths; nothing about
  ///                       them is trusted
  explicit CRLTrust(const std::string& trustDirectory = kCADirectory,
                    const std::list<RefCertificate>& certificates = {});

  /// Why nobody stands for @p crl, for people, on one line; empty where somebody does. Issuers are
  /// looked for in the trust directory, among the certificates, and among those that were remembered
  /// when the machine's cache got a CRL from @p uri.
  /// @throws Exception when the trust directory cannot be read
  std::string objection(const Uri& uri, const RefCertificateRevocationList& crl) const;

 private:
  struct State;
  std::shared_ptr<const State> state_;
};

}  // namespace Velantrix::Crypto::PKX509
