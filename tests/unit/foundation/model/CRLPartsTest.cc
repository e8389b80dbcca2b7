#include "foundation/model/CRLParts.h"
#include "support/Cost.h"
#include "support/Handles.h"
#include "support/Pki.h"

#include <velantrix/Exception.h>
#include <velantrix/MediaOut.h>

#include <gtest/gtest.h>
#include <malloc.h>
#include <string>
#include <thread>
#include <vector>

namespace Velantrix::Crypto::PKX509 {
namespace {

using namespace std::string_literals;
namespace Pki = Velantrix::Test;
using Pki::Issued;

Pki::CRLOptions options(const Issued& ca, int number = 1) {
  Pki::CRLOptions made;
  made.issuer = &ca;
  made.number = Pki::Serial(number);
  made.deltaBase = Pki::Serial(0);  // for the entry that is removed
  made.idp = Pki::IssuingDistributionPoint{.indirect = true};
  made.revoked = {{.serial = 7, .reason = 3},
                  {.serial = 8, .extensions = {{"2.999.1", true, "\x05\0"s}}},
                  {.serial = 9, .reason = 8, .certificateIssuer = "CN=Other"},
                  {.serial = 10, .extensions = {{"2.999.2", true, "\x05\0"s}}}};
  return made;
}

RefCertificateRevocationList readCRL(const std::string& content) {
  return CertificateRevocationListFactory::read(
      Buffer(content.data(), static_cast<unsigned int>(content.size()), false));
}

// One list in both forms.
struct Forms {
  explicit Forms(const Owned<X509_CRL>& list)
      : der(Pki::der(list.get())),
        compact(readCRL(der)),
        native(CertificateRevocationListFactory()(list.get(), false)) {}

