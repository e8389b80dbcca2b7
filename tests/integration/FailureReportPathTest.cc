// What is wrong with paths, and with the directory of trusted certificates.
#include "integration/FailureReport.h"

#include <pkx509/FixedPaths.h>

#include <filesystem>
#include <gtest/gtest.h>

namespace Velantrix::Test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using namespace std::string_literals;

const std::vector<Who> kOthers{Who::kClassic, Who::kOpenSSL};
const ReportOrigin kGiven{ReportOrigin::Kind::kCaller, {}};
const ReportOrigin kCameAlong{ReportOrigin::Kind::kMessage, {}};
constexpr std::int64_t kDay = 86400;

class FailureReportPath : public FailureReport {
 protected:
  static std::string keyIdOf(const Issued& issued) {
    const ASN1_OCTET_STRING* const id = X509_get0_subject_key_id(issued.get());
    std::string text;
    for (int i = 0; i < ASN1_STRING_length(id); ++i) {
      char digits[3];
      std::snprintf(digits, sizeof digits, "%02X", ASN1_STRING_get0_data(id)[i]);
      text += digits;
    }
    return text;
  }
  // The certificates of one row have lists in the directory.
  Issued authority(const std::string& name, const CertificateOptions& options = {}) const {
    Issued made = issuer(name, options);
    installGood(made);
    return made;
  }
  // A directory that `verify` is told of has to be in order; `simple` has the machine's own.
  void expectRefusal(const Failure& failure, const std::string& why) {
    SCOPED_TRACE(failure.name);
    for (const Who who : {Who::kConforming, Who::kClassic, Who::kOpenSSL}) {
      expectTold(hear(who, failure), failure.told);
    }
    const CommandResult refused = verifyWithTool({failure}, {"--json"});
    EXPECT_EQ(refused.status, 2);
    EXPECT_EQ(linesIn(refused.err), 1) << refused.err;
    for (const std::string& part : {std::string(kCADirectory), why}) {
      EXPECT_NE(refused.err.find(part), std::string::npos) << refused.err;
    }
    const CommandResult simple = tool({"simple", "--conforming", "--json", own("0.pem")});
    EXPECT_NE(simple.err.find("warning: "s + kCADirectory + ": "), std::string::npos) << simple.err;
    const auto document = parsed(simple).at(0);
    EXPECT_EQ(document.at("outcome"), "local");
    EXPECT_EQ(document.at("findings").at(0).at("rule"), factsOf(failure.told.rule).name);
  }
  static std::shared_ptr<EVP_PKEY> smallKey() { return {EVP_RSA_gen(1024), EVP_PKEY_free}; }
};

TEST_F(FailureReportPath, Times) {
  const Issued expired = leafOf(inter, {.notBefore = -72h, .notAfter = -24h});
  const Issued future = leafOf(inter, {.notBefore = 48h});
  const Issued old = authority("Old", {.notBefore = -72h, .notAfter = -24h});
  const Issued below = leafOf(old);
  expect({
      {.name = "expired leaf",
       .leaf = expired,
       .untrusted = {inter},
       .told = {.rule = Rule::kExpired,
                .outcome = Outcome::kPermanent,
                .code = X509_V_ERR_CERT_HAS_EXPIRED,
                .about = expired,
                .values = {{"notBefore", valueOf(X509_get0_notBefore(expired.get()))},
                           {"notAfter", valueOf(X509_get0_notAfter(expired.get()))},
                           {"checkTime", Time::now()},
                           {"secondsFromCheckTime", -kDay}},
                .origin = kGiven,
                .inLine = {"1 day"}},
       .also = kOthers},
      {.name = "expired intermediate",
       .leaf = below,
       .untrusted = {old},
       .told = {.rule = Rule::kExpired,
                .outcome = Outcome::kPermanent,
                .code = X509_V_ERR_CERT_HAS_EXPIRED,
                .about = old,
                .depth = 1,
                .values = {{"notAfter", valueOf(X509_get0_notAfter(old.get()))},
                           {"secondsFromCheckTime", -kDay}},
                .origin = kCameAlong,
                .inLine = {"1 day"}},
       .also = kOthers},
      {.name = "not yet valid",
       .leaf = future,
       .untrusted = {inter},
       .told = {.rule = Rule::kNotYetValid,
                .outcome = Outcome::kTemporary,
                .code = X509_V_ERR_CERT_NOT_YET_VALID,
                .about = future,
                .values = {{"notBefore", valueOf(X509_get0_notBefore(future.get()))},
                           {"secondsFromCheckTime", 2 * kDay}},
                .origin = kGiven,
                .inLine = {" day"}},
       .also = kOthers},
  });
}

