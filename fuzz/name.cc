// Names: the octets as text, and as the DER of a name.
#include "Fuzz.h"
#include "foundation/openssl/OpenSSLOwners.h"

namespace Velantrix::Fuzz::NameTarget {
namespace {

using Crypto::Owned;
using Crypto::PKX509::DistinguishedName;

void readText(const std::string& text) {
  DistinguishedName name;
  if (!accepted([&] { name = DistinguishedName(text); })) return;
  checkName(name);
}

void readDer(const std::uint8_t* data, std::size_t size) {
  const std::uint8_t* end = data;
  const Owned<X509_NAME> decoded(d2i_X509_NAME(nullptr, &end, static_cast<long>(size)));
  ERR_clear_error();
  if (decoded == nullptr) return;
  DistinguishedName name;
  if (!accepted([&] { name = DistinguishedName(decoded.get()); })) return;
  checkName(name);
}

}  // namespace

PKX509_FUZZ_TARGET(name) {
  begin();
  readText(text(data, size));
  readDer(data, size);
  return 0;
}

}  // namespace Velantrix::Fuzz::NameTarget
