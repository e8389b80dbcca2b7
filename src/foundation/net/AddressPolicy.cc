#include <pkx509/AddressPolicy.h>

#include <atomic>

namespace Velantrix::Crypto::PKX509 {

namespace {

std::atomic<AddressPolicy>& processPolicy() noexcept {
  static std::atomic<AddressPolicy> policy;
  static_assert(std::atomic<AddressPolicy>::is_always_lock_free);
  return policy;
}

}  // namespace

void AddressPolicy::process(const AddressPolicy& policy) noexcept {
  processPolicy().store(policy, std::memory_order_relaxed);
}

AddressPolicy AddressPolicy::process() noexcept {
  return processPolicy().load(std::memory_order_relaxed);
}

}  // namespace Velantrix::Crypto::PKX509
