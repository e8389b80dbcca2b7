/// @file
/// Where the appliance keeps what the library reads and writes on its own account.
///
/// These are constants on purpose. Whoever could point them elsewhere, by an environment variable or
/// a configuration file, could decide what the appliance trusts.
///
/// @code
///   RefObjectStore store(kCADirectory, X509_FILETYPE_PEM);
/// @endcode
#pragma once

namespace Velantrix::Crypto::PKX509 {

/// Hash directory of trusted CA certificates, in PEM.
inline constexpr char kCADirectory[] = "/opsadmin/etc/cert/server/ca";
/// Hash directory of CRLs that are kept on the machine. Every verification looks here for the CRLs of
/// certificates without CRL distribution points.
inline constexpr char kCRLDirectory[] = "/opsadmin/etc/cert/server/crl";

}  // namespace Velantrix::Crypto::PKX509
