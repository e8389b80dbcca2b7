#include "model/Shrink.h"

#include <algorithm>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace Velantrix::Test::Random {

namespace {

constexpr int kAttempts = 1500;  // a few milliseconds each

using Smaller = std::vector<Description>;

/// Every list with one element less.
template <class List>
void eachWithout(const Description& pki, List&& list, Smaller& out) {
  const std::size_t size = list(const_cast<Description&>(pki))->size();
  for (std::size_t i = 0; i < size; ++i) {
    Description smaller = pki;
    auto* const changed = list(smaller);
    changed->erase(changed->begin() + static_cast<std::ptrdiff_t>(i));
    out.push_back(std::move(smaller));
  }
}

/// Takes an index out of a list and moves the higher ones down.
void forget(std::vector<int>& list, int gone) {
  std::erase(list, gone);
  for (int& index : list) index -= index > gone ? 1 : 0;
}

Description withoutCRL(Description pki, int gone) {
  pki.crls.erase(pki.crls.begin() + gone);
  forget(pki.crlDirectory, gone);
  for (SourceDescription& source : pki.sources) {
    std::erase_if(source.crls, [gone](const Filed& filed) { return filed.crl == gone; });
    for (Filed& filed : source.crls) filed.crl -= filed.crl > gone ? 1 : 0;
  }
  return pki;
}

bool isNeeded(const Description& pki, int certificate) {
  const auto issued = [certificate](const auto& other) { return other.issuer == certificate; };
  return std::any_of(pki.certificates.begin(), pki.certificates.end(), issued) ||
         std::any_of(pki.crls.begin(), pki.crls.end(), issued) ||
         std::any_of(pki.queries.begin(), pki.queries.end(),
                     [certificate](const Query& query) { return query.target == certificate; });
}

Description withoutCertificate(Description pki, int gone) {
  pki.certificates.erase(pki.certificates.begin() + gone);
  const auto down = [gone](int& index) { index -= index > gone ? 1 : 0; };
  for (CertificateDescription& other : pki.certificates) down(other.issuer);
  for (CRLDescription& crl : pki.crls) down(crl.issuer);
  for (Query& query : pki.queries) down(query.target);
  forget(pki.untrusted, gone);
  forget(pki.objects, gone);
  forget(pki.directory, gone);
  for (SourceDescription& source : pki.sources) forget(source.certificates, gone);
  return pki;
}

/// One member back to what it usually is.
template <class Object, class Member>
void usual(const Description& pki, std::vector<Object> Description::*list, std::size_t index,
           Member Object::*member, const Member& value, Smaller& out) {
  Description smaller = pki;
  (smaller.*list)[index].*member = value;
  out.push_back(std::move(smaller));
}

std::string printed(const Description& pki) {
  std::ostringstream out;
  out << pki;
  return out.str();
}

Smaller smallerOnes(const Description& pki) {
  Smaller out;
  if (pki.queries.size() > 1) {
    eachWithout(
        pki, [](Description& d) { return &d.queries; }, out);
  }
  for (std::size_t i = 0; i < pki.crls.size(); ++i) {
    out.push_back(withoutCRL(pki, static_cast<int>(i)));
  }
  for (std::size_t i = pki.certificates.size(); i-- > 0;) {
    const int index = static_cast<int>(i);
    if (!isNeeded(pki, index)) out.push_back(withoutCertificate(pki, index));
  }
  eachWithout(
      pki, [](Description& d) { return &d.untrusted; }, out);
  eachWithout(
      pki, [](Description& d) { return &d.objects; }, out);
  eachWithout(
      pki, [](Description& d) { return &d.directory; }, out);
  eachWithout(
      pki, [](Description& d) { return &d.crlDirectory; }, out);
  for (std::size_t s = 0; s < pki.sources.size(); ++s) {
    eachWithout(
        pki, [s](Description& d) { return &d.sources[s].certificates; }, out);
    eachWithout(
        pki, [s](Description& d) { return &d.sources[s].crls; }, out);
  }
  using C = CertificateDescription;
  const C plain{};
  for (std::size_t i = 0; i < pki.certificates.size(); ++i) {
    eachWithout(
        pki, [i](Description& d) { return &d.certificates[i].points; }, out);
    const auto set = [&](auto member, const auto& value) {
      usual(pki, &Description::certificates, i, member, value, out);
    };
    set(&C::freshestCRL, false);
    set(&C::unknownCritical, false);
    set(&C::brokenSignature, false);
    set(&C::from, plain.from);
    set(&C::until, plain.until);
    set(&C::subjectKeyId, KeyId::Right);
    set(&C::authorityKeyId, KeyId::Right);
    for (std::size_t p = 0; p < pki.certificates[i].points.size(); ++p) {
      const auto point = [i, p](Description& d) { return &d.certificates[i].points[p]; };
      const PointDescription& now = pki.certificates[i].points[p];
      // A point keeps a name or a CRL issuer; OpenSSL calls a certificate invalid without.
      if (now.name.full.size() + now.crlIssuers.size() + now.name.relative.size() > 1) {
        eachWithout(
            pki, [&](Description& d) { return &point(d)->name.full; }, out);
        eachWithout(
            pki, [&](Description& d) { return &point(d)->crlIssuers; }, out);
      }
    }
  }
  using L = CRLDescription;
  for (std::size_t i = 0; i < pki.crls.size(); ++i) {
    eachWithout(
        pki, [i](Description& d) { return &d.crls[i].entries; }, out);
    const auto set = [&](auto member, const auto& value) {
      usual(pki, &Description::crls, i, member, value, out);
    };
    set(&L::freshestCRL, false);
    set(&L::unknownCritical, false);
    set(&L::brokenSignature, false);
    set(&L::authorityKeyId, KeyId::Right);
    set(&L::number, std::optional<int>(1));
    set(&L::base, std::optional<int>());
    set(&L::from, -10);
    set(&L::until, std::optional<int>(30));
    set(&L::scope, std::optional<ScopeDescription>());
  }
  for (std::size_t i = 0; i < pki.queries.size(); ++i) {
    usual(pki, &Description::queries, i, &Query::flags, 0x30AC, out);
    usual(pki, &Description::queries, i, &Query::day, std::optional<int>(), out);
  }
  return out;
}

}  // namespace

Description shrink(const Description& pki, const std::function<bool(const Description&)>& fails) {
  Description best = pki;
  int attempts = kAttempts;
  for (bool again = true; again;) {
    again = false;
    const std::string before = printed(best);
    for (const Description& smaller : smallerOnes(best)) {
      // What is usual already is set to the same value once more.
      if (before == printed(smaller)) continue;
      if (--attempts < 0) return best;
      if (!fails(smaller)) continue;
      best = smaller;
      again = true;
      break;
    }
  }
  return best;
}

}  // namespace Velantrix::Test::Random
