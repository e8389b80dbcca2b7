// The tables of the NIST PKITS tests and the directory that the CRLs come from.
#include "conformance/PkitsDirectory.h"
#include "conformance/PkitsSuite.h"
#include "support/Files.h"

#include <pkx509/ObjectStore.h>

#include <openssl/x509_vfy.h>

#include <algorithm>
#include <filesystem>
#include <gtest/gtest.h>
#include <list>
#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace Velantrix::Test {

namespace fs = std::filesystem;
using namespace Velantrix::Crypto::PKX509;

namespace {

std::set<std::string> stemsIn(const char* folder) {
  std::set<std::string> stems;
  for (const fs::directory_entry& entry : fs::directory_iterator(pkitsData() / folder)) {
    stems.insert(entry.path().stem().string());
  }
  return stems;
}

std::size_t found(PkitsDirectory& directory, const char* name) {
  std::list<RefCertificateRevocationList> crls;
  directory.getBySubject(DistinguishedName(std::string(name)), crls);
  return crls.size();
}

}  // namespace

// The suite has 224 tests; some are run several times with other inputs.
TEST(PkitsTables, HaveEveryTestOfTheSuite) {
  const std::map<std::string, int> kTests{{"4.1", 6},   {"4.2", 8},   {"4.3", 11},  {"4.4", 21},
                                          {"4.5", 8},   {"4.6", 17},  {"4.7", 5},   {"4.8", 20},
                                          {"4.9", 8},   {"4.10", 14}, {"4.11", 11}, {"4.12", 10},
                                          {"4.13", 38}, {"4.14", 35}, {"4.15", 10}, {"4.16", 2}};
  EXPECT_EQ(pkits().cases.size(), 249U);
  std::set<std::string> ids;
  std::set<std::string> tests;
  for (const PkitsCase& test : pkits().cases) {
    EXPECT_TRUE(ids.insert(test.id).second) << test.id << " is there twice";
    tests.insert(test.id.substr(0, test.id.find('-')));
  }
  EXPECT_EQ(tests.size(), 224U);
  for (const auto& [section, count] : kTests) {
    for (int number = 1; number <= count; ++number) {
      EXPECT_EQ(tests.count(section + '.' + std::to_string(number)), 1U)
          << section << '.' << number;
    }
  }
}

TEST(PkitsTables, UseEveryFileOfTheSuite) {
  std::set<std::string> certificates{pkits().anchor};
  std::set<std::string> crls;
  for (const PkitsCase& test : pkits().cases) {
    certificates.insert(test.target);
    certificates.insert(test.intermediates.begin(), test.intermediates.end());
    certificates.insert(test.otherCertificates.begin(), test.otherCertificates.end());
    crls.insert(test.crls.begin(), test.crls.end());
  }
  EXPECT_EQ(certificates, stemsIn("certs"));
  EXPECT_EQ(crls, stemsIn("crls"));
}

TEST(PkitsTables, InvalidCasesSayWhyTheyAreRejected) {
  for (const PkitsCase& test : pkits().cases) {
    EXPECT_EQ(test.ownVerdict == X509_V_OK, test.valid) << test.id;
    EXPECT_EQ(test.openSSLVerdict == X509_V_OK, test.valid) << test.id;
  }
}

TEST(PkitsTables, DeviationsAreOfKnownCasesAndModes_AndGiveReasons) {
  std::set<std::pair<std::string, std::string>> seen;
  EXPECT_FALSE(pkits().deviations.empty());
  for (const PkitsDeviation& deviation : pkits().deviations) {
    EXPECT_NO_THROW(pkits().find(deviation.id)) << deviation.id;
    EXPECT_TRUE(std::any_of(kPkitsModes.begin(), kPkitsModes.end(), [&](const PkitsMode& mode) {
      return mode.name == deviation.mode;
    })) << deviation.mode;
    EXPECT_FALSE(deviation.reason.empty()) << deviation.id;
    EXPECT_TRUE(seen.emplace(deviation.id, deviation.mode).second)
        << deviation.id << ' ' << deviation.mode << " is there twice";
  }
}

