#include "foundation/net/http/HTTPTransport.h"

#include "foundation/net/Cancellation.h"

#include <velantrix/Assert.h>

#include <boost/asio/connect.hpp>
#include <boost/asio/ssl/error.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/error.hpp>
#include <boost/beast/http/fields.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/optional.hpp>
#include <openssl/ssl.h>

#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <stop_token>

namespace Velantrix::LW::HTTP {

namespace asio = boost::asio;
namespace http = boost::beast::http;
using boost::system::error_code;
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

constexpr std::size_t kReadAhead = std::size_t{64} * 1024;

std::string timeText(std::chrono::milliseconds time) {
  if (time.count() % 1000 != 0) return std::to_string(time.count()) + " ms";
  return std::to_string(time.count() / 1000) + " s";
}

}  // namespace

// Starts one operation and runs it to its end, to the deadline or until somebody asks to stop. `start` is
// given the completion handler.
template <class Start>
error_code Transport::run(Deadline deadline, Start&& start) {
  error_code result;
  bool finished = false;
  start([&](const error_code& error, auto&&...) {
    result = error;
    finished = true;
  });
  runUntil(deadline);
  if (finished) return result;
  // Closing the socket completes the operation, which refers to this frame.
  error_code ignored;
  socket_.close(ignored);
  context_.restart();
  context_.run();
  PKX509_ASSERT(finished);
  if (Cancellation::requested()) return asio::error::operation_aborted;
  return asio::error::timed_out;
}

// What stops the loop does so from another thread.
void Transport::runUntil(Deadline deadline) {
  context_.restart();
  const std::stop_callback stop(Cancellation::token(), [this]() noexcept { context_.stop(); });
  context_.run_until(deadline);
}

error_code Transport::connect(const Tcp::endpoint& endpoint, Deadline deadline) {
  error_code error = openSocket(socket_, endpoint.protocol());
  if (!error) {
    error = run(deadline, [&](auto done) { socket_.async_connect(endpoint, std::move(done)); });
  }
  if (error) return error;
  error_code ignored;  // a header and a body that leave one after the other need not wait
  socket_.set_option(Tcp::no_delay(true), ignored);
  return {};
}

error_code Transport::shakeHands(asio::ssl::context& tls, const std::string& name,
                                 Deadline deadline) {
  tls_.emplace(socket_, tls);
  // SSL_set_tlsext_host_name() would be a cast of the C kind.
  if (!name.empty() && SSL_ctrl(tls_->native_handle(), SSL_CTRL_SET_TLSEXT_HOSTNAME,
                                TLSEXT_NAMETYPE_host_name, const_cast<char*>(name.c_str())) != 1) {
    return asio::error::invalid_argument;
  }
  return run(deadline, [&](auto done) {
    tls_->async_handshake(asio::ssl::stream_base::client, std::move(done));
  });
}

error_code Transport::write(asio::const_buffer bytes, Deadline deadline) {
  return run(deadline, [&](auto done) {
    withStream([&](auto& stream) { asio::async_write(stream, bytes, std::move(done)); });
  });
}

struct AnswerReader::Part {
  Part() : buffer(Connection::kMaximumHeader + kReadAhead) {
    buffer.reserve(
        kReadAhead);  // Beast reads as much as there is room for: else 512 bytes at a time
  }

  boost::beast::flat_buffer buffer;
  std::optional<Parser> parser;
  boost::optional<std::uint64_t> limit;
};

AnswerReader::AnswerReader(Transport& transport, Buffer& content)
    : transport_(transport), content_(content), part_(std::make_unique<Part>()) {
  next();
}

AnswerReader::~AnswerReader() = default;

void AnswerReader::next() {
  Parser& parser = part_->parser.emplace();
  parser.header_limit(Connection::kMaximumHeader);
  parser.body_limit(part_->limit);
  parser.get().body() = &content_;
}