TEST_F(FailureReportPath, Issuers) {
  const Issued stranger = issueCA("O=Elsewhere,CN=Stranger");
  const Issued below = issueCA("O=Elsewhere,CN=Below", &stranger);
  const Issued orphan = leafOf(below);
  const Issued itself = issue({.subject = "O=Test,CN=Anna"});
  const Issued namesake = issueCA("O=Test,CN=Inter", &stranger);
  const Issued named = leafOf(namesake);
  const Issued unmarked = leafOf(namesake, {.authorityKeyId = KeyId::Absent});
  expect({
      {.name = "unknown issuer",
       .leaf = orphan,
       .untrusted = {inter},
       .told = {.rule = Rule::kIssuerUnknown,
                .outcome = Outcome::kPermanent,
                .code = X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY,
                .about = orphan,
                .values = {{"issuer", nameOf(below)}, {"keyIdentifier", keyIdOf(below)}},
                .origin = kGiven,
                .inLine = {nameOf(below)}},
       .also = kOthers},
      {.name = "issuer of the issuer unknown",
       .leaf = orphan,
       .untrusted = {below},
       .told = {.rule = Rule::kIssuerUnknown,
                .outcome = Outcome::kPermanent,
                .code = X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY,
                .about = below,
                .depth = 1,
                .values = {{"issuer", nameOf(stranger)}, {"keyIdentifier", keyIdOf(stranger)}},
                .origin = kCameAlong,
                .inLine = {nameOf(stranger)}},
       .also = kOthers},
      {.name = "another key of a CA with that name",
       .leaf = named,
       .untrusted = {inter},
       .told = {.rule = Rule::kIssuerUnknown,
                .outcome = Outcome::kPermanent,
                .code = X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY,
                .about = named,
                .values = {{"issuer", nameOf(namesake)},
                           {"keyIdentifier", keyIdOf(namesake)},
                           {"text", "one of that name came along, and has not issued it"}},
                .origin = kGiven,
                .inLine = {nameOf(inter), keyIdOf(namesake)}},
       .also = kOthers},
      {.name = "another key of a CA with that name, and no identifier tells",
       .leaf = unmarked,
       .untrusted = {inter},
       .told = {.rule = Rule::kCertificateSignature,
                .outcome = Outcome::kPermanent,
                .code = X509_V_ERR_CERT_SIGNATURE_FAILURE,
                .about = unmarked,
                .values = {{"signer", nameOf(inter)}, {"signerSerial", Serial(inter).hex()}},
                .origin = kGiven,
                .inLine = {nameOf(inter)}}},
      {.name = "self-signed",
       .leaf = itself,
       .told = {.rule = Rule::kSelfSigned,
                .outcome = Outcome::kPermanent,
                .code = X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT,
                .about = itself,
                .origin = kGiven},
       .also = kOthers},
      {.name = "untrusted root",
       .leaf = orphan,
       .untrusted = {below, stranger},
       .told = {.rule = Rule::kRootUntrusted,
                .outcome = Outcome::kPermanent,
                .code = X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN,
                .about = stranger,
                .depth = 2,
                .origin = kCameAlong},
       .also = kOthers},
  });
}

