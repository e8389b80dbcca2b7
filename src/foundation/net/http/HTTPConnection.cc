#include "foundation/net/http/HTTPConnection.h"

#include "foundation/base/Fail.h"
#include "foundation/base/Shortfall.h"
#include "foundation/net/AddressAdmission.h"
#include "foundation/openssl/OpenSSLOwners.h"

#include <velantrix/Assert.h>
#include <velantrix/Exception.h>

#include <boost/asio/buffer.hpp>
#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ssl/error.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/fields.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/optional.hpp>
#include <boost/system/error_code.hpp>

#include <cerrno>
#include <fcntl.h>
#include <string>
#include <utility>
#include <variant>

namespace Velantrix::LW::HTTP {

namespace asio = boost::asio;
namespace http = boost::beast::http;
using boost::system::error_code;
using Crypto::ErrorScope;
using Tcp = asio::ip::tcp;

namespace {

// The body of an answer, which goes straight into a Buffer and makes room for what arrives, never
// for what the header promises.
struct Content {
  using value_type = Buffer*;

  class reader {  // NOLINT(readability-identifier-naming): the name that Beast asks for
   public:
    template <bool isRequest, class Fields>
    reader(http::header<isRequest, Fields>& /*header*/, value_type& body) : body_(body) {}

    void init(const boost::optional<std::uint64_t>& /*length*/, error_code& error) { error = {}; }

    template <class ConstBuffers>
    std::size_t put(const ConstBuffers& buffers, error_code& error) {
      error = {};
      std::size_t taken = 0;
      for (auto part = asio::buffer_sequence_begin(buffers);
           part != asio::buffer_sequence_end(buffers); ++part) {
        const asio::const_buffer bytes = *part;
        body_->append(bytes.data(), bytes.size());
        taken += bytes.size();
      }
      return taken;
    }

    void finish(error_code& error) { error = {}; }

   private:
    Buffer*& body_;
  };
};

// A program that is started meanwhile must not inherit the connection; Asio leaves that to its
// users.
error_code openSocket(Tcp::socket& socket, const Tcp& protocol) {
  error_code error;
  socket.open(protocol, error);
  if (!error && ::fcntl(socket.native_handle(), F_SETFD, FD_CLOEXEC) != 0) {
    error = error_code(errno, boost::system::system_category());
  }
  return error;
}

using Parser = http::response_parser<Content>;

int outcomeOf(const error_code& error, bool answerBegun) {
  if (error == asio::error::timed_out) return Connection::kTimedOut;
  if (error == http::error::header_limit || error == http::error::body_limit ||
      error == http::error::buffer_overflow) {
    return Connection::kTooLarge;
  }
  if (error == http::error::end_of_stream) return Connection::kClosed;
  if (error == http::error::partial_message) return Connection::kCutShort;
  if (error.category() == http::make_error_code(http::error::end_of_stream).category()) {
    return Connection::kMalformed;
  }
  return answerBegun ? Connection::kCutShort : Connection::kClosed;
}

}  // namespace

// The TCP connection and the loop that drives it. Asio's blocking operations cannot be given a
// deadline; asynchronous ones that are run from here can, and no thread is needed.
struct Connection::Transport {
  using Plain = Tcp::socket;
  using Tls = asio::ssl::stream<Tcp::socket>;

  explicit Transport(Stream& kind) : stream(make(kind, context)) {}

  std::variant<Plain, Tls> make(Stream& kind, asio::io_context& loop) {
    asio::ssl::context* const tls = kind.tls();
    if (tls == nullptr) return std::variant<Plain, Tls>(std::in_place_type<Plain>, loop);
    return std::variant<Plain, Tls>(std::in_place_type<Tls>, loop, *tls);
  }

  Tcp::socket& socket() {
    if (Plain* const plain = std::get_if<Plain>(&stream)) return *plain;
    return std::get<Tls>(stream).next_layer();
  }

