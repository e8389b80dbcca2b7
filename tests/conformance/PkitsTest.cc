// The cases of NIST PKITS through Verifier, each in four modes: with the library's own revocation
// check and with OpenSSL's, with X509_V_FLAG_X509_STRICT and without.
#include "conformance/PkitsDirectory.h"
#include "conformance/PkitsSuite.h"
#include "support/Files.h"
#include "support/LogCapture.h"
#include "support/Pki.h"

#include <pkx509/ObjectStore.h>
#include <pkx509/Verifier.h>
#include <velantrix/StackOfCertificate.h>

#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#include <gtest/gtest.h>
#include <list>
#include <ostream>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace Velantrix::Test {

using namespace Velantrix::Crypto::PKX509;

namespace {

// Changes what the directory answers; it is given the certificates that came along.
using Arrange = void (*)(PkitsDirectory&, const std::list<RefCertificate>&);

struct Outcome {
  int verdict = -1;
  std::set<std::string> userPolicies;
  std::string log;
};

std::string numbersOf(const ASN1_OBJECT* oid) {
  std::string text(64, '\0');
  const int length = OBJ_obj2txt(text.data(), static_cast<int>(text.size()), oid, 1);
  if (length <= 0 || static_cast<std::size_t>(length) >= text.size()) {
    throw std::runtime_error("a policy that is no policy");
  }
  text.resize(static_cast<std::size_t>(length));
  return text;
}

std::set<std::string> userPoliciesOf(const X509_STORE_CTX* context) {
  std::set<std::string> found;
  const X509_POLICY_TREE* const tree = X509_STORE_CTX_get0_policy_tree(context);
  STACK_OF(X509_POLICY_NODE)* const nodes =
      tree == nullptr ? nullptr : X509_policy_tree_get0_user_policies(tree);
  for (int i = 0; i < sk_X509_POLICY_NODE_num(nodes); ++i) {
    found.insert(numbersOf(X509_policy_node_get0_policy(sk_X509_POLICY_NODE_value(nodes, i))));
  }
  return found;
}

// What comes with a message goes to OpenSSL as untrusted certificates, and into the object list,
// where issuers of CRLs are looked for. The anchor is all that the store's directory holds.
Outcome run(const PkitsCase& test, const PkitsMode& mode, Arrange arrange = nullptr) {
  std::list<RefCertificate> along;
  for (const std::string& name : test.intermediates) along.push_back(pkitsCertificate(name));
  for (const std::string& name : test.otherCertificates) along.push_back(pkitsCertificate(name));

  const TempDir trust;
  addToDirectory(trust.path(), static_cast<X509*>(pkitsCertificate(pkits().anchor)));
  RefObjectStore store(trust.string(), X509_FILETYPE_PEM);
  auto* const directory = new PkitsDirectory(test.crls);
  store->add(RefLookupMethod(directory));
  directory->serve(store);
  if (arrange != nullptr) arrange(*directory, along);
  store->add(along);

  Verifier::Config config(test.id);
  config.policies = test.initialPolicies;
  if (!mode.strict) config.flags &= ~X509_V_FLAG_X509_STRICT;
  if (test.explicitPolicy) config.flags |= X509_V_FLAG_EXPLICIT_POLICY;
  if (test.inhibitPolicyMapping) config.flags |= X509_V_FLAG_INHIBIT_MAP;
  if (test.inhibitAnyPolicy) config.flags |= X509_V_FLAG_INHIBIT_ANY;
  Verifier verifier(store, pkitsCertificate(test.target), RefStackOfCertificate(along), config,
                    mode.useOpenSSLRevocation);
  X509_VERIFY_PARAM_set_time(X509_STORE_CTX_get0_param(verifier), pkits().checkTime);

  const LogCapture log;
  Outcome outcome;
  outcome.verdict = verifier.isValid();
  outcome.userPolicies = userPoliciesOf(verifier);
  outcome.log = log.text();
  return outcome;
}

// Where the certificates that came along are in the directory as well.
void holdCertificates(PkitsDirectory& directory, const std::list<RefCertificate>& along) {
  for (const RefCertificate& certificate : along) directory.add(certificate);
}

void findByIssuer(PkitsDirectory& directory, const std::list<RefCertificate>& /*along*/) {
  directory.answerIssuers();
}

void answerAnyName(PkitsDirectory& directory, const std::list<RefCertificate>& /*along*/) {
  directory.answerAnyName();
}

struct CaseRun {
  const PkitsCase* test;
  const PkitsMode* mode;
};

std::ostream& operator<<(std::ostream& out, const CaseRun& which) {
  return out << which.test->id << ' ' << which.test->name << ", " << which.mode->name;
}

// "4_8_6_2_own_strict"
std::string nameOf(const testing::TestParamInfo<CaseRun>& info) {
  std::string name = info.param.test->id + '_' + std::string(info.param.mode->name);
  for (char& c : name) {
    if (c == '.' || c == '-') c = '_';
  }
  return name;
}

// A table that cannot be read, or has a case twice, must not keep the other tests from running: the
// tests of the tables read them again and fail.
std::vector<CaseRun> allRuns() {
  std::vector<CaseRun> runs;
  try {
    std::set<std::string_view> seen;
    for (const PkitsCase& test : pkits().cases) {
      if (!seen.insert(test.id).second) continue;
      for (const PkitsMode& mode : kPkitsModes) runs.push_back({&test, &mode});
    }
  } catch (const std::exception&) {
    runs.clear();
  }
  return runs;
}

class Pkits : public testing::TestWithParam<CaseRun> {};

}  // namespace

