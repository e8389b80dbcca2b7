#include "unit/verify/World.h"

#include <gtest/gtest.h>
#include <type_traits>

namespace Velantrix::Test {
namespace {

const std::set<std::string> kAnyPolicy{"2.5.29.32.0"};

unsigned long flagsOf(X509_STORE* store) {
  return X509_VERIFY_PARAM_get_flags(X509_STORE_get0_param(store));
}

// Without the one flag that OpenSSL sets in every context.
unsigned long flagsOf(const Verifier& verifier) {
  return X509_VERIFY_PARAM_get_flags(X509_STORE_CTX_get0_param(verifier)) &
         ~static_cast<unsigned long>(X509_V_FLAG_TRUSTED_FIRST);
}

TEST(VerifierConfig, Default_OnePolicyAndSixFlags) {
  const Verifier::Config config;
  EXPECT_TRUE(config.name.empty());
  EXPECT_EQ(config.policies, kAnyPolicy);
  EXPECT_EQ(config.flags, 0x30AC);
  EXPECT_EQ(static_cast<unsigned long>(config.flags),
            X509_V_FLAG_CRL_CHECK | X509_V_FLAG_CRL_CHECK_ALL | X509_V_FLAG_X509_STRICT |
                X509_V_FLAG_POLICY_CHECK | X509_V_FLAG_EXTENDED_CRL_SUPPORT |
                X509_V_FLAG_USE_DELTAS);
  static_assert(std::is_same_v<decltype(config.flags), int>);
}

TEST(VerifierConfig, WithAName_DiffersInNothingElse) {
  const Verifier::Config config("anything");
  EXPECT_EQ(config.name, "anything");
  EXPECT_EQ(config.policies, kAnyPolicy);
  EXPECT_EQ(config.flags, 0x30AC);
}

TEST(VerifierConfig, Copy_IsIndependent) {
  Verifier::Config config("label");
  Verifier::Config copy(config);
  copy.name = "other";
  copy.policies.insert("1.2.3");
  copy.flags = 1;
  EXPECT_EQ(config.name, "label");
  EXPECT_EQ(config.policies, kAnyPolicy);
  EXPECT_EQ(config.flags, 0x30AC);
  config = copy;
  EXPECT_EQ(config.name, "other");
  EXPECT_EQ(config.policies.size(), 2U);
  EXPECT_EQ(config.flags, 1);
}

TEST(VerifierConfig, VerifierCopiesEveryMemberAndLeavesTheCallers) {
  const World world;
  Verifier::Config config("label");
  config.policies = {"1.2.3", "1.2.4"};
  config.flags = X509_V_FLAG_X509_STRICT;
  const Probe verifier(world.store, RefCertificate(), RefStackOfCertificate(), config, false);
  EXPECT_EQ(verifier.config.name, "label");
  EXPECT_EQ(verifier.config.policies, config.policies);
  EXPECT_EQ(verifier.config.flags, config.flags);
  config.policies.clear();
  config.flags = 0;
  EXPECT_EQ(verifier.config.policies.size(), 2U);
  EXPECT_EQ(verifier.config.flags, X509_V_FLAG_X509_STRICT);
}

TEST(VerifierConfig, Flags_GoIntoTheSharedStore) {
  const World world;
  EXPECT_EQ(flagsOf(world.store), 0UL);
  const Verifier first(world.store, RefCertificate(), false);
  EXPECT_EQ(flagsOf(world.store), 0x30ACUL);
  EXPECT_EQ(flagsOf(first), 0x30ACUL);
  Verifier::Config config;
  config.flags = X509_V_FLAG_PARTIAL_CHAIN;
  const Verifier second(world.store, RefCertificate(), RefStackOfCertificate(), config, false);
  EXPECT_EQ(flagsOf(world.store), 0x30ACUL | X509_V_FLAG_PARTIAL_CHAIN);
  EXPECT_EQ(flagsOf(second), 0x30ACUL | X509_V_FLAG_PARTIAL_CHAIN);
  EXPECT_EQ(flagsOf(first), 0x30ACUL);
}

TEST(VerifierConfig, Bit31_IsSignExtended) {
  const World world;
  Verifier::Config config;
  config.flags = static_cast<int>(0x80000004U);
  const Verifier verifier(world.store, RefCertificate(), RefStackOfCertificate(), config, false);
  EXPECT_EQ(flagsOf(world.store), 0xffffffff80000004UL);
  EXPECT_EQ(flagsOf(verifier), 0xffffffff80000004UL);
}

TEST(VerifierConfig, ThreeConstructors_HaveTheDefaults) {
  const World world;
  const Issued root = issueCA("CN=Root");
  const RefStackOfCertificate stack = stackOf({root});
  const Probe plain(world.store, handle(root), false);
  const Probe withStack(world.store, handle(root), stack, false);
  EXPECT_EQ(plain.untrusted.get(), nullptr);
  EXPECT_EQ(X509_STORE_CTX_get0_untrusted(plain), nullptr);
  EXPECT_EQ(withStack.untrusted.get(), stack.get());
  EXPECT_EQ(X509_STORE_CTX_get0_untrusted(withStack), static_cast<STACK_OF(X509)*>(stack));
  for (const Probe* const verifier : {&plain, &withStack}) {
    EXPECT_EQ(verifier->config.flags, 0x30AC);
    EXPECT_EQ(verifier->config.policies, kAnyPolicy);
    EXPECT_EQ(verifier->error, 0);
    EXPECT_TRUE(verifier->lastCertificate.empty());
    EXPECT_TRUE(verifier->crls.empty());
    EXPECT_EQ(verifier->certificate.get()->native(), root.get());
    EXPECT_EQ(verifier->objectStore().get(), world.store.get());
    EXPECT_EQ(verifier->parent(), nullptr);
  }
}

// What the acceptable policies are is seen in the policies that a verification ends with.
class VerifierPolicyTest : public testing::Test {
 protected:
  const Issued root = issueCA("CN=Root");
  World world;

