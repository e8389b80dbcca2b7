// What a CRL costs that nobody vouches for, held against what OpenSSL's own object costs.
#include "foundation/model/ObjectReader.h"
#include "foundation/openssl/Der.h"
#include "support/Bulk.h"
#include "support/Cost.h"

#include <velantrix/CertificateFactory.h>
#include <velantrix/CertificateRevocationList.h>

#include <gtest/gtest.h>
#include <stdexcept>
#include <string>

namespace Velantrix::Test {
namespace {

using namespace Bulk;
using Crypto::octets;
using Crypto::Owned;
using namespace Crypto::PKX509;

// Enough for a hundred octets of memory for each to be noticed.
// A tenth where costs cannot be measured: then it is run for what a sanitizer has to say.
const std::size_t kNames = costsCanBeMeasured() ? 600000 : 60000;
constexpr int kIssuingDistributionPoint = 28;
constexpr int kAuthorityKeyIdentifier = 35;

Owned<X509_CRL> bareCRL(const std::string& der) {
  const unsigned char* position = octets(der);
  Owned<X509_CRL> decoded(d2i_X509_CRL(nullptr, &position, static_cast<long>(der.size())));
  if (decoded == nullptr) throw std::runtime_error("OpenSSL cannot decode it");
  return decoded;
}

// What a verification asks a CRL before it looks at its signature.
void lookAtCRL(const std::string& der) {
  const RefCertificateRevocationList crl = decodeCRL(octets(der), der.size());
  const std::string issuerDer = certificate(
      name("ca"),
      extension(31, sequence(sequence(element(0xa0, element(0xa0, repeated("\x86\x01x", 60)))))));
  const RefCertificate issuer = decodeCertificate({}, octets(issuerDer), issuerDer.size());
  crl->issuedBy(issuer, true);
  crl->hasUnhandledCriticalExtension();
  const RefAuthorityKeyIdentifier authority = crl->crlInfo().authorityKeyIdentifier();
  if (!authority.empty() && !authority->keyId().empty()) throw std::runtime_error("a key id");
  const RefIssuingDistributionPoint scope = crl->issuingDistributionPoint();
  if (scope.empty()) return;
  const RefCRLDistributionPointName place = scope->distributionPointName();
  if (*place.get() == issuer->issuer()) throw std::runtime_error("the issuer's name");
  for (const RefCRLDistributionPoint& point : issuer->crlDistributionPoints()) {
    if (*place.get() == *point->distributionPointName().get()) throw std::runtime_error("a name");
  }
}

testing::AssertionResult isCRLInProportion(const std::string& der) {
  return costInProportion([&der] { lookAtCRL(der); }, [&der] { bareCRL(der); });
}

std::string scopedTo(const std::string& names) {
  return crl(extension(kIssuingDistributionPoint, sequence(element(0xa0, element(0xa0, names)))));
}

TEST(CertificateRevocationListCost, IssuingDistributionPointOfEmptyNames) {
  EXPECT_TRUE(isCRLInProportion(scopedTo(repeated("\x82\0"s, kNames))));
}

TEST(CertificateRevocationListCost, IssuingDistributionPointOfEmptyDirectoryNames) {
  EXPECT_TRUE(isCRLInProportion(scopedTo(repeated("\xa4\x02\x30\0"s, kNames))));
}

TEST(CertificateRevocationListCost, AuthorityKeyIdentifierOfEmptyNames) {
  const std::string names = repeated("\x82\0"s, kNames);
  EXPECT_TRUE(isCRLInProportion(crl(
      extension(kAuthorityKeyIdentifier, sequence(element(0xa1, names) + element(0x82, "\x05"))))));
}

}  // namespace
}  // namespace Velantrix::Test
