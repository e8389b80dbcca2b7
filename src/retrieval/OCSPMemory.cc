#include "retrieval/OCSPMemory.h"

#include <exception>
#include <pthread.h>
#include <utility>

namespace Velantrix::Crypto::PKX509 {

OCSPMemory& OCSPMemory::instance() {
  // Never destroyed: threads may outlive static objects.
  static OCSPMemory& memory = *new OCSPMemory;
  // A thread that the child has not got must not hold the lock there.
  static const int registered = ::pthread_atfork(
      [] { memory.mutex_.lock(); }, [] { memory.mutex_.unlock(); }, [] { memory.mutex_.unlock(); });
  static_cast<void>(registered);
  return memory;
}

// The whole text: what URIs with one normal form are answered with need not be the same.
std::string OCSPMemory::keyOf(const Uri& responder, const std::string& request) {
  return responder.asString() + ' ' + request;
}

std::optional<OCSPMemory::Answer> OCSPMemory::recall(const Uri& responder,
                                                     const std::string& request, const Time& now) {
  const std::string key = keyOf(responder, request);
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto found = byKey_.find(key);
  if (found == byKey_.end()) return std::nullopt;
  if (found->second->until <= now) {
    remove(found->second);
    return std::nullopt;
  }
  order_.splice(order_.begin(), order_, found->second);
  return order_.front().answer;
}

void OCSPMemory::keep(const Uri& responder, const std::string& request, const Answer& answer,
                      const Time& nextUpdate) noexcept {
  try {
    Kept kept{keyOf(responder, request), answer, nextUpdate};
    if (kept.bytes() > kMaximumBytes) return;
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto before = byKey_.find(kept.key);
    if (before != byKey_.end()) remove(before->second);
    add(std::move(kept));
  } catch (const std::exception&) {
    // The next one asks the responder.
  }
}

void OCSPMemory::add(Kept&& kept) {
  while (order_.size() >= kMaximumAnswers ||
         (!order_.empty() && bytes_ + kept.bytes() > kMaximumBytes)) {
    remove(std::prev(order_.end()));
  }
  order_.push_front(std::move(kept));
  bytes_ += order_.front().bytes();
  try {
    byKey_.emplace(order_.front().key, order_.begin());
  } catch (...) {
    bytes_ -= order_.front().bytes();
    order_.pop_front();
    throw;
  }
}

void OCSPMemory::forget(const Uri& responder, const std::string& request) noexcept {
  try {
    const std::string key = keyOf(responder, request);
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = byKey_.find(key);
    if (found != byKey_.end()) remove(found->second);
  } catch (const std::exception&) {
    // It is judged, and found to be of no use, the next time as well.
  }
}

void OCSPMemory::remove(Order::iterator one) {
  bytes_ -= one->bytes();
  byKey_.erase(one->key);
  order_.erase(one);
}

}  // namespace Velantrix::Crypto::PKX509
