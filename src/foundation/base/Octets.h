// The octets of large inputs.
//
//   Octets content;
//   content.resize(size);  // not cleared
//   read(content.data(), size);
#pragma once

#include <cstddef>
#include <cstdlib>
#include <memory>
#include <new>
#include <sys/mman.h>
#include <utility>
#include <vector>

namespace Velantrix {

/// Memory that is not cleared first. From some size on it lies where the kernel can give it in large
/// pages: to be given forty million octets in small ones takes longer than to fill them.
template <class T>
class BulkAllocator {
 public:
  using value_type = T;

  BulkAllocator() noexcept = default;
  template <class U>
  BulkAllocator(const BulkAllocator<U>&) noexcept {}  // NOLINT(google-explicit-constructor)

  T* allocate(std::size_t count) {
    if (!isLarge(count)) return std::allocator<T>().allocate(count);
    void* memory = nullptr;
    if (::posix_memalign(&memory, kLargePage, count * sizeof(T)) != 0) throw std::bad_alloc();
    static_cast<void>(::madvise(memory, count * sizeof(T), MADV_HUGEPAGE));  // a wish
    return static_cast<T*>(memory);
  }
  void deallocate(T* memory, std::size_t count) noexcept {
    if (!isLarge(count)) return std::allocator<T>().deallocate(memory, count);
    std::free(memory);
  }
  template <class U>
  void construct(U* place) noexcept {
    ::new (static_cast<void*>(place)) U;
  }
  template <class U, class... Arguments>
  void construct(U* place, Arguments&&... arguments) {
    ::new (static_cast<void*>(place)) U(std::forward<Arguments>(arguments)...);
  }

  bool operator==(const BulkAllocator&) const noexcept { return true; }

 private:
  static constexpr std::size_t kLargePage = std::size_t{2} * 1024 * 1024;

  // More than std::size_t can count is refused by std::allocator.
  static bool isLarge(std::size_t count) noexcept {
    return count >= 2 * kLargePage / sizeof(T) && count <= PTRDIFF_MAX / sizeof(T);
  }
};

using Octets = std::vector<unsigned char, BulkAllocator<unsigned char>>;

}  // namespace Velantrix
