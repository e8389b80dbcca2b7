// `pkx509 crl --refresh`: asks the host whatever the cache has, and tells what that changed.
#pragma once

#include "CommandLine.h"
#include "Facts.h"

#include <pkx509/AddressPolicy.h>
#include <pkx509/CRLRefresh.h>
#include <velantrix/CertificateRevocationList.h>
#include <velantrix/Uri.h>

#include <optional>
#include <string>
#include <vector>

namespace Velantrix::Tool {

struct CRLRefreshOptions {
  bool wanted = false;
  std::optional<std::string> proxy;
  std::optional<std::string> directory;
  std::vector<std::string> certificates;
  Crypto::PKX509::AddressPolicy addresses = Crypto::PKX509::AddressPolicy::publicAndPrivate();
};

/// Declares --refresh and what goes with it.
void addCRLRefreshOptions(Subcommand& command, CRLRefreshOptions& options);

/// What the options say, of the URI that is to be refreshed none.
/// @throws ToolError for a directory, a file or a proxy that cannot serve
Crypto::PKX509::RefreshSettings crlRefreshSettings(const CRLRefreshOptions& options);

/// What came of one URI.
struct RefreshedCRL {
  Crypto::PKX509::CRLRefresh::Entry result;
  Crypto::PKX509::RefCertificateRevocationList before;  ///< what the cache had
  Crypto::PKX509::RefCertificateRevocationList after;   ///< what it has now

  bool failed() const noexcept;
};

RefreshedCRL refreshedCRL(Crypto::PKX509::RefreshSettings settings, const Uri& uri);

/// What changed, for people: "updated: number 1 -> 2, ...".
std::string changeText(const RefreshedCRL& refreshed);
/// The same for programs.
Facts changeFacts(const RefreshedCRL& refreshed);

}  // namespace Velantrix::Tool
