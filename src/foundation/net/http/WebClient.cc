#include "foundation/net/http/WebClient.h"

#include "foundation/base/Shortfall.h"
#include "foundation/base/URIReference.h"
#include "foundation/base/URIText.h"
#include "foundation/net/AddressAdmission.h"
#include "foundation/net/Cancellation.h"
#include "foundation/net/HostResolver.h"
#include "foundation/net/NetworkBudget.h"
#include "foundation/net/http/HTTPFreshness.h"
#include "foundation/net/http/HTTPTransport.h"
#include "foundation/openssl/OpenSSLOwners.h"

#include <velantrix/Host.h>

#include <boost/asio/buffer.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/ip/address.hpp>
#include <boost/beast/http/error.hpp>
#include <boost/beast/http/field.hpp>
#include <boost/system/error_code.hpp>

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <memory>
#include <netinet/in.h>
#include <string_view>
#include <utility>
#include <vector>

namespace Velantrix::LW::HTTP {

namespace asio = boost::asio;
namespace http = boost::beast::http;
using boost::system::error_code;
using Crypto::ErrorScope;
using Kind = Failure::Kind;
using Clock = NetworkTimer::Clock;
using Tcp = asio::ip::tcp;

namespace {

constexpr std::string_view kUserAgent = "libvlxpkx509/" PKX509_VERSION;
// Answers of status 1xx that may come before the one that counts (RFC 9110, 15.2).
constexpr unsigned int kMaximumInterim = 8;

bool isSecure(const Uri& uri) { return uri.scheme() == "https:"; }

unsigned short portOf(const Uri& uri) {
  if (uri.port() != 0) return uri.port();
  return isSecure(uri) ? 443 : 80;
}

// RFC 9110, 7.2: the default port is left out, as clients do; servers compare texts.
std::string hostField(const Uri& uri) {
  const bool usual = uri.port() == (isSecure(uri) ? 443 : 80);
  std::string text = authorityOf(uri);
  if (usual) text.resize(text.rfind(':'));
  return text;
}

// RFC 9110, 9.3.6: with the port whatever it is.
std::string tunnelTarget(const Uri& uri) {
  return authorityOf(uri) + (uri.port() != 0 ? "" : ":" + std::to_string(portOf(uri)));
}

void add(std::string& header, std::string_view name, std::string_view value) {
  header.append(name).append(": ").append(value).append("\r\n");
}

// The address that a host is named by, in any of the notations that resolvers take for one: what a
// proxy makes of "127.1" or "0x7f000001" is an address as well.
std::optional<asio::ip::address> literalOf(std::string host) {
  error_code none;
  const asio::ip::address address = asio::ip::make_address(host, none);
  if (!none) return address;
  if (host.ends_with('.')) host.pop_back();
  in_addr four{};
  if (::inet_aton(host.c_str(), &four) == 0) return std::nullopt;
  return asio::ip::address_v4(ntohl(four.s_addr));
}

// Of letters, digits, hyphens, underscores and dots: what a proxy cannot read in two ways.
bool isPlainName(const std::string& host) {
  return !host.empty() && std::all_of(host.begin(), host.end(), [](unsigned char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '_' || c == '.';
  });
}

// RFC 6066, 3: no address, and no dot at the end.
std::string serverName(const Uri& uri) {
  std::string name = uri.hostname();
  if (literalOf(name).has_value()) return {};
  if (name.ends_with('.')) name.pop_back();
  return name;
}

bool isRedirect(unsigned int status) {
  constexpr std::array<unsigned int, 5> kRedirects = {301, 302, 303, 307, 308};
  return std::find(kRedirects.begin(), kRedirects.end(), status) != kRedirects.end();
}

bool isIdentity(std::string coding) {
  std::transform(coding.begin(), coding.end(), coding.begin(),
                 [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; });
  return coding.empty() || coding == "identity";
}

// One request with all that it leads to.
class Fetch {
 public:
  Fetch(const WebRequest& request, const WebTerms& terms, WebAnswer& answer)
      : request_(request), terms_(terms), answer_(answer), uri_(request.uri) {}

  void run() {
    bool again = true;
    while (again) {
      seen_.push_back(uri_.canonicalized());
      again = exchange();
      transport_.reset();
    }
    if (!answer_.complete) answer_.content->clear();
    answer_.last = uri_;
  }

