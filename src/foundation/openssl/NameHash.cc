#include "foundation/openssl/NameHash.h"

#include "foundation/openssl/OpenSSLOwners.h"

#include <array>
#include <cstddef>
#include <cstring>

namespace Velantrix::Crypto {

namespace {

// Without a destructor, so that a thread may ask at any time of its life.
struct Known {
  bool is(const unsigned char* other, std::size_t otherLength) const noexcept {
    return length == otherLength && std::memcmp(der.data(), other, length) == 0;
  }

  std::size_t length = 0;  // 0: none
  std::uint32_t hash = 0;
  std::array<unsigned char, 244> der = {};
};

struct LastNames {
  std::array<Known, 8> names = {};
  std::size_t next = 0;  // to make way
};

thread_local constinit LastNames last;

}  // namespace

std::optional<std::uint32_t> nameHash(const X509_NAME* name) {
  const ErrorScope errors;
  const unsigned char* der = nullptr;
  std::size_t length = 0;
  if (X509_NAME_get0_der(name, &der, &length) != 1) length = 0;
  for (const Known& known : last.names) {
    if (length > 0 && known.is(der, length)) return known.hash;
  }
  int ok = 0;
  const unsigned long hash = X509_NAME_hash_ex(name, nullptr, nullptr, &ok);
  if (ok != 1) return std::nullopt;
  Known& known = last.names[last.next];
  if (length > 0 && length <= known.der.size()) {
    std::memcpy(known.der.data(), der, length);
    known.length = length;
    known.hash = static_cast<std::uint32_t>(hash);
    last.next = (last.next + 1) % last.names.size();
  }
  return static_cast<std::uint32_t>(hash);
}

}  // namespace Velantrix::Crypto
