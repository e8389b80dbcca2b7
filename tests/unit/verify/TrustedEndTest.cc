#include "foundation/openssl/OpenSSLOwners.h"
#include "foundation/run/VerificationRun.h"
#include "unit/verify/World.h"
#include "verify/Namesakes.h"
#include "verify/StoreCallbacks.h"
#include "verify/TrustedEnd.h"

#include <gtest/gtest.h>

namespace Velantrix::Test {
namespace {

using std::chrono::hours;

class TrustedEndTest : public testing::Test {
 protected:
  const Issued root = issueCA("O=Test,CN=Root");
  const Issued leaf = issue({.subject = "O=Test,CN=Leaf", .issuer = &root});
  World world;
  Owned<X509_STORE_CTX> context{X509_STORE_CTX_new()};

  TrustedEndTest() {
    const StoreCallbacks former(world.store);
    TrustedEnd::install(world.store);
    EXPECT_EQ(X509_STORE_CTX_init(context.get(), world.store, leaf.get(), nullptr), 1);
  }

  Owned<X509> issuerOf(const Issued& issued, int expected = 1) {
    X509* issuer = nullptr;
    EXPECT_EQ(X509_STORE_CTX_get_get_issuer(context.get())(&issuer, context.get(), issued.get()),
              expected);
    return Owned<X509>(issuer);
  }
  // Another certificate with the name and key of the root.
  Issued again(std::chrono::hours notBefore, std::chrono::hours notAfter) const {
    CertificateOptions options{
        .subject = "O=Test,CN=Root", .notBefore = notBefore, .notAfter = notAfter, .ca = true};
    options.key = root.key;
    return issue(options);
  }
};

TEST_F(TrustedEndTest, CallbacksOfTheStore_AreBack) {
  EXPECT_EQ(X509_STORE_get_get_issuer(world.store), nullptr);
  EXPECT_EQ(X509_STORE_get_lookup_certs(world.store), nullptr);
  EXPECT_EQ(X509_STORE_get_check_issued(world.store), nullptr);
}

TEST_F(TrustedEndTest, Issuer_IsFoundInATrustedSource) {
  EXPECT_EQ(issuerOf(leaf, 0), nullptr);
  world.trust(root);
  EXPECT_EQ(issuerOf(leaf).get(), root.get());
  world.source->trustSource(false);
  EXPECT_EQ(issuerOf(leaf, 0), nullptr);
}

// As OpenSSL chooses among what it has itself.
TEST_F(TrustedEndTest, SeveralThatFit_OneThatIsValidNowOrElseTheLatestIsTaken) {
  const Issued old = again(hours(-48), hours(-24));
  const Issued older = again(hours(-48), hours(-36));
  // What it hands out itself does not fit, so that all the others are looked at.
  const Issued stranger = issueCA("O=Test,CN=Root");
  world.source->certificates = {handle(stranger), handle(older), handle(old)};
  EXPECT_EQ(issuerOf(leaf).get(), old.get());
  world.source->certificates = {handle(stranger), handle(old), handle(older)};
  EXPECT_EQ(issuerOf(leaf).get(), old.get());
  world.trust(root);
  EXPECT_EQ(issuerOf(leaf).get(), root.get());
  X509_VERIFY_PARAM_set_time(X509_STORE_CTX_get0_param(context.get()),
                             std::time(nullptr) - 40 * 3600);
  EXPECT_EQ(issuerOf(leaf).get(), old.get());
}

TEST_F(TrustedEndTest, StepOfAPath_IsHandedOutOnceTheStoreHasBegunOne) {
  const Issued inter = issueCA("O=Test,CN=Inter", &root);
  const Issued person = issue({.subject = "O=Test,CN=Person", .issuer = &inter});
  Namesakes namesakes;
  namesakes.add(inter.get());
  namesakes.add(root.get());
  const auto begun = [&](bool yes) { X509_STORE_CTX_set_error_depth(context.get(), yes ? 1 : -1); };
  {
    const Namesakes::Attached attached(namesakes, context.get());
    begun(false);
    EXPECT_EQ(issuerOf(person, 0), nullptr);
    begun(true);
    EXPECT_EQ(issuerOf(person).get(), inter.get());
    EXPECT_EQ(issuerOf(person, 0), nullptr);  // or it would go in circles
    EXPECT_EQ(issuerOf(leaf, 0), nullptr);    // the root ends a path
  }
  const Owned<X509> explicitly(X509_dup(inter.get()));
  X509_add1_trust_object(explicitly.get(), OBJ_nid2obj(NID_anyExtendedKeyUsage));
  Namesakes marked;
  marked.add(explicitly.get());
  {
    const Namesakes::Attached attached(marked, context.get());
    EXPECT_EQ(issuerOf(person, 0), nullptr);  // OpenSSL would let it end one
  }
  const Namesakes::Attached attached(namesakes, context.get());
  X509_VERIFY_PARAM_set_flags(X509_STORE_CTX_get0_param(context.get()), X509_V_FLAG_PARTIAL_CHAIN);
  EXPECT_EQ(issuerOf(person, 0), nullptr);  // so it would any
}

TEST_F(TrustedEndTest, StoresOwnCallbacks_AreAskedFirst) {
  static X509* answer = nullptr;
  const Issued stranger = issueCA("O=Test,CN=Stranger");
  answer = stranger.get();
  X509_STORE_set_get_issuer(world.store, [](X509** issuer, X509_STORE_CTX*, X509*) {
    X509_up_ref(answer);
    *issuer = answer;
    return 1;
  });
  EXPECT_EQ(issuerOf(leaf).get(), stranger.get());
  X509_STORE_set_get_issuer(world.store, [](X509**, X509_STORE_CTX*, X509*) { return -1; });
  EXPECT_EQ(issuerOf(leaf, -1), nullptr);
}

TEST_F(TrustedEndTest, ExceptionOfASource_IsParkedAndAnswersThatItFailed) {
  struct Broken {};
  world.source->onQuery = [](Query, const DistinguishedName&) { throw Broken(); };
  VerificationRun run(nullptr);
  EXPECT_EQ(issuerOf(leaf, 0), nullptr);
  EXPECT_TRUE(run.hasParked());
  EXPECT_EQ(issuerOf(leaf, -1), nullptr);
  EXPECT_EQ(X509_STORE_CTX_get_lookup_certs(context.get())(context.get(),
                                                           X509_get_subject_name(root.get())),
            nullptr);
}

TEST_F(TrustedEndTest, LookupOfCertificates_FindsTrustedOnes) {
  const auto count = [&] {
    const Owned<STACK_OF(X509)> found(X509_STORE_CTX_get_lookup_certs(context.get())(
        context.get(), X509_get_subject_name(root.get())));
    return sk_X509_num(found.get());
  };
  EXPECT_EQ(count(), 0);
  world.trust(root);
  world.trust(issueCA("O=Test,CN=Root"));
  EXPECT_EQ(count(), 2);
  world.source->trustSource(false);
  EXPECT_EQ(count(), 0);
}

}  // namespace
}  // namespace Velantrix::Test