  VerifierPolicyTest() { world.trust(root); }

  Issued withPolicy(const std::string& oid) {
    return issue(
        {.subject = "CN=Leaf", .issuer = &root, .extensions = {{"certificatePolicies", oid}}});
  }
  static Verifier::Config explicitPolicy(const std::set<std::string>& policies) {
    Verifier::Config config;
    config.policies = policies;
    config.flags = X509_V_FLAG_POLICY_CHECK | X509_V_FLAG_EXPLICIT_POLICY;
    return config;
  }
  // -1 when there is no policy tree.
  static int acceptedPolicies(Verifier& verifier) {
    return sk_X509_POLICY_NODE_num(
        X509_policy_tree_get0_user_policies(X509_STORE_CTX_get0_policy_tree(verifier)));
  }
};

TEST_F(VerifierPolicyTest, Explicit_OnlyConfiguredPoliciesAreAcceptable) {
  struct Row {
    const char* name;
    std::set<std::string> policies;
    int verdict;
  };
  const Row rows[] = {{"the certificate's", {"1.2.3"}, 0},
                      {"another", {"1.2.4"}, X509_V_ERR_NO_EXPLICIT_POLICY},
                      {"one of two", {"1.2.4", "1.2.3"}, 0},
                      {"any", kAnyPolicy, 0}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    Verifier::Config config = explicitPolicy(row.policies);
    Verifier verifier(world.store, handle(withPolicy("1.2.3")), RefStackOfCertificate(), config,
                      false);
    EXPECT_EQ(verifier.isValid(), row.verdict);
  }
}

TEST_F(VerifierPolicyTest, ClearedPolicies_NoneIsAddedToTheContext) {
  Verifier::Config any = explicitPolicy(kAnyPolicy);
  Verifier withAny(world.store, handle(withPolicy("1.2.3")), RefStackOfCertificate(), any, false);
  EXPECT_EQ(withAny.isValid(), 0);
  EXPECT_EQ(acceptedPolicies(withAny), 1);
  Verifier::Config none = explicitPolicy({});
  Verifier without(world.store, handle(withPolicy("1.2.3")), RefStackOfCertificate(), none, false);
  EXPECT_EQ(without.isValid(), X509_V_ERR_NO_EXPLICIT_POLICY);
}

TEST_F(VerifierPolicyTest, Default_ContextCarriesAnyPolicy) {
  world.publish({.issuer = &root});
  Verifier verifier(world.store, handle(withPolicy("1.2.3")), false);
  EXPECT_EQ(verifier.isValid(), 0);
  EXPECT_EQ(acceptedPolicies(verifier), 1);
}

TEST_F(VerifierPolicyTest, ChainWithoutPolicies_IsAcceptedByDefault) {
  world.publish({.issuer = &root});
  const Issued leaf = issue({.subject = "CN=Leaf", .issuer = &root});
  EXPECT_EQ(Verifier(world.store, handle(leaf), false).isValid(), 0);
}

TEST_F(VerifierPolicyTest, Policy_AddsOneAfterConstruction) {
  Verifier::Config config = explicitPolicy({"1.2.4"});
  Verifier verifier(world.store, handle(withPolicy("1.2.3")), RefStackOfCertificate(), config,
                    false);
  verifier.policy(ASN1::RefObjectIdentifier("1.2.3"));
  EXPECT_EQ(verifier.isValid(), 0);
}

TEST_F(VerifierPolicyTest, Policy_TakesTheObjectOfTheIdentifier) {
  const ASN1::RefObjectIdentifier oid("1.2.3");
  Verifier verifier(world.store, RefCertificate(), false);
  EXPECT_TRUE(oid->ownsObject());
  verifier.policy(oid);
  EXPECT_FALSE(oid->ownsObject());
}

TEST_F(VerifierPolicyTest, OneIdentifierTwice_AlsoAfterTheFirstVerifierHasGone) {
  const ASN1::RefObjectIdentifier oid("1.2.3");
  Verifier::Config config = explicitPolicy({"1.2.4"});
  {
    Verifier first(world.store, handle(withPolicy("1.2.3")), RefStackOfCertificate(), config,
                   false);
    first.policy(oid);
    first.policy(oid);
    EXPECT_EQ(first.isValid(), 0);
  }
  Verifier second(world.store, handle(withPolicy("1.2.3")), RefStackOfCertificate(), config, false);
  second.policy(oid);
  EXPECT_EQ(second.isValid(), 0);
}

TEST_F(VerifierPolicyTest, BadPolicy_IsAnException) {
  Verifier::Config config;
  config.policies = {"no number"};
  EXPECT_THROW(Verifier(world.store, RefCertificate(), RefStackOfCertificate(), config, false),
               Exception);
  Verifier verifier(world.store, RefCertificate(), false);
  EXPECT_THROW(verifier.policy(ASN1::RefObjectIdentifier()), Exception);
}

}  // namespace
}  // namespace Velantrix::Test
