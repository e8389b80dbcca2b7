// The cases of NIST PKITS through ConformingVerifier, with all certificates and CRLs of the whole suite
// offered at once, as a real directory would: what belongs to other cases must not harm.
#include "conformance/PkitsDirectory.h"
#include "conformance/PkitsSuite.h"
#include "support/Files.h"
#include "support/LogCapture.h"
#include "support/Pki.h"

#include <pkx509/ConformingVerifier.h>
#include <pkx509/ObjectStore.h>

#include <openssl/x509_vfy.h>

#include <filesystem>
#include <gtest/gtest.h>
#include <map>
#include <ostream>
#include <string>
#include <vector>

namespace Velantrix::Test {

using namespace Velantrix::Crypto::PKX509;

namespace {

std::vector<std::string> stemsIn(const std::filesystem::path& directory) {
  std::vector<std::string> stems;
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    stems.push_back(entry.path().stem().string());
  }
  return stems;
}

// Read once for all cases.
const RefLookupMethod& wholeSuite() {
  static const RefLookupMethod method = [] {
    auto* const directory = new PkitsDirectory(stemsIn(pkitsData() / "crls"));
    RefLookupMethod owner(directory);
    for (const std::string& stem : stemsIn(pkitsData() / "certs")) {
      directory->add(pkitsCertificate(stem));
    }
    return owner;
  }();
  return method;
}

struct Result {
  int verdict = -1;
  std::string log;
};

Result run(const PkitsCase& test, int securityLevel) {
  static const TempDir trust;
  static const auto anchor =
      addToDirectory(trust.path(), static_cast<X509*>(pkitsCertificate(pkits().anchor)));
  RefObjectStore store(trust.string(), X509_FILETYPE_PEM);
  store->add(wholeSuite());
  Verifier::Config config(test.id);
  config.flags = ConformingVerifier::kDefaultFlags;
  config.policies = test.initialPolicies;
  if (test.explicitPolicy) config.flags |= X509_V_FLAG_EXPLICIT_POLICY;
  if (test.inhibitPolicyMapping) config.flags |= X509_V_FLAG_INHIBIT_MAP;
  if (test.inhibitAnyPolicy) config.flags |= X509_V_FLAG_INHIBIT_ANY;
  RevocationSettings settings;
  settings.securityLevel = securityLevel;
  ConformingVerifier verifier(store, pkitsCertificate(test.target), RefStackOfCertificate(), config,
                              settings);
  X509_VERIFY_PARAM_set_time(X509_STORE_CTX_get0_param(verifier), pkits().checkTime);
  const LogCapture log;
  Result result;
  result.verdict = verifier.isValid();
  result.log = log.text();
  return result;
}

// The verdicts that are not those that NIST expects, and why.
const std::map<std::string, const char*>& deviationsAt(int securityLevel) {
  static const std::map<std::string, const char*> none{
      {"4.1.5", "OpenSSL does not let a certificate inherit the parameters of its DSA key"}};
  static const std::map<std::string, const char*> two{
      {"4.1.4", "DSA of 1024 bits with SHA-1"},
      {"4.1.5", "OpenSSL does not let a certificate inherit the parameters of its DSA key"}};
  return securityLevel == 0 ? none : two;
}

}  // namespace

class PkitsConforming : public testing::TestWithParam<int> {};

TEST_P(PkitsConforming, WholeSuiteAtOnce_EachCaseEndsAsItShould) {
  int right = 0;
  for (const PkitsCase& test : pkits().cases) {
    const Result result = run(test, GetParam());
    const bool isRight = (result.verdict == X509_V_OK) == test.valid;
    right += isRight ? 1 : 0;
    // An unexpected pass fails as well.
    EXPECT_NE(isRight, deviationsAt(GetParam()).contains(test.id))
        << test.id << ' ' << test.name << ": " << result.verdict << '\n'
        << result.log;
    EXPECT_TRUE(test.valid || result.verdict != X509_V_OK) << test.id << " is accepted";
  }
  EXPECT_EQ(pkits().cases.size(), 249U);
  EXPECT_EQ(right, GetParam() == 0 ? 248 : 247);
}

INSTANTIATE_TEST_SUITE_P(AtLevel, PkitsConforming, testing::Values(0, 2),
                         testing::PrintToStringParamName());

}  // namespace Velantrix::Test
