// What web servers and responders do wrong, ready-made for FaultServer.
//
//   FaultServer silent(Scripts::silence());
//   FaultServer slow(Scripts::trickle(Scripts::response(body), std::chrono::seconds(1)));
//   FaultServer first(Scripts::inTurn({Scripts::closeAtOnce(), Scripts::answer(body)}));
//   FaultServer ocsp(Scripts::answerWith([&](const std::string& request) { return ...; }));
//
// All but those that say otherwise read one request before they begin, and close when they end.
#pragma once

#include "support/Peer.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace Velantrix::Test::Scripts {

/// A right response: status line, Content-Length, `headers` ("Name: value\r\n" each), body.
std::string response(const std::string& body, const std::string& status = "200 OK",
                     const std::string& headers = {});

Script answer(const std::string& body, const std::string& status = "200 OK",
              const std::string& headers = {});
/// The body of a right response made from the request, for every request of the connection.
Script answerWith(const std::function<std::string(const std::string& request)>& makeBody);
/// These bytes and no others.
Script raw(const std::string& bytes);
/// The same, a byte every interval.
Script trickle(const std::string& bytes, std::chrono::milliseconds interval);

/// Accepts, reads all requests and answers none until the client closes.
Script silence();
/// Neither reads nor answers: closes, or resets, what was accepted.
Script closeAtOnce();
Script resetAtOnce();
/// A Content-Length of `promised`, and `body`; over TLS the connection ends without a farewell.
Script cutShort(const std::string& body, std::uint64_t promised);
/// A Content-Length of 4 GiB and a few bytes, and then nothing until the client closes.
Script hugePromise();
/// These go on until the client closes.
Script endlessBody();  ///< without Content-Length
Script endlessChunks();
Script endlessHeaders();
Script endlessHeaderLine();

Script html();  ///< an error page with status 200
Script notFound();
Script redirect(const std::string& location);
Script garbage();

/// The first script for the first connection, and so on; the last one for all that come after.
Script inTurn(const std::vector<Script>& scripts);

}  // namespace Velantrix::Test::Scripts
