#include "model/GroundTruthSources.h"

#include <utility>

namespace Velantrix::Test::Truth {

namespace {

using Crypto::PKX509::DistinguishedName;
using Crypto::PKX509::Revocation::Provenance;

template <class T>
void add(Crypto::PKX509::Revocation::Offers<T>& offers, T object, const std::string& place) {
  offers.found.push_back(
      {std::move(object), {Provenance::Kind::kLookupMethod, place}, Time::now()});
}

}  // namespace

Sources::Sources(Realisation& real, const Offer& offer) : real_(real), offer_(offer) {
  const std::string prefix = directory("");
  for (const auto& [place, lists] : offer.lists) {
    if (place.rfind(prefix, 0) != 0) continue;
    directories_.emplace_back(DistinguishedName(makeName(place.substr(prefix.size())).get()),
                              place);
  }
}

Sources::Offers<RefCertificate> Sources::certificates(const DistinguishedName& subject) {
  Offers<RefCertificate> offers;
  for (const int index : offer_.certificates) {
    const RefCertificate certificate = real_.certificate(index);
    if (certificate->subject() == subject) add(offers, certificate, "directory");
  }
  return offers;
}

Sources::Offers<RefCertificateRevocationList> Sources::crls(const DistinguishedName& name) {
  for (const auto& [known, place] : directories_) {
    if (known == name) return listsAt(place);
  }
  return {};
}

Sources::Offers<RefCertificateRevocationList> Sources::crls(const Uri& uri) {
  return listsAt("URI:" + uri.asString());
}

Sources::Offers<RefCertificateRevocationList> Sources::listsAt(const std::string& place) {
  Offers<RefCertificateRevocationList> offers;
  const auto there = offer_.lists.find(place);
  if (there == offer_.lists.end()) return offers;
  for (const int index : there->second) add(offers, real_.list(index), place);
  return offers;
}

Sources::Offers<std::string> Sources::ocsp(const Uri& responder, const std::string& request) {
  Offers<std::string> offers;
  const auto there = offer_.answers.find(responder.asString());
  if (there == offer_.answers.end()) return offers;
  add(offers, real_.answer(there->second, request), responder.asString());
  return offers;
}

}  // namespace Velantrix::Test::Truth
