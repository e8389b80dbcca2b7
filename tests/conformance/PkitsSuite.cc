#include "conformance/PkitsSuite.h"

#include "support/Files.h"

#include <velantrix/CertificateFactory.h>
#include <velantrix/File.h>

#include <algorithm>
#include <list>
#include <map>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace Velantrix::Test {

namespace fs = std::filesystem;
using namespace Velantrix::Crypto::PKX509;
using Json = nlohmann::json;

namespace {

Json read(const std::string& file) {
  const fs::path path = fs::path(PKX509_CONFORMANCE_DIRECTORY) / file;
  try {
    return Json::parse(readFile(path));
  } catch (const Json::exception& failure) {
    throw std::runtime_error(path.string() + ": " + failure.what());
  }
}

std::vector<std::string> list(const Json& object, const char* key) {
  return object.value(key, std::vector<std::string>());
}

std::set<std::string> policies(const Json& names, const std::map<std::string, std::string>& oids) {
  std::set<std::string> found;
  for (const Json& name : names) found.insert(oids.at(name.get<std::string>()));
  return found;
}

PkitsCase readCase(const Json& object, const std::map<std::string, std::string>& oids) {
  PkitsCase test;
  test.id = object.at("id").get<std::string>();
  test.name = object.at("name").get<std::string>();
  test.valid = object.at("valid").get<bool>();
  test.target = object.at("target").get<std::string>();
  test.intermediates = list(object, "intermediates");
  test.otherCertificates = list(object, "other_certificates");
  test.crls = list(object, "crls");
  test.initialPolicies =
      policies(object.value("initial_policies", Json::array({"anyPolicy"})), oids);
  test.explicitPolicy = object.value("explicit_policy", false);
  test.inhibitPolicyMapping = object.value("inhibit_policy_mapping", false);
  test.inhibitAnyPolicy = object.value("inhibit_any_policy", false);
  if (test.valid) {
    test.userPolicies = policies(object.at("user_policies"), oids);
    return test;
  }
  const Json& verdict = object.at("verdict");
  test.ownVerdict = (verdict.is_object() ? verdict.at("own") : verdict).get<int>();
  test.openSSLVerdict = (verdict.is_object() ? verdict.at("openssl") : verdict).get<int>();
  return test;
}

std::vector<PkitsDeviation> readDeviations(const Json& entries) {
  std::vector<PkitsDeviation> deviations;
  for (const Json& entry : entries) {
    std::string reason;
    for (const Json& sentence : entry.at("reason")) {
      reason += (reason.empty() ? "" : " ") + sentence.get<std::string>();
    }
    for (const Json& id : entry.at("cases")) {
      for (const Json& mode : entry.at("modes")) {
        deviations.push_back({id.get<std::string>(), mode.get<std::string>(),
                              entry.at("verdict").get<int>(), reason});
      }
    }
  }
  return deviations;
}

PkitsSuite readSuite() {
  const Json suite = read("pkits.json");
  const Json deviations = read("pkits-deviations.json");
  try {
    const auto oids = suite.at("policies").get<std::map<std::string, std::string>>();
    PkitsSuite result;
    result.checkTime = suite.at("check_time").get<std::time_t>();
    result.anchor = suite.at("anchor").get<std::string>();
    for (const Json& object : suite.at("cases")) result.cases.push_back(readCase(object, oids));
    result.deviations = readDeviations(deviations.at("deviations"));
    return result;
  } catch (const std::exception& failure) {
    throw std::runtime_error(std::string("pkits.json or pkits-deviations.json: ") + failure.what());
  }
}

}  // namespace

const PkitsCase& PkitsSuite::find(std::string_view id) const {
  const auto found = std::find_if(cases.begin(), cases.end(),
                                  [id](const PkitsCase& candidate) { return candidate.id == id; });
  if (found == cases.end()) throw std::runtime_error("no such case: " + std::string(id));
  return *found;
}

const PkitsDeviation* PkitsSuite::deviation(std::string_view id, std::string_view mode) const {
  const auto found = std::find_if(deviations.begin(), deviations.end(),
                                  [id, mode](const PkitsDeviation& candidate) {
                                    return candidate.id == id && candidate.mode == mode;
                                  });
  return found == deviations.end() ? nullptr : &*found;
}

const PkitsSuite& pkits() {
  static const PkitsSuite suite = readSuite();
  return suite;
}

fs::path findPkitsData(const fs::path& libraries) {
  std::error_code ignored;
  for (const fs::directory_entry& entry : fs::directory_iterator(libraries, ignored)) {
    if (!entry.path().filename().string().starts_with("python3")) continue;
    const fs::path data =
        entry.path() / "dist-packages" / "cryptography_vectors" / "x509" / "PKITS_data";
    if (fs::is_directory(data / "certs", ignored)) return data;
  }
  throw std::runtime_error(
      "The files of NIST PKITS are not there: no " + libraries.string() +
      "/python3*/dist-packages/cryptography_vectors/x509/PKITS_data. Install Debian's package "
      "python3-cryptography-vectors (scripts/setup does).");
}

const fs::path& pkitsData() {
  static const fs::path data = findPkitsData("/usr/lib");
  return data;
}

RefCertificate pkitsCertificate(const std::string& name) {
  const fs::path path = pkitsData() / "certs" / (name + ".crt");
  std::list<RefCertificate> found;
  CertificateFactory::read(File::Path(path.string()), found);
  if (found.size() != 1) throw std::runtime_error(path.string() + ": not one certificate");
  return found.front();
}

RefCertificateRevocationList pkitsCRL(const std::string& name) {
  return CertificateRevocationListFactory::read(
      File::Path((pkitsData() / "crls" / (name + ".crl")).string()));
}

}  // namespace Velantrix::Test
