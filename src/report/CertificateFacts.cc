#include "report/CertificateFacts.h"

#include "foundation/base/Hex.h"
#include "foundation/base/Recent.h"
#include "foundation/openssl/Der.h"
#include "foundation/openssl/OpenSSLOwners.h"
#include "foundation/openssl/References.h"

#include <openssl/evp.h>

#include <cstddef>
#include <memory>
#include <optional>
#include <string>

namespace Velantrix::Crypto::PKX509 {

namespace {

constexpr Origin kHere{"X509::VerificationReport", "CertificateFacts"};

std::string fingerprintOf(const std::string& encoded) {
  unsigned char digest[EVP_MAX_MD_SIZE] = {};
  unsigned int length = 0;
  // Fetched once: OpenSSL's constant is looked for anew at each use.
  static const Owned<EVP_MD> sha256(EVP_MD_fetch(nullptr, "SHA256", nullptr));
  if (sha256 == nullptr ||
      EVP_Digest(encoded.data(), encoded.size(), digest, &length, sha256.get(), nullptr) != 1) {
    return {};
  }
  return hexText(digest, length);
}

std::shared_ptr<const CertificateFacts> makeFacts(const RefCertificate& certificate,
                                                  NameTexts& texts) {
  const auto facts = std::make_shared<CertificateFacts>();
  X509* const native = certificate;
  const std::string encoded = encodeWhole(i2d_X509, static_cast<const X509*>(native));
  facts->subject = subjectOf(certificate, texts);
  if (!encoded.empty()) facts->fingerprint = fingerprintOf(encoded);
  facts->notBefore = timeOf(X509_get0_notBefore(native));
  facts->notAfter = timeOf(X509_get0_notAfter(native));
  facts->encodedSize = encoded.size();
  return facts;
}

// Of those that are on the paths of now; strangers' pass through it. The certificate is held, so that no
// other comes to its place.
struct Known {
  std::shared_ptr<X509> certificate;
  std::shared_ptr<const CertificateFacts> facts;
};
using KnownOnes = Recent<const X509*, Known, 64>;
constexpr std::size_t kMaximumSize = std::size_t{16} * 1024;  // of one that is held

KnownOnes& knownOnes() {
  static KnownOnes& known = *new KnownOnes;  // threads may report at exit
  return known;
}

}  // namespace

std::shared_ptr<const CertificateFacts> factsAbout(const RefCertificate& certificate,
                                                   NameTexts& texts) {
  X509* const native = certificate;
  if (const std::optional<Known> known = knownOnes().recall(native)) {
    texts.add(X509_get_subject_name(native), known->facts->subject.subject());
    texts.add(X509_get_issuer_name(native), known->facts->subject.issuer());
    return known->facts;
  }
  auto facts = makeFacts(certificate, texts);
  if (facts->encodedSize <= kMaximumSize) {
    knownOnes().remember(native, {newReference(native, kHere), facts});
  }
  return facts;
}

}  // namespace Velantrix::Crypto::PKX509
