// Sources that have certificates and nothing else, and say what they were asked.
#pragma once

#include "revocation/RevocationSources.h"

#include <string>
#include <vector>

namespace Velantrix::Test {

class Offering : public Crypto::PKX509::Revocation::RevocationSources {
 public:
  template <class T>
  using Offers = Crypto::PKX509::Revocation::Offers<T>;

  Offers<Crypto::PKX509::RefCertificate> certificates(
      const Crypto::PKX509::DistinguishedName& subject) override {
    names.push_back(subject.asString());
    Offers<Crypto::PKX509::RefCertificate> offers;
    for (const Crypto::PKX509::RefCertificate& certificate : certificates_) {
      if (certificate->subject() == subject) offers.found.push_back({certificate, {}, {}});
    }
    return offers;
  }
  Offers<Crypto::PKX509::RefCertificateRevocationList> crls(
      const Crypto::PKX509::DistinguishedName& /*name*/) override {
    return {};
  }
  Offers<Crypto::PKX509::RefCertificateRevocationList> crls(const Uri& /*uri*/) override {
    return {};
  }
  Offers<std::string> ocsp(const Uri& /*responder*/, const std::string& /*request*/) override {
    return {};
  }

  std::vector<Crypto::PKX509::RefCertificate> certificates_;
  std::vector<std::string> names;  ///< of certificates that were asked for
};

}  // namespace Velantrix::Test
