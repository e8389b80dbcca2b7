#include "retrieval/DeskRecord.h"

#include "foundation/base/Text.h"
#include "foundation/base/URIText.h"
#include "report/ExchangeFacts.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <limits>
#include <system_error>
#include <utility>

namespace Velantrix::Crypto::PKX509 {

namespace {

constexpr std::string_view kMarkTitle = "pkx509 mark 2\n";
constexpr std::string_view kDeliveryTitle = "pkx509 delivery 1\n";
constexpr std::size_t kMaximumReason = 256;
constexpr std::size_t kMaximumPlace = 1024;
constexpr unsigned int kMostFailures = 1000;

using OfWhat = FetchDesk::Mark::Of;
constexpr std::array<std::pair<OfWhat, std::string_view>, 3> kOfWhat = {
    {{OfWhat::kURI, "uri "}, {OfWhat::kHost, "host "}, {OfWhat::kResponder, "responder "}}};

std::string_view wordOf(OfWhat of) noexcept { return kOfWhat[static_cast<std::size_t>(of)].second; }

Time later(Time time, std::chrono::seconds by) {
  return Time::then(static_cast<long>(time.seconds() + by.count()), true);
}

std::chrono::seconds pauseAfter(unsigned int failures) {
  std::chrono::seconds pause = FetchDesk::kFirstPause;
  while (--failures > 0 && pause < FetchDesk::kLongestPause) pause *= 2;
  return std::min<std::chrono::seconds>(pause, FetchDesk::kLongestPause);
}

std::string line(std::string_view key, std::string_view value) {
  return std::string(key) + std::string(value) + '\n';
}

std::string line(std::string_view key, std::int64_t value) {
  return line(key, std::to_string(value));
}

// Takes one line after the other. Once something is not as it should be, nothing is.
class Lines {
 public:
  Lines(std::string_view text, std::string_view title) : rest_(text) {
    good_ = rest_.starts_with(title);
    if (good_) rest_.remove_prefix(title.size());
  }

  std::string_view text(std::string_view key) {
    const std::size_t end = rest_.find('\n');
    good_ = good_ && end != std::string_view::npos && rest_.starts_with(key);
    if (!good_) return {};
    const std::string_view value = rest_.substr(key.size(), end - key.size());
    rest_.remove_prefix(end + 1);
    return value;
  }

  std::int64_t number(std::string_view key, std::int64_t most) {
    const std::string_view digits = text(key);
    const char* const last = digits.data() + digits.size();
    std::int64_t value = -1;
    const auto [end, error] = std::from_chars(digits.data(), last, value);
    good_ = good_ && error == std::errc() && end == last && value >= 0 && value <= most;
    return value;
  }

  void require(bool condition) { good_ = good_ && condition; }
  bool good() const { return good_; }
  std::string_view rest() const { return rest_; }

