// Lets OpenSSL's allocations fail. Included by one source of a program, whose OpenSSL then
// allocates through it from the start; it has to be replaced before OpenSSL allocates for the first
// time.
//
//   {
//     Starvation starvation(17, false);   // the eighteenth allocation fails, and only it
//     scenario();
//   }
//   if (Starvation::refused()) ...
#pragma once

#include <openssl/crypto.h>

#include <cstddef>
#include <cstdlib>

namespace Velantrix::Test {

class Starvation {
 public:
  /// @param first   how many allocations succeed before the first that fails
  /// @param forGood whether those after it fail too
  Starvation(long first, bool forGood) {
    refused_ = false;
    forGood_ = forGood;
    left_ = first;
  }
  ~Starvation() { end(); }
  Starvation(const Starvation&) = delete;
  Starvation& operator=(const Starvation&) = delete;

  /// Lets all allocations succeed again.
  static void end() { left_ = kNever; }
  /// Has an allocation failed since the last object was made?
  static bool refused() { return refused_; }

  /// Did OpenSSL take the allocator?
  static bool possible() { return replaced_; }

 private:
  static constexpr long kNever = -1;

  static bool mayAllocate() {
    if (left_ == kNever) return true;
    if (left_ > 0) {
      --left_;
      return true;
    }
    refused_ = true;
    if (!forGood_) left_ = kNever;
    return false;
  }
  static void* allocate(std::size_t size, const char* /*file*/, int /*line*/) {
    return mayAllocate() ? std::malloc(size) : nullptr;
  }
  static void* reallocate(void* memory, std::size_t size, const char* /*file*/, int /*line*/) {
    return mayAllocate() ? std::realloc(memory, size) : nullptr;
  }
  static void release(void* memory, const char* /*file*/, int /*line*/) { std::free(memory); }

  static inline long left_ = kNever;
  static inline bool forGood_ = false;
  static inline bool refused_ = false;
  static inline const bool replaced_ = CRYPTO_set_mem_functions(allocate, reallocate, release) == 1;
};

}  // namespace Velantrix::Test
