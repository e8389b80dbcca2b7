// The HTTP client: one request at a time, over TCP or TLS, bounded in time and memory.
//
//   HTTP::RefStream stream(HTTP::Stream::kPlain);
//   HTTP::RefConnection connection(stream);
//   if (!connection->connect({address, 80})) return;
//   connection->maxQueryTime(15);
//   connection->send("GET /ca.crl HTTP/1.0\r\n\r\n");
//   if (connection->receive() == HTTP::Connection::kComplete) use(connection->content());
//
// The peer may be anybody. What it sends is read by Boost.Beast, and none of it is believed: not
// the length it promises, not that it will ever end. Redirects are not followed.
#pragma once

#include "foundation/net/NetworkBudget.h"
#include "foundation/net/http/HTTPFailure.h"

#include <velantrix/HTTP.h>
#include <velantrix/LWBuffer.h>
#include <velantrix/NonCopyable.h>

#include <boost/asio/buffer.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>

namespace Velantrix::LW::HTTP {

class Transport;

/// What connections run over. A TLS stream has a TLS context of its own, which is configured before
/// the connection is opened. The peer is not verified unless the context is told to.
class Stream : NonCopyable {
 public:
  enum Type : int { kPlain = 0 };

  explicit Stream(Type /*plain*/) {}
  explicit Stream(boost::asio::ssl::context_base::method method) : tls_(method) {}

  /// Null for a plain stream.
  boost::asio::ssl::context* tls() noexcept { return tls_.has_value() ? &*tls_ : nullptr; }

 private:
  std::optional<boost::asio::ssl::context> tls_;
};

/// A shared handle to a stream.
class RefStream {
 public:
  RefStream() noexcept = default;
  explicit RefStream(Stream::Type type) : stream_(std::make_shared<Stream>(type)) {}
  explicit RefStream(boost::asio::ssl::context_base::method method)
      : stream_(std::make_shared<Stream>(method)) {}

  bool empty() const noexcept { return stream_ == nullptr; }
  /// The stream must not be empty.
  Stream& operator*() const noexcept { return *stream_; }
  Stream* operator->() const noexcept { return stream_.get(); }

 private:
  std::shared_ptr<Stream> stream_;
};

/// A connection to one endpoint. Each answer ends the TCP connection under it, since that is what
/// HTTP/1.0 servers do; the next `send()` opens another one to the same endpoint.
///
/// Used by one thread at a time; it starts none.
class Connection : NonCopyable {
 public:
  /// How a request ended.
  enum Outcome : int {
    kClosed = 1,       ///< not connected, or the peer closed or reset before it answered
    kTimedOut = 2,     ///< not finished within the query time, or the verification's
    kCutShort = 3,     ///< the answer ended in the middle
    kTooLarge = 4,     ///< headers or body above their limits
    kOtherStatus = 5,  ///< a complete header with a status other than 200; its body is not read
    kMalformed = 6,    ///< no HTTP/1.0 or 1.1 answer
    kComplete = 7,     ///< status 200 and the whole body
    kCancelled = 8     ///< somebody asked this thread to stop
  };

  /// Bounds opening a connection, the TLS handshake included.
  static constexpr std::chrono::seconds kConnectTime{10};
  /// Bounds a request as long as `maxQueryTime()` says nothing else.
  static constexpr unsigned int kDefaultQueryTime = 30;
  /// Bounds the bytes of an answer's status line, and of its headers. The parser counts from where
  /// it last went on, so that one line above it is refused, and all together at three times as
  /// much.
  static constexpr unsigned int kMaximumHeader = 16 * 1024;
  /// Bounds the bytes of an answer's body as long as `maxContent()` says nothing else.
  static constexpr std::size_t kDefaultContent = std::size_t{1024} * 1024;

  /// @param stream not empty
  explicit Connection(const RefStream& stream);
  virtual ~Connection();

  /// Opens the connection.
  /// @return true when it stands; else `failure()` says why not
  virtual bool connect(const boost::asio::ip::tcp::endpoint& endpoint);
  /// Closes it; it is not opened again without another `connect()`.
  virtual void disconnect();
  /// Closes it, and remembers why there is no endpoint to connect to: whoever holds the connection
  /// finds every reason in `failure()`.
  void unreachable(Failure why);
  /// Begins a request with its header. A failure shows in `receive()`.
  virtual void send(const std::string& text);
  /// Goes on with the request's body. A failure shows in `receive()`.
  virtual void send(const RefBuffer& body);

  /// Bounds one request, from the first byte sent to the last byte read, however slowly they come.
  /// 0 brings the default back.
  void maxQueryTime(unsigned int seconds) noexcept;
  /// Bounds the body of an answer, in bytes.
  void maxContent(std::size_t bytes) noexcept { maxContent_ = bytes; }

  /// Reads the answer to the request that was sent.
  /// @return an `Outcome`
  int receive();
  /// The status of the last answer; 0 when there was no header of HTTP/1.0 or 1.1.
  unsigned int status() const noexcept { return status_; }
  /// The body of the last answer, not copied; no bytes unless it was complete.
  const Buffer& content() const noexcept { return content_; }
  /// How many bytes of the body arrived, also when the answer was not complete.
  std::size_t contentReceived() const noexcept { return contentReceived_; }
  /// Why the connection does not stand, or the last request has no whole answer; `kNone` when that
  /// is not so. May say more than the outcome does: TLS that fails while the answer is read is
  /// `kClosed` or `kCutShort` there, and `kTls` here.
  const Failure& failure() const noexcept { return failure_; }

 private:
  using Clock = NetworkTimer::Clock;

  bool open();
  boost::system::error_code establish(Clock::time_point deadline, Failure::Kind& step);
  int fail(int outcome, const boost::system::error_code& error);
  Clock::duration queryTimeLeft() const;
  void write(boost::asio::const_buffer bytes);
  int readAnswer();

  RefStream stream_;
  std::optional<boost::asio::ip::tcp::endpoint> endpoint_;  // where a connection has stood
  std::unique_ptr<Transport> transport_;                    // null: not connected now
  Clock::duration queryTime_ = std::chrono::seconds(kDefaultQueryTime);
  Clock::time_point queryEnd_{};
  int ended_ = kClosed;  // how the request ended before its answer; 0 while it goes on
  Failure failure_;
  std::size_t maxContent_ = kDefaultContent;
  std::size_t contentReceived_ = 0;
  unsigned int status_ = 0;
  Buffer content_;
};

}  // namespace Velantrix::LW::HTTP
