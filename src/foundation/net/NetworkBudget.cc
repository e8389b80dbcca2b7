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

bool NetworkBudget::hasTime() {
  NetworkBudget* const budget = currentBudget;
  if (budget == nullptr || budget->timeLeft()) return true;
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

std::optional<NetworkBudget::Clock::duration> NetworkBudget::left() const noexcept {
  if (!limits_.time.has_value()) return std::nullopt;
  return std::max(*limits_.time - time_, Clock::duration::zero());
}

void NetworkBudget::refuse(Resource resource, bool& told) const {
  Shortfall::note();
  if (std::exchange(told, true)) return;
  onSpent_(resource);
}

NetworkTimer::NetworkTimer(Clock::duration bound) : start_(Clock::now()), deadline_(start_) {
  const auto left = currentBudget == nullptr ? std::nullopt : currentBudget->left();
  cut_ = left.has_value() && *left < bound;
  deadline_ += cut_ ? *left : bound;
}

NetworkTimer::~NetworkTimer() {
  const Clock::time_point end = Clock::now();
  if (cut_ && end >= deadline_) Shortfall::note();
  if (currentBudget != nullptr) currentBudget->countTime(end - start_);
}

}  // namespace Velantrix
