#include "support/LogCapture.h"
#include "unit/verify/World.h"

#include <gtest/gtest.h>
#include <stdexcept>

namespace Velantrix::Test {
namespace {

using std::chrono::hours;

class VerifierTest : public testing::Test {
 protected:
  const Issued root = issueCA("O=Test,CN=Root");
  const Issued inter = issueCA("O=Test,CN=Inter", &root);
  const Issued leaf = issue({.subject = "O=Test,CN=Leaf", .issuer = &inter});
  World world;
  LogCapture log;

  VerifierTest() { world.trust(root); }

  void publishAll() {
    world.trust(inter);
    world.publish({.issuer = &root});
    world.publish({.issuer = &inter});
  }
  static Verifier::Config withFlags(unsigned long flags) {
    Verifier::Config config;
    config.flags = static_cast<int>(flags);
    return config;
  }
  static X509_VERIFY_PARAM* param(const Verifier& verifier) {
    return X509_STORE_CTX_get0_param(verifier);
  }
};

TEST_F(VerifierTest, ValidChain_IsZeroAndNothingIsLogged) {
  publishAll();
  for (const bool useOpenSSL : {false, true}) {
    Verifier verifier(world.store, handle(leaf), useOpenSSL);
    EXPECT_EQ(verifier.isValid(), 0);
    EXPECT_EQ(log.text(), "");
  }
}

// Meant so: OpenSSL's level for verification is 0 unless the caller sets one on the context.
TEST_F(VerifierTest, WeakDigestsAndKeys_AreAcceptedUnlessALevelIsSet) {
  const std::shared_ptr<EVP_PKEY> weakKey(EVP_RSA_gen(512), EVP_PKEY_free);
  ASSERT_NE(weakKey, nullptr);
  const Issued rsaRoot =
      issue({.subject = "O=Test,CN=RSA Root", .ca = true, .keyKind = KeyKind::Rsa2048});
  world.trust(rsaRoot);
  world.publish({.issuer = &rsaRoot});
  const CertificateOptions options = {.subject = "O=Test,CN=Person", .issuer = &rsaRoot};
  CertificateOptions weak = options;
  weak.key = weakKey;
  const Issued strong = issue(options);
  const struct {
    const char* name;
    Issued issued;
    int atLevelTwo;
  } rows[] = {
      {"SHA-256", strong, 0},
      {"SHA-1", signedWith(EVP_sha1(), strong, rsaRoot), X509_V_ERR_CA_MD_TOO_WEAK},
      {"MD5", signedWith(EVP_md5(), strong, rsaRoot), X509_V_ERR_CA_MD_TOO_WEAK},
      {"RSA with 512 bits", issue(weak), X509_V_ERR_EE_KEY_TOO_SMALL},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(Verifier(world.store, handle(row.issued), false).isValid(), 0);
    Verifier verifier(world.store, handle(row.issued), false);
    X509_VERIFY_PARAM_set_auth_level(param(verifier), 2);
    EXPECT_EQ(verifier.isValid(), row.atLevelTwo);
  }
}

TEST_F(VerifierTest, UntrustedIntermediate_IsUsedForThePath) {
  world.publish({.issuer = &root});
  world.publish({.issuer = &inter});
  EXPECT_EQ(Verifier(world.store, handle(leaf), false).isValid(),
            X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY);
  // The issuer of the CRL is looked for in the store only, so it goes there too.
  world.store->add(std::list<RefCertificate>{handle(inter)});
  log.clear();
  EXPECT_EQ(Verifier(world.store, handle(leaf), stackOf({inter}), false).isValid(), 0);
  EXPECT_EQ(log.text(), "");
}

TEST_F(VerifierTest, ExpiredWithoutCRLCheck_10AndOneLine) {
  const Issued old = issue({.subject = "O=Test,CN=Old",
                            .issuer = &root,
                            .serial = Serial("0A1B"),
                            .notBefore = hours(-48),
                            .notAfter = hours(-24)});
  Verifier::Config config = withFlags(X509_V_FLAG_X509_STRICT);
  Verifier verifier(world.store, handle(old), RefStackOfCertificate(), config, false);
  EXPECT_EQ(verifier.isValid(), X509_V_ERR_CERT_HAS_EXPIRED);
  EXPECT_EQ(log.text(),
            "7 Certificate, ( CN=Old,O=Test / CN=Root,O=Test serialNumber: 0A1B) is not valid, "
            "certificate has expired\n");
  EXPECT_EQ(world.source->crlQueries, 0);
}

TEST_F(VerifierTest, DefaultFlags_RevocationComesBeforeValidity) {
  const Issued old = issue({.subject = "O=Test,CN=Old",
                            .issuer = &root,
                            .notBefore = hours(-48),
                            .notAfter = hours(-24)});
  EXPECT_EQ(Verifier(world.store, handle(old), false).isValid(), X509_V_ERR_UNABLE_TO_GET_CRL);
  EXPECT_EQ(log.text(), "7 " + failureLine(old, 3) + "\n");
  world.publish({.issuer = &root});
  EXPECT_EQ(Verifier(world.store, handle(old), false).isValid(), X509_V_ERR_CERT_HAS_EXPIRED);
}

TEST_F(VerifierTest, FailureOfAnIntermediate_IsLoggedWithTheLeafsNames) {
  const Issued old = issue({.subject = "O=Test,CN=OldInter",
                            .issuer = &root,
                            .notBefore = hours(-48),
                            .notAfter = hours(-24),
                            .ca = true});
  const Issued person = issue({.subject = "O=Test,CN=Person", .issuer = &old});
  Verifier::Config config = withFlags(X509_V_FLAG_X509_STRICT);
  Verifier verifier(world.store, handle(person), stackOf({old}), config, false);
  EXPECT_EQ(verifier.isValid(), X509_V_ERR_CERT_HAS_EXPIRED);
  EXPECT_EQ(X509_STORE_CTX_get_error_depth(verifier), 1);
  EXPECT_EQ(log.text(), "7 " + failureLine(person, X509_V_ERR_CERT_HAS_EXPIRED) + "\n");
}

TEST_F(VerifierTest, EmptyHandle_IsInvalidAndWithoutALine) {
  Verifier verifier(world.store, RefCertificate(), false);
  EXPECT_EQ(verifier.isValid(), X509_V_ERR_INVALID_CALL);
  EXPECT_EQ(verifier.isValid(), X509_V_ERR_INVALID_CALL);
  EXPECT_EQ(log.text(), "");
}

TEST_F(VerifierTest, StaleOpenSSLErrors_AreCleared) {
  publishAll();
  ERR_raise(ERR_LIB_USER, 1);
  EXPECT_EQ(Verifier(world.store, handle(leaf), false).isValid(), 0);
  EXPECT_EQ(ERR_peek_error(), 0UL);
}

TEST_F(VerifierTest, FailureSticks_ThoughTheSecondCallSucceeds) {
  Probe verifier(world.store, handle(leaf), stackOf({inter}), false);
  EXPECT_EQ(verifier.isValid(), 3);
  publishAll();
  log.clear();
  EXPECT_EQ(verifier.isValid(), 3);
  EXPECT_EQ(verifier.checkCalls, 2);
  EXPECT_EQ(verifier.contextError(), 0);
  EXPECT_EQ(log.text(), "");
}

TEST_F(VerifierTest, SecondCall_ReallyVerifiesAgain) {
  publishAll();
  Probe verifier(world.store, handle(leaf), false);
  EXPECT_EQ(verifier.isValid(), 0);
  EXPECT_EQ(verifier.isValid(), 0);
  world.source->crls.clear();
  EXPECT_EQ(verifier.isValid(), 3);
  EXPECT_EQ(verifier.checkCalls, 3);
  publishAll();
  X509_VERIFY_PARAM_set_time(param(verifier), When(hours(24 * 30)).time());
  EXPECT_EQ(verifier.isValid(), X509_V_ERR_CRL_HAS_EXPIRED);
}

TEST_F(VerifierTest, SecondCall_GathersCRLsAgain) {
  publishAll();
  for (const bool useOpenSSL : {false, true}) {
    Probe verifier(world.store, handle(leaf), useOpenSSL);
    verifier.isValid();
    const int once = verifier.getCRLsCalls;
    EXPECT_GT(once, 0);
    verifier.isValid();
    EXPECT_EQ(verifier.getCRLsCalls, 2 * once);
  }
}

TEST_F(VerifierTest, SecondCallAboutTheLastCertificate_GathersCRLsAgain) {
  publishAll();
  Verifier::Config config = withFlags(X509_V_FLAG_CRL_CHECK);
  Probe verifier(world.store, handle(leaf), RefStackOfCertificate(), config, true);
  EXPECT_EQ(verifier.isValid(), 0);
  EXPECT_EQ(verifier.isValid(), 0);
  EXPECT_EQ(verifier.getCRLsCalls, 2);
}

TEST_F(VerifierTest, SecondCallWithoutCRLs_ForgetsTheLastOnesScoreIssuerAndReasons) {
  publishAll();
  Verifier verifier(world.store, handle(leaf), true);
  EXPECT_EQ(verifier.isValid(), 0);
  EXPECT_NE(verifier.currentCRLScore(), 0U);
  EXPECT_EQ(verifier.currentIssuer(), root.get());
  EXPECT_EQ(verifier.currentReasons(), kAllReasons);
  world.source->crls.clear();
  EXPECT_EQ(verifier.isValid(), X509_V_ERR_UNABLE_TO_GET_CRL);
  EXPECT_EQ(verifier.currentCRLScore(), 0U);
  EXPECT_EQ(verifier.currentIssuer(), nullptr);
  EXPECT_EQ(verifier.currentReasons(), 0U);
}

int g_callbacks = 0;
int countingCallback(int ok, X509_STORE_CTX*) {
  ++g_callbacks;
  return ok;
}

TEST_F(VerifierTest, SecondCall_KeepsWhatTheCallerSet) {
  publishAll();
  X509_STORE_set_purpose(world.store, X509_PURPOSE_ANY);
  // The store has a time of its own, which the caller's replaces.
  X509_VERIFY_PARAM_set_time(X509_STORE_get0_param(world.store), When(hours(24 * 900)).time());
  X509_VERIFY_PARAM_set_flags(X509_STORE_get0_param(world.store), X509_V_FLAG_EXPLICIT_POLICY);
  Verifier verifier(world.store, handle(leaf), false);
  const std::time_t now = When(hours(0)).time();
  const RefStackOfCertificate kept = stackOf({inter});
  int application = 0;
  X509_VERIFY_PARAM_set_time(param(verifier), now);
  X509_VERIFY_PARAM_set_depth(param(verifier), 7);
  X509_VERIFY_PARAM_set_flags(param(verifier), X509_V_FLAG_CHECK_SS_SIGNATURE);
  // Left beside a flag about policies, which X509_VERIFY_PARAM_set_flags would make it follow.
  X509_VERIFY_PARAM_clear_flags(param(verifier), X509_V_FLAG_POLICY_CHECK | X509_V_FLAG_USE_DELTAS);
  X509_STORE_CTX_set_verify_cb(verifier, countingCallback);
  X509_STORE_CTX_set0_untrusted(verifier, kept);
  X509_STORE_CTX_set_ex_data(verifier, 0, &application);
  const unsigned long flags = X509_VERIFY_PARAM_get_flags(param(verifier));

  for (int run = 0; run < 3; ++run) {
    SCOPED_TRACE(run);
    g_callbacks = 0;
    EXPECT_EQ(verifier.isValid(), 0);
    EXPECT_GT(g_callbacks, 0);
    EXPECT_EQ(X509_VERIFY_PARAM_get_time(param(verifier)), now);
    EXPECT_EQ(X509_VERIFY_PARAM_get_depth(param(verifier)), 7);
    EXPECT_EQ(X509_VERIFY_PARAM_get_flags(param(verifier)), flags);
    EXPECT_EQ(X509_STORE_CTX_get_verify_cb(verifier), &countingCallback);
    EXPECT_EQ(X509_STORE_CTX_get0_untrusted(verifier), static_cast<STACK_OF(X509)*>(kept));
    EXPECT_EQ(X509_STORE_CTX_get_ex_data(verifier, 0), &application);
    EXPECT_EQ(Verifier::of(verifier), &verifier);
  }
}

TEST_F(VerifierTest, SecondCall_KeepsPolicies) {
  publishAll();
  Verifier::Config config = withFlags(X509_V_FLAG_POLICY_CHECK | X509_V_FLAG_EXPLICIT_POLICY);
  config.policies = {"1.2.4"};
  const Issued person =
      issue({.subject = "CN=P", .issuer = &root, .extensions = {{"certificatePolicies", "1.2.3"}}});
  Verifier verifier(world.store, handle(person), RefStackOfCertificate(), config, false);
  verifier.policy(ASN1::RefObjectIdentifier("1.2.3"));
  EXPECT_EQ(verifier.isValid(), 0);
  EXPECT_EQ(verifier.isValid(), 0);
  Verifier strict(world.store, handle(person), RefStackOfCertificate(), config, false);
  EXPECT_EQ(strict.isValid(), X509_V_ERR_NO_EXPLICIT_POLICY);
  EXPECT_EQ(strict.isValid(), X509_V_ERR_NO_EXPLICIT_POLICY);
}

// The store's own callbacks, so that it is seen which ones are there.
int storeGetCRL(X509_STORE_CTX*, X509_CRL**, X509*) { return 0; }
int storeCertCRL(X509_STORE_CTX*, X509_CRL*, X509*) { return 1; }
int storeCheckRevocation(X509_STORE_CTX*) { return 1; }

TEST_F(VerifierTest, StoreCallbacks_AreAsTheyWere) {
  X509_STORE* const store = world.store;
  for (const bool useOpenSSL : {false, true}) {
    for (const bool own : {false, true}) {
      X509_STORE_set_get_crl(store, own ? storeGetCRL : nullptr);
      X509_STORE_set_cert_crl(store, own ? storeCertCRL : nullptr);
      X509_STORE_set_check_revocation(store, own ? storeCheckRevocation : nullptr);
      Verifier verifier(world.store, handle(leaf), useOpenSSL);
      const auto expectFormer = [&] {
        EXPECT_EQ(X509_STORE_get_get_crl(store), own ? storeGetCRL : nullptr);
        EXPECT_EQ(X509_STORE_get_cert_crl(store), own ? storeCertCRL : nullptr);
        EXPECT_EQ(X509_STORE_get_check_revocation(store), own ? storeCheckRevocation : nullptr);
      };
      expectFormer();
      EXPECT_NE(X509_STORE_CTX_get_get_crl(verifier), nullptr);
      EXPECT_NE(X509_STORE_CTX_get_get_crl(verifier), &storeGetCRL);
      EXPECT_EQ(X509_STORE_CTX_get_check_revocation(verifier) == storeCheckRevocation,
                useOpenSSL && own);
      verifier.isValid();
      verifier.isValid();
      expectFormer();
    }
  }
}

TEST_F(VerifierTest, Context_LeadsBackToItsVerifier) {
  const Verifier verifier(world.store, handle(leaf), false);
  EXPECT_EQ(Verifier::of(verifier), &verifier);
  EXPECT_EQ(X509_STORE_CTX_get_ex_data(verifier, 0), nullptr);
  const Owned<X509_STORE_CTX> other(X509_STORE_CTX_new());
  ASSERT_EQ(X509_STORE_CTX_init(other.get(), world.store, leaf.get(), nullptr), 1);
  EXPECT_EQ(Verifier::of(other.get()), nullptr);
}

// Calls the verification callback that a verifier installed on a context of another kind.
TEST_F(VerifierTest, VerifyCallback_ByContext) {
  const Verifier verifier(world.store, handle(leaf), false);
  const X509_STORE_CTX_verify_cb callback = X509_STORE_CTX_get_verify_cb(verifier);
  const Owned<X509_STORE_CTX> child(X509_STORE_CTX_new());
  ASSERT_EQ(X509_STORE_CTX_init(child.get(), world.store, inter.get(), nullptr), 1);

  struct Row {
    const char* name;
    X509_STORE_CTX* context;
    int ok;
    int error;
    std::string lines;
  };
  const Row rows[] = {
      {"nothing failed", verifier, 1, X509_V_ERR_CERT_HAS_EXPIRED, ""},
      {"other values of ok", verifier, 2, X509_V_ERR_CERT_HAS_EXPIRED, ""},
      {"own context", verifier, 0, X509_V_ERR_CERT_HAS_EXPIRED,
       "7 " + failureLine(leaf, 10) + "\n"},
      {"own context, no CRL", verifier, 0, 3, "7 " + failureLine(leaf, 3) + "\n"},
      {"child", child.get(), 0, X509_V_ERR_CERT_HAS_EXPIRED, "7 " + failureLine(inter, 10) + "\n"},
      {"child, no CRL", child.get(), 0, 3, ""},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    log.clear();
    X509_STORE_CTX_set_error(row.context, row.error);
    EXPECT_EQ(callback(row.ok, row.context), row.ok);
    EXPECT_EQ(X509_STORE_CTX_get_error(row.context), row.error);
    EXPECT_EQ(log.text(), row.lines);
  }
  log.clear();
  const Owned<X509_STORE_CTX> empty(X509_STORE_CTX_new());
  ASSERT_EQ(X509_STORE_CTX_init(empty.get(), world.store, nullptr, nullptr), 1);
  X509_STORE_CTX_set_error(empty.get(), X509_V_ERR_CERT_HAS_EXPIRED);
  EXPECT_EQ(callback(0, empty.get()), 0);
  EXPECT_EQ(log.text(), "7 ) is not valid, certificate has expired\n");
}

TEST_F(VerifierTest, ReplacedOperations_AreCalled) {
  publishAll();
  Probe own(world.store, handle(leaf), false);
  own.onCheck = [&](const std::list<RefCertificate>& chain) {
    EXPECT_EQ(chain.size(), 3U);
    EXPECT_EQ(chain.front()->native(), leaf.get());
    own.contextError(X509_V_ERR_APPLICATION_VERIFICATION);
    return 0;
  };
  EXPECT_EQ(own.isValid(), X509_V_ERR_APPLICATION_VERIFICATION);
  EXPECT_EQ(own.getCRLsCalls, 0);

  Probe gathering(world.store, handle(leaf), false);
  std::list<X509*> asked;
  gathering.onGetCRLs = [&](const RefCertificate& target, CRLContainer& container) {
    asked.push_back(target->native());
    gathering.Verifier::getCRLs(target, container);
  };
  EXPECT_EQ(gathering.isValid(), 0);
  EXPECT_EQ(asked, (std::list<X509*>{leaf.get(), inter.get()}));
  EXPECT_EQ(gathering.getCRLCalls, 0);

  Probe fetching(world.store, handle(leaf), true);
  fetching.onGetCRL = [](const RefCertificate&) { return RefCertificateRevocationList(); };
  EXPECT_EQ(fetching.isValid(), 3);
  EXPECT_EQ(fetching.getCRLCalls, 1);
  EXPECT_EQ(fetching.getCRLsCalls, 0);
  EXPECT_EQ(fetching.checkCalls, 0);
}

TEST_F(VerifierTest, ErrorWithoutACode_IsStillAFailure) {
  publishAll();
  Probe verifier(world.store, handle(leaf), false);
  verifier.onCheck = [](const std::list<RefCertificate>&) { return 0; };
  EXPECT_EQ(verifier.isValid(), X509_V_ERR_UNSPECIFIED);
}

struct Thrower {
  const char* name;
  std::function<void()> raise;
  std::function<void(const std::function<void()>&)> expect;
};

class Unusual {};

const std::vector<Thrower>& throwers() {
  static const std::vector<Thrower> table = {
      {"Exception",
       [] { throw Exception("Source", Exception::kFailure, "File", 12).stringParameter("detail"); },
       [](const std::function<void()>& run) {
         try {
           run();
           ADD_FAILURE() << "nothing was thrown";
         } catch (const Exception& e) {
           EXPECT_EQ(e.asString(), "Source: detail (4, File:12)");
         }
       }},
      {"std::runtime_error", [] { throw std::runtime_error("text"); },
       [](const std::function<void()>& run) {
         try {
           run();
           ADD_FAILURE() << "nothing was thrown";
         } catch (const std::runtime_error& e) {
           EXPECT_STREQ(e.what(), "text");
         }
       }},
      {"no std::exception", [] { throw Unusual(); },
       [](const std::function<void()>& run) { EXPECT_THROW(run(), Unusual); }},
  };
  return table;
}

TEST_F(VerifierTest, ExceptionsOfASource_ReachTheCallerUnchanged) {
  publishAll();
  for (const bool useOpenSSL : {false, true}) {
    for (const Query query : {Query::Object, Query::Certificates, Query::CRLs}) {
      for (const Thrower& thrower : throwers()) {
        SCOPED_TRACE(std::string(thrower.name) + (useOpenSSL ? ", OpenSSL's check, " : ", ") +
                     std::to_string(static_cast<int>(query)));
        World other;
        other.source->certificates = world.source->certificates;
        other.source->crls = world.source->crls;
        bool raised = false;
        int after = 0;
        other.source->onQuery = [&](Query what, const DistinguishedName&) {
          if (raised) ++after;
          if (what != query || raised) return;
          raised = true;
          thrower.raise();
        };
        Verifier verifier(other.store, handle(leaf), useOpenSSL);
        thrower.expect([&] { verifier.isValid(); });
        EXPECT_TRUE(raised);
        EXPECT_EQ(after, 0) << "a source was asked after it had thrown";
        // Nothing is left behind: the next run verifies.
        EXPECT_EQ(verifier.isValid(), 0);
      }
    }
  }
}

TEST_F(VerifierTest, ExceptionsOfOverrides_ReachTheCallerUnchanged) {
  publishAll();
  for (const Thrower& thrower : throwers()) {
    SCOPED_TRACE(thrower.name);
    Probe checking(world.store, handle(leaf), false);
    checking.onCheck = [&](const std::list<RefCertificate>&) {
      thrower.raise();
      return 1;
    };
    thrower.expect([&] { checking.isValid(); });
    Probe fetching(world.store, handle(leaf), true);
    fetching.onGetCRL = [&](const RefCertificate&) {
      thrower.raise();
      return RefCertificateRevocationList();
    };
    thrower.expect([&] { fetching.isValid(); });
    EXPECT_EQ(fetching.getCRLCalls, 1);
    for (const bool useOpenSSL : {false, true}) {
      Probe gathering(world.store, handle(leaf), useOpenSSL);
      gathering.onGetCRLs = [&](const RefCertificate&, CRLContainer&) { thrower.raise(); };
      thrower.expect([&] { gathering.isValid(); });
      thrower.expect([&] { gathering.isValid(); });
      EXPECT_EQ(gathering.getCRLsCalls, 2);
    }
  }
  EXPECT_EQ(log.text(), "");
}

TEST_F(VerifierTest, ExceptionWinsOverACallbackThatAcceptsEverything) {
  world.source->onQuery = [](Query, const DistinguishedName&) { throw std::runtime_error("gone"); };
  for (const bool useOpenSSL : {false, true}) {
    Verifier verifier(world.store, handle(leaf), useOpenSSL);
    X509_STORE_CTX_set_verify_cb(verifier, [](int, X509_STORE_CTX*) { return 1; });
    EXPECT_THROW(verifier.isValid(), std::runtime_error);
  }
}

TEST_F(VerifierTest, VerifyingAgainFromWithin_IsRefusedAsACircle) {
  publishAll();
  Probe verifier(world.store, handle(leaf), false);
  int inner = -1;
  verifier.onCheck = [&](const std::list<RefCertificate>& chain) {
    inner = verifier.isValid();
    verifier.contextError(0);
    return verifier.Verifier::checkRevocationStatus(chain);
  };
  verifier.isValid();
  EXPECT_EQ(inner, X509_V_ERR_CRL_PATH_VALIDATION_ERROR);
}

TEST_F(VerifierTest, StoreOutlivesTheCallersHandle) {
  publishAll();
  auto own = std::make_unique<World>();
  own->source->certificates = world.source->certificates;
  own->source->crls = world.source->crls;
  Verifier verifier(own->store, handle(leaf), false);
  own.reset();
  EXPECT_EQ(verifier.isValid(), 0);
}

TEST_F(VerifierTest, EmptyStore_StopsTheProcess) {
  EXPECT_DEATH(Verifier(RefObjectStore(), handle(leaf), false), "px != 0");
}

}  // namespace
}  // namespace Velantrix::Test
