#include "foundation/base/TemporaryName.h"

#include "foundation/base/FileDescriptor.h"
#include "foundation/base/RandomOctets.h"

#include <cerrno>
#include <cstdint>

namespace Velantrix {

std::string newTemporarySuffix() {
  std::uint64_t number = 0;
  if (!fillWithRandom(&number, sizeof number)) {
    fail({"FileMediaOut", "TemporaryName"}, systemErrorText("getrandom", errno));
  }
  std::string suffix(kTemporaryMark);
  for (std::size_t i = 0; i < kTemporaryDigits; ++i) {
    suffix += kLowerHexDigits[number & 0x0f];
    number >>= 4;
  }
  return suffix;
}

}  // namespace Velantrix
