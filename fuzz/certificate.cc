// Files of certificates, DER and PEM, and everything that a certificate can be asked.
#include "Fixture.h"
#include "Fuzz.h"

#include <pkx509/Verifier.h>
#include <velantrix/AuthorityInformationAccess.h>
#include <velantrix/CertificateFactory.h>

#include <sstream>

namespace Velantrix::Fuzz::CertificateTarget {
namespace {

using namespace Crypto::PKX509;

std::list<RefCertificate> readAll(const Buffer& data, bool& readable) {
  std::list<RefCertificate> certificates;
  readable = accepted([&] { CertificateFactory::read(data, certificates); });
  return certificates;
}

void writeAndReadAgain(const RefCertificate& certificate) {
  const std::string pem = pemOf(certificate);
  if (pem.empty()) return;
  bool readable = false;
  const std::list<RefCertificate> again = readAll(buffer(pem.data(), pem.size()), readable);
  PKX509_ASSERT(readable && again.size() == 1);
  PKX509_ASSERT(again.front() == certificate && certificate == again.front());
  PKX509_ASSERT(again.front()->subject() == certificate->subject());
  PKX509_ASSERT(again.front()->issuer() == certificate->issuer());
  PKX509_ASSERT(again.front()->serialNumber() == certificate->serialNumber());
  PKX509_ASSERT(pemOf(again.front()) == pem);
}

void askIdentifiers(const RefCertificate& certificate) {
  checkName(certificate->subject());
  checkName(certificate->issuer());
  const Crypto::ASN1::Integer& serial = certificate->serialNumber();
  PKX509_ASSERT(serial == serial && serial <= serial);
  std::ostringstream shown;
  accepted([&] { shown << serial; });
  accepted([&] { shown << certificate->subjectKeyIdentifier(); });
  RefAuthorityKeyIdentifier authority;
  accepted([&] { authority = certificate->authorityKeyIdentifier(); });
  if (!authority.empty()) shown << authority->keyId();
  accepted([&] { shown << certificate; });
}

void askExtensions(const RefCertificate& certificate) {
  static const Crypto::ASN1::RefObjectIdentifier access("1.3.6.1.5.5.7.1.1");
  std::list<RefCRLDistributionPoint> points;
  accepted([&] { points = certificate->crlDistributionPoints(); });
  for (const RefCRLDistributionPoint& point : points) {
    PKX509_ASSERT((point->reasons() & ~kAllReasons) == 0);
  }
  RefExtension extension;
  if (!accepted([&] { extension = certificate->find(access); }) || extension.empty()) return;
  PKX509_ASSERT(extension->oid() == access->asString());
  accepted([&] { RefAuthorityInformationAccess(extension)->ocspGeneralNames(); });
}

void askIssuer(const RefCertificate& certificate) {
  const RefCertificate other = Test::handle(root());
  bool selfSigned = false;
  bool byName = false;
  bool bySignature = false;
  accepted([&] { selfSigned = certificate->isSelfSigned(); });
  if (selfSigned) PKX509_ASSERT(certificate->subject() == certificate->issuer());
  for (const RefCertificate& issuer : {certificate, other}) {
    accepted([&] { byName = certificate->issuedBy(issuer, true); });
    accepted([&] { bySignature = certificate->issuedBy(issuer, false); });
    PKX509_ASSERT(byName || !bySignature);
    if (byName) PKX509_ASSERT(certificate->issuer() == issuer->subject());
  }
  PKX509_ASSERT(accepted([&] { other->issuedBy(certificate, false); }));
  accepted([&] { certificate->isCACert(); });
  accepted([&] { certificate->keyUsage(); });
  RefKey key;
  if (accepted([&] { key = certificate->key(); })) {
    PKX509_ASSERT(!key.empty() && key->keyData() != nullptr);
  }
}

// Path building and all checks, revocation too: there is one CRL, which is the root's.
void verify(const RefCertificate& certificate, const std::list<RefCertificate>& all) {
  static const auto* const world = [] {
    auto* const made = new Test::World;
    made->trust(root());
    made->publish(crlOptions());
    return made;
  }();
  int verdict = -1;
  const bool judged = ran([&] {
    Verifier verifier(world->store->clone(), certificate, RefStackOfCertificate(all), false);
    verdict = verifier.isValid();
  });
  if (!judged) return;
  PKX509_ASSERT(verdict >= 0);
  if (verdict == X509_V_OK) return;
  PKX509_ASSERT(std::string(X509_verify_cert_error_string(verdict)).find("unknown") ==
                std::string::npos);
}

}  // namespace

PKX509_FUZZ_TARGET(certificate) {
  begin();
  bool readable = false;
  const std::list<RefCertificate> certificates = readAll(buffer(data, size), readable);
  std::size_t left = 8;  // more of them say nothing new, and take long
  for (const RefCertificate& certificate : certificates) {
    if (left-- == 0) break;
    PKX509_ASSERT(!certificate.empty());
    PKX509_ASSERT(certificate == certificate);
    writeAndReadAgain(certificate);
    askIdentifiers(certificate);
    askExtensions(certificate);
    askIssuer(certificate);
    verify(certificate, certificates);
  }
  return 0;
}

}  // namespace Velantrix::Fuzz::CertificateTarget
