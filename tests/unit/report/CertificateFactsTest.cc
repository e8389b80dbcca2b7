#include "foundation/base/Hex.h"
#include "report/CertificateFacts.h"
#include "support/Handles.h"
#include "unit/report/Findings.h"

#include <gtest/gtest.h>
#include <memory>
#include <string>

namespace Velantrix::Test {
namespace {

using Crypto::PKX509::CertificateFacts;
using Crypto::PKX509::factsAbout;
using Crypto::PKX509::NameTexts;
using Crypto::PKX509::RefCertificate;

std::shared_ptr<const CertificateFacts> ask(const RefCertificate& certificate) {
  NameTexts texts;
  return factsAbout(certificate, texts);
}

// Another object of the same octets.
RefCertificate copyOf(const Issued& issued) {
  return Crypto::PKX509::CertificateFactory()(X509_dup(issued.get()), true);
}

TEST(CertificateFacts, SayWhatTheCertificateSays) {
  const Issued root = issue({.subject = "CN=Root", .serial = 0x1A2B, .ca = true});
  const auto facts = ask(handle(root));
  EXPECT_EQ(facts->subject, (Report::Subject{"CN=Root", "CN=Root", "1A2B"}));
  unsigned char digest[32] = {};
  unsigned int length = 0;
  ASSERT_EQ(X509_digest(root.get(), EVP_sha256(), digest, &length), 1);
  EXPECT_EQ(facts->fingerprint, hexText(digest, length));
  EXPECT_EQ(facts->notBefore, Crypto::PKX509::timeOf(X509_get0_notBefore(root.get())));
  EXPECT_EQ(facts->notAfter, Crypto::PKX509::timeOf(X509_get0_notAfter(root.get())));
}

TEST(CertificateFacts, AreMadeOnceForACertificate) {
  const Issued root = issueCA("CN=Root");
  const auto facts = ask(handle(root));
  EXPECT_EQ(ask(handle(root)), facts) << "through another handle to it";
  const auto others = ask(copyOf(root));
  EXPECT_NE(others, facts) << "another object, which somebody else may still write to";
  EXPECT_EQ(others->fingerprint, facts->fingerprint);
}

TEST(CertificateFacts, OfThoseReadLastAreRemembered) {
  const Issued root = issueCA("CN=Root");
  const Issued leaf = issue({.subject = "CN=Anna", .issuer = &root});
  const auto kept = ask(handle(root));
  std::weak_ptr<const CertificateFacts> passing = ask(copyOf(leaf));
  EXPECT_FALSE(passing.expired());
  for (int i = 0; i < 100; ++i) {
    static_cast<void>(ask(copyOf(leaf)));
    ASSERT_EQ(ask(handle(root)), kept) << i;
  }
  EXPECT_TRUE(passing.expired()) << "strangers' certificates are not kept";
}

TEST(CertificateFacts, OfALongCertificateAreNotKept) {
  const Issued leaf =
      issue({.rawExtensions = {{.oid = "1.2.3.4", .der = std::string(20'000, 'x')}}});
  const std::weak_ptr<const CertificateFacts> facts = ask(handle(leaf));
  EXPECT_TRUE(facts.expired());
}

}  // namespace
}  // namespace Velantrix::Test
