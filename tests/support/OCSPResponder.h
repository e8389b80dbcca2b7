// A real OCSP responder: the openssl command, answering on loopback.
//
//   OCSPResponder responder({.ca = &ca});
//   const Issued leaf = issue({.issuer = &ca, .extensions = {{"authorityInfoAccess",
//   responder.aia()}}}); responder.setIndex({{.serial = leaf, .revoked = true, .reason =
//   CRL_REASON_SUPERSEDED}});
//   ... ask(responder.url()) ...
//   EXPECT_TRUE(responder.waitForRequests(1));
//
// What it does and cannot be told to do otherwise: it echoes the request's nonce; it takes one
// connection at a time and answers one request on it, so that a client which connects and says
// nothing keeps all others waiting; it answers any path; it listens on all of the machine's
// addresses.
#pragma once

#include "support/Files.h"
#include "support/Loopback.h"
#include "support/Pki.h"
#include "support/ServerProcess.h"

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Velantrix::Test {

/// A certificate that the responder knows. Those that it does not know are answered "unknown".
struct OCSPEntry {
  Serial serial;
  bool revoked = false;
  int reason = kAbsent;  ///< CRL_REASON_*
  When date = std::chrono::hours(-1);
};

struct OCSPOptions {
  const Issued* ca = nullptr;      ///< whose certificates it knows; needed, borrowed for the call
  const Issued* signer = nullptr;  ///< signs the answers, authorised to or not; null: the CA
  std::vector<OCSPEntry> index = {};
  std::optional<std::chrono::minutes> nextUpdate = std::nullopt;  ///< from now; absent: none
  bool byKey = false;         ///< the answer names its signer by key, not by name
  bool certificates = true;   ///< the answer carries the signer's certificate
  bool badSignature = false;  ///< the signature's last byte is changed
  int maxRequests = 0;        ///< the responder ends after so many; 0: never
};

class OCSPResponder {
 public:
  explicit OCSPResponder(const OCSPOptions& options);

  /// "http://127.0.0.1:<port><path>", the same for the life of the object.
  std::string url(std::string_view path = "/") const;
  /// The value of an authorityInfoAccess extension: "OCSP;URI:" and the URL.
  std::string aia() const { return "OCSP;URI:" + url(); }

  /// Replaces what the responder knows. It is stopped and started again for that.
  void setIndex(const std::vector<OCSPEntry>& entries);

  /// The request lines received, "POST / HTTP/1.0", also of requests that it could not read.
  std::vector<std::string> requests() const;
  bool waitForRequests(std::size_t count,
                       std::chrono::milliseconds limit = std::chrono::seconds(10)) const;

  /// From here on connections are refused.
  void stop() { process_.stop(); }
  /// Throws std::runtime_error with what openssl says when it does not start.
  void start() { process_.start(); }
  /// False also after the last of `maxRequests`.
  bool running() const { return process_.running(); }

 private:
  TempDir directory_;
  ReservedPort port_;
  ServerProcess process_;
};

}  // namespace Velantrix::Test
