#include "foundation/base/Fail.h"
#include "foundation/model/DistinguishedNameText.h"
#include "foundation/openssl/NameHash.h"
#include "foundation/openssl/OpenSSLOwners.h"
#include "foundation/openssl/References.h"

#include <velantrix/DistinguishedName.h>

#include <openssl/x509.h>

#include <optional>
#include <utility>

namespace Velantrix::Crypto::PKX509 {

namespace {

constexpr Origin kHere{"X509::DistinguishedName", "DistinguishedName"};
constexpr const char* kUnencodable = "name cannot be encoded";

// Never freed, so that names may be used while the process ends. It is decoded rather than made
// new: OpenSSL encodes a new name when it is first compared, which no two threads may do at once.
const X509_NAME* emptyName() {
  static const X509_NAME* const name = [] {
    static constexpr unsigned char kDer[] = {0x30, 0x00};
    const unsigned char* position = kDer;
    X509_NAME* decoded = d2i_X509_NAME(nullptr, &position, sizeof kDer);
    if (decoded == nullptr) {
      fail(kHere, "no memory for a name");
    }
    return decoded;
  }();
  return name;
}

std::shared_ptr<const X509_NAME> copyName(const X509_NAME* name) {
  if (name == nullptr) return nullptr;
  return newCopy(X509_NAME_dup, name, kHere, kUnencodable);
}

}  // namespace

DistinguishedName::DistinguishedName(const X509_name_st* name) : name_(copyName(name)) {}

DistinguishedName::DistinguishedName(std::shared_ptr<const X509_NAME> name)
    : name_(std::move(name)) {
  if (name_ == nullptr) return;
  // OpenSSL encodes a name that was put together by hand when it is first compared, inside the
  // object. One that was decoded has its encoding, and this is a look.
  const ErrorScope errors;
  if (i2d_X509_NAME(name_.get(), nullptr) < 0) fail(kHere, kUnencodable);
}

DistinguishedName::DistinguishedName(const std::string& text)
    : name_(parseDistinguishedName(text)) {}

bool DistinguishedName::empty() const noexcept {
  return name_ == nullptr || X509_NAME_entry_count(name_.get()) <= 0;
}

std::string DistinguishedName::asString() const { return distinguishedNameText(native()); }

std::uint32_t DistinguishedName::hash() const {
  const std::optional<std::uint32_t> hash = nameHash(native());
  if (!hash) fail(kHere, "no digest for the name hash");
  return *hash;
}

bool DistinguishedName::operator==(const DistinguishedName& other) const noexcept {
  if (name_ == other.name_) return true;
  if (name_ == nullptr || other.name_ == nullptr) return empty() && other.empty();
  const ErrorScope errors;
  return X509_NAME_cmp(name_.get(), other.name_.get()) == 0;
}

const X509_NAME* DistinguishedName::native() const {
  return name_ == nullptr ? emptyName() : name_.get();
}

}  // namespace Velantrix::Crypto::PKX509
