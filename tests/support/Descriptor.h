// An open file descriptor with an owner.
//
//   const Descriptor file(open(path, O_RDONLY | O_CLOEXEC), "open");
//   read(file.number(), block.data(), block.size());
//   Descriptor other = std::move(file);
//
#pragma once

#include <cerrno>
#include <string>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace Velantrix::Test {

/// Throws std::system_error, which is a std::runtime_error.
[[noreturn]] inline void failWithError(const std::string& what, int error) {
  throw std::system_error(error, std::generic_category(), what);
}

class Descriptor {
 public:
  Descriptor() = default;
  /// Takes over what a system call made; throws with errno when it is negative.
  Descriptor(int number, const char* what) : number_(number) {
    if (number < 0) failWithError(what, errno);
  }
  ~Descriptor() { reset(); }
  Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(number_, other.number_);
    return *this;
  }

  int number() const { return number_; }  ///< -1 when there is none
  void reset() {
    if (number_ >= 0) close(std::exchange(number_, -1));
  }

 private:
  int number_ = -1;
};

}  // namespace Velantrix::Test
