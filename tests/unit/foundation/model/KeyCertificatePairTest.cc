#include "support/Handles.h"
#include "support/Pki.h"

#include <velantrix/Exception.h>
#include <velantrix/KeyCertificatePair.h>

#include <gtest/gtest.h>

namespace Velantrix::Crypto::PKX509 {
namespace {

namespace Pki = Velantrix::Test;

TEST(KeyCertificatePair, WithBody_StartsEmptyAndTakesBoth) {
  const Pki::Issued issued = Pki::issueCA("CN=A");
  const RefCertificate certificate = Pki::handle(issued);
  KeyCertificatePair pair(true);
  EXPECT_FALSE(pair.empty());
  EXPECT_TRUE(pair.key().empty());
  EXPECT_TRUE(pair.certificate().empty());
  pair.certificate(certificate);
  EXPECT_EQ(pair.certificate()->native(), issued.get());
  EXPECT_TRUE(pair.key().empty());
  const KeyCertificatePair copy = pair;
  pair.key(certificate->key());
  EXPECT_FALSE(pair.key().empty());
  EXPECT_TRUE(copy.key().empty());
  EXPECT_EQ(copy.certificate(), certificate);
}

TEST(KeyCertificatePair, WithoutBody_EmptyAndCannotBeSet) {
  KeyCertificatePair pair(false);
  EXPECT_TRUE(pair.empty());
  EXPECT_TRUE(pair.key().empty());
  EXPECT_TRUE(pair.certificate().empty());
  for (const bool key : {true, false}) {
    try {
      if (key) {
        pair.key(RefKey());
      } else {
        pair.certificate(RefCertificate());
      }
      ADD_FAILURE();
    } catch (const Exception& e) {
      EXPECT_EQ(e.code(), 1);
    }
  }
  EXPECT_TRUE(pair.empty());
}

}  // namespace
}  // namespace Velantrix::Crypto::PKX509
