// Octets that nobody can guess, from the kernel.
//
//   if (!fillWithRandom(&number, sizeof number)) fail(kHere, systemErrorText("getrandom", errno));
//
// OpenSSL's generator costs its first user as much as two signatures.
#pragma once

#include <cerrno>
#include <cstddef>
#include <sys/random.h>

namespace Velantrix {

/// @param size no more than 256: so many the kernel gives at once
/// @return false, and errno says why, when there are none
inline bool fillWithRandom(void* octets, std::size_t size) noexcept {
  ssize_t given = 0;
  do {
    given = ::getrandom(octets, size, 0);
  } while (given < 0 && errno == EINTR);
  return given >= 0 && static_cast<std::size_t>(given) == size;
}

}  // namespace Velantrix
