// How CRL retrieval and the OCSP client reach the host of a URI.
#pragma once

#include "foundation/net/http/HTTPConnection.h"

#include <velantrix/Host.h>
#include <velantrix/Uri.h>

#include <boost/asio/ip/tcp.hpp>

namespace Velantrix::LW::HTTP {

/// The schemes that are spoken.
bool isHandled(const Uri& uri);

/// The stream for a URI whose scheme is handled. For "https:" the machine's client certificate and
/// key are loaded from their fixed files; the server is not verified, since what it serves is
/// signed.
/// @throws boost::system::system_error invalid_argument when the certificate or the key cannot be
///         loaded
RefStream streamFor(const Uri& uri);

/// @throws boost::system::system_error when the address is no numeric one
boost::asio::ip::tcp::endpoint endpointFor(const IPAddress& address, const Uri& uri);

}  // namespace Velantrix::LW::HTTP