 private:
  std::string_view rest_;
  bool good_;
};

// Of a time that it makes sense to reckon with: the year 9999 (RFC 5280, 4.1.2.5.2) is far enough.
constexpr std::int64_t kLastSecond = 253402300799;

bool isFit(const std::string& validator) {
  return validator.empty() || LW::HTTP::Validators::isFit(validator);
}

std::string validator(Lines& lines, std::string_view key) {
  const std::string value(lines.text(key));
  lines.require(isFit(value));
  return value;
}

}  // namespace

FetchDesk::Mark markAfter(const std::optional<FetchDesk::Mark>& former,
                          const LW::HTTP::Failure& failure, Time now) {
  const UseFacts facts = factsOf(failure);
  FetchDesk::Mark mark{.at = now,
                       .failures = 1,
                       .reason = escapeControls(facts.reason, kMaximumReason),
                       .httpStatus = facts.httpStatus,
                       .errorNumber = facts.errorNumber,
                       .malformed = failure.kind == LW::HTTP::Failure::Kind::kMalformed};
  if (former) {
    mark.failures = std::min(former->failures + (now < former->until ? 0 : 1), kMostFailures);
  }
  mark.until = later(now, pauseAfter(mark.failures));
  return mark;
}

FetchDesk::Mark named(FetchDesk::Mark mark, const std::string& place) {
  std::string_view text = place;
  const auto begins = [&text](std::string_view prefix) {
    if (!text.starts_with(prefix)) return false;
    text.remove_prefix(prefix.size());
    return true;
  };
  if (begins(kHostPlace)) {  // which is scheme, host and port
    mark.of = OfWhat::kHost;
    mark.place = escapeControls(text, kMaximumPlace);
    return mark;
  }
  mark.of = begins(kResponderPlace) ? OfWhat::kResponder : OfWhat::kURI;
  if (mark.of == OfWhat::kURI) begins(kTextPlace);
  mark.place = escapeControls(withoutSecrets(Uri(std::string(text))), kMaximumPlace);
  return mark;
}

std::string markText(const FetchDesk::Mark& mark) {
  return std::string(kMarkTitle) + line("at ", mark.at.seconds()) +
         line("until ", mark.until.seconds()) + line("failures ", mark.failures) +
         line("status ", std::max(mark.httpStatus, 0)) +
         line("error ", std::max(mark.errorNumber, 0)) +
         line("malformed ", mark.malformed ? 1 : 0) + line("reason ", mark.reason) +
         line(wordOf(mark.of), mark.place);
}

std::optional<FetchDesk::Mark> parseMark(std::string_view text, Time now) {
  Lines lines(text, kMarkTitle);
  FetchDesk::Mark mark;
  mark.at = Time::then(lines.number("at ", kLastSecond), true);
  mark.until = Time::then(lines.number("until ", kLastSecond), true);
  mark.failures = static_cast<unsigned int>(lines.number("failures ", kMostFailures));
  constexpr std::int64_t kMostOfAnInt = std::numeric_limits<int>::max();
  mark.httpStatus = static_cast<int>(lines.number("status ", kMostOfAnInt));
  mark.errorNumber = static_cast<int>(lines.number("error ", kMostOfAnInt));
  mark.malformed = lines.number("malformed ", 1) == 1;
  mark.reason = lines.text("reason ");
  for (const auto& [of, word] : kOfWhat) {
    if (lines.rest().starts_with(word)) mark.of = of;
  }
  mark.place = lines.text(wordOf(mark.of));
  lines.require(mark.place == escapeControls(mark.place, kMaximumPlace));
  lines.require(lines.rest().empty() && mark.failures > 0);
  lines.require(mark.reason == escapeControls(mark.reason, kMaximumReason));
  lines.require(mark.at <= now && mark.at <= mark.until);
  lines.require(mark.until <= later(mark.at, FetchDesk::kLongestPause));
  if (!lines.good()) return std::nullopt;
  return mark;
}

std::string deliveryHead(const FetchDesk::Delivery& delivery) {
  const auto& [etag, lastModified] = delivery.validators;
  return std::string(kDeliveryTitle) + line("fetched ", delivery.fetched.seconds()) +
         line("etag ", isFit(etag) ? etag : "") +
         line("last-modified ", isFit(lastModified) ? lastModified : "") +
         line("octets ", static_cast<std::int64_t>(delivery.octets.size()));
}

std::optional<FetchDesk::Delivery> parseDelivery(std::string content, Time now) {
  Lines lines(std::string_view(content).substr(0, kMaximumDeliveryHead), kDeliveryTitle);
  FetchDesk::Delivery delivery;
  delivery.fetched = Time::then(lines.number("fetched ", kLastSecond), true);
  delivery.validators.etag = validator(lines, "etag ");
  delivery.validators.lastModified = validator(lines, "last-modified ");
  const std::int64_t size = lines.number("octets ", kMaximumDelivery);
  if (!lines.good() || !isCurrent(delivery, now)) return std::nullopt;
  const std::size_t head = std::min(content.size(), kMaximumDeliveryHead) - lines.rest().size();
  if (content.size() - head != static_cast<std::size_t>(size)) return std::nullopt;
  content.erase(0, head);
  delivery.octets = std::move(content);
  return delivery;
}

bool isCurrent(const FetchDesk::Delivery& delivery, Time now) noexcept {
  return delivery.fetched <= now &&
         now.seconds() - delivery.fetched.seconds() <= FetchDesk::kDeliveryTime.count();
}

}  // namespace Velantrix::Crypto::PKX509
