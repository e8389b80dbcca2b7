#include "foundation/crlindex/SerialIndex.h"

#include <openssl/rand.h>

#include <random>

namespace Velantrix::Crypto {

const SerialHash::Keys& SerialHash::keys() {
  static const Keys made = [] {
    Keys keys{};
    if (RAND_bytes(reinterpret_cast<unsigned char*>(keys.data()), sizeof keys) != 1) {
      std::random_device source;
      for (std::uint64_t& key : keys) key = std::uint64_t{source()} << 32 | source();
    }
    return keys;
  }();
  return made;
}

}  // namespace Velantrix::Crypto
