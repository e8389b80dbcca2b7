// A CA, a certificate, and what is understood of an OCSP answer about it.
//
//   const OCSPWorld world;
//   EXPECT_EQ(world.verdict({.signer = &world.ca}), "good");
//   EXPECT_EQ(world.verdict({.signer = &world.leaf}), "not allowed");
#pragma once

#include "revocation/OCSPReading.h"
#include "support/Handles.h"
#include "support/OCSPBuilder.h"

#include <openssl/asn1.h>

#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace Velantrix::Test {

using namespace Velantrix::Crypto::PKX509;
using namespace Velantrix::Crypto::PKX509::Revocation;

/// A few words for each reason that an OCSP answer can be refused for.
inline std::string wordFor(Reason reason) {
  static const std::map<Reason, std::string> words = {
      {Reason::kMalformed, "malformed"},
      {Reason::kUnknownCriticalExtension, "unknown critical extension"},
      {Reason::kNotYetValid, "not yet valid"},
      {Reason::kExpired, "expired"},
      {Reason::kSignerUnknown, "signer unknown"},
      {Reason::kSignerNotValid, "signer not valid"},
      {Reason::kSignerNotAllowed, "signer not allowed"},
      {Reason::kWrongSignature, "wrong signature"},
      {Reason::kTooWeak, "too weak"},
      {Reason::kNotSuccessful, "not successful"},
      {Reason::kOtherNonce, "other nonce"},
      {Reason::kOtherCertificate, "other certificate"}};
  return words.at(reason);
}

inline std::string wordFor(const OCSPReading& reading) {
  if (reading.refused) return wordFor(*reading.refused);
  if (reading.status == OCSPReading::Status::kGood) return "good";
  return reading.status == OCSPReading::Status::kRevoked ? "revoked" : "unknown";
}

/// What stands in an element of DER.
inline std::string contentOf(const std::string& element) {
  const auto* const begin = reinterpret_cast<const unsigned char*>(element.data());
  const unsigned char* content = begin;
  long length = 0;
  int tag = 0;
  int tagClass = 0;
  const int form =
      ASN1_get_object(&content, &length, &tag, &tagClass, static_cast<long>(element.size()));
  if ((form & 0x80) != 0) throw std::runtime_error("contentOf: no element");
  return element.substr(static_cast<std::size_t>(content - begin),
                        static_cast<std::size_t>(length));
}

/// The elements of DER that stand end to end.
inline std::vector<std::string> elementsOf(std::string all) {
  std::vector<std::string> elements;
  while (!all.empty()) {
    const std::size_t length = derElement(0x30, contentOf(all)).size();
    elements.push_back(all.substr(0, length));
    all.erase(0, length);
  }
  return elements;
}

struct OCSPWorld {
  OCSPReading read(const std::string& body) const {
    return question.read({.object = body, .from = {Provenance::Kind::kNetwork, "http://ocsp"}},
                         settings, moment);
  }
  OCSPReading read(const OCSPAnswer& description) const {
    return read(ocspAnswer(description, question.request()));
  }
  std::string verdict(const OCSPAnswer& description) const { return wordFor(read(description)); }

  const Issued ca = issueCA("CN=CA");
  const Issued leaf = issue({.subject = "CN=Leaf", .issuer = &ca});
  RevocationSettings settings = {};
  Moment moment = {.checked = Time::now(), .now = Time::now()};
  const OCSPQuestion question{handle(leaf), handle(ca)};
};

}  // namespace Velantrix::Test
