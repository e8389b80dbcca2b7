#include "unit/verify/World.h"
#include "verify/PathRecheck.h"

#include <velantrix/Time.h>

#include <gtest/gtest.h>
#include <list>
#include <utility>
#include <vector>

namespace Velantrix::Test {
namespace {

using Crypto::PKX509::Objection;
using Crypto::PKX509::objectionsToPath;
using Crypto::PKX509::Recheck;

class PathRecheckTest : public testing::Test {
 protected:
  using Found = std::vector<std::pair<int, int>>;  // depth and code

  // Of the path that OpenSSL builds of the leaf, the others and the root.
  Found found(const Issued& leaf, const std::vector<const Issued*>& others, Recheck extent) {
    std::list<RefCertificate> stack;
    for (const Issued* const one : others) stack.push_back(handle(*one));
    Verifier verifier(world.store, handle(leaf), RefStackOfCertificate(stack), false);
    EXPECT_NE(verifier.isValid(), X509_V_OK);
    Found all;
    for (const Objection& one : objectionsToPath(verifier, 0, Time::now(), extent)) {
      all.emplace_back(one.depth, one.code);
    }
    return all;
  }

  World world;
  const Issued root = issueCA("CN=Root");
};

// Below it nobody vouches for a key, and what its owner made it cost is not spent.
TEST_F(PathRecheckTest, WrongSignature_EndsItUnlessAllWasLookedAtAlready) {
  world.trust(root);
  const Issued forged =
      issue({.subject = "CN=Inter", .issuer = &root, .ca = true, .badSignature = true});
  const Issued leaf = issue({.subject = "CN=Leaf", .issuer = &forged, .badSignature = true});
  EXPECT_EQ(found(leaf, {&forged}, Recheck::kVouchedFor),
            (Found{{1, X509_V_ERR_CERT_SIGNATURE_FAILURE}}));
  EXPECT_EQ(
      found(leaf, {&forged}, Recheck::kEverything),
      (Found{{1, X509_V_ERR_CERT_SIGNATURE_FAILURE}, {0, X509_V_ERR_CERT_SIGNATURE_FAILURE}}));
}

TEST_F(PathRecheckTest, NoTrustAnchor_NoKeyIsUsedAndWhatHasExpiredIsTold) {
  const Issued inter = issueCA("CN=Inter", &root);
  const Issued leaf = issue({.subject = "CN=Leaf",
                             .issuer = &inter,
                             .notAfter = std::chrono::hours(-1),
                             .badSignature = true});
  EXPECT_EQ(
      found(leaf, {&inter}, Recheck::kVouchedFor),
      (Found{{1, X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY}, {0, X509_V_ERR_CERT_HAS_EXPIRED}}));
}

}  // namespace
}  // namespace Velantrix::Test
