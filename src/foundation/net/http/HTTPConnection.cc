#include "foundation/net/http/HTTPConnection.h"

#include "foundation/base/Fail.h"
#include "foundation/base/Shortfall.h"
#include "foundation/net/AddressAdmission.h"
#include "foundation/net/Cancellation.h"
#include "foundation/net/http/HTTPTransport.h"
#include "foundation/openssl/OpenSSLOwners.h"

#include <velantrix/Assert.h>
#include <velantrix/Exception.h>

#include <boost/asio/buffer.hpp>
#include <boost/asio/error.hpp>
#include <boost/beast/http/error.hpp>
#include <boost/system/error_code.hpp>

#include <string>
#include <utility>

namespace Velantrix::LW::HTTP {

namespace asio = boost::asio;
namespace http = boost::beast::http;
using boost::system::error_code;
using Crypto::ErrorScope;
using Tcp = asio::ip::tcp;

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
  if (Cancellation::requested()) {
    failure_.kind = Failure::Kind::kCancelled;
    return false;
  }
  if (timer.expired()) {
    failure_.kind = Failure::Kind::kNoTime;
    return false;
  }
  // The very address that is connected to: a name might resolve to another one the next time.
  if (const std::string refused = AddressAdmission::refusal(endpoint_->address());
      !refused.empty()) {
    failure_ = {.kind = Failure::Kind::kRefusedAddress, .detail = detailOf(refused)};
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
  transport_ = std::make_unique<Transport>();
  const error_code error = transport_->connect(*endpoint_, deadline);
  asio::ssl::context* const tls = stream_->tls();
  if (error || tls == nullptr) return error;
  step = Failure::Kind::kTls;
  return transport_->shakeHands(*tls, {}, deadline);
}

int Connection::fail(int outcome, const error_code& error) {
  failure_ = failureOf(outcome, error,
                       {.queryTime = std::chrono::duration_cast<std::chrono::seconds>(queryTime_),
                        .isOver = queryTimeLeft() <= Clock::duration::zero(),
                        .maxContent = maxContent_});
  return outcome;
}

void Connection::maxQueryTime(unsigned int seconds) noexcept {
  queryTime_ = std::chrono::seconds(seconds == 0 ? kDefaultQueryTime : seconds);
}

Connection::Clock::duration Connection::queryTimeLeft() const { return queryEnd_ - Clock::now(); }

void Connection::write(asio::const_buffer bytes) {
  const ErrorScope errors;
  const NetworkTimer timer(queryTimeLeft());
  const error_code error = transport_->write(bytes, timer.deadline());
  if (error) ended_ = fail(outcomeOf(error, false), error);
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
  const NetworkTimer timer(queryTimeLeft());
  AnswerReader answer(*transport_, content_);
  answer.limit(maxContent_);
  error_code error = answer.readHeader(timer.deadline());
  if (error) return fail(outcomeOf(error, answer.begun()), error);
  if (!answer.isHTTP1()) return fail(kMalformed, http::error::bad_version);
  status_ = answer.status();
  if (status_ != 200) {
    failure_ = answer.failureOfStatus();
    return kOtherStatus;
  }
  error = answer.readContent(timer.deadline());
  contentReceived_ = content_.length();
  return error ? fail(outcomeOf(error, true), error) : static_cast<int>(kComplete);
}

}  // namespace Velantrix::LW::HTTP
