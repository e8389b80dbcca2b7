// File names of hash directories. The first four octets are the key that is looked for, the rest is
// the name of a file.
#include "Fuzz.h"

#include <pkx509/HashDirLookup.h>

#include <cstring>
#include <sstream>

namespace Velantrix::Fuzz::DirectoryNameTarget {
namespace {

using namespace Crypto::PKX509;

/// What the name is read as: a hexadecimal number of 32 bits in front of the first dot, 0 when it
/// is none. Streams are slow and know the rules.
unsigned int keyOf(const std::string& name) {
  std::istringstream stream(name.substr(0, name.find('.')));
  unsigned int key = 0;
  return stream >> std::hex >> key ? key : 0;
}

bool isName(const std::string& name) {
  for (const char c : name) {
    if (c == '\0' || std::strchr(" .0123456789ABCDEFabcdefrS", c) == nullptr) return false;
  }
  return name.find('.') != std::string::npos;
}

bool isCRLName(const std::string& name) {
  const std::size_t after = name.find('.') + 1;
  return after < name.size() && name[after] == 'r';
}

void check(const std::string& name, unsigned int key) {
  const bool expected = isName(name) && keyOf(name) == key;
  std::list<RefCertificate> certificates;
  std::list<RefCertificateRevocationList> crls;
  const auto wants = [&](Object::Type type) {
    return DirectoryParser(key, type, certificates, crls).wants(name);
  };
  PKX509_ASSERT(wants(Object::TypeCertificate) == expected);
  PKX509_ASSERT(wants(Object::TypeCRL) == (expected && isCRLName(name)));
  PKX509_ASSERT(!wants(Object::TypeNone));
}

}  // namespace

PKX509_FUZZ_TARGET(directory_name) {
  begin();
  std::uint32_t key = 0;
  if (size < sizeof key) return 0;
  std::memcpy(&key, data, sizeof key);
  const std::string name = text(data + sizeof key, size - sizeof key);
  check(name, key);
  check(name, keyOf(name));
  check(name, 0);
  return 0;
}

}  // namespace Velantrix::Fuzz::DirectoryNameTarget
