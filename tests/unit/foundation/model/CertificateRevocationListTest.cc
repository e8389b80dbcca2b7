#include "foundation/openssl/OpenSSLOwners.h"
#include "support/Bulk.h"
#include "support/ChildProcess.h"
#include "support/Files.h"
#include "support/Handles.h"
#include "support/Pki.h"

#include <velantrix/CertificateFactory.h>
#include <velantrix/CertificateRevocationList.h>
#include <velantrix/MediaOut.h>

#include <chrono>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace Velantrix::Crypto::PKX509 {
namespace {

namespace Pki = Velantrix::Test;

using namespace std::chrono_literals;
using namespace std::string_literals;

TEST(CertificateRevocationList, Fields_OfABaseCRL) {
  const Pki::Issued ca = Pki::issueCA("C=DE,CN=CA");
  const RefCertificateRevocationList crl =
      Pki::crlHandle({.issuer = &ca,
                      .lastUpdate = "20260101000000Z",
                      .nextUpdate = Pki::When("20260201000000Z"),
                      .number = Pki::Serial("1234")});
  EXPECT_EQ(crl->crlInfo().issuer().asString(), "CN=CA,C=DE");
  EXPECT_EQ(crl->crlInfo().authorityKeyIdentifier()->keyId(),
            Pki::handle(ca)->subjectKeyIdentifier());
  EXPECT_EQ(crl->lastUpdate()->asTime(), Time::then(1767225600, true));
  EXPECT_EQ(crl->nextUpdate()->asTime(), Time::then(1769904000, true));
  EXPECT_EQ(crl->crlNumber().asString(), "1234");
  EXPECT_TRUE(crl->baseCRLNumber().isNull());
  EXPECT_FALSE(crl->isDeltaCRL());
  EXPECT_TRUE(crl->issuingDistributionPoint().empty());
  EXPECT_EQ(crl->entryCount(), 0U);
}

TEST(CertificateRevocationList, Fields_WhatIsAbsentIsEmpty) {
  const Pki::Issued ca = Pki::issueCA("CN=CA");
  const RefCertificateRevocationList crl = Pki::crlHandle({.issuer = &ca,
                                                           .nextUpdate = std::nullopt,
                                                           .number = std::nullopt,
                                                           .authorityKeyId = Pki::KeyId::Absent});
  EXPECT_TRUE(crl->crlInfo().authorityKeyIdentifier().empty());
  EXPECT_FALSE(crl->lastUpdate().empty());
  EXPECT_TRUE(crl->nextUpdate().empty());
  EXPECT_TRUE(crl->crlNumber().isNull());
}

TEST(CertificateRevocationList, Fields_OfADeltaCRL) {
  const Pki::Issued ca = Pki::issueCA("CN=CA");
  const RefCertificateRevocationList crl =
      Pki::crlHandle({.issuer = &ca,
                      .number = Pki::Serial(9),
                      .deltaBase = Pki::Serial(7),
                      .revoked = {{.serial = 1}, {.serial = 2}}});
  EXPECT_TRUE(crl->isDeltaCRL());
  EXPECT_EQ(crl->crlNumber().asString(), "09");
  EXPECT_EQ(crl->baseCRLNumber().asString(), "07");
  EXPECT_TRUE(crl->baseCRLNumber() <= crl->crlNumber());
  EXPECT_EQ(crl->entryCount(), 2U);
}

TEST(CertificateRevocationList, DeltaFromBaseNumberZero_IsADelta) {
  const Pki::Issued ca = Pki::issueCA("CN=CA");
  EXPECT_TRUE(Pki::crlHandle({.issuer = &ca, .deltaBase = Pki::Serial(0)})->isDeltaCRL());
}

TEST(CertificateRevocationList, IssuedBy_NamesOnlyOrWithTheSignature) {
  const Pki::Issued ca = Pki::issueCA("CN=CA");
  const Pki::Issued sameName = Pki::issueCA("CN=CA");
  const Pki::Issued otherName = Pki::issue({.subject = "CN=Other", .ca = true, .key = ca.key});
  const Pki::Issued noCRLSign =
      Pki::issue({.subject = "CN=CA", .ca = true, .keyUsage = KU_KEY_CERT_SIGN, .key = ca.key});
  const Pki::Issued unrestricted =
      Pki::issue({.subject = "CN=CA", .keyUsage = Pki::kAbsent, .key = ca.key});
  const Pki::Issued broken = Pki::issue({.subject = "CN=CA",
                                         .keyUsage = Pki::kAbsent,
                                         .rawExtensions = {{"2.5.29.15", true, "\xff"s}},
                                         .key = ca.key});
  const Pki::Issued doubled =
      Pki::issue({.subject = "CN=CA",
                  .keyUsage = KU_CRL_SIGN,
                  .rawExtensions = {{"2.5.29.15", true, "\x03\x02\x01\x02"s}},
                  .key = ca.key});
  const RefCertificateRevocationList crl = Pki::crlHandle({.issuer = &ca});
  const RefCertificateRevocationList vague =
      Pki::crlHandle({.issuer = &ca, .authorityKeyId = Pki::KeyId::Absent});
  const RefCertificateRevocationList wrongKeyId =
      Pki::crlHandle({.issuer = &ca, .authorityKeyId = Pki::KeyId::Wrong});
  const RefCertificateRevocationList bySerial =
      Pki::crlHandle({.issuer = &ca, .authorityKeyId = Pki::KeyId::SerialOnly});
  const RefCertificateRevocationList forged = Pki::crlHandle({.issuer = &ca, .badSignature = true});

  struct Row {
    const char* name;
    const RefCertificateRevocationList& crl;
    RefCertificate issuer;
    bool names;
    bool signature;
  };
  const Row rows[] = {
      {"the issuer", crl, Pki::handle(ca), true, true},
      {"same name, other key id", crl, Pki::handle(sameName), false, false},
      {"same name, no key id to compare", vague, Pki::handle(sameName), true, false},
      {"wrong key id", wrongKeyId, Pki::handle(ca), false, false},
      {"issuer and serial", bySerial, Pki::handle(ca), true, true},
      {"issuer and another serial", bySerial, Pki::handle(unrestricted), false, false},
      {"other name, same key", crl, Pki::handle(otherName), false, false},
      {"key usage without cRLSign", crl, Pki::handle(noCRLSign), false, false},
      {"no key usage", crl, Pki::handle(unrestricted), true, true},
      {"broken key usage", crl, Pki::handle(broken), false, false},
      {"key usage twice", crl, Pki::handle(doubled), false, false},
      {"bad signature", forged, Pki::handle(ca), true, false},
      {"nobody", crl, RefCertificate(), false, false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(row.crl->issuedBy(row.issuer, true), row.names);
    EXPECT_EQ(row.crl->issuedBy(row.issuer, false), row.signature);
  }
}

TEST(CertificateRevocationList, SignatureThatIsRemembered_IsToldWithoutComputing) {
  const Pki::Issued root = Pki::issueCA("CN=Root");
  const auto other = Pki::makeKey();
  const RefCertificateRevocationList crl = Pki::crlHandle({.issuer = &root});
  EXPECT_EQ(crl->rememberedSignature(root.key.get()), std::nullopt);
  EXPECT_EQ(crl->rememberedSignature(nullptr), false);
  EXPECT_EQ(crl->signatureChecks(), 0U);
  EXPECT_TRUE(crl->isSignedBy(root.key.get()));
  EXPECT_FALSE(crl->isSignedBy(other.get()));
  EXPECT_EQ(crl->rememberedSignature(root.key.get()), true);
  EXPECT_EQ(crl->rememberedSignature(other.get()), false);
  EXPECT_EQ(crl->signatureChecks(), 2U);
}

TEST(CertificateRevocationList, IsSignedBy_ComputedOncePerKey) {
  const Pki::Issued ca = Pki::issueCA("CN=CA");
  const Pki::Issued other = Pki::issueCA("CN=Other");
  const RefCertificateRevocationList crl = Pki::crlHandle({.issuer = &ca});
  EXPECT_EQ(crl->signatureChecks(), 0U);
  EXPECT_FALSE(crl->isSignedBy(nullptr));
  EXPECT_EQ(crl->signatureChecks(), 0U);
  for (int i = 0; i < 3; ++i) {
    EXPECT_TRUE(crl->isSignedBy(ca.key.get()));
    EXPECT_FALSE(crl->isSignedBy(other.key.get()));
    EXPECT_TRUE(crl->issuedBy(Pki::handle(ca), false));
  }
  EXPECT_EQ(crl->signatureChecks(), 2U);
  // Another object with the same key: a certificate read again, say.
  const RefCertificate again = CertificateFactory()(X509_dup(ca.get()), true);
  ASSERT_NE(X509_get0_pubkey(again), X509_get0_pubkey(ca.get()));
  EXPECT_TRUE(crl->issuedBy(again, false));
  EXPECT_EQ(crl->signatureChecks(), 2U);
  // Names only asks for no signature.
  EXPECT_TRUE(Pki::crlHandle({.issuer = &ca})->issuedBy(Pki::handle(ca), true));
  const RefCertificateRevocationList fresh = Pki::crlHandle({.issuer = &ca});
  fresh->issuedBy(Pki::handle(ca), true);
  EXPECT_EQ(fresh->signatureChecks(), 0U);
}

TEST(CertificateRevocationList, IsSignedBy_RemembersEightKeysAndHoldsThem) {
  const Pki::Issued ca = Pki::issueCA("CN=CA");
  const RefCertificateRevocationList crl = Pki::crlHandle({.issuer = &ca});
  EXPECT_TRUE(crl->isSignedBy(ca.key.get()));
  std::vector<std::shared_ptr<EVP_PKEY>> keys;
  for (int i = 0; i < 7; ++i) {
    keys.push_back(Pki::makeKey());
    EXPECT_FALSE(crl->isSignedBy(keys.back().get()));
  }
  EXPECT_EQ(crl->signatureChecks(), 8U);
  EXPECT_TRUE(crl->isSignedBy(ca.key.get()));  // now the one asked about last
  EXPECT_EQ(crl->signatureChecks(), 8U);
  EXPECT_FALSE(crl->isSignedBy(Pki::makeKey().get()));  // pushes out the first of the seven
  EXPECT_TRUE(crl->isSignedBy(ca.key.get()));
  EXPECT_FALSE(crl->isSignedBy(keys[1].get()));
  EXPECT_EQ(crl->signatureChecks(), 9U);
  EXPECT_FALSE(crl->isSignedBy(keys[0].get()));
  EXPECT_EQ(crl->signatureChecks(), 10U);
  // A key whose owner is gone must not be mistaken for a new one at the same address.
  keys.clear();
  for (int i = 0; i < 20; ++i) EXPECT_FALSE(crl->isSignedBy(Pki::makeKey().get()));
  EXPECT_TRUE(crl->isSignedBy(ca.key.get()));
}

TEST(CertificateRevocationList, IsSignedBy_KeyOfAnotherKind) {
  const Pki::Issued ca = Pki::issueCA("CN=CA");
  const RefCertificateRevocationList crl = Pki::crlHandle({.issuer = &ca});
  ERR_clear_error();  // what a test before left
  EXPECT_FALSE(crl->isSignedBy(Pki::makeKey(Pki::KeyKind::Ed25519).get()));
  EXPECT_FALSE(crl->isSignedBy(Pki::makeKey(Pki::KeyKind::Rsa2048).get()));
  EXPECT_TRUE(crl->isSignedBy(ca.key.get()));
  EXPECT_EQ(ERR_peek_error(), 0U);
}

TEST(CertificateRevocationList, HasUnhandledCriticalExtension_ByTypeAndPlace) {
  const Pki::Issued ca = Pki::issueCA("CN=CA");
  const Pki::RawExtension unknown{"1.2.3.4", false, "\x05\0"s};
  const Pki::RawExtension criticalUnknown{"1.2.3.4", true, "\x05\0"s};
  struct Row {
    const char* name;
    Pki::CRLOptions options;
    bool unhandled;
  };
  const Row rows[] = {
      {"none", {.issuer = &ca}, false},
      {"unknown", {.issuer = &ca, .rawExtensions = {unknown}}, false},
      {"critical unknown", {.issuer = &ca, .rawExtensions = {criticalUnknown}}, true},
      {"critical issuing distribution point and delta",
       {.issuer = &ca,
        .deltaBase = Pki::Serial(1),
        .idp = Pki::IssuingDistributionPoint{.onlyUser = true}},
       false},
      {"critical authority key id",
       {.issuer = &ca,
        .authorityKeyId = Pki::KeyId::Absent,
        .rawExtensions = {{"2.5.29.35", true, "\x30\x03\x80\x01\x07"s}}},
       false},
      {"critical CRL number",
       {.issuer = &ca,
        .number = std::nullopt,
        .rawExtensions = {{"2.5.29.20", true, "\x02\x01\x07"s}}},
       true},
      {"entry: unknown",
       {.issuer = &ca, .revoked = {{.serial = 1}, {.serial = 2, .extensions = {unknown}}}},
       false},
      {"entry: critical unknown",
       {.issuer = &ca, .revoked = {{.serial = 1}, {.serial = 2, .extensions = {criticalUnknown}}}},
       true},
      {"entry: certificate issuer",
       {.issuer = &ca, .revoked = {{.serial = 1, .certificateIssuer = "CN=Other"}}},
       false},
      {"entry: critical reason",
       {.issuer = &ca,
        .revoked = {{.serial = 1, .extensions = {{"2.5.29.21", true, "\x0a\x01\x01"s}}}}},
       true},
      {"certificate issuer outside an entry",
       {.issuer = &ca, .rawExtensions = {{"2.5.29.29", true, "\x30\0"s}}},
       true},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const RefCertificateRevocationList crl = Pki::crlHandle(row.options);
    EXPECT_EQ(crl->hasUnhandledCriticalExtension(), row.unhandled);
    EXPECT_EQ(crl->hasUnhandledCriticalExtension(), row.unhandled);
  }
}

TEST(CertificateRevocationList, WritePEM_ReadsBackAndHashesLikeTheCommand) {
  const Pki::Issued ca = Pki::issueCA("CN=CA");
  const Owned<X509_CRL> native =
      Pki::makeCRL({.issuer = &ca, .revoked = {{.serial = 5, .reason = 1}}});
  RefCertificateRevocationList crl = CertificateRevocationListFactory()(native.get(), false);
  StringMediaOut out;
  crl->writePEM(out);
  EXPECT_EQ(out.text(), Pki::pem(native.get()));
  const RefCertificateRevocationList read = CertificateRevocationListFactory::read(
      Buffer(out.text().data(), static_cast<unsigned int>(out.text().size()), false));
  EXPECT_EQ(X509_CRL_match(read, crl), 0);
}

TEST(CertificateRevocationList, WritePEM_ToAFilePublishesIt) {
  const Pki::Issued ca = Pki::issueCA("CN=CA");
  const Pki::TempDir directory;
  const std::string path = (directory / "crl.r0").string();
  FileMediaOut out(path);
  Pki::crlHandle({.issuer = &ca})->writePEM(out);
  EXPECT_FALSE(CertificateRevocationListFactory::read(File::Path(path)).empty());
}

// Whether it is true in a child, which may hang.
template <class Work>
bool holdsInForked(Work work) {
  const pid_t child = ::fork();
  if (child == 0) {
    ::alarm(20);
    ::_exit(work() ? 0 : 1);
  }
  return Pki::collect(child) == 0;
}

TEST(CertificateRevocationList, ForkedChild_RemembersWhatItsParentHasChecked) {
  const Pki::Issued ca = Pki::issueCA("CN=CA");
  const RefCertificateRevocationList crl = Pki::crlHandle({.issuer = &ca});
  EXPECT_TRUE(crl->isSignedBy(ca.key.get()));
  EXPECT_TRUE(
      holdsInForked([&] { return crl->isSignedBy(ca.key.get()) && crl->signatureChecks() == 1; }));
}

TEST(CertificateRevocationList, ForkedWhileAThreadComputes_ChildComputesForItself) {
  const Pki::Issued ca =
      Pki::issue({.subject = "CN=CA", .ca = true, .keyKind = Pki::KeyKind::Ed25519});
  // Long enough for a fork in the middle of it.
  const std::string der = Pki::Bulk::crl(Pki::Bulk::extension(99, std::string(8'000'000, 'x')));
  const RefCertificateRevocationList crl = CertificateRevocationListFactory::read(
      Buffer(der.data(), static_cast<unsigned int>(der.size()), false));
  std::jthread computing([&] { crl->isSignedBy(ca.key.get()); });
  while (crl->signatureChecks() == 0) std::this_thread::yield();
  EXPECT_TRUE(holdsInForked([&] {
    return !crl->isSignedBy(ca.key.get()) && crl->rememberedSignature(ca.key.get()) == false;
  }));
}

}  // namespace
}  // namespace Velantrix::Crypto::PKX509
