// What the kernel says of this process: its memory and its threads.
#pragma once

#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <malloc.h>
#include <stdexcept>
#include <string>

#ifdef PKX509_SANITIZED
// As in <sanitizer/allocator_interface.h>, which GCC has not everywhere.
extern "C" std::size_t __sanitizer_get_current_allocated_bytes();
#endif

namespace Velantrix::Test {

/// A size of /proc/self/status, for example "VmHWM", in bytes. Not by getrusage, which tells the
/// peak of the process that started this one when that is higher.
inline std::size_t memoryStatus(const std::string& name) {
  std::ifstream status("/proc/self/status");
  for (std::string word; status >> word;) {
    std::size_t kilobytes = 0;
    if (word == name + ":" && status >> kilobytes) return kilobytes * 1024;
  }
  throw std::runtime_error("/proc/self/status has no " + name);
}

/// By how much the memory of this process has grown at most since the object was made, in bytes.
class MemoryPeak {
 public:
  MemoryPeak() {
    std::ofstream("/proc/self/clear_refs") << "5\n";  // begins the peak of resident memory anew
    resident_ = memoryStatus("VmHWM");
  }
  std::size_t resident() const { return grown(resident_, memoryStatus("VmHWM")); }
  /// Also what was asked for and not touched.
  std::size_t addresses() const { return grown(addresses_, memoryStatus("VmPeak")); }

 private:
  // The kernel counts resident pages by thread and adds them up now and then: a later peak can be
  // some pages lower than the one before.
  static std::size_t grown(std::size_t before, std::size_t now) {
    return std::max(before, now) - before;
  }

  std::size_t addresses_ = memoryStatus("VmPeak");
  std::size_t resident_ = 0;
};

/// What is allocated now, in bytes. With a sanitizer the program defines PKX509_SANITIZED.
inline std::size_t heapInUse() {
#ifdef PKX509_SANITIZED
  return __sanitizer_get_current_allocated_bytes();
#else
  const struct mallinfo2 info = ::mallinfo2();
  return info.uordblks + info.hblkhd;
#endif
}

/// How many threads this process has.
inline std::size_t threadCount() {
  return static_cast<std::size_t>(
      std::distance(std::filesystem::directory_iterator("/proc/self/task"), {}));
}

}  // namespace Velantrix::Test