 private:
  bool viaProxy() const { return !terms_.proxy.isNull(); }
  /// A failure of what is connected to.
  Kind onTheWay(Kind kind) const { return viaProxy() ? Kind::kProxy : kind; }
  bool isConditional() const { return !conditions().empty(); }

  bool exchange();
  // Each of these says whether it goes on, and else why not.
  bool open();
  RefStream stream();
  bool admitsLiteral();
  bool admits(const asio::ip::address& address);
  bool connect(const Tcp::endpoint& endpoint, const RefStream& stream);
  bool establish(const Tcp::endpoint& endpoint, const RefStream& stream,
                 Clock::time_point deadline);
  bool openTunnel(Clock::time_point deadline);
  bool send();
  bool receive();
  bool readHeader(AnswerReader& reader, Clock::time_point deadline);
  bool readContent(AnswerReader& reader, Clock::time_point deadline);
  bool follow(const std::string& location, const Failure& status);

  std::string conditions() const;
  std::string header() const;
  Clock::duration connectTime();
  Clock::duration queryTimeLeft() const { return *queryEnd_ - Clock::now(); }
  bool fail(Failure why, std::string problem);
  bool failToConnect(Kind step, const error_code& error);
  bool failToRead(const error_code& error, bool begun);
  bool refuseStatus(Failure status);

