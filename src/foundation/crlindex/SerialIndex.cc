#include "foundation/crlindex/SerialIndex.h"

#include "foundation/base/RandomOctets.h"

#include <random>

namespace Velantrix::Crypto {

const SerialHash::Keys& SerialHash::keys() {
  static const Keys made = [] {
    Keys keys{};
    static_assert(sizeof keys <= 256);
    if (!fillWithRandom(keys.data(), sizeof keys)) {
      std::random_device source;
      for (std::uint64_t& key : keys) key = std::uint64_t{source()} << 32 | source();
    }
    return keys;
  }();
  return made;
}

}  // namespace Velantrix::Crypto
