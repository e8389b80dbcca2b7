#include "report/ObjectOrigins.h"

#include "foundation/run/VerificationRun.h"

#include <algorithm>
#include <exception>
#include <utility>

namespace Velantrix::Crypto::PKX509 {

namespace {

template <class Known, class Native>
const ObjectOrigins::Origin* find(const std::vector<Known>& known, const Native* native) noexcept {
  const auto found = std::find_if(known.begin(), known.end(), [native](const Known& one) {
    return one.object->native() == native;
  });
  return found == known.end() ? nullptr : &found->origin;
}

constexpr std::size_t kUsualObjects = 8;  // certificates, and CRLs, of one verification

// The first one knows best: who asks others notes their names only.
template <class Known, class Handle>
void add(std::vector<Known>& known, const Handle& object, ObjectOrigins::Origin&& origin) {
  if (object.empty() || known.size() >= ObjectOrigins::kMaximumObjects) return;
  if (find(known, object->native()) != nullptr) return;
  if (known.empty()) known.reserve(kUsualObjects);
  known.push_back({object, std::move(origin)});
}

ObjectOrigins* current() noexcept {
  try {
    return VerificationRun::kept<ObjectOrigins>();
  } catch (const std::exception&) {
    return nullptr;  // they explain, and decide nothing
  }
}

}  // namespace

void ObjectOrigins::note(const RefCertificate& certificate, Origin origin) noexcept {
  try {
    if (ObjectOrigins* const all = current()) {
      add(all->certificates_, certificate, std::move(origin));
    }
  } catch (const std::exception&) {
    // What is only told must not cost more than the telling.
  }
}

void ObjectOrigins::note(const RefCertificateRevocationList& crl, Origin origin) noexcept {
  try {
    if (ObjectOrigins* const all = current()) add(all->crls_, crl, std::move(origin));
  } catch (const std::exception&) {
    // What is only told must not cost more than the telling.
  }
}

const ObjectOrigins::Origin* ObjectOrigins::of(const X509* certificate) const noexcept {
  return find(certificates_, certificate);
}

const ObjectOrigins::Origin* ObjectOrigins::of(const X509_CRL* crl) const noexcept {
  return find(crls_, crl);
}

}  // namespace Velantrix::Crypto::PKX509