  const WebRequest& request_;
  const WebTerms& terms_;
  WebAnswer& answer_;
  Uri uri_;
  std::vector<std::string> seen_;
  RefStream stream_;
  std::unique_ptr<Transport> transport_;
  std::optional<Clock::time_point> wholeEnd_;  // as soon as one connects
  std::optional<Clock::time_point> queryEnd_;  // as soon as something was sent
};

bool Fetch::fail(Failure why, std::string problem) {
  answer_.failure = std::move(why);
  answer_.problem = problemOf(answer_.failure, std::move(problem));
  return false;
}

bool Fetch::failToConnect(Kind step, const error_code& error) {
  if (error.category() == boost::system::system_category()) {
    Shortfall::noteIfExhausted(error.value());
  }
  return fail(failureOf(step, error), "could not connect");
}

bool Fetch::failToRead(const error_code& error, bool begun) {
  const int outcome = outcomeOf(error, begun);
  const Failure failure = failureOf(outcome, error,
                                    {.queryTime = terms_.queryTime,
                                     .isOver = queryTimeLeft() <= Clock::duration::zero(),
                                     .maxContent = terms_.maxContent});
  return fail(failure, problemOf(outcome, failure, "the answer is too large: " + failure.detail));
}

bool Fetch::refuseStatus(Failure status) {
  std::string problem = "HTTP status " + std::to_string(status.httpStatus);
  // Nobody but a proxy sends it (RFC 9110, 15.5.8).
  if (viaProxy() && status.httpStatus == 407) status.kind = Kind::kProxy;
  return fail(std::move(status), std::move(problem));
}

// True: there is another place to ask.
bool Fetch::exchange() {
  if (!isHandled(uri_)) {
    return fail({.kind = Kind::kClosed, .detail = "not spoken: " + uri_.scheme()}, "not spoken");
  }
  return open() && send() && receive();
}

// ---- Connecting

bool Fetch::open() {
  stream_ = stream();
  if (stream_.empty() || !admitsLiteral()) return false;
  const Uri& peer = viaProxy() ? terms_.proxy : uri_;
  const HostAddresses found = resolveHost(peer.hostname(), terms_.resolveTime);
  if (found.addresses.empty()) {
    Failure none = failureOf(found);
    if (none.kind == Kind::kResolve) none.kind = onTheWay(Kind::kResolve);
    return fail(std::move(none), "could not resolve the host");
  }
  for (const std::string& address : found.addresses) {
    const Failure before = std::exchange(answer_.failure, {});
    Tcp::endpoint endpoint = endpointFor(IPAddress(address), peer);
    endpoint.port(portOf(peer));
    if (connect(endpoint, stream_)) {
      answer_.problem.clear();  // of an address before it
      return true;
    }
    // What was tried says more than what was not.
    const Kind kind = answer_.failure.kind;
    const bool tried = kind != Kind::kRefusedAddress && kind != Kind::kNoTime;
    if (!tried && before.kind != Kind::kNone) answer_.failure = before;
    if (kind == Kind::kNoTime || kind == Kind::kCancelled || answer_.failure.httpStatus != 0) break;
  }
  return false;
}

// Whoever has no certificate to show is still served by servers that ask for none. One that is there and
// cannot be loaded is for the operator to mend.
RefStream Fetch::stream() {
  const bool first = answer_.redirects == 0 && terms_.identity.has_value();
  RefStream stream =
      streamFor(uri_, first ? &*terms_.identity : nullptr, answer_.failure, answer_.problem);
  const Failure& failure = answer_.failure;
  if (!stream.empty() || failure.kind != Kind::kClientIdentity || failure.error != ENOENT) {
    return stream;
  }
  answer_.failure = {};
  answer_.problem.clear();
  return streamFor(uri_, nullptr, answer_.failure, answer_.problem);
}

// The policy judges names where they are resolved, which a proxy does elsewhere.
bool Fetch::admitsLiteral() {
  if (!viaProxy()) return true;
  const auto address = literalOf(uri_.hostname());
  if (address.has_value() && !admits(*address)) return false;
  if (address.has_value() || isPlainName(uri_.hostname())) return true;
  return fail({.kind = Kind::kResolve, .detail = "no name of a host"},
              "could not resolve the host");
}

bool Fetch::admits(const asio::ip::address& address) {
  const std::string refused = AddressAdmission::refusal(address);
  if (refused.empty()) return true;
  return fail({.kind = Kind::kRefusedAddress, .detail = detailOf(refused)}, "could not connect");
}

// All addresses together get no more than a host with one of them may take.
Clock::duration Fetch::connectTime() {
  if (!wholeEnd_.has_value()) wholeEnd_ = Clock::now() + terms_.connectTime + terms_.queryTime;
  const Clock::duration left = queryEnd_.value_or(*wholeEnd_) - Clock::now();
  return std::min<Clock::duration>(terms_.connectTime, left);
}

bool Fetch::connect(const Tcp::endpoint& endpoint, const RefStream& stream) {
  const ErrorScope errors;  // Asio takes one error of TLS and may leave others behind it
  const NetworkTimer timer(connectTime());
  if (Cancellation::requested()) return fail({.kind = Kind::kCancelled}, {});
  if (queryEnd_.has_value() && queryTimeLeft() <= Clock::duration::zero()) {
    return failToRead(asio::error::timed_out, false);
  }
  if (timer.expired()) return fail({.kind = Kind::kNoTime}, "could not connect");
  // The very address that is connected to. The proxy's is the operator's.
  if (!viaProxy() && !admits(endpoint.address())) return false;
  return establish(endpoint, stream, timer.deadline());
}

bool Fetch::establish(const Tcp::endpoint& endpoint, const RefStream& stream,
                      Clock::time_point deadline) {
  transport_ = std::make_unique<Transport>();
  error_code error = transport_->connect(endpoint, deadline);
  if (error) return failToConnect(onTheWay(Kind::kConnect), error);
  asio::ssl::context* const tls = stream->tls();
  if (tls == nullptr) return true;
  if (viaProxy() && !openTunnel(deadline)) return false;
  error = transport_->shakeHands(*tls, serverName(uri_), deadline);
  return error ? failToConnect(Kind::kTls, error) : true;
}

// RFC 9110, 9.3.6
bool Fetch::openTunnel(Clock::time_point deadline) {
  std::string text = "CONNECT " + tunnelTarget(uri_) + " HTTP/1.1\r\n";
  add(text, "Host", tunnelTarget(uri_));
  add(text, "User-Agent", kUserAgent);
  text += "\r\n";
  Buffer content;
  AnswerReader reader(*transport_, content);
  error_code error = transport_->write(asio::buffer(text), deadline);
  if (!error) error = reader.readHeader(deadline);
  if (error) return failToConnect(Kind::kProxy, error);
  if (!reader.isHTTP1()) return failToConnect(Kind::kProxy, http::error::bad_version);
  if (reader.status() / 100 != 2) return refuseStatus(reader.failureOfStatus());
  // The server speaks second: what is there already is none of its words.
  if (reader.hasMore()) return failToConnect(Kind::kProxy, http::error::unexpected_body);
  return true;
}

// ---- The request

// RFC 9110, 13.1
std::string Fetch::conditions() const {
  std::string text;
  const Validators& known = request_.validators;
  if (Validators::isFit(known.etag)) add(text, "If-None-Match", known.etag);
  if (Validators::isFit(known.lastModified)) add(text, "If-Modified-Since", known.lastModified);
  return text;
}

// RFC 9112, 3.2: a proxy is told the whole URI, but for the user.
std::string Fetch::header() const {
  std::string text = request_.body.has_value() ? "POST " : "GET ";
  if (viaProxy() && !isSecure(uri_)) text += "http://" + hostField(uri_);
  text += requestTarget(uri_) + " HTTP/1.1\r\n";
  add(text, "Host", hostField(uri_));
  add(text, "User-Agent", kUserAgent);
  add(text, "Accept", request_.accept);
  add(text, "Accept-Encoding", "identity");
  text += conditions();
  if (request_.body.has_value()) {
    add(text, "Content-Type", request_.contentType);
    add(text, "Content-Length", std::to_string(request_.body->size()));
  }
  add(text, "Connection", "close");
  return text + "\r\n";
}

bool Fetch::send() {
  const ErrorScope errors;
  if (!queryEnd_.has_value()) queryEnd_ = std::min(Clock::now() + terms_.queryTime, *wholeEnd_);
  const std::string text = header() + request_.body.value_or("");
  const NetworkTimer timer(queryTimeLeft());
  const error_code error = transport_->write(asio::buffer(text), timer.deadline());
  return error ? failToRead(error, false) : true;
}

// ---- The answer

bool Fetch::receive() {
  const ErrorScope errors;
  const NetworkTimer timer(queryTimeLeft());
  AnswerReader reader(*transport_, *answer_.content);
  if (!readHeader(reader, timer.deadline())) return false;
  const unsigned int status = reader.status();
  if (isRedirect(status) && !request_.body.has_value()) {
    return follow(reader.field(http::field::location), reader.failureOfStatus());
  }
  answer_.maxAge = freshnessOf({.cacheControl = reader.field(http::field::cache_control),
                                .expires = reader.field(http::field::expires),
                                .date = reader.field(http::field::date)});
  if (status != 200 && !(status == 304 && isConditional())) {
    return refuseStatus(reader.failureOfStatus());
  }
  answer_.validators = {.etag = reader.field(http::field::etag),
                        .lastModified = reader.field(http::field::last_modified)};
  for (std::string* text : {&answer_.validators.etag, &answer_.validators.lastModified}) {
    if (!Validators::isFit(*text)) text->clear();
  }
  answer_.notModified = status == 304;
  if (!answer_.notModified) answer_.complete = readContent(reader, timer.deadline());
  return false;
}

bool Fetch::readHeader(AnswerReader& reader, Clock::time_point deadline) {
  error_code error = reader.readHeader(deadline);
  for (unsigned int i = 0; !error && reader.isInterim() && i < kMaximumInterim; ++i) {
    reader.next();
    error = reader.readHeader(deadline);
  }
  if (!error && !reader.isHTTP1()) error = http::error::bad_version;
  return error ? failToRead(error, reader.begun()) : true;
}

bool Fetch::readContent(AnswerReader& reader, Clock::time_point deadline) {
  const std::string coding = reader.field(http::field::content_encoding);
  if (!isIdentity(coding)) {
    return fail({.kind = Kind::kEncoding, .detail = detailOf(coding)},
                "content in an encoding that was not asked for");
  }
  reader.limit(terms_.maxContent);
  const error_code error = reader.readContent(deadline);
  answer_.received = answer_.content->length();
  return error ? failToRead(error, true) : true;
}

// RFC 9110, 15.4. Its content is not read.
bool Fetch::follow(const std::string& location, const Failure& status) {
  Failure refused = status;
  const Uri target = location.empty() ? Uri() : resolveReference(uri_, location);
  if (!isHandled(target) || target.hostname().empty()) {
    refused.detail = "redirected to no place that can be asked";
  } else if (std::find(seen_.begin(), seen_.end(), target.canonicalized()) != seen_.end()) {
    refused.detail = "redirected in a circle";
  } else if (answer_.redirects == WebAnswer::kMaximumRedirects) {
    refused.detail = "redirected too often";
  } else {
    ++answer_.redirects;
    uri_ = target;
    return true;
  }
  return refuseStatus(std::move(refused));
}

}  // namespace

bool Validators::isFit(const std::string& text) noexcept {
  return !text.empty() && text.size() <= kMaximumSize &&
         std::all_of(text.begin(), text.end(), [](char c) { return c >= 0x20 && c <= 0x7e; });
}

WebAnswer ask(const WebRequest& request, const WebTerms& terms) {
  const auto start = Clock::now();
  WebAnswer answer;
  answer.maxContent = terms.maxContent;
  Fetch(request, terms, answer).run();
  answer.taken = Clock::now() - start;
  return answer;
}

}  // namespace Velantrix::LW::HTTP
