#include "report/CertificateFacts.h"

#include "foundation/base/Hex.h"
#include "foundation/openssl/Der.h"
#include "foundation/openssl/OpenSSLOwners.h"
#include "foundation/openssl/References.h"

#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <mutex>
#include <utility>

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

// A handful: what is on the paths of now. Strangers' certificates pass through it.
class FactsMemory {
 public:
  static FactsMemory& ofProcess() {
    static FactsMemory& memory = *new FactsMemory;  // never destroyed: threads may report at exit
    return memory;
  }

  // Nobody waits, neither for another thread nor, after a fork, for one that is no more.
  std::shared_ptr<const CertificateFacts> recall(const X509* certificate) {
    const std::unique_lock<std::mutex> lock(mutex_, std::try_to_lock);
    if (!lock.owns_lock()) return nullptr;
    const auto known = std::find_if(entries_.begin(), entries_.end(), [&](const Entry& entry) {
      return entry.certificate.get() == certificate;
    });
    if (known == entries_.end()) return nullptr;
    known->used = ++now_;
    return known->facts;
  }

  void remember(X509* certificate, const std::shared_ptr<const CertificateFacts>& facts) {
    if (facts->encodedSize > kMaximumSize) return;
    Entry entry{newReference(certificate, kHere), facts, 0};  // what it replaces is freed unlocked
    const std::unique_lock<std::mutex> lock(mutex_, std::try_to_lock);
    if (!lock.owns_lock()) return;
    entry.used = ++now_;
    std::swap(*std::min_element(
                  entries_.begin(), entries_.end(),
                  [](const Entry& one, const Entry& other) { return one.used < other.used; }),
              entry);
  }

 private:
  static constexpr std::size_t kMaximumSize = std::size_t{16} * 1024;

  struct Entry {
    Owned<X509> certificate;  // held, so that no other comes to its place
    std::shared_ptr<const CertificateFacts> facts;
    std::uint64_t used = 0;
  };

  std::mutex mutex_;
  std::array<Entry, 64> entries_;
  std::uint64_t now_ = 0;
};

}  // namespace

std::shared_ptr<const CertificateFacts> factsAbout(const RefCertificate& certificate,
                                                   NameTexts& texts) {
  FactsMemory& memory = FactsMemory::ofProcess();
  if (auto known = memory.recall(certificate)) {
    texts.add(X509_get_subject_name(certificate), known->subject.subject());
    texts.add(X509_get_issuer_name(certificate), known->subject.issuer());
    return known;
  }
  auto facts = makeFacts(certificate, texts);
  memory.remember(certificate, facts);
  return facts;
}

}  // namespace Velantrix::Crypto::PKX509
