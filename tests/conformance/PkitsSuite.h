// NIST PKITS, the Public Key Interoperability Test Suite: where its files are, what its cases are,
// and which of them are known to end otherwise here.
//
//   for (const PkitsCase& test : pkits().cases) std::cout << test.id << ' ' << test.name << '\n';
//   const RefCertificate target = pkitsCertificate("ValidCertificatePathTest1EE");
//
// Everything throws std::runtime_error, with the file's name, when a file is missing or malformed.
#pragma once

#include <velantrix/Certificate.h>
#include <velantrix/CertificateRevocationList.h>

#include <array>
#include <ctime>
#include <filesystem>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace Velantrix::Test {

/// One path to validate, with the inputs of RFC 5280, 6.1.1. Files are named without directory and
/// extension, policies by their dotted numbers.
struct PkitsCase {
  std::string id;  ///< "4.8.6-2": the second run of test 4.8.6
  std::string name;
  bool valid = false;
  std::string target;
  std::vector<std::string> intermediates;      ///< on the path, from the anchor down
  std::vector<std::string> otherCertificates;  ///< issuers of CRLs that are not on the path
  std::vector<std::string> crls;
  std::set<std::string> initialPolicies;
  bool explicitPolicy = false;
  bool inhibitPolicyMapping = false;
  bool inhibitAnyPolicy = false;
  std::set<std::string> userPolicies;  ///< what a valid path has to be good for
  /// Why an invalid path is rejected, X509_V_ERR_*; 0 for a valid one.
  int ownVerdict = 0;
  int openSSLVerdict = 0;
};

/// A way to run every case.
struct PkitsMode {
  std::string_view name;
  bool useOpenSSLRevocation;
  bool strict;  ///< X509_V_FLAG_X509_STRICT

  int verdictOf(const PkitsCase& test) const {
    return useOpenSSLRevocation ? test.openSSLVerdict : test.ownVerdict;
  }
};

inline constexpr std::array<PkitsMode, 4> kPkitsModes{{{"own_strict", false, true},
                                                       {"own_lenient", false, false},
                                                       {"openssl_strict", true, true},
                                                       {"openssl_lenient", true, false}}};

/// A verdict that is not the one that NIST expects.
struct PkitsDeviation {
  std::string id;
  std::string mode;
  int verdict = 0;  ///< X509_V_ERR_*
  std::string reason;
};

/// What the two tables say.
struct PkitsSuite {
  std::time_t checkTime = 0;
  std::string anchor;
  std::vector<PkitsCase> cases;
  std::vector<PkitsDeviation> deviations;

  const PkitsCase& find(std::string_view id) const;
  /// Null when the verdict has to be the expected one.
  const PkitsDeviation* deviation(std::string_view id, std::string_view mode) const;
};

/// Read once.
const PkitsSuite& pkits();

/// The directory of the suite's files below @p libraries: Debian's package
/// python3-cryptography-vectors has them under python3*/dist-packages.
std::filesystem::path findPkitsData(const std::filesystem::path& libraries);
const std::filesystem::path& pkitsData();

Crypto::PKX509::RefCertificate pkitsCertificate(const std::string& name);
Crypto::PKX509::RefCertificateRevocationList pkitsCRL(const std::string& name);

}  // namespace Velantrix::Test
