#include "foundation/net/NetworkBudget.h"

#include "foundation/base/Shortfall.h"
#include "foundation/net/Cancellation.h"

#include <algorithm>
#include <atomic>
#include <utility>

namespace Velantrix {

namespace {
thread_local NetworkBudget* currentBudget = nullptr;
constinit std::atomic<std::chrono::microseconds::rep> timeOfAllTimers = 0;

using Left = std::optional<NetworkBudget::Clock::duration>;  // none: no limit

Left lesser(const Left& one, const Left& other) noexcept {
  if (!one.has_value() || !other.has_value()) return one.has_value() ? one : other;
  return std::min(*one, *other);
}
}  // namespace

NetworkBudget::Installed::Installed(NetworkBudget& budget) noexcept : outer_(currentBudget) {
  currentBudget = &budget;
}

NetworkBudget::Installed::~Installed() { currentBudget = outer_; }

NetworkBudget::HalfOfTime::HalfOfTime() noexcept : budget_(currentBudget) {
  if (budget_ == nullptr) return;
  outer_ = budget_->half_;
  auto left = budget_->wholeLeft(Clock::now());
  if (outer_.has_value()) left = lesser(left, budget_->left(outer_));
  if (left.has_value()) budget_->half_ = budget_->time_ + *left / 2;
}

NetworkBudget::HalfOfTime::~HalfOfTime() {
  if (budget_ != nullptr) budget_->half_ = outer_;
}

bool NetworkBudget::hasTime() {
  if (Cancellation::requested()) return false;
  NetworkBudget* const budget = currentBudget;
  if (budget == nullptr) return true;
  if (budget->isOver()) return false;
  if (budget->timeLeft()) return !budget->half_.has_value() || budget->time_ < *budget->half_;
  budget->refuse(Resource::kTime, budget->timeTold_);
  return false;
}

std::size_t NetworkBudget::admittedBytes(std::size_t wanted) {
  NetworkBudget* const budget = currentBudget;
  if (budget == nullptr) return wanted;
  const std::size_t left = budget->limits_.bytes - std::min(budget->bytes_, budget->limits_.bytes);
  if (left == 0) budget->refuse(Resource::kBytes, budget->bytesTold_);
  return std::min(wanted, left);
}

void NetworkBudget::countBytes(std::size_t bytes) noexcept {
  if (currentBudget != nullptr) currentBudget->bytes_ += bytes;
}

std::optional<NetworkBudget::Clock::duration> NetworkBudget::left(
    const std::optional<Clock::duration>& end) const noexcept {
  if (!end.has_value()) return std::nullopt;
  return std::max(*end - time_, Clock::duration::zero());
}

std::optional<NetworkBudget::Clock::duration> NetworkBudget::wholeLeft(
    Clock::time_point now) const noexcept {
  Left untilDeadline;
  if (limits_.deadline.has_value()) {
    untilDeadline = std::max(*limits_.deadline - now, Clock::duration::zero());
  }
  return lesser(left(limits_.time), untilDeadline);
}

bool NetworkBudget::isSpent(Resource resource) const noexcept {
  switch (resource) {
    case Resource::kTime:
      return !timeLeft();
    case Resource::kBytes:
      return bytes_ >= limits_.bytes;
    case Resource::kDeadline:
      break;
  }
  return deadlineTold_ || deadlineCut_;
}

bool NetworkBudget::isOver() {
  if (!limits_.deadline.has_value() || Clock::now() < *limits_.deadline) return false;
  refuse(Resource::kDeadline, deadlineTold_);
  return true;
}

void NetworkBudget::noteCut(Clock::time_point end) noexcept {
  Shortfall::note();
  if (limits_.deadline.has_value() && end >= *limits_.deadline) deadlineCut_ = true;
}

void NetworkBudget::refuse(Resource resource, bool& told) const {
  Shortfall::note();
  if (std::exchange(told, true)) return;
  onSpent_(resource);
}

NetworkTimer::NetworkTimer(Clock::duration bound)
    : start_(Clock::now()), deadline_(start_), cut_(false) {
  if (const NetworkBudget* const budget = currentBudget) {
    const auto half = budget->left(budget->half_);
    const auto whole = budget->wholeLeft(start_);
    cut_ = whole.has_value() && *whole < bound && (!half.has_value() || *whole <= *half);
    if (half.has_value()) bound = std::min(bound, *half);
    if (cut_) bound = *whole;
  }
  deadline_ += bound;
}

NetworkTimer::~NetworkTimer() {
  const Clock::time_point end = Clock::now();
  timeOfAllTimers.fetch_add(
      std::chrono::duration_cast<std::chrono::microseconds>(end - start_).count(),
      std::memory_order_relaxed);
  if (currentBudget == nullptr) return;
  if (cut_ && end >= deadline_) currentBudget->noteCut(end);
  currentBudget->countTime(end - start_);
}

std::chrono::microseconds NetworkTimer::timeOfAll() noexcept {
  return std::chrono::microseconds(timeOfAllTimers.load(std::memory_order_relaxed));
}

}  // namespace Velantrix
