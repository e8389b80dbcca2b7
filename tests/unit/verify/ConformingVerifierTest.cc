#include "foundation/run/VerificationRun.h"
#include "support/Files.h"
#include "support/LogCapture.h"
#include "unit/verify/World.h"

#include <pkx509/ConformingVerifier.h>

#include <algorithm>
#include <ctime>
#include <gtest/gtest.h>
#include <stdexcept>
#include <vector>

namespace Velantrix::Test {
namespace {

using std::chrono::hours;

constexpr int kNoIssuer = X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY;
constexpr int kUndetermined = X509_V_ERR_UNABLE_TO_GET_CRL;
constexpr unsigned long kWholePath = X509_V_FLAG_CRL_CHECK | X509_V_FLAG_CRL_CHECK_ALL;

Verifier::Config withFlags(unsigned long flags) {
  Verifier::Config config;
  config.flags = static_cast<int>(flags);
  return config;
}

X509_VERIFY_PARAM* param(const Verifier& verifier) { return X509_STORE_CTX_get0_param(verifier); }

int letPass(int /*ok*/, X509_STORE_CTX* /*context*/) { return 1; }

class ConformingVerifierTest : public testing::Test {
 protected:
  const Issued root = issueCA("O=Test,CN=Root");
  const Issued inter = issueCA("O=Test,CN=Inter", &root);
  const Issued leaf = issue({.subject = "O=Test,CN=Leaf", .issuer = &inter});
  World world;
  MemorySource* directory = addDirectory(world);  // as users write into it
  LogCapture log;

