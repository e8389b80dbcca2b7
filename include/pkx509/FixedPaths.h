/// @file
/// Where the appliance keeps what the library reads and writes on its own account.
///
/// These are constants on purpose. Whoever could point them elsewhere, by an environment variable
/// or a configuration file, could decide what the appliance trusts.
///
/// @code
///   RefObjectStore store(kCADirectory, X509_FILETYPE_PEM);
/// @endcode
#pragma once

namespace Velantrix::Crypto::PKX509 {

/// Hash directory of trusted CA certificates, in PEM.
inline constexpr char kCADirectory[] = "/opsadmin/etc/cert/server/ca";
/// Hash directory of CRLs that are kept on the machine. Every verification looks here for the CRLs
/// of certificates without CRL distribution points.
inline constexpr char kCRLDirectory[] = "/opsadmin/etc/cert/server/crl";
/// Hash directory of CRLs fetched by URI. The library writes here what it fetched.
inline constexpr char kCRLCacheDirectory[] = "/var/spool/crypto/crl_cache";
/// Certificate and private key, in PEM and not encrypted, by which the machine shows itself to
/// https servers.
inline constexpr char kClientCertificateFile[] = "/opsadmin/etc/cert/server/apps/server.crt";
inline constexpr char kClientKeyFile[] = "/opsadmin/etc/cert/server/apps/server.key";

}  // namespace Velantrix::Crypto::PKX509