  // Starts one operation and runs it to its end or to the deadline. `start` is given the completion
  // handler.
  template <class Start>
  error_code run(NetworkTimer::Clock::time_point deadline, Start&& start) {
    error_code result;
    bool finished = false;
    start([&](const error_code& error, auto&&...) {
      result = error;
      finished = true;
    });
    context.restart();
    context.run_until(deadline);
    if (finished) return result;
    // Closing the socket completes the operation, which refers to this frame.
    error_code ignored;
    socket().close(ignored);
    context.restart();
    context.run();
    PKX509_ASSERT(finished);
    return asio::error::timed_out;
  }

  asio::io_context context{1};
  std::variant<Plain, Tls> stream;
};

RefConnection::RefConnection(RefStream& stream) {
  if (stream.empty()) {
    fail({"HTTP::Connection", "HTTPConnection"}, "There is no stream.");
  }
  connection_ = std::make_shared<Connection>(stream);
}

Connection* RefConnection::operator->() const {
  if (connection_ == nullptr) {
    throw Exception("operator->", Exception::kEmptyHandle, "HTTPConnection", __LINE__);
  }
  return connection_.get();
}

Connection::Connection(const RefStream& stream) : stream_(stream) {}

Connection::~Connection() = default;

bool Connection::connect(const Tcp::endpoint& endpoint) {
  disconnect();
  endpoint_ = endpoint;
  if (open()) return true;
  endpoint_.reset();
  return false;
}

void Connection::disconnect() {
  transport_.reset();
  endpoint_.reset();
  ended_ = kClosed;
  failure_ = {};
}

void Connection::unreachable(Failure why) {
  disconnect();
  failure_ = std::move(why);
}

bool Connection::open() {
  const ErrorScope errors;  // Asio takes one error of TLS and may leave others behind it
  const NetworkTimer timer(kConnectTime);
  failure_ = {};
  if (timer.expired()) {
    failure_.kind = Failure::Kind::kNoTime;
    return false;
  }
  // The very address that is connected to: a name might resolve to another one the next time.
  if (!AddressAdmission::admits(endpoint_->address())) {
    failure_ = {.kind = Failure::Kind::kRefusedAddress,
                .detail = detailOf(endpoint_->address().to_string())};
    return false;
  }
  Failure::Kind step = Failure::Kind::kConnect;
  const error_code error = establish(timer.deadline(), step);
  if (!error) return true;
  if (error.category() == boost::system::system_category()) {
    Shortfall::noteIfExhausted(error.value());
  }
  transport_.reset();
  failure_ = failureOf(step, error);
  return false;
}

// Connects, and shakes hands where TLS is spoken. Step: what failed, if anything did.
error_code Connection::establish(Clock::time_point deadline, Failure::Kind& step) {
  transport_ = std::make_unique<Transport>(*stream_);
  Tcp::socket& socket = transport_->socket();
  error_code error = openSocket(socket, endpoint_->protocol());
  if (!error) {
    error = transport_->run(deadline,
                            [&](auto done) { socket.async_connect(*endpoint_, std::move(done)); });
  }
  if (error) return error;
  error_code ignored;  // a header and a body that leave one after the other need not wait
  socket.set_option(Tcp::no_delay(true), ignored);
  auto* const tls = std::get_if<Transport::Tls>(&transport_->stream);
  if (tls == nullptr) return {};
  step = Failure::Kind::kTls;
  return transport_->run(deadline, [&](auto done) {
    tls->async_handshake(asio::ssl::stream_base::client, std::move(done));
  });
}

int Connection::fail(int outcome, const error_code& error) {
  failure_ = failureAs(outcome, error);
  return outcome;
}

Failure Connection::failureAs(int outcome, const error_code& error) const {
  using Kind = Failure::Kind;
  switch (outcome) {
    case kTimedOut: {
      Failure failure = failureOf(Kind::kTimedOut, error);
      const auto whole = std::chrono::duration_cast<std::chrono::seconds>(queryTime_);
      failure.detail = queryTimeLeft() <= Clock::duration::zero()
                           ? "no answer in " + std::to_string(whole.count()) + " s"
                           : "no answer in the time that was left for the network";
      return failure;
    }
    case kTooLarge:
      return {.kind = Kind::kTooLarge,
              .detail = error == http::error::body_limit
                            ? "content above " + std::to_string(maxContent_) + " octets"
                            : "header above " + std::to_string(kMaximumHeader) + " octets"};
    case kCutShort:
      return failureOf(Kind::kCutShort, error);
    case kMalformed:
      return failureOf(Kind::kMalformed, error);
    default:
      return failureOf(Kind::kClosed, error);
  }
}

void Connection::maxQueryTime(unsigned int seconds) noexcept {
  queryTime_ = std::chrono::seconds(seconds == 0 ? kDefaultQueryTime : seconds);
}

Connection::Clock::duration Connection::queryTimeLeft() const { return queryEnd_ - Clock::now(); }

template <class Buffers>
void Connection::write(const Buffers& bytes) {
  const ErrorScope errors;
  const NetworkTimer timer(queryTimeLeft());
  const error_code error = transport_->run(timer.deadline(), [&](auto done) {
    std::visit([&](auto& stream) { asio::async_write(stream, bytes, std::move(done)); },
               transport_->stream);
  });
  if (error) ended_ = fail(error == asio::error::timed_out ? kTimedOut : kClosed, error);
}

void Connection::send(const std::string& text) {
  content_.clear();
  contentReceived_ = 0;
  ended_ = kClosed;
  if (!endpoint_.has_value() || (transport_ == nullptr && !open())) return;
  ended_ = 0;
  failure_ = {};
  queryEnd_ = Clock::now() + queryTime_;
  write(asio::buffer(text));
}

void Connection::send(const RefBuffer& body) {
  if (ended_ == 0) write(asio::buffer(body->data(), body->length()));
}

int Connection::receive() {
  content_.clear();
  contentReceived_ = 0;
  status_ = 0;
  if (ended_ != 0 && failure_.kind == Failure::Kind::kNone) {
    failure_ = {.kind = Failure::Kind::kClosed, .detail = "no request was sent"};
  }
  const int outcome = ended_ != 0 ? ended_ : readAnswer();
  if (outcome != kComplete) content_.clear();
  transport_.reset();
  ended_ = kClosed;  // nothing more comes without another request
  return outcome;
}

int Connection::readAnswer() {
  const ErrorScope errors;
  constexpr std::size_t kReadAhead = std::size_t{64} * 1024;
  const NetworkTimer timer(queryTimeLeft());
  boost::beast::flat_buffer buffer(kMaximumHeader + kReadAhead);
  buffer.reserve(kReadAhead);  // Beast reads as much as there is room for: else 512 bytes at a time
  Parser parser;
  parser.header_limit(kMaximumHeader);
  parser.body_limit(maxContent_);
  parser.get().body() = &content_;
  const auto read = [&](const auto& operation) {
    return transport_->run(timer.deadline(), [&](auto done) {
      std::visit([&](auto& stream) { operation(stream, std::move(done)); }, transport_->stream);
    });
  };

  error_code error = read([&](auto& stream, auto done) {
    http::async_read_header(stream, buffer, parser, std::move(done));
  });
  if (error) return fail(outcomeOf(error, parser.got_some()), error);
  const unsigned int version = parser.get().version();
  if (version != 10 && version != 11) return fail(kMalformed, http::error::bad_version);
  status_ = parser.get().result_int();
  if (status_ != 200) {
    failure_ = {.kind = Failure::Kind::kStatus,
                .httpStatus = static_cast<int>(status_),
                .detail = detailOf(parser.get().reason())};
    return kOtherStatus;
  }

  error = read(
      [&](auto& stream, auto done) { http::async_read(stream, buffer, parser, std::move(done)); });
  contentReceived_ = content_.length();
  return error ? fail(outcomeOf(error, true), error) : static_cast<int>(kComplete);
}

}  // namespace Velantrix::LW::HTTP
