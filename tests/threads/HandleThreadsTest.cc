// Handles that are copied and released on several threads, and the values behind them.
#include "support/LogCapture.h"
#include "threads/Threads.h"
#include "unit/store/FakeMethod.h"
#include "unit/verify/World.h"

#include <velantrix/AuthorityKeyIdentifier.h>
#include <velantrix/DistinguishedName.h>
#include <velantrix/Key.h>
#include <velantrix/Refcounted.h>

#include <openssl/x509.h>

#include <atomic>
#include <gtest/gtest.h>
#include <vector>

namespace Velantrix::Test {
namespace {

RefObjectStore emptyStore() { return RefObjectStore("/nonexistent", X509_FILETYPE_PEM); }

class Counted : public RefImpl {
 public:
  explicit Counted(std::atomic<int>& deletions) : deletions_(deletions) {}
  ~Counted() override { ++deletions_; }

 private:
  std::atomic<int>& deletions_;
};

TEST(HandleThreads, Ref_ReleasedOnManyThreads_DeletesExactlyOnce) {
  std::atomic<int> deletions = 0;
  for (int round = 1; round <= 200; ++round) {
    Ref<Counted> first(new Counted(deletions));
    std::vector<Ref<Counted>> handles(kThreads, first);
    first = Ref<Counted>();
    onThreads(kThreads, [&](int thread) {
      Ref<Counted>& handle = handles[static_cast<std::size_t>(thread)];
      const Ref<Counted> copy(handle);
      handle = Ref<Counted>();
    });
    ASSERT_EQ(deletions, round);
  }
}

TEST(HandleThreads, Store_ReleasedOnManyThreads_IsDestroyedOnce) {
  for (int round = 0; round < 20; ++round) {
    Events events;
    RefObjectStore store = emptyStore();
    store->add(Source("Fake", &events).handle);
    std::vector<RefObjectStore> handles(kThreads, store);
    store = RefObjectStore();
    onThreads(kThreads, [&](int thread) {
      RefObjectStore& handle = handles[static_cast<std::size_t>(thread)];
      for (int i = 0; i < 100; ++i) const RefObjectStore copy(handle);
      handle = RefObjectStore();
    });
    EXPECT_EQ(events, (Events{"initialize", "finish", "clear", "destroyed"}));
  }
}

TEST(HandleThreads, Certificate_ReleasedOnManyThreads) {
  const Issued ca = issueCA("CN=CA");
  for (int round = 0; round < 50; ++round) {
    RefCertificate certificate = CertificateFactory()(ca.reference().release(), true);
    std::vector<RefCertificate> handles(kThreads, certificate);
    certificate = RefCertificate();
    onThreads(kThreads, [&](int thread) {
      RefCertificate& handle = handles[static_cast<std::size_t>(thread)];
      const RefCertificate copy(handle);
      EXPECT_TRUE(copy == handle);
      handle = RefCertificate();
    });
  }
}

TEST(HandleThreads, Name_IsReadWithoutARace) {
  const DistinguishedName name("CN=A,O=B");
  const DistinguishedName other("CN=a,O=b");
  onThreads(kThreads, [&](int) {
    for (int i = 0; i < 200; ++i) {
      const DistinguishedName copy = name;
      EXPECT_EQ(copy, other);
      EXPECT_EQ(copy.asString(), "CN=A,O=B");
      EXPECT_EQ(copy.hash(), other.hash());
      EXPECT_NE(copy, DistinguishedName());
    }
  });
}

TEST(HandleThreads, Certificate_IsReadWithoutARace) {
  const Issued ca = issueCA("CN=CA");
  const RefCertificate issuer = handle(ca);
  const RefCertificate leaf = handle(issue({.subject = "CN=Leaf", .issuer = &ca}));
  onThreads(kThreads, [&](int) {
    for (int i = 0; i < 50; ++i) {
      EXPECT_TRUE(leaf->issuedBy(issuer, i % 2 == 0));
      EXPECT_TRUE(issuer->isSelfSigned());
      EXPECT_TRUE(issuer->isCACert());
      EXPECT_EQ(leaf->authorityKeyIdentifier()->keyId(), issuer->subjectKeyIdentifier());
      EXPECT_EQ(leaf->issuer(), issuer->subject());
      EXPECT_NE(leaf->key()->keyData(), nullptr);
    }
  });
}

// Handles are made when they are asked for, and share what was decoded.
TEST(HandleThreads, DistributionPoints_AreReadWithoutARace) {
  const Issued ca = issueCA("CN=CA");
  const RefCertificate leaf =
      handle(issue({.issuer = &ca,
                    .crlDistributionPoints = {{.fullNames = {"URI:http://a/", "dirName:CN=A"}},
                                              {.relativeName = "CN=B+O=C"}}}));
  const RefCertificateRevocationList crl =
      crlHandle({.issuer = &ca,
                 .idp = Velantrix::Test::IssuingDistributionPoint{.fullNames = {"dirName:CN=a"}}});
  const std::list<RefCRLDistributionPoint> points = leaf->crlDistributionPoints();
  const RefIssuingDistributionPoint scope = crl->issuingDistributionPoint();
  onThreads(kThreads, [&](int) {
    for (int i = 0; i < 50; ++i) {
      const RefCRLDistributionPointName full = points.front()->distributionPointName();
      EXPECT_EQ(full->fullName().front()->uri().asString(), "http://a/");
      EXPECT_EQ(full->fullName().back()->dn(), DistinguishedName("CN=A"));
      EXPECT_TRUE(*full.get() == *scope->distributionPointName().get());
      const RefCRLDistributionPointName relative = points.back()->distributionPointName();
      EXPECT_EQ(DistinguishedName(relative->relativeName()), DistinguishedName("CN=B+O=C"));
      EXPECT_TRUE(*relative.get() == *points.back()->distributionPointName().get());
    }
  });
}

TEST(HandleThreads, CRL_OneSignatureIsComputed) {
  const Issued ca = issueCA("CN=CA");
  for (int round = 0; round < 20; ++round) {
    const RefCertificateRevocationList crl =
        crlHandle({.issuer = &ca, .revoked = {{.serial = 3}, {.serial = 1}, {.serial = 2}}});
    onThreads(kThreads, [&](int) {
      EXPECT_TRUE(crl->isSignedBy(ca.key.get()));
      EXPECT_FALSE(crl->hasUnhandledCriticalExtension());
      X509_REVOKED* found = nullptr;
      EXPECT_EQ(X509_CRL_get0_by_cert(crl, &found, ca.get()), 0);
      EXPECT_EQ(crl->entryCount(), 3U);
      EXPECT_EQ(crl->crlNumber().asString(), "01");
    });
    EXPECT_EQ(crl->signatureChecks(), 1U);
  }
}

}  // namespace
}  // namespace Velantrix::Test