TEST_P(Pkits, Verdict) {
  const PkitsCase& test = *GetParam().test;
  const PkitsMode& mode = *GetParam().mode;
  const PkitsDeviation* const deviation = pkits().deviation(test.id, mode.name);
  const Outcome outcome = run(test, mode);
  if (deviation != nullptr) {
    EXPECT_EQ(outcome.verdict, deviation->verdict)
        << GetParam() << "\nlisted as a deviation: " << deviation->reason << '\n'
        << outcome.log;
    return;
  }
  EXPECT_EQ(outcome.verdict, mode.verdictOf(test)) << GetParam() << '\n' << outcome.log;
  if (test.valid) {
    EXPECT_EQ(outcome.userPolicies, test.userPolicies) << GetParam();
  }
}

INSTANTIATE_TEST_SUITE_P(NIST, Pkits, testing::ValuesIn(allRuns()), nameOf);

// On the path by distribution points the issuer of a CRL is not compared with the certificate's.
// It is meant so, because of indirect CRLs; a source that answers a name with another issuer's CRL
// can so hide a revocation. Here it is the anchor's CRL, which does not list the target.
TEST(PkitsAnyName, DistributionPointAnsweredWithAnotherIssuersCRL_OwnCheckAccepts) {
  for (const char* const id : {"4.14.3", "4.14.8"}) {
    const PkitsCase& test = pkits().find(id);
    ASSERT_FALSE(test.valid);
    for (const PkitsMode& mode : kPkitsModes) {
      EXPECT_EQ(run(test, mode, answerAnyName).verdict,
                mode.useOpenSSLRevocation ? X509_V_ERR_DIFFERENT_CRL_SCOPE : X509_V_OK)
          << (CaseRun{&test, &mode});
    }
  }
}

// The reasons that the deviations give, put to the test: without the cause the expected verdict is
// there, also for the revoked certificates of the same CAs.
TEST(PkitsDeviations, CauseTakenAway_VerdictIsTheExpectedOne) {
  struct Row {
    const char* id;
    bool useOpenSSLRevocation;
    Arrange arrange;
    int verdict;
  };
  constexpr Row kRows[] = {
      {"4.5.4", false, holdCertificates, X509_V_OK},
      {"4.5.5", false, holdCertificates, X509_V_ERR_CERT_REVOKED},
      {"4.5.6", false, holdCertificates, X509_V_OK},
      {"4.5.7", false, holdCertificates, X509_V_ERR_CERT_REVOKED},
      {"4.14.28", false, holdCertificates, X509_V_OK},
      {"4.14.29", false, holdCertificates, X509_V_OK},
      {"4.14.30", false, holdCertificates, X509_V_OK},
      {"4.5.4", true, findByIssuer, X509_V_OK},
      {"4.5.5", true, findByIssuer, X509_V_ERR_CERT_REVOKED},
      {"4.5.6", true, findByIssuer, X509_V_OK},
      {"4.5.7", true, findByIssuer, X509_V_ERR_CERT_REVOKED},
  };
  for (const Row& row : kRows) {
    const PkitsCase& test = pkits().find(row.id);
    ASSERT_EQ(test.valid, row.verdict == X509_V_OK);
    for (const PkitsMode& mode : kPkitsModes) {
      if (mode.useOpenSSLRevocation != row.useOpenSSLRevocation) continue;
      const Outcome outcome = run(test, mode, row.arrange);
      EXPECT_EQ(outcome.verdict, row.verdict) << (CaseRun{&test, &mode}) << '\n' << outcome.log;
    }
  }
}

}  // namespace Velantrix::Test
