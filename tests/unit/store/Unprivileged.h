// File permissions count for root as well while the object lives.
//
// Tests of what may not be read would prove nothing as root. The rights to pass by permissions are
// taken from this thread alone, and given back, so the test needs no other user and no child
// process.
#pragma once

#include <cerrno>
#include <cstdint>
#include <linux/capability.h>
#include <sys/syscall.h>
#include <system_error>
#include <unistd.h>

namespace Velantrix::Test {

class Unprivileged {
 public:
  Unprivileged() {
    call(SYS_capget, before_);
    __user_cap_data_struct now[2] = {before_[0], before_[1]};
    now[0].effective &=
        ~((std::uint32_t{1} << CAP_DAC_OVERRIDE) | (std::uint32_t{1} << CAP_DAC_READ_SEARCH));
    call(SYS_capset, now);
  }
  ~Unprivileged() {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    static_cast<void>(::syscall(SYS_capset, &header, before_));
  }
  Unprivileged(const Unprivileged&) = delete;
  Unprivileged& operator=(const Unprivileged&) = delete;

 private:
  static void call(long number, __user_cap_data_struct* data) {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    if (::syscall(number, &header, data) != 0) {
      throw std::system_error(errno, std::generic_category(), "capabilities");
    }
  }

  __user_cap_data_struct before_[2] = {};
};

}  // namespace Velantrix::Test
