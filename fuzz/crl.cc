// Files of one CRL, DER and PEM, everything that a CRL can be asked, and a verdict by it.
#include "Fixture.h"
#include "Fuzz.h"

#include <sstream>

namespace Velantrix::Fuzz::CRLTarget {
namespace {

using namespace Crypto::PKX509;

void writeAndReadAgain(const RefCertificateRevocationList& crl) {
  const std::string pem = pemOf(crl);
  if (pem.empty()) return;
  RefCertificateRevocationList again;
  PKX509_ASSERT(accepted(
      [&] { again = CertificateRevocationListFactory::read(buffer(pem.data(), pem.size())); }));
  PKX509_ASSERT(!again.empty());
  PKX509_ASSERT(again->entryCount() == crl->entryCount());
  PKX509_ASSERT(again->crlInfo().issuer() == crl->crlInfo().issuer());
  PKX509_ASSERT(again->crlNumber() == crl->crlNumber());
  PKX509_ASSERT(again->baseCRLNumber() == crl->baseCRLNumber());
  PKX509_ASSERT(again->hasUnhandledCriticalExtension() == crl->hasUnhandledCriticalExtension());
  PKX509_ASSERT(pemOf(again) == pem);
}

void ask(const RefCertificateRevocationList& crl) {
  checkName(crl->crlInfo().issuer());
  PKX509_ASSERT(crl->isDeltaCRL() == !crl->baseCRLNumber().isNull());
  PKX509_ASSERT(crl->hasUnhandledCriticalExtension() == crl->hasUnhandledCriticalExtension());
  std::ostringstream shown;
  accepted([&] { shown << crl->crlNumber() << crl->baseCRLNumber(); });
  for (const Crypto::ASN1::RefGeneralizedTime& time : {crl->lastUpdate(), crl->nextUpdate()}) {
    PKX509_ASSERT(!(time < time));
    if (!time.empty()) PKX509_ASSERT(time->asTime().seconds() == time->seconds());
  }
  const RefIssuingDistributionPoint scope = crl->issuingDistributionPoint();
  if (!scope.empty()) PKX509_ASSERT((scope->reasons() & ~kAllReasons) == 0);

  const RefCertificate issuer = Test::handle(root());
  PKX509_ASSERT(accepted([&] { PKX509_ASSERT(!crl->isSignedBy(nullptr)); }));
  bool bySignature = false;
  bool byName = false;
  PKX509_ASSERT(accepted([&] { bySignature = crl->issuedBy(issuer, false); }));
  PKX509_ASSERT(accepted([&] { byName = crl->issuedBy(issuer, true); }));
  PKX509_ASSERT(byName || !bySignature);
  const bool isSigned = crl->isSignedBy(root().key.get());
  PKX509_ASSERT(bySignature == (byName && isSigned));
  PKX509_ASSERT(crl->isSignedBy(root().key.get()) == isSigned);
  PKX509_ASSERT(crl->signatureChecks() <= 1);
}

// What the CRL says about the leaf, alone and beside the root's own CRL.
void judge(const RefCertificateRevocationList& crl) {
  static auto* const world = [] {
    auto* const made = new Test::World;
    made->trust(root());
    return made;
  }();
  static const RefCertificateRevocationList other = Test::crlHandle(crlOptions());
  const RefCertificate certificate = Test::handle(leaf());
  const RefCertificate issuer = Test::handle(root());
  for (const bool alone : {true, false}) {
    PKX509_ASSERT(ran([&] {
      Verifier verifier(world->store, certificate, false);
      Test::OpenContainer container(verifier);
      if (!alone) container.add(Test::makeEntry(certificate, other, issuer));
      container.add(Test::makeEntry(certificate, crl, issuer));
      PKX509_ASSERT(container.hasDeltaCRL == crl->isDeltaCRL());
      container.extendedCRLChecks({issuer});
      const int error = verifier.contextError();
      if (!container.empty() && alone && !crl->isSignedBy(root().key.get())) {
        PKX509_ASSERT(error != X509_V_OK);
      }
      int reason = 0;
      const int verdict = container.isRevoked(reason);
      PKX509_ASSERT(verdict == X509_V_OK || verdict == X509_V_ERR_CERT_REVOKED ||
                    verdict == X509_V_ERR_UNABLE_TO_GET_CRL);
      int again = 0;
      PKX509_ASSERT(container.isRevoked(again) == verdict && again == reason);
      std::size_t handedOut = 0;
      while (!container.getCRL().empty()) PKX509_ASSERT(++handedOut <= 2);
    }));
  }
}

}  // namespace

PKX509_FUZZ_TARGET(crl) {
  begin();
  RefCertificateRevocationList crl;
  if (!accepted([&] { crl = CertificateRevocationListFactory::read(buffer(data, size)); })) {
    return 0;
  }
  if (crl.empty()) return 0;
  writeAndReadAgain(crl);
  ask(crl);
  judge(crl);
  return 0;
}

}  // namespace Velantrix::Fuzz::CRLTarget
