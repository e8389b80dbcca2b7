// How CRL retrieval and OCSP reach the host of a URI.
#pragma once

#include "foundation/net/http/HTTPConnection.h"

#include <velantrix/Host.h>
#include <velantrix/Uri.h>

#include <boost/asio/ip/tcp.hpp>
#include <boost/system/system_error.hpp>

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>

namespace Velantrix::LW::HTTP {

/// The schemes that are spoken.
bool isHandled(const Uri& uri);

/// The files, in PEM and not encrypted, by which the client shows itself to "https:" servers.
struct ClientIdentity {
  const char* certificateFile;
  const char* keyFile;
};

/// That they cannot be loaded.
struct IdentityError : boost::system::system_error {
  IdentityError(const char* file, Failure why);

  Failure failure;
};

/// The stream for a URI whose scheme is handled. For "https:" the client's certificate and key are
/// loaded; the server is not verified, since what it serves is signed.
/// @throws IdentityError invalid_argument when the certificate or the key cannot be loaded
RefStream streamFor(const Uri& uri, const ClientIdentity& identity);

/// The same without a certificate and key where there are none. What keeps it from that is told;
/// the stream is empty then.
RefStream streamFor(const Uri& uri, const ClientIdentity* identity, Failure& failure,
                    std::string& problem);

/// @throws boost::system::system_error when the address is no numeric one
boost::asio::ip::tcp::endpoint endpointFor(const IPAddress& address, const Uri& uri);

/// The first address of the URI's host, resolved for this call, and the port.
/// @param failure is told why there is none
std::optional<boost::asio::ip::tcp::endpoint> findEndpoint(const Uri& uri, Failure& failure);

/// One request, and the bounds of its answer.
struct Request {
  std::string header;
  std::string body = {};
  unsigned int queryTime = Connection::kDefaultQueryTime;  ///< in seconds
  std::size_t maxContent = Connection::kDefaultContent;
  const char* tooLarge = "";  ///< what is said of an answer above the bounds
};

struct Answer {
  int outcome = 0;                   ///< a `Connection::Outcome`; 0 when nothing was sent
  std::string problem = {};          ///< why there is no whole answer, for people
  RefConnection connection = {};     ///< has the content of a whole answer
  Failure failure = {};              ///< why there is no whole answer, in full
  std::size_t received = 0;          ///< octets of content, also of an answer that is not whole
  std::chrono::nanoseconds taken{};  ///< resolving and connecting included
};

/// Resolves the host of a URI whose scheme is handled, connects, and makes the request. What keeps it
/// from that is a problem in the answer.
Answer exchange(const Uri& uri, const ClientIdentity& identity, const Request& request);

}  // namespace Velantrix::LW::HTTP