  static MemorySource* addDirectory(World& world) {
    auto* const source = new MemorySource;
    source->trustSource(false);
    world.store->add(RefLookupMethod(source));
    return source;
  }
  void publishAll() {
    world.publish({.issuer = &root});
    world.publish({.issuer = &inter});
  }
  // With these flags alone.
  int verdict(const Issued& issued, const std::list<Issued>& untrusted = {},
              unsigned long flags = 0, int level = 2) {
    return verdict(world.store, issued, untrusted, flags, level);
  }
  static int verdict(const RefObjectStore& store, const Issued& issued,
                     const std::list<Issued>& untrusted, unsigned long flags, int level = 2) {
    Verifier::Config config = withFlags(flags);
    RevocationSettings settings;
    settings.securityLevel = level;
    ConformingVerifier verifier(store, handle(issued), stackOf(untrusted), config, settings);
    const int result = verifier.isValid();
    X509_VERIFY_PARAM_clear_flags(X509_STORE_get0_param(store), flags);
    return result;
  }
};

// --- the path ---

TEST_F(ConformingVerifierTest, IntermediateFromEverySource_IsUsed) {
  world.trust(root);
  EXPECT_EQ(verdict(leaf), kNoIssuer);
  EXPECT_EQ(verdict(leaf, {inter}), 0);
  directory->certificates.push_back(handle(inter));
  EXPECT_EQ(verdict(leaf), 0);
  directory->certificates.clear();
  world.store->add(std::list<RefCertificate>{handle(inter)});
  EXPECT_EQ(verdict(leaf), 0);
}

TEST_F(ConformingVerifierTest, NothingTrusted_IsInvalidAndLogged) {
  EXPECT_EQ(verdict(leaf, {inter}), kNoIssuer);
  EXPECT_TRUE(log.text().starts_with("7 " + failureLine(leaf, kNoIssuer) +
                                     "\n5 issuer-unknown: CN=Inter,O=Test (depth 1, "))
      << log.text();
}

TEST_F(ConformingVerifierTest, EmptyHandle_IsInvalid) {
  EXPECT_EQ(ConformingVerifier(world.store, RefCertificate()).isValid(), X509_V_ERR_INVALID_CALL);
}

// OpenSSL looks into its store only once it has found an issuer there.
TEST_F(ConformingVerifierTest, TrustedIntermediateBelowAnUntrustedOne_ReachesTheRoot) {
  const Issued lower = issueCA("O=Test,CN=Lower", &inter);
  const Issued person = issue({.subject = "O=Test,CN=Person", .issuer = &lower});
  world.trust(root);
  world.trust(lower);
  EXPECT_EQ(verdict(person), X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT);
  EXPECT_EQ(verdict(person, {inter}), 0);
}

TEST_F(ConformingVerifierTest, CAsThatCertifyEachOther_EndInAVerdict) {
  const Issued first = issueCA("O=Test,CN=First");
  const Issued second = issueCA("O=Test,CN=Second", &first);
  CertificateOptions options{.subject = "O=Test,CN=First", .issuer = &second, .ca = true};
  options.key = first.key;
  const Issued crossed = issue(options);
  const Issued person = issue({.subject = "O=Test,CN=Person", .issuer = &second});
  world.trust(second);
  EXPECT_EQ(verdict(person, {crossed}), X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT);
}

// What is found only later is tried as well; what has been wrong meanwhile is no news then.
TEST_F(ConformingVerifierTest, SecondAttempt_LeavesNoTraceOfTheFirst) {
  const Issued stranger = issueCA("O=Test,CN=Stranger");
  CertificateOptions options{.subject = "O=Test,CN=Inter", .issuer = &stranger, .ca = true};
  options.key = inter.key;
  const Issued misleading = issue(options);
  world.trust(root);
  EXPECT_EQ(verdict(leaf, {misleading}), kNoIssuer);
  log.clear();
  directory->certificates.push_back(handle(inter));
  EXPECT_EQ(verdict(leaf, {misleading}), 0);
  EXPECT_EQ(log.text(), "");
  EXPECT_EQ(verdict(leaf, {misleading, inter}), 0);
  // A signature that is wrong is what OpenSSL queues an error for.
  CertificateOptions anonymous{.subject = "O=Test,CN=CA", .issuer = &root, .ca = true};
  anonymous.subjectKeyId = KeyId::Absent;
  const Issued before = issue(anonymous);
  const Issued after = issue(anonymous);
  const Issued person = issue({.subject = "O=Test,CN=Person", .issuer = &after});
  directory->certificates.push_back(handle(after));
  EXPECT_EQ(verdict(person, {before}), 0);
  EXPECT_EQ(log.text(), "");
  EXPECT_EQ(ERR_peek_error(), 0UL);
}

TEST_F(ConformingVerifierTest, FailureOfThePath_NoSourceIsAskedForRevocation) {
  const Issued old = issue({.subject = "O=Test,CN=Old",
                            .issuer = &root,
                            .notBefore = hours(-48),
                            .notAfter = hours(-24)});
  CertificateOptions options{.subject = "O=Test,CN=Forged", .issuer = &root};
  options.badSignature = true;
  const Issued forged = issue(options);
  world.trust(root);
  publishAll();
  for (const auto& [issued, code] : {std::pair(old, X509_V_ERR_CERT_HAS_EXPIRED),
                                     std::pair(forged, X509_V_ERR_CERT_SIGNATURE_FAILURE)}) {
    EXPECT_EQ(ConformingVerifier(world.store, handle(issued)).isValid(), code);
  }
  EXPECT_EQ(world.source->crlQueries + directory->crlQueries, 0);
}

TEST_F(ConformingVerifierTest, StrictnessIsNotAmongTheDefaults) {
  // RFC 5280, 4.2.1.2, asks for a subject key identifier in a CA's certificate; OpenSSL only where it
  // is to be strict.
  CertificateOptions options{.subject = "O=Test,CN=Plain", .issuer = &root, .ca = true};
  options.subjectKeyId = KeyId::Absent;
  const Issued plain = issue(options);
  const Issued person = issue({.subject = "O=Test,CN=Person", .issuer = &plain});
  world.trust(root);
  EXPECT_EQ(verdict(person, {plain}), 0);
  EXPECT_NE(verdict(person, {plain}, X509_V_FLAG_X509_STRICT), 0);
  EXPECT_EQ(ConformingVerifier::kDefaultFlags & X509_V_FLAG_X509_STRICT, 0);
  ConformingVerifier verifier(RefObjectStore("", X509_FILETYPE_PEM), handle(person));
  EXPECT_EQ(X509_VERIFY_PARAM_get_flags(param(verifier)) & X509_V_FLAG_X509_STRICT, 0U);
}

// --- trust ---

TEST_F(ConformingVerifierTest, SelfSignedFromADirectoryOfUsers_EndsNoPath) {
  const Issued fake = issueCA("O=Test,CN=Fake");
  const Issued person = issue({.subject = "O=Test,CN=Person", .issuer = &fake});
  directory->certificates.push_back(handle(fake));
  world.trust(root);
  EXPECT_EQ(verdict(person), X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN);
  EXPECT_EQ(verdict(fake), X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT);
  EXPECT_NE(verdict(person, {}, X509_V_FLAG_PARTIAL_CHAIN), 0);
  EXPECT_NE(verdict(fake, {}, X509_V_FLAG_PARTIAL_CHAIN), 0);
  // For the classic verifier it does, and it is in the store from then on.
  Verifier::Config config = withFlags(0);
  EXPECT_EQ(Verifier(world.store, handle(person), stackOf({}), config, false).isValid(), 0);
  EXPECT_NE(verdict(person), 0);
  directory->trustSource(true);
  EXPECT_EQ(verdict(person), 0);
}

// As an LDAPLookupMethod does it.
TEST_F(ConformingVerifierTest, WhatAnUntrustedSourceAddsToTheStore_EndsNoPath) {
  const Issued fake = issueCA("O=Test,CN=Fake");
  const Issued person = issue({.subject = "O=Test,CN=Person", .issuer = &fake});
  directory->certificates.push_back(handle(fake));
  directory->onQuery = [&](Query query, const DistinguishedName&) {
    if (query == Query::Object) X509_STORE_add_cert(world.store, fake.get());
  };
  Verifier::Config config = withFlags(0);
  EXPECT_EQ(Verifier(world.store, handle(person), stackOf({}), config, false).isValid(), 0);
  ASSERT_EQ(sk_X509_OBJECT_num(X509_STORE_get0_objects(world.store)), 1);
  EXPECT_EQ(verdict(person), X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN);
  for (const Issued& issued : {person, fake}) {
    EXPECT_NE(verdict(issued, {}, X509_V_FLAG_PARTIAL_CHAIN), 0);
  }
}

TEST_F(ConformingVerifierTest, IntermediateFromADirectoryOfUsers_EndsNoPartialChain) {
  directory->certificates.push_back(handle(inter));
  EXPECT_NE(verdict(leaf, {}, X509_V_FLAG_PARTIAL_CHAIN), 0);
  Verifier::Config config = withFlags(X509_V_FLAG_PARTIAL_CHAIN);
  EXPECT_EQ(Verifier(world.store, handle(leaf), stackOf({}), config, false).isValid(), 0);
  EXPECT_NE(verdict(leaf, {inter}, X509_V_FLAG_PARTIAL_CHAIN), 0);
  world.trust(inter);
  EXPECT_EQ(verdict(leaf, {}, X509_V_FLAG_PARTIAL_CHAIN), 0);
  EXPECT_EQ(verdict(inter, {}, X509_V_FLAG_PARTIAL_CHAIN), 0);
}

TEST_F(ConformingVerifierTest, SameOctetsInATrustedSource_EndAPath) {
  directory->certificates.push_back(handle(root));
  world.store->add(RefLookupMethod(new MemorySource));
  Verifier::Config config = withFlags(0);
  EXPECT_EQ(Verifier(world.store, handle(leaf), stackOf({inter}), config, false).isValid(), 0);
  EXPECT_NE(verdict(leaf, {inter}), 0);
  world.trust(root);
  EXPECT_EQ(verdict(leaf, {inter}), 0);
}

// OpenSSL does not look into the directory for a name that its store has already.
TEST_F(ConformingVerifierTest, SameOctetsInADirectoryOfTheStore_EndAPath) {
  const TempDir own;
  const TempDir further;
  for (const bool inOwn : {true, false}) {
    RefObjectStore store(own.path().string(), X509_FILETYPE_PEM);
    store->add(further.path().string(), X509_FILETYPE_PEM);
    auto* const users = new MemorySource;
    users->trustSource(false);
    users->certificates.push_back(handle(root));
    users->onQuery = [&](Query, const DistinguishedName&) {
      X509_STORE_add_cert(store, root.get());
    };
    store->add(RefLookupMethod(users));
    Verifier::Config config = withFlags(0);
    EXPECT_EQ(Verifier(store, handle(leaf), stackOf({inter}), config, false).isValid(), 0);
    EXPECT_EQ(verdict(store, leaf, {inter}, 0), X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN);
    addToDirectory(inOwn ? own.path() : further.path(), root.get());
    EXPECT_EQ(verdict(store, leaf, {inter}, 0), 0);
    std::filesystem::remove(own.path() / hashName(root.get()));
  }
}

TEST_F(ConformingVerifierTest, WhatAProgramPutIntoTheStoreItself_EndsAPath) {
  X509_STORE_add_cert(world.store, root.get());
  EXPECT_EQ(verdict(leaf, {inter}), 0);
}

// Its lists are for something else, certificates of people for example.
TEST_F(ConformingVerifierTest, SourceThatAnswersOpenSSLWithNothing_EndsNoPath) {
  class ListsOnly : public MemorySource {
   public:
    using MemorySource::getBySubject;
    RefObject getBySubject(Object::Type, const DistinguishedName&) override { return {}; }
  };
  auto* const lists = new ListsOnly;
  lists->certificates.push_back(handle(root));
  world.store->add(RefLookupMethod(lists));
  EXPECT_EQ(verdict(leaf, {inter}), X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN);
}

TEST_F(ConformingVerifierTest, UntrustedSources_AreNotAskedForAnchors) {
  world.trust(root);
  EXPECT_EQ(verdict(leaf, {inter}), 0);
  EXPECT_EQ(directory->certificateQueries, 0);  // a valid path needs nobody else
  EXPECT_EQ(verdict(leaf), kNoIssuer);
  EXPECT_GT(directory->certificateQueries, 0);
  EXPECT_EQ(directory->objectQueries, 0);
}

// --- several of one name ---

struct Rollover {
  KeyId subjectKeyId;
  KeyId authorityKeyId;
};

class ConformingRolloverTest : public ConformingVerifierTest,
                               public testing::WithParamInterface<Rollover> {
 protected:
  CertificateOptions options(const std::string& subject, const Issued* issuer, bool ca) const {
    CertificateOptions result{.subject = subject, .issuer = issuer, .ca = ca};
    result.subjectKeyId = GetParam().subjectKeyId;
    result.authorityKeyId = GetParam().authorityKeyId;
    return result;
  }
};

INSTANTIATE_TEST_SUITE_P(KeyIdentifiers, ConformingRolloverTest,
                         testing::Values(Rollover{KeyId::Right, KeyId::Right},
                                         Rollover{KeyId::Absent, KeyId::Absent}));

TEST_P(ConformingRolloverTest, IntermediatesOfOneName_TheRightOneIsTaken) {
  const Issued before = issue(options("O=Test,CN=CA", &root, true));
  const Issued after = issue(options("O=Test,CN=CA", &root, true));
  const Issued ofBefore = issue(options("O=Test,CN=A", &before, false));
  const Issued ofAfter = issue(options("O=Test,CN=B", &after, false));
  world.trust(root);
  for (const bool turned : {false, true}) {
    for (MemorySource* const source : {world.source, directory}) {
      source->certificates = {handle(turned ? after : before), handle(turned ? before : after)};
      if (source == world.source) world.trust(root);
      EXPECT_EQ(verdict(ofBefore), 0) << turned;
      EXPECT_EQ(verdict(ofAfter), 0) << turned;
      source->certificates.clear();
      world.source->certificates = {handle(root)};
    }
    const std::list<Issued> stack = turned ? std::list{after, before} : std::list{before, after};
    EXPECT_EQ(verdict(ofBefore, stack), 0) << turned;
    EXPECT_EQ(verdict(ofAfter, stack), 0) << turned;
  }
}

TEST_P(ConformingRolloverTest, RootsOfOneName_TheRightOneIsTaken) {
  const Issued before = issue(options("O=Test,CN=Top", nullptr, true));
  const Issued after = issue(options("O=Test,CN=Top", nullptr, true));
  const Issued ofBefore = issue(options("O=Test,CN=A", &before, false));
  const Issued ofAfter = issue(options("O=Test,CN=B", &after, false));
  for (const bool turned : {false, true}) {
    world.source->certificates = {handle(turned ? after : before), handle(turned ? before : after)};
    EXPECT_EQ(verdict(ofBefore), 0) << turned;
    EXPECT_EQ(verdict(ofAfter), 0) << turned;
  }
  // One here and one there.
  const TempDir trusted;
  addToDirectory(trusted.path(), before.get());
  RefObjectStore store(trusted.path().string(), X509_FILETYPE_PEM);
  auto* const source = new MemorySource;
  source->certificates.push_back(handle(after));
  store->add(RefLookupMethod(source));
  EXPECT_EQ(verdict(store, ofBefore, {}, 0), 0);
  EXPECT_EQ(verdict(store, ofAfter, {}, 0), 0);
  source->trustSource(false);
  EXPECT_NE(verdict(store, ofAfter, {}, 0), 0);
}

// --- strength ---

TEST_F(ConformingVerifierTest, SecurityLevel_IsALeastOne) {
  static const std::shared_ptr<EVP_PKEY> weakKey(EVP_RSA_gen(1024), EVP_PKEY_free);
  CertificateOptions options{.subject = "O=Test,CN=Weak", .issuer = &root};
  const Issued bySHA1 = signedWith(EVP_sha1(), issue(options), root);
  options.key = weakKey;
  const Issued weak = issue(options);
  CertificateOptions middle{.subject = "O=Test,CN=Middle", .issuer = &root};
  middle.keyKind = KeyKind::Rsa2048;
  const Issued rsa2048 = issue(middle);
  world.trust(root);
  const struct {
    const Issued& issued;
    int verdicts[6];  // from level 0 on
  } rows[] = {{weak, {0, 0, 66, 66, 66, 66}},
              {bySHA1, {0, 68, 68, 68, 66, 66}},
              {rsa2048, {0, 0, 0, 66, 66, 66}}};
  for (const auto& row : rows) {
    for (int level = 0; level < 6; ++level) {
      EXPECT_EQ(verdict(row.issued, {}, 0, level), row.verdicts[level]) << level;
    }
    EXPECT_EQ(verdict(row.issued, {}, 0, -7), row.verdicts[0]);
    EXPECT_EQ(verdict(row.issued, {}, 0, 7), row.verdicts[5]);
  }
  EXPECT_EQ(RevocationSettings().securityLevel, 2);
  EXPECT_EQ(ConformingVerifier(world.store, handle(weak)).isValid(), 66);
  // The context's own counts where it is higher.
  Verifier::Config config = withFlags(0);
  ConformingVerifier strict(world.store, handle(rsa2048), stackOf({}), config);
  X509_VERIFY_PARAM_set_auth_level(param(strict), 3);
  EXPECT_EQ(strict.isValid(), 66);
  EXPECT_EQ(X509_VERIFY_PARAM_get_auth_level(param(strict)), 3);
}

// --- the context ---

TEST_F(ConformingVerifierTest, Parameters_AreAsTheyWereAfterwards) {
  world.trust(root);
  const std::list<Issued> stacks[] = {{inter}, {}};
  for (const std::list<Issued>& untrusted : stacks) {
    const RefStackOfCertificate stack = stackOf(untrusted);
    ConformingVerifier verifier(world.store, handle(leaf), stack);
    for (int again = 0; again < 2; ++again) {
      const unsigned long flags = X509_VERIFY_PARAM_get_flags(param(verifier));
      EXPECT_NE(flags & kWholePath, 0U);
      EXPECT_EQ(verifier.isValid(), untrusted.empty() ? kNoIssuer : kUndetermined);
      EXPECT_EQ(X509_VERIFY_PARAM_get_flags(param(verifier)), flags);
      EXPECT_EQ(X509_VERIFY_PARAM_get_time(param(verifier)), 0);
      EXPECT_EQ(X509_VERIFY_PARAM_get_auth_level(param(verifier)), -1);
      EXPECT_EQ(X509_STORE_CTX_get0_untrusted(verifier), stack.operator stack_st_X509*());
    }
  }
}

TEST_F(ConformingVerifierTest, TimeOfTheCaller_HoldsAndStays) {
  const Issued old = issue({.subject = "O=Test,CN=Old",
                            .issuer = &root,
                            .notBefore = hours(-23),
                            .notAfter = hours(-21)});
  world.trust(root);
  Verifier::Config config = withFlags(0);
  const std::time_t then = std::time(nullptr) - 22 * 3600;
  ConformingVerifier verifier(world.store, handle(old), stackOf({}), config);
  X509_VERIFY_PARAM_set_time(param(verifier), then);
  EXPECT_EQ(verifier.isValid(), 0);
  EXPECT_EQ(X509_VERIFY_PARAM_get_time(param(verifier)), then);
  EXPECT_NE(X509_VERIFY_PARAM_get_flags(param(verifier)) & X509_V_FLAG_USE_CHECK_TIME, 0U);
  EXPECT_EQ(verdict(old), X509_V_ERR_CERT_HAS_EXPIRED);
  ConformingVerifier timeless(world.store, handle(old), stackOf({}), config);
  X509_VERIFY_PARAM_set_flags(param(timeless), X509_V_FLAG_NO_CHECK_TIME);
  EXPECT_EQ(timeless.isValid(), 0);
  EXPECT_EQ(X509_VERIFY_PARAM_get_flags(param(timeless)) & X509_V_FLAG_USE_CHECK_TIME, 0U);
}

TEST_F(ConformingVerifierTest, SecondCall_VerifiesAgainAndAFailureSticks) {
  Verifier::Config config = withFlags(0);
  const RefStackOfCertificate stack = stackOf({inter});
  ConformingVerifier good(world.store, handle(leaf), stack, config);
  ConformingVerifier bad(world.store, handle(leaf), stack, config);
  EXPECT_EQ(bad.isValid(), kNoIssuer);
  world.trust(root);
  EXPECT_EQ(good.isValid(), 0);
  EXPECT_EQ(good.isValid(), 0);
  EXPECT_EQ(bad.isValid(), kNoIssuer);
  // What has taken two attempts is done again as well.
  directory->certificates.push_back(handle(inter));
  ConformingVerifier gathering(world.store, handle(leaf), stackOf({}), config);
  EXPECT_EQ(gathering.isValid(), 0);
  EXPECT_EQ(gathering.isValid(), 0);
  world.source->certificates.clear();
  directory->certificates.clear();
  EXPECT_EQ(gathering.isValid(), kNoIssuer);
  EXPECT_EQ(good.isValid(), kNoIssuer);
}

TEST_F(ConformingVerifierTest, ExceptionsOfSources_LeaveItUnchangedAndTheContextAsItWas) {
  struct Broken {};
  for (const Query broken : {Query::Object, Query::Certificates}) {
    world.source->onQuery = [&](Query query, const DistinguishedName&) {
      if (query == broken) throw Broken();
    };
    world.source->certificates = {handle(inter)};
    const RefStackOfCertificate stack = stackOf({leaf});
    ConformingVerifier verifier(world.store, handle(leaf), stack);
    const unsigned long flags = X509_VERIFY_PARAM_get_flags(param(verifier));
    STACK_OF(X509)* const untrusted = X509_STORE_CTX_get0_untrusted(verifier);
    EXPECT_THROW(verifier.isValid(), Broken);
    EXPECT_EQ(X509_VERIFY_PARAM_get_flags(param(verifier)), flags);
    EXPECT_EQ(X509_STORE_CTX_get0_untrusted(verifier), untrusted);
    EXPECT_EQ(world.source->crlQueries, 0);
    world.source->onQuery = nullptr;
    world.trust(root);
    EXPECT_EQ(verifier.isValid(), kUndetermined);
    world.source->crlQueries = 0;
  }
}

// --- now ---

TEST_F(ConformingVerifierTest, NestedVerification_HasTheSameNow) {
  world.trust(root);
  std::vector<std::time_t> times;
  static std::vector<std::time_t>* seen = nullptr;
  seen = &times;
  const auto note = [](int ok, X509_STORE_CTX* context) {
    seen->push_back(X509_VERIFY_PARAM_get_time(X509_STORE_CTX_get0_param(context)));
    return ok;
  };
  const Issued other = issue({.subject = "O=Test,CN=Other", .issuer = &root});
  bool nested = false;
  directory->onQuery = [&](Query, const DistinguishedName&) {
    if (std::exchange(nested, true)) return;
    const std::time_t begun = std::time(nullptr);
    while (std::time(nullptr) == begun) {
    }
    Verifier::Config config = withFlags(0);
    ConformingVerifier inner(world.store, handle(other), stackOf({}), config);
    X509_STORE_CTX_set_verify_cb(inner, note);
    EXPECT_EQ(inner.isValid(), 0);
  };
  Verifier::Config config = withFlags(0);
  ConformingVerifier outer(world.store, handle(leaf), stackOf({inter}), config);
  X509_STORE_CTX_set_verify_cb(outer, note);
  const std::time_t before = std::time(nullptr);
  EXPECT_EQ(outer.isValid(), 0);
  ASSERT_GT(times.size(), 1U);
  EXPECT_TRUE(std::equal(times.begin() + 1, times.end(), times.begin()));
  EXPECT_NEAR(static_cast<double>(times.front() - before), 0, 1);
}

// --- which certificates are decided ---

TEST_F(ConformingVerifierTest, Flags_SayWhoseRevocationIsDecided) {
  world.trust(root);
  const RefStackOfCertificate stack = stackOf({inter});
  const struct {
    unsigned long flags;
    int verdict;
    int depth;
  } rows[] = {{0, 0, 0},
              {X509_V_FLAG_CRL_CHECK_ALL, 0, 0},
              {X509_V_FLAG_CRL_CHECK, kUndetermined, 0},
              {kWholePath, kUndetermined, 1}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.flags);
    const RefObjectStore store = world.store->clone();
    Verifier::Config config = withFlags(row.flags);
    log.clear();
    ConformingVerifier verifier(store, handle(leaf), stack, config);
    EXPECT_EQ(verifier.isValid(), row.verdict);
    if (row.verdict == 0) continue;
    EXPECT_EQ(X509_STORE_CTX_get_error(verifier), row.verdict);
    EXPECT_EQ(X509_STORE_CTX_get_error_depth(verifier), row.depth);
    EXPECT_EQ(log.text(), "7 " + failureLine(row.depth == 0 ? leaf : inter, kUndetermined) +
                              "\n5 " + verifier.report().line() + "\n");
  }
}

TEST_F(ConformingVerifierTest, TrustAnchor_IsNotDecided) {
  world.trust(root);
  EXPECT_EQ(ConformingVerifier(world.store, handle(root)).isValid(), 0);
  EXPECT_EQ(world.source->crlQueries, 0);
}

TEST_F(ConformingVerifierTest, Revocation_IsDecidedFromTheAnchorDown) {
  world.trust(root);
  const RefStackOfCertificate stack = stackOf({inter});
  const auto publish = [&](bool interRevoked, bool leafRevoked) {
    world.source->crls.clear();
    std::vector<Revoked> ofRoot;
    std::vector<Revoked> ofInter;
    if (interRevoked) ofRoot.push_back({.serial = inter});
    if (leafRevoked) ofInter.push_back({.serial = leaf});
    world.publish({.issuer = &root, .revoked = ofRoot});
    world.publish({.issuer = &inter, .revoked = ofInter});
  };
  const struct {
    bool interRevoked;
    bool leafRevoked;
    int verdict;
    int depth;
  } rows[] = {
      {false, false, 0, 0}, {false, true, 23, 0}, {true, false, 23, 1}, {true, true, 23, 1}};
  for (const auto& row : rows) {
    publish(row.interRevoked, row.leafRevoked);
    log.clear();
    ConformingVerifier verifier(world.store, handle(leaf), stack);
    for (int again = 0; again < 2; ++again) {
      EXPECT_EQ(verifier.isValid(), row.verdict);
      EXPECT_EQ(verifier.contextError(), row.verdict);
      EXPECT_EQ(X509_STORE_CTX_get_error_depth(verifier), row.depth);
    }
    const std::string line = "7 " + failureLine(row.depth == 1 ? inter : leaf, 23) + "\n5 " +
                             verifier.report().line() + "\n";
    EXPECT_EQ(log.text(), row.verdict == 0 ? "" : line + line);
    // The certificate alone.
    Verifier::Config config = withFlags(X509_V_FLAG_CRL_CHECK);
    RefObjectStore store = world.store->clone();
    ConformingVerifier alone(store, handle(leaf), stack, config);
    EXPECT_EQ(alone.isValid(), row.leafRevoked ? 23 : 0);
  }
}

TEST_F(ConformingVerifierTest, ListOfATrustedPath_IsDecided) {
  world.trust(root);
  const std::list<RefCertificate> path = {handle(leaf), handle(inter), handle(root)};
  ConformingVerifier verifier(world.store, handle(leaf));
  EXPECT_EQ(verifier.checkRevocationStatus(path), 0);
  EXPECT_EQ(verifier.contextError(), kUndetermined);
  EXPECT_GT(world.source->crlQueries, 0);
  publishAll();
  EXPECT_EQ(ConformingVerifier(world.store, handle(leaf)).checkRevocationStatus(path), 1);
  world.publish({.issuer = &inter, .number = Serial(2), .revoked = {{.serial = leaf}}});
  EXPECT_EQ(verifier.checkRevocationStatus(path), 0);
  EXPECT_EQ(verifier.contextError(), 23);
}

// What else the callback has let pass is its own business.
TEST_F(ConformingVerifierTest, CallbackOfTheCaller_SignedPathIsDecided) {
  const Issued old = issue({.subject = "O=Test,CN=Old",
                            .issuer = &root,
                            .notBefore = hours(-48),
                            .notAfter = hours(-24)});
  world.trust(root);
  const auto verdictOfOld = [&] {
    ConformingVerifier verifier(world.store, handle(old));
    X509_STORE_CTX_set_verify_cb(verifier, letPass);
    return verifier.isValid();
  };
  EXPECT_EQ(verdictOfOld(), kUndetermined);
  world.publish({.issuer = &root});
  EXPECT_EQ(verdictOfOld(), 0);
  world.publish({.issuer = &root, .number = Serial(2), .revoked = {{.serial = old}}});
  EXPECT_EQ(verdictOfOld(), 23);
}

// A callback that lets everything pass makes nobody vouched for.
TEST_F(ConformingVerifierTest, CallbackOfTheCaller_UnverifiedIsUndeterminedAndNobodyIsAsked) {
  CertificateOptions options{.subject = "O=Test,CN=Forged", .issuer = &inter};
  options.badSignature = true;
  const Issued forged = issue(options);
  const Issued stranger = issueCA("O=Test,CN=Stranger");
  const Issued ofStranger = issue({.subject = "O=Test,CN=Person", .issuer = &stranger});
  world.trust(root);
  publishAll();
  for (const Issued& issued : {forged, ofStranger}) {
    ConformingVerifier verifier(world.store, handle(issued), stackOf({inter, stranger}));
    X509_STORE_CTX_set_verify_cb(verifier, letPass);
    EXPECT_EQ(verifier.isValid(), kUndetermined);
  }
  EXPECT_EQ(world.source->crlQueries + directory->crlQueries, 0);
}

// So does one that takes OpenSSL's place where signatures are verified.
TEST_F(ConformingVerifierTest, VerificationOfTheCaller_ForgedIsUndetermined) {
  CertificateOptions options{.subject = "O=Test,CN=Forged", .issuer = &root};
  options.badSignature = true;
  const Issued forged = issue(options);
  world.trust(root);
  world.publish({.issuer = &root});
  X509_STORE_set_verify(world.store, [](X509_STORE_CTX*) { return 1; });
  EXPECT_EQ(ConformingVerifier(world.store, handle(forged)).isValid(), kUndetermined);
  EXPECT_EQ(world.source->crlQueries, 0);
  const Issued good = issue({.subject = "O=Test,CN=Good", .issuer = &root});
  EXPECT_EQ(ConformingVerifier(world.store, handle(good)).isValid(), 0);
}

// --- lists of a program's own ---

TEST_F(ConformingVerifierTest, ListThatNobodyTrusts_IsUndeterminedAndNobodyIsAsked) {
  const Issued stranger = issueCA("O=Test,CN=Stranger");
  const Issued ofStranger = issue({.subject = "O=Test,CN=Person", .issuer = &stranger});
  world.trust(root);
  world.trust(inter);
  directory->certificates.push_back(handle(stranger));
  const std::list<RefCertificate> lists[] = {
      {},
      {RefCertificate()},
      {handle(leaf), RefCertificate(), handle(root)},
      {handle(ofStranger), handle(stranger)},
      {handle(ofStranger), handle(root)},
      {handle(leaf), handle(inter)},  // trusted, but no end of a path
  };
  for (const auto& list : lists) {
    ConformingVerifier verifier(world.store, handle(leaf));
    EXPECT_EQ(verifier.checkRevocationStatus(list), 0);
    EXPECT_EQ(verifier.contextError(), kUndetermined);
  }
  EXPECT_EQ(world.source->crlQueries + directory->crlQueries, 0);
}

TEST_F(ConformingVerifierTest, ListOfTheAnchorAlone_IsNotDecided) {
  world.trust(root);
  ConformingVerifier verifier(world.store, handle(leaf));
  EXPECT_EQ(verifier.checkRevocationStatus({handle(root)}), 1);
  EXPECT_EQ(verifier.contextError(), X509_V_OK);
}

TEST_F(ConformingVerifierTest, Settings_AreAsGiven) {
  EXPECT_EQ(ConformingVerifier(world.store, handle(leaf)).settings().securityLevel, 2);
  Verifier::Config config;
  RevocationSettings settings;
  settings.securityLevel = 4;
  EXPECT_EQ(ConformingVerifier(world.store, handle(leaf), stackOf({}), config, settings)
                .settings()
                .securityLevel,
            4);
}

}  // namespace
}  // namespace Velantrix::Test
