#include "report/ObjectOrigins.h"

#include "foundation/model/CRLParts.h"
#include "foundation/run/VerificationRun.h"

#include <algorithm>
#include <exception>

namespace Velantrix::Crypto::PKX509 {

namespace {

bool isIt(const RefCertificate& known, const X509* native) noexcept {
  return known->native() == native;
}

bool isIt(const RefCertificateRevocationList& known,
          const RefCertificateRevocationList& crl) noexcept {
  return isIdentical(*known.get(), *crl.get());
}

template <class Known, class Object>
auto find(const std::vector<Known>& known, const Object& object) noexcept {
  return std::find_if(known.begin(), known.end(),
                      [&object](const Known& one) { return isIt(one.object, object); });
}

template <class Known, class Object>
std::optional<ObjectOrigins::Origin> originIn(const std::vector<Known>& known,
                                              const Object& object) {
  const auto found = find(known, object);
  if (found == known.end()) return std::nullopt;
  const ObjectOrigins::Where& where = found->origin;
  return ObjectOrigins::Origin(where.kind, where.place.text(), where.file.text());
}

constexpr std::size_t kUsualObjects = 8;  // certificates, and CRLs, of one verification

// The first one knows best: who asks others notes their names only.
template <class Known, class Handle>
void add(std::vector<Known>& known, const Handle& object, const ObjectOrigins::Where& origin) {
  if (object.empty() || known.size() >= ObjectOrigins::kMaximumObjects) return;
  if (find(known, object) != known.end()) return;
  if (known.empty()) known.reserve(kUsualObjects);
  known.push_back({object, origin});
}

ObjectOrigins* current() noexcept {
  try {
    return VerificationRun::kept<ObjectOrigins>();
  } catch (const std::exception&) {
    return nullptr;  // they explain, and decide nothing
  }
}

}  // namespace

void ObjectOrigins::note(const RefCertificate& certificate, const Where& origin) noexcept {
  try {
    if (ObjectOrigins* const all = current()) {
      add(all->certificates_, certificate, origin);
    }
  } catch (const std::exception&) {
    // What is only told must not cost more than the telling.
  }
}

void ObjectOrigins::note(const RefCertificateRevocationList& crl, const Where& origin) noexcept {
  try {
    if (ObjectOrigins* const all = current()) add(all->crls_, crl, origin);
  } catch (const std::exception&) {
    // What is only told must not cost more than the telling.
  }
}

std::optional<ObjectOrigins::Origin> ObjectOrigins::of(const X509* certificate) const {
  return originIn(certificates_, certificate);
}

std::optional<ObjectOrigins::Origin> ObjectOrigins::of(
    const RefCertificateRevocationList& crl) const {
  return originIn(crls_, crl);
}

}  // namespace Velantrix::Crypto::PKX509
