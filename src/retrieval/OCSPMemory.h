// The octets of OCSP answers that were found to be of use, until the next one is due (RFC 5019, 6.1). Only
// those to requests without a nonce are of use to others; nothing of what was found about them is kept.
//
//   if (const auto kept = OCSPMemory::instance().recall(responder, request)) judge(kept->body);
//   ...
//   OCSPMemory::instance().keep(responder, request, {body, Time::now()}, nextUpdate);
//
// Used from any number of threads; a child that is forked has what its parent had.
#pragma once

#include <velantrix/NonCopyable.h>
#include <velantrix/Time.h>
#include <velantrix/Uri.h>

#include <cstddef>
#include <list>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

namespace Velantrix::Crypto::PKX509 {

class OCSPMemory : private NonCopyable {
 public:
  // Beyond that what was used least recently goes.
  static constexpr std::size_t kMaximumAnswers = 1024;
  static constexpr std::size_t kMaximumBytes = std::size_t{4} * 1024 * 1024;

  struct Answer {
    std::string body;
    Time fetched;
  };

  // That of this process.
  static OCSPMemory& instance();

  // Nothing from the moment on at which the next one is due.
  std::optional<Answer> recall(const Uri& responder, const std::string& request,
                               const Time& now = Time::now());
  // In place of what there was. Where there is no memory for it, it is not kept.
  void keep(const Uri& responder, const std::string& request, const Answer& answer,
            const Time& nextUpdate) noexcept;
  void forget(const Uri& responder, const std::string& request) noexcept;

 private:
  struct Kept {
    std::string key;
    Answer answer;
    Time until;

    std::size_t bytes() const noexcept { return key.size() + answer.body.size(); }
  };
  using Order = std::list<Kept>;  // what was used last comes first

  static std::string keyOf(const Uri& responder, const std::string& request);
  void remove(Order::iterator one);
  void add(Kept&& kept);

  std::mutex mutex_;  // guards what follows
  Order order_;
  std::unordered_map<std::string_view, Order::iterator> byKey_;  // of keys in `order_`
  std::size_t bytes_ = 0;
};

}  // namespace Velantrix::Crypto::PKX509
