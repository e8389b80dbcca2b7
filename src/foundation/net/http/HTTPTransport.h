// A connection of an HTTP client and the loop that drives it, and how answers are read from it. Of use for
// clients only.
//
//   Transport transport;
//   error_code error = transport.connect(endpoint, deadline);
//   if (!error) error = transport.write(asio::buffer(request), deadline);
//   AnswerReader answer(transport, content);
//   if (!error) error = answer.readHeader(deadline);
//   if (!error && answer.status() == 200) error = answer.readContent(deadline);
//
// Asio's blocking operations cannot be given a deadline; asynchronous ones that are run from here can,
// and no thread is needed.
#pragma once

#include "foundation/net/http/HTTPConnection.h"
#include "foundation/net/http/HTTPFailure.h"

#include <velantrix/LWBuffer.h>
#include <velantrix/NonCopyable.h>

#include <boost/asio/buffer.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <boost/beast/http/field.hpp>
#include <boost/system/error_code.hpp>

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <utility>

namespace Velantrix::LW::HTTP {

/// Each step ends at its deadline with `timed_out`, and with `operation_aborted` when somebody asks this
/// thread to stop, and the connection with it.
class Transport : private NonCopyable {
 public:
  using error_code = boost::system::error_code;
  using Tcp = boost::asio::ip::tcp;
  using Deadline = std::chrono::steady_clock::time_point;

  error_code connect(const Tcp::endpoint& endpoint, Deadline deadline);
  /// From here on everything goes through TLS.
  /// @param tls outlives the transport
  /// @param name of the server, for one that has several (RFC 6066, 3); empty for none
  error_code shakeHands(boost::asio::ssl::context& tls, const std::string& name, Deadline deadline);
  error_code write(boost::asio::const_buffer bytes, Deadline deadline);

 private:
  friend class AnswerReader;
  using Tls = boost::asio::ssl::stream<Tcp::socket&>;

  template <class Start>
  error_code run(Deadline deadline, Start&& start);
  void runUntil(Deadline deadline);
  template <class Use>
  void withStream(Use&& use) {
    if (tls_.has_value()) return use(*tls_);
    use(socket_);
  }

  boost::asio::io_context context_{1};
  Tcp::socket socket_{context_};
  std::optional<Tls> tls_;
};

/// One answer. Nothing that the peer promises is believed, and there is room for what arrived only.
class AnswerReader : private NonCopyable {
 public:
  using error_code = Transport::error_code;

  /// @param content what is there gets the content added; borrowed, as the transport
  AnswerReader(Transport& transport, Buffer& content);
  ~AnswerReader();

  /// Bounds the content. Given before the header it also refuses, with the header, what promises more.
  void limit(std::size_t bytes);
  error_code readHeader(Transport::Deadline deadline);
  /// Goes on to the answer behind this one, which has a header only.
  void next();
  error_code readContent(Transport::Deadline deadline);

  /// Whether anything of it has arrived.
  bool begun() const noexcept;
  /// The peer said more than what has been read.
  bool hasMore() const noexcept;
  // Of the header:
  bool isHTTP1() const noexcept;  ///< 1.0 or 1.1
  unsigned int status() const noexcept;
  bool isInterim() const noexcept;  ///< another header comes (RFC 9110, 15.2)
  Failure failureOfStatus() const;  ///< where it is none that helps
  /// The values of a field, all of them in one list (RFC 9110, 5.3); empty for none.
  std::string field(boost::beast::http::field name) const;

 private:
  struct Part;

  Transport& transport_;
  Buffer& content_;
  std::unique_ptr<Part> part_;
};

/// What came of an answer that could not be read: a `Connection::Outcome`.
int outcomeOf(const boost::system::error_code& error, bool answerBegun);

/// How long an answer may take and be.
struct AnswerBounds {
  std::chrono::milliseconds queryTime;
  bool isOver;  ///< the query time itself, not what was left for the network
  std::size_t maxContent;
};

/// The same in full.
Failure failureOf(int outcome, const boost::system::error_code& error, const AnswerBounds& bounds);

/// Why none was begun, for people: the usual, unless somebody asked to stop.
std::string problemOf(const Failure& failure, std::string usual);

/// Why an exchange that was begun came to nothing, for people.
/// @param tooLarge what is said of answers above the bounds
std::string problemOf(int outcome, const Failure& failure, const std::string& tooLarge);

}  // namespace Velantrix::LW::HTTP