TEST_F(FailureReportPath, Signatures) {
  const Issued forged = leafOf(inter, {.badSignature = true});
  const Issued weak = leafOf(inter, {.key = smallKey()});
  const Issued sha1 = signedWith(EVP_sha1(), leafOf(inter), inter);
  expect({
      {.name = "bad signature",
       .leaf = forged,
       .untrusted = {inter},
       .told = {.rule = Rule::kCertificateSignature,
                .outcome = Outcome::kPermanent,
                .code = X509_V_ERR_CERT_SIGNATURE_FAILURE,
                .about = forged,
                .values = {{"signer", nameOf(inter)}, {"signerSerial", Serial(inter).hex()}},
                .origin = kGiven,
                .inLine = {nameOf(inter)}},
       .also = kOthers},
      {.name = "weak key",
       .leaf = weak,
       .untrusted = {inter},
       .told = {.rule = Rule::kKeyTooWeak,
                .outcome = Outcome::kPermanent,
                .code = X509_V_ERR_EE_KEY_TOO_SMALL,
                .about = weak,
                .values = {{"keyType", "RSA"},
                           {"keyBits", std::int64_t{1024}},
                           {"securityBits", std::int64_t{80}},
                           {"minimumSecurityBits", std::int64_t{112}}},
                .origin = kGiven,
                .inLine = {"RSA", "1024", "112"}}},
      {.name = "weak digest",
       .leaf = sha1,
       .untrusted = {inter},
       .told = {.rule = Rule::kDigestTooWeak,
                .outcome = Outcome::kPermanent,
                .code = X509_V_ERR_CA_MD_TOO_WEAK,
                .about = sha1,
                .values = {{"digest", "sha1"}, {"minimumSecurityBits", std::int64_t{112}}},
                .origin = kGiven,
                .inLine = {"sha1", "112"}}},
  });
}

TEST_F(FailureReportPath, Extensions) {
  const Issued shallow = authority("Shallow", {.pathLength = 0});
  const Issued under = issueCA("O=Test,CN=Under", &shallow);
  installGood(under);
  const Issued deep = leafOf(under);
  const Issued bounded = authority(
      "Bounded", {.extensions = {{"nameConstraints", "critical,permitted;email:.allowed.test"}}});
  const Issued outside =
      leafOf(bounded, {.extensions = {{"subjectAltName", "email:anna@other.test"}}});
  const Issued person = leafOf(inter, {.subject = "O=Test,CN=Person"});
  const Issued byPerson = leafOf(person);
  const Issued critical = leafOf(inter, {.rawExtensions = {{"1.2.3.4", true, "\x05\0"s}}});
  const Issued policy = leafOf(inter, {.extensions = {{"certificatePolicies", "1.2.3.5"}}});
  installGood(person);
  expect({
      {.name = "path length",
       .leaf = deep,
       .untrusted = {shallow, under},
       .told = {.rule = Rule::kPathLength,
                .outcome = Outcome::kPermanent,
                .code = X509_V_ERR_PATH_LENGTH_EXCEEDED,
                .about = shallow,
                .depth = 2,
                .values = {{"pathLength", std::int64_t{0}}, {"casBelow", std::int64_t{1}}},
                .origin = kCameAlong},
       .also = kOthers},
      {.name = "name constraint",
       .leaf = outside,
       .untrusted = {bounded},
       .told = {.rule = Rule::kNameConstraint,
                .outcome = Outcome::kPermanent,
                .code = X509_V_ERR_PERMITTED_VIOLATION,
                .about = outside,
                .values = {{"name", "email:anna@other.test"},
                           {"constraint", "permitted email:.allowed.test"},
                           {"constrainedBy", nameOf(bounded)}},
                .origin = kGiven,
                .inLine = {"email:anna@other.test", "permitted email:.allowed.test",
                           nameOf(bounded)}},
       .also = kOthers},
      {.name = "required policy missing",
       .leaf = policy,
       .untrusted = {inter},
       .told = {.rule = Rule::kPolicy,
                .outcome = Outcome::kPermanent,
                .code = X509_V_ERR_NO_EXPLICIT_POLICY,
                .about = policy,
                .values = {{"policies", "1.2.3.5"}, {"requiredPolicies", "1.2.3.4"}},
                .origin = kGiven,
                .inLine = {"1.2.3.5", "1.2.3.4"}},
       .also = kOthers,
       .policies = {"1.2.3.4"},
       .flags = X509_V_FLAG_EXPLICIT_POLICY,
       .options = {"--policy", "1.2.3.4", "--flag", "EXPLICIT_POLICY"}},
      {.name = "not a CA",
       .leaf = byPerson,
       .untrusted = {person, inter},
       .told = {.rule = Rule::kNotACA,
                .outcome = Outcome::kPermanent,
                .code = X509_V_ERR_INVALID_CA,
                .about = person,
                .depth = 1,
                .origin = kCameAlong},
       .also = kOthers},
      {.name = "unknown critical extension",
       .leaf = critical,
       .untrusted = {inter},
       .told = {.rule = Rule::kCriticalExtension,
                .outcome = Outcome::kPermanent,
                .code = X509_V_ERR_UNHANDLED_CRITICAL_EXTENSION,
                .about = critical,
                .values = {{"extension", "1.2.3.4"}},
                .origin = kGiven,
                .inLine = {"1.2.3.4"}},
       .also = kOthers},
  });
}