  std::string der;
  RefCertificateRevocationList compact;
  RefCertificateRevocationList native;
};

TEST(CRLParts, WhatIsRead_IsCompactUntilOpenSSLsObjectIsAskedFor) {
  const Issued ca = Pki::issueCA("CN=CA");
  const Owned<X509_CRL> list = Pki::makeCRL(options(ca));
  const Pki::TempDir directory;
  Pki::writeFile(directory / "pem", Pki::pem(list.get()));
  Pki::writeFile(directory / "der", Pki::der(list.get()));
  const auto read = [&](const char* name) {
    return CertificateRevocationListFactory::read(File::Path((directory / name).string()));
  };
  for (const RefCertificateRevocationList& crl :
       {read("pem"), read("der"), readCRL(Pki::der(list.get())), readCRL(Pki::pem(list.get()))}) {
    EXPECT_NE(CRLParts::compactOf(*crl.get()), nullptr);
    EXPECT_TRUE(crl->isSignedBy(ca.key.get()));
    EXPECT_FALSE(crl->isSignedBy(Pki::makeKey().get()));
    EXPECT_TRUE(crl->issuedBy(Pki::handle(ca), false));
    EXPECT_TRUE(crl->hasUnhandledCriticalExtension());
    EXPECT_EQ(crl->brokenRule(), nullptr);
    EXPECT_EQ(crl->entryCount(), 4U);
    StringMediaOut out;
    crl->writePEM(out);
    EXPECT_EQ(out.text(), Pki::pem(list.get()));
    EXPECT_EQ(CRLParts::nativeOf(*crl.get()), nullptr);
    X509_CRL* const native = crl;
    ASSERT_NE(native, nullptr);
    EXPECT_EQ(Pki::der(native), Pki::der(list.get()));
    EXPECT_EQ(crl->native(), native);
  }
}

TEST(CRLParts, OpenSSLsObject_IsMadeOnceForAllThreads) {
  const RefCertificateRevocationList crl =
      readCRL(Pki::der(Pki::makeCRL(options(Pki::issueCA("CN=CA"))).get()));
  std::vector<X509_CRL*> seen(4);
  std::vector<std::thread> threads;
  for (X509_CRL*& mine : seen) threads.emplace_back([&mine, &crl] { mine = crl->native(); });
  for (std::thread& one : threads) one.join();
  for (X509_CRL* const one : seen) EXPECT_EQ(one, crl->native());
}

TEST(CRLParts, BrokenExtension_IsToldOfEitherForm) {
  const Issued ca = Pki::issueCA("CN=CA");
  Pki::CRLOptions broken;
  broken.issuer = &ca;
  broken.rawExtensions = {{"2.5.29.28", true, "\x05\0"s}};
  const Owned<X509_CRL> list = [&] {
    const ErrorScope errors;  // OpenSSL does not like it
    return Pki::makeCRL(broken);
  }();
  const auto reasonOf = [](const auto& make) {
    try {
      make();
      return "none"s;
    } catch (const Exception& e) {
      return e.asString();
    }
  };
  const std::string compact = reasonOf([&] { readCRL(Pki::der(list.get())); });
  EXPECT_NE(compact, "none");
  EXPECT_EQ(compact, reasonOf([&] { CertificateRevocationListFactory()(list.get(), false); }));
}

TEST(CRLParts, Entries_AreThoseOfOpenSSLsObject) {
  const Issued ca = Pki::issueCA("CN=CA");
  const Issued other = Pki::issueCA("CN=Other");
  const Forms forms(Pki::makeCRL(options(ca)));
  for (const RefCertificateRevocationList& crl : {forms.compact, forms.native}) {
    const auto entry = [&crl](const Issued& issuer, int serial) {
      const Issued certificate = Pki::issue({.issuer = &issuer, .serial = serial});
      return entryFor(*crl.get(), certificate.get());
    };
    EXPECT_TRUE(entry(ca, 7));
    EXPECT_FALSE(entry(ca, 7).removed());
    EXPECT_NE(entry(ca, 7).get(), nullptr);
    EXPECT_FALSE(entry(ca, 9));
    EXPECT_TRUE(entry(other, 9));
    EXPECT_TRUE(entry(other, 9).removed());
    EXPECT_FALSE(entry(other, 7));

    std::vector<long> critical;
    visitCriticalEntries(*crl.get(), [&](const X509_REVOKED* one) {
      const long serial = ASN1_INTEGER_get(X509_REVOKED_get0_serialNumber(one));
      if (serial >= 8) critical.push_back(serial);
      return true;
    });
    EXPECT_EQ(critical, (std::vector<long>{8, 9, 10}));
    int visited = 0;
    visitCriticalEntries(*crl.get(), [&](const X509_REVOKED*) { return ++visited < 2; });
    EXPECT_EQ(visited, 2);
    EXPECT_FALSE(extensionOf(*crl.get(), NID_issuing_distribution_point).empty());
    EXPECT_TRUE(extensionOf(*crl.get(), NID_freshest_crl).empty());
    EXPECT_EQ(X509_CRL_get_version(headOf(*crl.get())), X509_CRL_VERSION_2);
  }
  EXPECT_EQ(X509_CRL_get_REVOKED(headOf(*forms.compact.get())), nullptr);
}

TEST(CRLParts, EqualLists_AreTheSameInWhateverForm) {
  const Issued ca = Pki::issueCA("CN=CA");
  const Forms one(Pki::makeCRL(options(ca)));
  const RefCertificateRevocationList again = readCRL(one.der);
  const Forms two(Pki::makeCRL(options(ca, 2)));
  const RefCertificateRevocationList same[] = {one.compact, one.native, again};
  const RefCertificateRevocationList others[] = {two.compact, two.native};
  for (const RefCertificateRevocationList& a : same) {
    EXPECT_EQ(derSizeOf(*a.get()), one.der.size());
    EXPECT_TRUE(isDerOf(one.der, *a.get()));
    EXPECT_FALSE(isDerOf(two.der, *a.get()));
    EXPECT_FALSE(isDerOf("", *a.get()));
    for (const RefCertificateRevocationList& b : same) {
      EXPECT_TRUE(isSame(*a.get(), *b.get()));
      EXPECT_FALSE(isOrderedBefore(*a.get(), *b.get()));
      EXPECT_EQ(isIdentical(*a.get(), *b.get()), a.get() == b.get());
    }
    for (const RefCertificateRevocationList& b : others) {
      EXPECT_FALSE(isSame(*a.get(), *b.get()));
      EXPECT_NE(isOrderedBefore(*a.get(), *b.get()), isOrderedBefore(*b.get(), *a.get()));
      EXPECT_EQ(isOrderedBefore(*a.get(), *b.get()),
                isOrderedBefore(*one.native.get(), *two.native.get()));
    }
  }
  const RefCertificateRevocationList wrapped =
      CertificateRevocationListFactory()(one.compact->native(), false);
  EXPECT_TRUE(isIdentical(*wrapped.get(), *one.compact.get()));
}

// 20,000 entries, from PEM: neither the text nor anything else stays.
TEST(CRLParts, CompactList_KeepsLittleMoreThanItsOctets) {
  const Issued ca = Pki::issueCA("CN=CA");
  Owned<X509_CRL> list = Pki::makeCRL(options(ca));
  for (int i = 0; i < 20000; ++i) {
    Owned<X509_REVOKED> entry(X509_REVOKED_new());
    const Owned<ASN1_INTEGER> serial(ASN1_INTEGER_new());
    const Owned<ASN1_ENUMERATED> reason(ASN1_ENUMERATED_new());
    ASSERT_EQ(ASN1_INTEGER_set(serial.get(), 0x4000000000 + i * 1000003L), 1);
    ASSERT_EQ(ASN1_ENUMERATED_set(reason.get(), 1), 1);
    X509_REVOKED_set_serialNumber(entry.get(), serial.get());
    const Owned<ASN1_TIME> now(ASN1_TIME_set(nullptr, 1767225600));
    X509_REVOKED_set_revocationDate(entry.get(), now.get());
    X509_REVOKED_add1_ext_i2d(entry.get(), NID_crl_reason, reason.get(), 0, 0);
    ASSERT_EQ(X509_CRL_add0_revoked(list.get(), entry.release()), 1);
  }
  ASSERT_GT(X509_CRL_sign(list.get(), ca.key.get(), EVP_sha256()), 0);
  const std::string der = Pki::der(list.get());
  const std::string pem = Pki::pem(list.get());
  list.reset();
  const auto inUse = [] {
    const struct mallinfo2 now = mallinfo2();
    return now.uordblks + now.hblkhd;
  };
  for (const std::string& content : {der, pem}) {
    const std::size_t before = inUse();
    const RefCertificateRevocationList crl = readCRL(content);
    EXPECT_TRUE(crl->isSignedBy(ca.key.get()));
    EXPECT_EQ(crl->brokenRule(), nullptr);
    EXPECT_TRUE(entryFor(*crl.get(), Pki::issue({.issuer = &ca, .serial = 7}).get()));
    if (!Pki::costsCanBeMeasured()) continue;
    const auto kept = static_cast<double>(inUse() - before);
    EXPECT_LT(kept, 1.3 * static_cast<double>(der.size()));
    EXPECT_NEAR(static_cast<double>(CRLParts::compactOf(*crl.get())->memory()), kept,
                0.05 * static_cast<double>(der.size()));
  }
}

}  // namespace
}  // namespace Velantrix::Crypto::PKX509
