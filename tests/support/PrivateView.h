// The library's fixed directories as tests see them.
//
// Integration tests run in a private view of the file system (private-view.sh) in which these
// directories exist, are empty and are the test's own. The machine's never change.
#pragma once

namespace Velantrix::Test {

inline constexpr char kCADirectory[] = "/opsadmin/etc/cert/server/ca";
inline constexpr char kCRLDirectory[] = "/opsadmin/etc/cert/server/crl";
inline constexpr char kAppsDirectory[] = "/opsadmin/etc/cert/server/apps";
inline constexpr char kCRLCacheDirectory[] = "/var/spool/crypto/crl_cache";

/// Does this process run in a private view?
bool inPrivateView();

/// Empties the four directories. Throws std::runtime_error outside a private view, where they would
/// be the machine's.
void clearPrivateView();

}  // namespace Velantrix::Test
