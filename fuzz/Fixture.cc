#include "Fixture.h"

#include <array>
#include <stdexcept>

namespace Velantrix::Fuzz {

std::shared_ptr<EVP_PKEY> key(unsigned char number) {
  std::array<unsigned char, 32> secret{};
  secret.fill(number);
  std::shared_ptr<EVP_PKEY> made(
      EVP_PKEY_new_raw_private_key(EVP_PKEY_ED25519, nullptr, secret.data(), secret.size()),
      EVP_PKEY_free);
  if (made == nullptr) throw std::runtime_error("no Ed25519 key");
  return made;
}

Test::CertificateOptions certificateOptions(const std::string& subject, int serial,
                                            unsigned char number) {
  Test::CertificateOptions options;
  options.subject = subject;
  options.issuer = &root();
  options.serial = serial;
  options.notBefore = kFrom;
  options.notAfter = kUntil;
  options.key = key(number);
  return options;
}

Test::CRLOptions crlOptions() {
  Test::CRLOptions options;
  options.issuer = &root();
  options.lastUpdate = kFrom;
  options.nextUpdate = Test::When(kUntil);
  return options;
}

const Issued& root() {
  static const Issued made = Test::issue({.subject = "CN=Root",
                                          .serial = 1,
                                          .notBefore = kFrom,
                                          .notAfter = kUntil,
                                          .ca = true,
                                          .key = key(1)});
  return made;
}

const Issued& leaf() {
  static const Issued made = Test::issue(certificateOptions("CN=Leaf", 7, 2));
  return made;
}

}  // namespace Velantrix::Fuzz
