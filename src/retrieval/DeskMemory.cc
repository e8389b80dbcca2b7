#include "retrieval/DeskMemory.h"

#include <velantrix/Time.h>

#include <algorithm>

namespace Velantrix::Crypto::PKX509 {

namespace {

// What a delivery takes, with what is about it.
std::size_t sizeOf(const FetchDesk::Delivery& delivery) {
  constexpr std::size_t kFrame = 1024;
  return delivery.octets.size() + kFrame;
}

}  // namespace

std::optional<FetchDesk::Mark> DeskMemory::mark(const std::string& key) const {
  const auto found = marks_.find(key);
  if (found == marks_.end()) return std::nullopt;
  return found->second;
}

void DeskMemory::keep(const std::string& key, const FetchDesk::Mark& mark) {
  marks_.insert_or_assign(key, mark);
  if (marks_.size() <= kMarks) return;
  marks_.erase(std::min_element(marks_.begin(), marks_.end(), [](const auto& a, const auto& b) {
    return a.second.at < b.second.at;
  }));
}

void DeskMemory::forgetMark(const std::string& key) { marks_.erase(key); }

DeskMemory::SharedDelivery DeskMemory::delivery(const std::string& key) const {
  const auto found = deliveries_.find(key);
  return found == deliveries_.end() ? nullptr : found->second;
}

void DeskMemory::keep(const std::string& key, const SharedDelivery& delivery) {
  forgetDelivery(key);
  const std::size_t size = sizeOf(*delivery);
  if (size > kBytes) return;
  makeRoom(size);
  deliveries_.emplace(key, delivery);
  bytes_ += size;
}

void DeskMemory::forgetDelivery(const std::string& key) {
  const auto found = deliveries_.find(key);
  if (found == deliveries_.end()) return;
  bytes_ -= sizeOf(*found->second);
  deliveries_.erase(found);
}

void DeskMemory::makeRoom(std::size_t bytes) {
  while (bytes_ + bytes > kBytes) {
    const auto oldest = std::min_element(
        deliveries_.begin(), deliveries_.end(),
        [](const auto& a, const auto& b) { return a.second->fetched < b.second->fetched; });
    bytes_ -= sizeOf(*oldest->second);
    deliveries_.erase(oldest);
  }
}

}  // namespace Velantrix::Crypto::PKX509
