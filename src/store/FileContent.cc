#include "store/FileContent.h"

#include "foundation/model/CRLParts.h"
#include "foundation/model/ObjectReader.h"
#include "foundation/openssl/Der.h"
#include "foundation/openssl/OpenSSLOwners.h"
#include "foundation/run/VerificationRun.h"
#include "store/LastingCertificate.h"

#include <velantrix/CertificateFactory.h>

#include <openssl/pem.h>

#include <limits>
#include <utility>

namespace Velantrix::Crypto::PKX509 {

namespace {

// Measured: what OpenSSL and our classes allocate. Much of a certificate's is the same for all.
constexpr std::size_t kPerCertificate = 5000;
constexpr std::size_t kPerOctetOfCertificates = 2;
constexpr std::size_t kPerCRL = 2048;
constexpr std::size_t kPerOctetOfCRL = 7;

std::string named(const File::Path& path, const Exception& problem) {
  return path.asString() + ": " + problem.stringParameter();
}

class CertificateSink : public ObjectSink {
 public:
  CertificateSink(CertificatesInFile& out, bool kept) : out_(out), kept_(kept) {}

  bool wants(std::string_view label) const override { return isCertificateLabel(label); }

  bool take(std::string_view label, const unsigned char* der, std::size_t length) override {
    CertificatesInFile::One one{.certificate = decodeCertificate(
                                    label, der, length, kept_ ? Decoding::kOwn : Decoding::kAny),
                                .der = {}};
    if (one.certificate.empty()) return false;
    if (kept_) {
      const bool hasSettings = label == PEM_STRING_X509_TRUSTED;
      if (!hasSettings) one.der.assign(reinterpret_cast<const char*>(der), length);
      out_.derSize += length;
      const ErrorScope errors;
      out_.lasts = isLasting(one.certificate) && out_.lasts;
    }
    out_.certificates.push_back(std::move(one));
    return true;
  }

 private:
  CertificatesInFile& out_;
  bool kept_;
};

class CRLSink : public ObjectSink {
 public:
  CRLSink(CRLInFile& out, bool onlyFirst) : out_(out), onlyFirst_(onlyFirst) {}

  bool wants(std::string_view label) const override { return isCRLLabel(label); }

  bool take(std::string_view /*label*/, const unsigned char* der, std::size_t length) override {
    return keep(decodeCRL(der, length), length);
  }
  bool takeOctets(std::string_view /*label*/, Octets& der) override {
    const std::size_t length = der.size();
    return keep(decodeCRL(der), length);
  }

  bool hasEnough() const override { return onlyFirst_; }

 private:
  bool keep(const RefCertificateRevocationList& crl, std::size_t length) {
    if (crl.empty()) return false;
    if (out_.crl.empty()) {
      out_.crl = crl;
      out_.derSize = length;
    }
    return true;
  }

  CRLInFile& out_;
  bool onlyFirst_;
};

}  // namespace

void FileContent::requireGood(const File::Path& path) const {
  if (!problem) return;
  Exception failure = *problem;
  failure.stringParameter(named(path, *problem));
  throw failure;
}

void FileContent::requireGood(const File::Path& path, const Origin& fileReader) const {
  if (problem) fail(fileReader, named(path, *problem));
}

void CertificatesInFile::readObjects(Octets& content, bool kept) {
  CertificateSink sink(*this, kept);
  PKX509::readObjects(content, sink);
}

void CertificatesInFile::appendTo(std::list<RefCertificate>& out) const {
  std::list<RefCertificate> taken;
  for (const One& one : certificates) {
    X509* const known =
        one.der.empty() ? nullptr : VerificationRun::known(octets(one.der), one.der.size());
    taken.push_back(known == nullptr ? one.certificate : CertificateFactory()(known, false));
  }
  out.splice(out.end(), taken);
}

std::size_t CertificatesInFile::memory() const noexcept {
  if (!lasts) return std::numeric_limits<std::size_t>::max();
  return sizeof *this + head.capacity() + certificates.size() * kPerCertificate +
         derSize * kPerOctetOfCertificates;
}

void CRLInFile::readObjects(Octets& content, bool onlyFirst) {
  CRLSink sink(*this, onlyFirst);
  PKX509::readObjects(content, sink);
}

std::size_t CRLInFile::memory() const noexcept {
  std::size_t all = sizeof *this + head.capacity();
  if (crl.empty()) return all;
  const CompactCRL* const compact = CRLParts::compactOf(*crl.get());
  all += kPerCRL + (compact == nullptr ? 0 : compact->memory());
  // Somebody may have asked for OpenSSL's object meanwhile.
  if (CRLParts::nativeOf(*crl.get()) != nullptr) all += derSize * kPerOctetOfCRL;
  return all;
}

}  // namespace Velantrix::Crypto::PKX509
