// How CRL retrieval and the OCSP client reach the host of a URI.
#pragma once

#include "foundation/net/http/HTTPConnection.h"

#include <velantrix/Host.h>
#include <velantrix/Uri.h>

#include <boost/asio/ip/tcp.hpp>

namespace Velantrix::LW::HTTP {

/// The schemes that are spoken.
bool isHandled(const Uri& uri);

/// The files, in PEM and not encrypted, by which the client shows itself to "https:" servers.
struct ClientIdentity {
  const char* certificateFile;
  const char* keyFile;
};

/// The stream for a URI whose scheme is handled. For "https:" the client's certificate and key are
/// loaded; the server is not verified, since what it serves is signed.
/// @throws boost::system::system_error invalid_argument when the certificate or the key cannot be
///         loaded
RefStream streamFor(const Uri& uri, const ClientIdentity& identity);

/// @throws boost::system::system_error when the address is no numeric one
boost::asio::ip::tcp::endpoint endpointFor(const IPAddress& address, const Uri& uri);

}  // namespace Velantrix::LW::HTTP