TEST(PkitsTables, DeviationsRejectValidCasesOnly) {
  for (const PkitsDeviation& deviation : pkits().deviations) {
    EXPECT_TRUE(pkits().find(deviation.id).valid) << deviation.id;
    EXPECT_NE(deviation.verdict, X509_V_OK) << deviation.id;
  }
}

TEST(PkitsTables, FilesAreMissing_PackageIsNamed) {
  const TempDir empty;
  try {
    findPkitsData(empty.path());
    FAIL() << "found in an empty directory";
  } catch (const std::runtime_error& failure) {
    EXPECT_NE(std::string(failure.what()).find("python3-cryptography-vectors"), std::string::npos)
        << failure.what();
  }
}

TEST(PkitsTables, FilesAreFoundBesideOtherVersionsOfPython) {
  const TempDir libraries;
  fs::create_directories(libraries / "python3.12/dist-packages");
  const fs::path data = libraries / "python3/dist-packages/cryptography_vectors/x509/PKITS_data";
  fs::create_directories(data / "certs");
  EXPECT_EQ(findPkitsData(libraries.path()), data);
}

TEST(PkitsDirectory, HasAPlaceForEveryCRL) {
  for (const PkitsCase& test : pkits().cases) {
    for (const std::string& crl : test.crls) EXPECT_FALSE(pkitsEntriesOf(crl).empty()) << crl;
  }
}

TEST(PkitsDirectory, AnswersWithTheSubtree) {
  PkitsDirectory directory({"NoissuingDistributionPointCACRL"});
  EXPECT_EQ(
      found(directory, "CN=CRL,OU=No issuingDistributionPoint CA,O=Test Certificates 2011,C=US"),
      1U);
  EXPECT_EQ(found(directory, "OU=No issuingDistributionPoint CA,O=Test Certificates 2011,C=US"),
            1U);
  EXPECT_EQ(found(directory, "CN=Trust Anchor,O=Test Certificates 2011,C=US"), 0U);
}

// 4.4.6: the entry of a CA holds a CRL that the anchor issued.
TEST(PkitsDirectory, AnswersByPlaceAndNotByIssuer_UnlessToldTo) {
  PkitsDirectory directory({"WrongCRLCACRL"});
  EXPECT_EQ(found(directory, "CN=Wrong CRL CA,O=Test Certificates 2011,C=US"), 1U);
  EXPECT_EQ(found(directory, "CN=Trust Anchor,O=Test Certificates 2011,C=US"), 0U);
  directory.answerIssuers();
  EXPECT_EQ(found(directory, "CN=Trust Anchor,O=Test Certificates 2011,C=US"), 1U);
  EXPECT_EQ(found(directory, "CN=Somebody"), 0U);
  directory.answerAnyName();
  EXPECT_EQ(found(directory, "CN=Somebody"), 1U);
}

TEST(PkitsDirectory, OpenSSLAsksForCRLs_TheyAreInItsStore) {
  RefObjectStore store("/nonexistent/pkx509-test", X509_FILETYPE_PEM);
  PkitsDirectory directory({"TwoCRLsCABadCRL", "TwoCRLsCAGoodCRL", "TrustAnchorRootCRL"});
  directory.serve(store);
  const DistinguishedName ca("CN=Two CRLs CA,O=Test Certificates 2011,C=US");
  EXPECT_TRUE(directory.getBySubject(Object::TypeCertificate, ca).empty());
  EXPECT_EQ(sk_X509_OBJECT_num(X509_STORE_get0_objects(store)), 0);
  const RefObject first = directory.getBySubject(Object::TypeCRL, ca);
  ASSERT_FALSE(first.empty());
  EXPECT_EQ(first->type, Object::TypeCRL);
  EXPECT_EQ(sk_X509_OBJECT_num(X509_STORE_get0_objects(store)), 2);
}

}  // namespace Velantrix::Test
