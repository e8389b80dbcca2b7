#include "foundation/net/NetworkBudget.h"

#include "foundation/base/Shortfall.h"

#include <algorithm>
#include <utility>

namespace Velantrix {

namespace {
thread_local NetworkBudget* currentBudget = nullptr;
}  // namespace

NetworkBudget::Installed::Installed(NetworkBudget& budget) noexcept : outer_(currentBudget) {
  currentBudget = &budget;
}

NetworkBudget::Installed::~Installed() { currentBudget = outer_; }

NetworkBudget::HalfOfTime::HalfOfTime() noexcept : budget_(currentBudget) {
  if (budget_ == nullptr) return;
  outer_ = budget_->half_;
  const auto left = budget_->left(outer_.has_value() ? outer_ : budget_->limits_.time);
  if (left.has_value()) budget_->half_ = budget_->time_ + *left / 2;
}

NetworkBudget::HalfOfTime::~HalfOfTime() {
  if (budget_ != nullptr) budget_->half_ = outer_;
}

bool NetworkBudget::hasTime() {
  NetworkBudget* const budget = currentBudget;
  if (budget == nullptr) return true;
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

void NetworkBudget::refuse(Resource resource, bool& told) const {
  Shortfall::note();
  if (std::exchange(told, true)) return;
  onSpent_(resource);
}

NetworkTimer::NetworkTimer(Clock::duration bound)
    : start_(Clock::now()), deadline_(start_), cut_(false) {
  if (const NetworkBudget* const budget = currentBudget) {
    const auto half = budget->left(budget->half_);
    const auto whole = budget->left(budget->limits_.time);
    cut_ = whole.has_value() && *whole < bound && (!half.has_value() || *whole <= *half);
    if (half.has_value()) bound = std::min(bound, *half);
    if (cut_) bound = *whole;
  }
  deadline_ += bound;
}

NetworkTimer::~NetworkTimer() {
  const Clock::time_point end = Clock::now();
  if (cut_ && end >= deadline_) Shortfall::note();
  if (currentBudget != nullptr) currentBudget->countTime(end - start_);
}

}  // namespace Velantrix
