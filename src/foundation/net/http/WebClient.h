// The client for the web as it is: HTTP/1.1 with virtual hosts, redirects, conditional requests, every
// address of a host, and a proxy (RFC 9110, RFC 9112).
//
//   const WebAnswer answer = ask({.uri = uri, .accept = "application/pkix-crl"}, terms);
//   if (answer.isComplete()) use(answer.content);
//   else if (answer.notModified) ...
//   else tell(answer.failure);
//
// The peer may be anybody: nothing that it says is believed, and every hop is subject to the address
// policy and to what the thread may still spend on the network. Where somebody asks to stop, what waits
// ends.
#pragma once

#include "foundation/net/http/HTTPAccess.h"
#include "foundation/net/http/HTTPFailure.h"

#include <velantrix/LWBuffer.h>
#include <velantrix/Uri.h>

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>

namespace Velantrix::LW::HTTP {

/// What a server says about the content it sent, for the next conditional request (RFC 9110, 8.8).
struct Validators {
  /// Longer ones, and such as have other than printable ASCII characters, are left out.
  static constexpr std::size_t kMaximumSize = 256;

  std::string etag = {};          ///< as it was sent; empty for none
  std::string lastModified = {};  ///< as it was sent; empty for none

  bool empty() const noexcept { return etag.empty() && lastModified.empty(); }
  bool operator==(const Validators& other) const = default;

  /// Whether a text may be kept and sent back.
  static bool isFit(const std::string& text) noexcept;
};

/// The same for every request of a caller.
struct WebTerms {
  /// Shown to https servers, never after a redirect; where one of its files is not there, nobody's is.
  std::optional<ClientIdentity> identity = {};
  Uri proxy = {};  ///< null: none
  std::chrono::milliseconds resolveTime{5'000};
  std::chrono::milliseconds connectTime{10'000};
  std::chrono::milliseconds queryTime{
      15'000};  ///< of all hops together, from the first octet sent on
  std::size_t maxContent = std::size_t{1024} * 1024;
};

struct WebRequest {
  Uri uri;
  std::string accept = "*/*";
  std::optional<std::string> body = {};  ///< makes it a POST; redirects are not followed then
  std::string contentType = {};          ///< of the body
  Validators validators = {};            ///< makes it conditional
};

struct WebAnswer {
  static constexpr unsigned int kMaximumRedirects = 5;

  bool complete = false;     ///< status 200 and the whole content
  bool notModified = false;  ///< 304, to a conditional request only
  RefBuffer content{0UL};    ///< never an empty handle
  Validators validators = {};
  /// How long the server lets its answer be kept (RFC 9111, 5.2.2.1 and 5.3), at most a day; none
  /// where it does not say. Of use for failures only: a CRL says itself when it runs out.
  std::optional<std::chrono::seconds> maxAge = {};
  Uri last = {};               ///< who answered: the request's, or where the last redirect led
  unsigned int redirects = 0;  ///< followed
  Failure failure = {};        ///< why it is not complete
  std::string problem = {};    ///< the same for people, "could not connect" and the like
  std::size_t received = 0;    ///< octets of content over all hops
  std::size_t maxContent = 0;  ///< what was the bound of this request
  std::chrono::nanoseconds taken{};

  bool isComplete() const noexcept { return complete; }
};

/// Never throws for what a peer or the network does.
/// @throws std::bad_alloc
WebAnswer ask(const WebRequest& request, const WebTerms& terms);

}  // namespace Velantrix::LW::HTTP
