// What a certificate costs that nobody vouches for, held against what OpenSSL's own object costs.
#include "foundation/model/DistributionPoints.h"
#include "foundation/model/ObjectReader.h"
#include "foundation/openssl/Der.h"
#include "support/Bulk.h"
#include "support/Cost.h"

#include <velantrix/AuthorityInformationAccess.h>
#include <velantrix/Certificate.h>
#include <velantrix/Exception.h>

#include <openssl/x509v3.h>

#include <gtest/gtest.h>
#include <stdexcept>
#include <string>

namespace Velantrix::Test {
namespace {

using namespace Bulk;
using Crypto::octets;
using Crypto::Owned;
using namespace Crypto::PKX509;

// A tenth where costs cannot be measured: then it is run for what a sanitizer has to say.
const std::size_t kMega = costsCanBeMeasured() ? 1000000 : 100000;
constexpr int kDistributionPoints = 31;

void bareCertificate(const std::string& der) {
  const unsigned char* position = octets(der);
  const Owned<X509> decoded(d2i_X509(nullptr, &position, static_cast<long>(der.size())));
  if (decoded == nullptr) throw std::runtime_error("OpenSSL cannot decode it");
  X509_check_purpose(decoded.get(), -1, 0);
}

// What a verification asks a certificate before it looks at its signature.
void lookAtCertificate(const std::string& der) {
  const RefCertificate certificate = decodeCertificate({}, octets(der), der.size());
  try {
    certificate->isSelfSigned();
  } catch (const Exception&) {  // OpenSSL finds an extension wrong
  }
  certificate->isCACert();
  certificate->keyUsage();
  certificate->authorityKeyIdentifier();
  const RefAuthorityInformationAccess access(
      certificate->find(Crypto::ASN1::RefObjectIdentifier("1.3.6.1.5.5.7.1.1")));
  std::size_t position = 0;
  while (!access.empty() && !access->nextOCSPGeneralName(position).empty()) {
  }
  const DistributionPoints points(*certificate.get());
  for (int i = 0; i < points.count(); ++i) {
    const RefCRLDistributionPoint point = points[i];
    point->reasons();
    const RefCRLDistributionPointName place = point->distributionPointName();
    if (!place.empty()) {
      place->type();
      static_cast<void>(*place.get() == certificate->issuer());
      static_cast<void>(*place.get() == *place.get());
    }
  }
}

testing::AssertionResult isCertificateInProportion(const std::string& extensions) {
  const std::string der = certificate(name("ca"), extensions);
  return costInProportion([&der] { lookAtCertificate(der); }, [&der] { bareCertificate(der); });
}

std::string points(const std::string& each, std::size_t octets) {
  return extension(kDistributionPoints, sequence(repeated(each, octets)));
}

TEST(CertificateCost, DistributionPointOfEmptyNames) {
  const std::string names = repeated("\x82\0"s, kMega * 6 / 10);
  EXPECT_TRUE(isCertificateInProportion(points(sequence(element(0xa0, element(0xa0, names))), 1)));
}

TEST(CertificateCost, DistributionPointOfIssuers) {
  const std::string names = repeated("\x82\0"s, kMega * 6 / 10);
  EXPECT_TRUE(isCertificateInProportion(points(sequence(element(0xa2, names)), 1)));
}

TEST(CertificateCost, ManyDistributionPoints) {
  EXPECT_TRUE(isCertificateInProportion(points(sequence({}), kMega * 3 / 2)));
}

TEST(CertificateCost, AuthorityInformationAccess) {
  const std::string type = "\x06\x08\x2b\x06\x01\x05\x05\x07\x01\x01"s;
  const std::string responder = "\x06\x08\x2b\x06\x01\x05\x05\x07\x30\x01\x82\0"s;
  EXPECT_TRUE(isCertificateInProportion(
      sequence(type + element(0x04, sequence(repeated(sequence(responder), kMega * 2))))));
}

}  // namespace
}  // namespace Velantrix::Test
