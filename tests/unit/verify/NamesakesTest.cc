#include "foundation/openssl/OpenSSLOwners.h"
#include "foundation/run/VerificationRun.h"
#include "support/PublicKeys.h"
#include "unit/verify/Offering.h"
#include "unit/verify/World.h"
#include "verify/Namesakes.h"
#include "verify/StoreCallbacks.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace Velantrix::Test {
namespace {

class NamesakesTest : public testing::Test {
 protected:
  const Issued root = issueCA("O=Test,CN=Root");
  Offering sources;
  Namesakes namesakes;
  Owned<X509_STORE> store{X509_STORE_new()};
  Owned<X509_STORE_CTX> context{X509_STORE_CTX_new()};

  NamesakesTest() {
    const StoreCallbacks former(store.get());
    X509_STORE_set_check_issued(store.get(), Namesakes::s_check_issued);
    EXPECT_EQ(X509_STORE_CTX_init(context.get(), store.get(), root.get(), nullptr), 1);
  }

  // One of a CA's certificates that nothing but its key tells from the others.
  Issued anonymousCA(const std::string& subject = "O=Test,CN=CA", KeyId id = KeyId::Absent) {
    CertificateOptions options{.subject = subject, .issuer = &root, .ca = true};
    options.subjectKeyId = id;
    return issue(options);
  }
  static Issued issuedBy(const Issued& issuer) {
    CertificateOptions options{.subject = "O=Test,CN=Person", .issuer = &issuer};
    options.authorityKeyId = KeyId::Absent;
    return issue(options);
  }
  bool gather(const Issued& target, const Issued* trusted = nullptr) {
    return namesakes.gather(handle(target), sources, [&](const X509_NAME* name) {
      Owned<STACK_OF(X509)> found(sk_X509_new_null());
      if (trusted != nullptr && X509_NAME_cmp(name, X509_get_subject_name(trusted->get())) == 0) {
        X509_add_cert(found.get(), trusted->get(), X509_ADD_FLAG_UP_REF);
      }
      return found;
    });
  }
  int count() const { return sk_X509_num(namesakes.stack()); }
  bool issuedHere(const Issued& certificate, const Issued& issuer) {
    return X509_STORE_CTX_get_check_issued(context.get())(context.get(), certificate.get(),
                                                          issuer.get()) != 0;
  }
};

TEST_F(NamesakesTest, EqualCertificates_AreThereOnce) {
  const Issued copy{certFromDer(der(root.get())), root.key};
  namesakes.add(root.get());
  namesakes.add(copy.get());
  namesakes.add(stackOf({root, copy}));
  namesakes.add(static_cast<X509*>(nullptr));
  EXPECT_EQ(count(), 1);
  EXPECT_EQ(sk_X509_value(namesakes.stack(), 0), root.get());
}

TEST_F(NamesakesTest, Gathered_UpwardsAndEachNameOnce) {
  const Issued upper = issueCA("O=Test,CN=Upper", &root);
  const Issued lower = issueCA("O=Test,CN=Lower", &upper);
  const Issued other = issueCA("O=Test,CN=Lower", &root);
  const Issued leaf = issue({.subject = "O=Test,CN=Leaf", .issuer = &lower});
  for (const Issued& issued : {root, upper, lower, other}) {
    sources.certificates_.push_back(handle(issued));
  }
  gather(leaf);
  EXPECT_EQ(count(), 4);
  EXPECT_EQ(sources.names,
            (std::vector<std::string>{"CN=Lower,O=Test", "CN=Upper,O=Test", "CN=Root,O=Test"}));
  namesakes.gather(RefCertificate(), sources,
                   [](const X509_NAME*) { return Owned<STACK_OF(X509)>(); });
  EXPECT_EQ(sources.names.size(), 3U);
}

TEST_F(NamesakesTest, WhatIsTrusted_IsGatheredToo) {
  const Issued leaf = issue({.subject = "O=Test,CN=Leaf", .issuer = &root});
  EXPECT_FALSE(namesakes.areGathered());
  EXPECT_FALSE(gather(leaf));
  EXPECT_TRUE(namesakes.areGathered());
  EXPECT_TRUE(gather(leaf, &root));
  EXPECT_EQ(count(), 1);
}

// One that others have certified as well: those who lead to the root first, whatever came before.
TEST_F(NamesakesTest, NearerToATrustedName_ComesFirst) {
  const Issued stranger = issueCA("O=Test,CN=Stranger");
  const Issued upper = issueCA("O=Test,CN=Upper", &root);
  const Issued ca = issueCA("O=Test,CN=CA", &upper);
  const auto certifiedBy = [&](const Issued& issuer) {
    CertificateOptions options{.subject = "O=Test,CN=CA", .issuer = &issuer, .ca = true};
    options.key = ca.key;
    return issue(options);
  };
  const Issued byStranger = certifiedBy(stranger);
  const Issued byItself = certifiedBy(ca);
  const Issued byRoot = certifiedBy(root);
  for (const Issued& issued : {byStranger, byItself, ca, stranger, byRoot, upper}) {
    sources.certificates_.push_back(handle(issued));
  }
  const Issued leaf = issue({.subject = "O=Test,CN=Leaf", .issuer = &ca});
  EXPECT_TRUE(gather(leaf));
  EXPECT_TRUE(gather(leaf, &root));
  std::vector<X509*> order;
  for (int i = 0; i < count(); ++i) order.push_back(sk_X509_value(namesakes.stack(), i));
  EXPECT_EQ(order, (std::vector<X509*>{byRoot.get(), upper.get(), root.get(), byItself.get(),
                                       ca.get(), byStranger.get(), stranger.get()}));
}

// A stranger makes certificates as many as a mail holds.
TEST_F(NamesakesTest, TooManyNames_AreNotAskedFor) {
  std::vector<Issued> line = {root};
  for (std::size_t i = 0; i < Namesakes::kMaximumNames + 2; ++i) {
    line.push_back(issueCA("O=Test,CN=" + std::to_string(i), &line.back()));
    sources.certificates_.push_back(handle(line.back()));
  }
  gather(line.back());
  EXPECT_EQ(sources.names.size(), Namesakes::kMaximumNames);
}

TEST_F(NamesakesTest, TooManyCertificates_AreLeftOut) {
  const Issued ca = anonymousCA();
  const Issued leaf = issuedBy(ca);
  CertificateOptions options{.subject = "O=Test,CN=CA", .issuer = &root, .ca = true};
  options.key = ca.key;
  for (std::size_t i = 0; i < Namesakes::kMaximumCertificates + 2; ++i) {
    sources.certificates_.push_back(handle(issue(options)));
  }
  gather(leaf);
  EXPECT_EQ(count(), static_cast<int>(Namesakes::kMaximumCertificates));
}

TEST_F(NamesakesTest, Attached_AreTheContextsUntrustedUntilTheyAreNot) {
  const RefStackOfCertificate former = stackOf({root});
  X509_STORE_CTX_set0_untrusted(context.get(), former);
  {
    const Namesakes::Attached attached(namesakes, context.get());
    EXPECT_EQ(X509_STORE_CTX_get0_untrusted(context.get()), namesakes.stack());
    EXPECT_EQ(Namesakes::of(context.get()), &namesakes);
    EXPECT_TRUE(namesakes.handOut(root.get()));
    EXPECT_FALSE(namesakes.handOut(root.get()));
  }
  EXPECT_EQ(X509_STORE_CTX_get0_untrusted(context.get()), former.operator stack_st_X509*());
  EXPECT_EQ(Namesakes::of(context.get()), nullptr);
  const Namesakes::Attached again(namesakes, context.get());
  EXPECT_TRUE(namesakes.handOut(root.get()));
}

TEST_F(NamesakesTest, SeveralKeys_TheSignatureTells) {
  const Issued before = anonymousCA();
  const Issued after = anonymousCA();
  const Issued leaf = issuedBy(before);
  const VerificationRun run(nullptr);
  EXPECT_TRUE(issuedHere(leaf, after));  // nothing is attached: as OpenSSL has it
  const Namesakes::Attached attached(namesakes, context.get());
  EXPECT_TRUE(issuedHere(leaf, after));  // nobody else is known
  namesakes.add(before.get());
  EXPECT_FALSE(issuedHere(leaf, after));
  EXPECT_TRUE(issuedHere(leaf, before));
  namesakes.add(after.get());
  EXPECT_FALSE(issuedHere(leaf, after));
  EXPECT_TRUE(issuedHere(leaf, before));
  EXPECT_FALSE(issuedHere(issuedBy(after), before));
  EXPECT_FALSE(issuedHere(leaf, root));  // not even the name
}

TEST_F(NamesakesTest, SeveralWithOneKey_NoSignatureIsVerified) {
  const Issued ca = anonymousCA();
  CertificateOptions options{.subject = "O=Test,CN=CA", .issuer = &root, .ca = true};
  options.subjectKeyId = KeyId::Absent;
  options.key = ca.key;
  const Issued renewed = issue(options);
  CertificateOptions of{.subject = "O=Test,CN=Person", .issuer = &ca};
  of.badSignature = true;
  const Issued forged = issue(of);
  namesakes.add(ca.get());
  namesakes.add(renewed.get());
  const VerificationRun run(nullptr);
  const Namesakes::Attached attached(namesakes, context.get());
  EXPECT_TRUE(issuedHere(forged, ca));
  EXPECT_TRUE(issuedHere(forged, renewed));
}

TEST_F(NamesakesTest, TooManySignatures_AreToldApartAsOpenSSLDoes) {
  const Issued ca = anonymousCA();
  const Issued other = anonymousCA();
  namesakes.add(ca.get());
  namesakes.add(other.get());
  const VerificationRun run(nullptr);
  const Namesakes::Attached attached(namesakes, context.get());
  const Issued first = issuedBy(ca);
  for (std::size_t i = 0; i < Namesakes::kMaximumSignatures; ++i) {
    EXPECT_FALSE(issuedHere(i == 0 ? first : issuedBy(ca), other));
    EXPECT_FALSE(issuedHere(first, other));  // remembered
  }
  EXPECT_TRUE(issuedHere(issuedBy(ca), other));
  EXPECT_FALSE(issuedHere(first, other));
  EXPECT_TRUE(issuedHere(first, ca));
}

TEST_F(NamesakesTest, LargeKeys_AreNotUsed) {
  const Issued ca = anonymousCA();
  CertificateOptions options{.subject = "O=Test,CN=CA", .issuer = &root, .ca = true};
  options.subjectKeyId = KeyId::Absent;
  options.key = publicRsaKey(8200, 17);
  const Issued large = issue(options);
  namesakes.add(ca.get());
  const Issued leaf = [&] {
    CertificateOptions of{.subject = "O=Test,CN=Person", .issuer = &large};
    of.authorityKeyId = KeyId::Absent;
    of.signer = makeKey(KeyKind::Rsa2048);
    return issue(of);
  }();
  const VerificationRun run(nullptr);
  const Namesakes::Attached attached(namesakes, context.get());
  EXPECT_TRUE(issuedHere(leaf, large));
}

}  // namespace
}  // namespace Velantrix::Test