TEST_F(FailureReportPath, TrustDirectory) {
  const Issued leaf = leafOf(inter);
  const fs::path file = fs::path(kCADirectory) / hashName(root.get());
  const auto failing = [&](const std::string& name, Rule rule) {
    Failure failure{.name = name, .leaf = leaf, .untrusted = {inter}};
    failure.told = {.rule = rule,
                    .outcome = Outcome::kLocal,
                    .code = X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY,
                    .about = inter,
                    .depth = 1,
                    .values = {{"directory", kCADirectory}, {"issuer", nameOf(root)}},
                    .origin = {ReportOrigin::Kind::kTrustDirectory, kCADirectory},
                    .inLine = {nameOf(root)}};
    failure.also = kOthers;
    return failure;
  };
  {
    SCOPED_TRACE("a file that cannot be read");
    for (const std::string_view content :
         {"", "-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n"}) {
      writeFile(file, content);
      Failure failure = failing("unreadable file", Rule::kTrustFileUnreadable);
      failure.told.values.push_back({"file", file.string()});
      failure.told.origin = {ReportOrigin::Kind::kTrustDirectory, kCADirectory, file.string()};
      expect({failure});
    }
    fs::remove(file);
  }
  writeFile(fs::path(kCADirectory) / "README", "no certificate");
  expectRefusal(failing("empty", Rule::kTrustDirectoryEmpty), "openssl rehash");
  fs::remove_all(kCADirectory);
  Failure missing = failing("missing", Rule::kTrustDirectoryMissing);
  missing.told.values.push_back({"error", "No such file or directory"});
  missing.told.inLine.push_back("No such file or directory");
  expectRefusal(missing, "No such file or directory");
  fs::create_directory(kCADirectory);
}

// A forger finds the directory in order.
TEST_F(FailureReportPath, ForgedChainBelowASoundTrustDirectory_IsNeverLocal) {
  const Issued stranger = issueCA("O=Test,CN=Root");
  const Issued leaf = leafOf(stranger, {.authorityKeyId = KeyId::Absent});
  const Report report = reportOf({.name = "forged", .leaf = leaf});
  EXPECT_EQ(report.outcome(), Outcome::kPermanent) << textOf(report);
  EXPECT_EQ(report.findings().at(0).rule(), Rule::kCertificateSignature) << textOf(report);
  // Nor when other files in it are damaged.
  writeFile(fs::path(kCADirectory) / "0000abcd.0", "no certificate");
  EXPECT_EQ(reportOf({.name = "forged", .leaf = leaf}).outcome(), Outcome::kPermanent);
}

}  // namespace
}  // namespace Velantrix::Test