void AnswerReader::limit(std::size_t bytes) {
  part_->limit = bytes;
  part_->parser->body_limit(part_->limit);
}

error_code AnswerReader::readHeader(Transport::Deadline deadline) {
  return transport_.run(deadline, [&](auto done) {
    transport_.withStream([&](auto& stream) {
      http::async_read_header(stream, part_->buffer, *part_->parser, std::move(done));
    });
  });
}

error_code AnswerReader::readContent(Transport::Deadline deadline) {
  Parser& parser = *part_->parser;
  // Beast looks at the promise with the header, where there was no bound yet.
  if (part_->limit.has_value() && parser.content_length() > part_->limit) {
    return http::error::body_limit;
  }
  return transport_.run(deadline, [&](auto done) {
    transport_.withStream(
        [&](auto& stream) { http::async_read(stream, part_->buffer, parser, std::move(done)); });
  });
}

bool AnswerReader::begun() const noexcept { return part_->parser->got_some(); }
bool AnswerReader::hasMore() const noexcept { return part_->buffer.size() != 0; }
unsigned int AnswerReader::status() const noexcept { return part_->parser->get().result_int(); }

bool AnswerReader::isInterim() const noexcept {
  return isHTTP1() && status() / 100 == 1 && status() != 101;  // that one is another protocol's
}

bool AnswerReader::isHTTP1() const noexcept {
  const unsigned int version = part_->parser->get().version();
  return version == 10 || version == 11;
}

Failure AnswerReader::failureOfStatus() const {
  return {.kind = Failure::Kind::kStatus,
          .httpStatus = static_cast<int>(status()),
          .detail = detailOf(part_->parser->get().reason())};
}

std::string AnswerReader::field(http::field name) const {
  std::string all;
  const auto [first, end] = part_->parser->get().equal_range(name);
  for (auto line = first; line != end; ++line) {
    if (line != first) all += ", ";
    all.append(line->value().data(), line->value().size());
  }
  return all;
}

int outcomeOf(const error_code& error, bool answerBegun) {
  if (error == asio::error::timed_out) return Connection::kTimedOut;
  if (error == asio::error::operation_aborted) return Connection::kCancelled;
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

Failure failureOf(int outcome, const error_code& error, const AnswerBounds& bounds) {
  using Kind = Failure::Kind;
  switch (outcome) {
    case Connection::kTimedOut: {
      Failure failure = failureOf(Kind::kTimedOut, error);
      failure.detail = bounds.isOver ? "no answer in " + timeText(bounds.queryTime)
                                     : "no answer in the time that was left for the network";
      return failure;
    }
    case Connection::kTooLarge:
      return {
          .kind = Kind::kTooLarge,
          .detail = error == http::error::body_limit
                        ? "content above " + std::to_string(bounds.maxContent) + " octets"
                        : "header above " + std::to_string(Connection::kMaximumHeader) + " octets"};
    case Connection::kCutShort:
      return failureOf(Kind::kCutShort, error);
    case Connection::kMalformed:
      return failureOf(Kind::kMalformed, error);
    default:
      return failureOf(Kind::kClosed, error);
  }
}

std::string problemOf(const Failure& failure, std::string usual) {
  if (failure.kind != Failure::Kind::kCancelled) return usual;
  return problemOf(Connection::kCancelled, failure, {});
}

std::string problemOf(int outcome, const Failure& failure, const std::string& tooLarge) {
  switch (outcome) {
    case Connection::kTimedOut:
      return failure.detail;
    case Connection::kCutShort:
      return "the answer ends in the middle";
    case Connection::kTooLarge:
      return tooLarge;
    case Connection::kOtherStatus:
      return "HTTP status " + std::to_string(failure.httpStatus);
    case Connection::kMalformed:
      return "the answer is not HTTP";
    case Connection::kCancelled:
      return "somebody asked to stop";
    default:
      return "the server closed the connection without an answer";
  }
}

}  // namespace Velantrix::LW::HTTP
