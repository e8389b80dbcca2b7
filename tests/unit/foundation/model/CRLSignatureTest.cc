#include "foundation/model/CRLParts.h"
#include "foundation/model/CRLSignature.h"
#include "foundation/net/Cancellation.h"
#include "foundation/openssl/Der.h"
#include "foundation/openssl/SignatureInPieces.h"
#include "foundation/run/VerificationRun.h"
#include "support/Handles.h"
#include "support/OCSPBuilder.h"
#include "support/Pki.h"

#include <gtest/gtest.h>
#include <stop_token>
#include <string>

namespace Velantrix::Crypto::PKX509 {
namespace {

namespace Pki = Velantrix::Test;

constexpr std::size_t kLong = kSignaturePiece + kSignaturePiece / 2;

Pki::RawExtension filler(std::size_t octets = kLong) {
  return {"1.2.3.4", false, Pki::derElement(0x04, std::string(octets, 'x'))};
}

Pki::CRLOptions longOptions(const Pki::Issued& ca) {
  return {.issuer = &ca, .rawExtensions = {filler()}};
}

bool openSSLVerifies(X509_CRL* crl, EVP_PKEY* key) {
  const ErrorScope errors;
  return X509_CRL_verify(crl, key) == 1;
}

TEST(CRLSignature, LongOrShort_IsWhatOpenSSLSays) {
  for (const Pki::KeyKind kind :
       {Pki::KeyKind::P256, Pki::KeyKind::Rsa2048, Pki::KeyKind::Ed25519}) {
    const Pki::Issued ca = Pki::issue({.subject = "CN=CA", .ca = true, .keyKind = kind});
    for (const std::size_t octets : {std::size_t{10}, kLong}) {
      for (const bool bad : {false, true}) {
        const auto crl =
            Pki::makeCRL({.issuer = &ca, .rawExtensions = {filler(octets)}, .badSignature = bad});
        EXPECT_EQ(isCRLSignedBy(crl.get(), ca.key.get()), !bad);
        EXPECT_EQ(openSSLVerifies(crl.get(), ca.key.get()), !bad);
        for (const Pki::KeyKind other : {Pki::KeyKind::P256, Pki::KeyKind::Ed25519}) {
          EXPECT_EQ(isCRLSignedBy(crl.get(), Pki::makeKey(other).get()), false);
        }
      }
    }
  }
}

// The algorithm inside is not looked at by X509_CRL_verify(), and neither is it here.
TEST(CRLSignature, AlgorithmThatIsNotTheOneInside_IsWhatOpenSSLSays) {
  const Pki::Issued ca = Pki::issueCA("CN=CA");
  const std::string der = Pki::der(Pki::makeCRL(longOptions(ca)).get());
  const auto withOther = [&](bool inside) {
    static const std::string kSHA256 = "\x2a\x86\x48\xce\x3d\x04\x03\x02";
    std::string other = der;
    const std::size_t at = inside ? other.find(kSHA256) : other.rfind(kSHA256);
    other[at + kSHA256.size() - 1] = '\x03';  // SHA-384
    return Pki::crlFromDer(other);
  };
  for (const bool inside : {true, false}) {
    const auto crl = withOther(inside);
    EXPECT_FALSE(openSSLVerifies(crl.get(), ca.key.get()));
    EXPECT_EQ(isCRLSignedBy(crl.get(), ca.key.get()), false);
  }
}

// A list of that signed part, with the algorithm beside a signature by SHA-256.
std::string signedList(const std::string& part, const std::string& algorithm,
                       const Pki::Issued& ca) {
  const Owned<EVP_MD_CTX> context(EVP_MD_CTX_new());
  std::string signature(100, '\0');
  std::size_t size = signature.size();
  EXPECT_EQ(EVP_DigestSignInit(context.get(), nullptr, EVP_sha256(), nullptr, ca.key.get()), 1);
  EXPECT_EQ(EVP_DigestSign(context.get(), reinterpret_cast<unsigned char*>(signature.data()), &size,
                           octets(part), part.size()),
            1);
  signature.resize(size);
  return Pki::derElement(
      0x30, part + algorithm + Pki::derElement(0x03, std::string(1, '\0') + signature));
}

// OpenSSL reads it, and keeps the octets for the signature.
TEST(CRLSignature, SignedPartOfIndefiniteLength_IsWhatOpenSSLSays) {
  const Pki::Issued ca = Pki::issueCA("CN=CA");
  const std::string der = Pki::der(Pki::makeCRL(longOptions(ca)).get());
  const auto list = derHeader(octets(der), octets(der) + der.size());
  const auto part = derHeader(list->content, list->next);
  const std::string inner =
      std::string("\x30\x80") + std::string(part->content, part->next) + std::string(2, '\0');
  const auto algorithm = derHeader(part->next, list->next);
  const auto crl = Pki::crlFromDer(signedList(inner, std::string(part->next, algorithm->next), ca));
  EXPECT_EQ(X509_CRL_verify(crl.get(), ca.key.get()), 1);
  EXPECT_EQ(isCRLSignedBy(crl.get(), ca.key.get()), true);
  EXPECT_EQ(isCRLSignedBy(crl.get(), Pki::makeKey().get()), false);
}

RefCertificateRevocationList signedCRL(const std::string& der) {
  const RefCertificateRevocationList crl = CertificateRevocationListFactory::read(
      Buffer(der.data(), static_cast<unsigned int>(der.size()), false));
  EXPECT_NE(CRLParts::compactOf(*crl.get()), nullptr);
  return crl;
}

TEST(CRLSignature, CompactForm_IsWhatOpenSSLSays) {
  for (const Pki::KeyKind kind :
       {Pki::KeyKind::P256, Pki::KeyKind::Rsa2048, Pki::KeyKind::Ed25519}) {
    const Pki::Issued ca = Pki::issue({.subject = "CN=CA", .ca = true, .keyKind = kind});
    for (const std::size_t octets : {std::size_t{10}, kLong}) {
      for (const bool bad : {false, true}) {
        const RefCertificateRevocationList crl = signedCRL(
            Pki::der(Pki::makeCRL({.issuer = &ca,
                                   .revoked = {{.serial = 1, .extensions = {filler(octets)}}},
                                   .badSignature = bad})
                         .get()));
        EXPECT_EQ(crl->signatureBy(ca.key.get()), !bad);
        EXPECT_EQ(crl->signatureBy(Pki::makeKey().get()), false);
        EXPECT_EQ(CRLParts::nativeOf(*crl.get()), nullptr);
      }
    }
  }
}

TEST(CRLSignature, CompactFormWithAnotherAlgorithmInside_IsWhatOpenSSLSays) {
  const Pki::Issued ca = Pki::issueCA("CN=CA");
  const std::string der = Pki::der(Pki::makeCRL({.issuer = &ca}).get());
  const auto list = derHeader(octets(der), octets(der) + der.size());
  const auto part = derHeader(list->content, list->next);
  const auto algorithm = derHeader(part->next, list->next);
  std::string other(list->content, part->next);
  const std::string outer(part->next, algorithm->next);
  const std::size_t inside = other.find("\x2a\x86\x48\xce\x3d\x04\x03\x02");
  for (const char last : {'\x02', '\x03'}) {
    other[inside + 7] = last;
    const std::string made = signedList(other, outer, ca);
    EXPECT_EQ(signedCRL(made)->isSignedBy(ca.key.get()),
              X509_CRL_verify(Pki::crlFromDer(made).get(), ca.key.get()) == 1);
  }
}

TEST(CRLSignature, StoppedInALongCRL_NothingIsKnownAndNothingRemembered) {
  const Pki::Issued ca = Pki::issueCA("CN=CA");
  const RefCertificateRevocationList crl = Pki::crlHandle(longOptions(ca));
  const RefCertificateRevocationList compact = signedCRL(Pki::der(
      Pki::makeCRL({.issuer = &ca, .revoked = {{.serial = 1, .extensions = {filler()}}}}).get()));
  const RefCertificateRevocationList shortOne = Pki::crlHandle({.issuer = &ca});
  const RefCertificateRevocationList shortCompact =
      signedCRL(Pki::der(Pki::makeCRL({.issuer = &ca}).get()));
  std::stop_source source;
  source.request_stop();
  {
    const VerificationRun run(nullptr, {.stop = source.get_token()});
    EXPECT_EQ(crl->signatureBy(ca.key.get()), std::nullopt);
    EXPECT_FALSE(crl->isSignedBy(ca.key.get()));
    EXPECT_EQ(crl->rememberedSignature(ca.key.get()), std::nullopt);
    EXPECT_TRUE(run.fellShort());
    EXPECT_TRUE(shortOne->isSignedBy(ca.key.get())) << "one call of OpenSSL's";
    EXPECT_EQ(compact->signatureBy(ca.key.get()), std::nullopt);
    EXPECT_TRUE(shortCompact->isSignedBy(ca.key.get()));
  }
  {
    const VerificationRun run(nullptr, {.wholeTime = std::chrono::seconds(0)});
    EXPECT_EQ(crl->signatureBy(ca.key.get()), std::nullopt);
  }
  {
    const VerificationRun run(nullptr, {.processorTime = std::chrono::seconds(0)});
    EXPECT_EQ(crl->signatureBy(ca.key.get()), std::nullopt);
  }
  EXPECT_EQ(crl->signatureBy(ca.key.get()), true);
  EXPECT_EQ(crl->signatureBy(Pki::makeKey().get()), false);
  const VerificationRun run(nullptr, {.stop = source.get_token()});
  EXPECT_EQ(crl->signatureBy(ca.key.get()), true) << "it is remembered";
  EXPECT_EQ(crl->signatureBy(nullptr), false);
}

}  // namespace
}  // namespace Velantrix::Crypto::PKX509
