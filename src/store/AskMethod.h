// A lookup method that is asked for what it has under a name, told of in the `SourceRecord`.
//
//   std::list<RefCertificate> found;
//   ask(*method, subject, found);
#pragma once

#include "report/ObjectOrigins.h"
#include "report/SourceRecord.h"

#include <pkx509/LookupMethod.h>

#include <cstddef>
#include <iterator>
#include <list>

namespace Velantrix::Crypto::PKX509 {

constexpr SourceRecord::Source::Wanted wantedOf(const std::list<RefCertificate>* /*list*/) {
  return SourceRecord::Source::Wanted::kCertificates;
}
constexpr SourceRecord::Source::Wanted wantedOf(
    const std::list<RefCertificateRevocationList>* /*list*/) {
  return SourceRecord::Source::Wanted::kCRLs;
}

// Notes the same origin for what stands in a list from there on.
template <class Iterator>
void noteOrigins(Iterator first, const Iterator& last, const ObjectOrigins::Where& origin) {
  for (; first != last; ++first) ObjectOrigins::note(*first, origin);
}

// Appends what the method has. What it throws is thrown on.
template <class Handle>
void ask(LookupMethod& method, const DistinguishedName& name, std::list<Handle>& out) {
  SourceUse use(SourceRecord::Source::Kind::kLookupMethod, wantedOf(&out), method.methodName());
  std::list<Handle> found;
  use.during([&] { method.getBySubject(name, found); });
  use.found(found.size());
  if (!found.empty()) {
    noteOrigins(found.begin(), found.end(),
                {VerificationReport::Origin::Kind::kLookupMethod, use.origin()});
  }
  out.splice(out.end(), found);
}

// A question that a bound of the verification forbids.
inline void tellRefusal(SourceRecord::Source::Kind kind, SourceRecord::Source::Wanted wanted,
                        std::string_view origin) noexcept {
  SourceUse(kind, wanted, origin).refusedByBudget();
}

}  // namespace Velantrix::Crypto::PKX509
