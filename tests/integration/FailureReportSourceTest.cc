// Hosts, directories and files that fail, and bounds that are reached.
#include "integration/FailureReport.h"
#include "support/Loopback.h"
#include "support/OCSPBuilder.h"

#include <pkx509/FixedPaths.h>
#include <pkx509/LDAPLookup.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <list>
#include <sys/syscall.h>
#include <unistd.h>
#include <utility>

namespace Velantrix::Test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using namespace std::string_literals;

using Kind = ReportOrigin::Kind;

// From now on file permissions bind this thread, also as root.
void giveUpPrivileges() {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct rights[2] = {};
  if (syscall(SYS_capget, &header, rights) != 0) failWithError("capget", errno);
  constexpr unsigned int kPassing = 1U << CAP_DAC_OVERRIDE | 1U << CAP_DAC_READ_SEARCH;
  rights[0].effective &= ~kPassing;
  rights[0].permitted &= ~kPassing;
  if (syscall(SYS_capset, &header, rights) != 0) failWithError("capset", errno);
}

class FailureReportSource : public FailureReport {
 protected:
  Issued pointing(const std::vector<std::string>& uris) const {
    CertificateOptions options;
    for (const std::string& uri : uris) {
      options.crlDistributionPoints.push_back({.fullNames = {"URI:" + uri}});
    }
    return leafOf(silent, options);
  }
  Failure failureOf(const std::string& name, const Issued& leaf, Rule rule,
                    Outcome outcome = Outcome::kTemporary) const {
    Failure failure{.name = name, .leaf = leaf, .untrusted = {silent}};
    failure.told = {
        .rule = rule, .outcome = outcome, .code = X509_V_ERR_UNABLE_TO_GET_CRL, .about = leaf};
    return failure;
  }
  /// A CRL that is not there at the URI, for these reasons.
  Failure at(const std::string& name, const std::string& uri, Rule rule,
             const ReportDetails& values, const std::vector<std::string>& inLine = {}) {
    Failure failure = failureOf(name, pointing({uri}), rule);
    failure.told.values = values;
    failure.told.values.push_back({"uri", uri});
    failure.told.origin = {Kind::kNetwork, uri};
    failure.told.inLine = inLine;
    failure.also = {Who::kClassic, Who::kOpenSSL};
    return failure;
  }
  static void haveClientIdentity(const Issued& client) {
    writeFile(kClientCertificateFile, pem(client.get()));
    writeFile(kClientKeyFile, pem(client.key.get()));
  }
  /// Nobody listens there.
  std::string deadURI(const std::string& scheme = "http") const {
    return scheme + "://127.0.0.1:" + dead_.text() + "/ca.crl";
  }
  static std::function<void(RefObjectStore&)> directoryAt(const std::string& uri) {
    return [uri](RefObjectStore& store) {
      auto* const method = new LDAPLookupMethod({LDAPConnection::RefServer(uri), "", ""});
      store->add(RefLookupMethod(method));
      method->store(store);
    };
  }
  std::string deadDirectory() const { return "ldap://127.0.0.1:" + dead_.text(); }
  static bool has(const Report& report, Rule rule) {
    const auto& all = report.findings();
    return std::any_of(all.begin(), all.end(),
                       [rule](const ReportFinding& one) { return one.rule() == rule; });
  }

  const Issued silent = issuer("Silent");  // no directory has its lists

 private:
  ReservedPort dead_;
};

TEST_F(FailureReportSource, WebServers) {
  const FaultServer closing(Scripts::closeAtOnce());
  const FaultServer large(Scripts::cutShort("CRL", 64 * 1024 * 1024 + 1));
  haveClientIdentity(issue({.subject = "O=Test,CN=Appliance", .issuer = &root}));
  const std::string unknown = places.put("/unknown.crl", Scripts::response("", "404 Not Found"));
  const std::string moved = places.put(
      "/moved.crl", Scripts::response("", "302 Found", "Location: /moved.crl#elsewhere\r\n"));
  const std::string page = places.put("/page.crl", Scripts::response("<html>Please log in</html>"));
  const std::string noTLS = "https" + closing.url("/ca.crl").substr(4);
  expect({
      at("nobody listens", deadURI(), Rule::kCRLUnreachable,
         {{"errno", std::int64_t{ECONNREFUSED}}}, {"Connection refused"}),
      at("404", unknown, Rule::kCRLUnreachable, {{"httpStatus", std::int64_t{404}}}, {"404"}),
      at("302", moved, Rule::kCRLUnreachable, {{"httpStatus", std::int64_t{302}}}, {"302"}),
      at("no TLS", noTLS, Rule::kCRLUnreachable, {}, {"TLS"}),
      at("no such host", "http://crl.nowhere.onion/ca.crl", Rule::kCRLUnreachable, {},
         {"the host has no address"}),
      at("too large", large.url("/ca.crl"), Rule::kCRLUnreachable, {}, {"67108864"}),
      at("a page", page, Rule::kCRLMalformed, {}),
  });
  // Said of a host, not of what is wrong there.
  const Report report = reportOf(at("302", moved, Rule::kCRLUnreachable, {}));
  EXPECT_EQ(allTextsOf(report).find("elsewhere"), std::string::npos);
}

TEST_F(FailureReportSource, ClientIdentity) {
  writeFile(kClientCertificateFile, "-----BEGIN CERTIFICATE-----\n");
  Failure failure = at("broken client certificate", deadURI("https"), Rule::kClientIdentity,
                       {{"file", kClientCertificateFile}});
  failure.told.outcome = Outcome::kLocal;
  failure.told.origin = {Kind::kNetwork, deadURI("https"), kClientCertificateFile};
  expect({failure});

  // Only the classic client needs one.
  fs::remove(kClientCertificateFile);
  Failure absent = at("no client certificate", deadURI("https"), Rule::kCRLUnreachable,
                      {{"errno", std::int64_t{ECONNREFUSED}}}, {"Connection refused"});
  absent.also.clear();
  expect({absent});
}

TEST_F(FailureReportSource, RefusedAddress) {
  Failure failure =
      at("loopback", deadURI(), Rule::kAddressRefused, {}, {"a loopback address: 127.0.0.1"});
  failure.told.outcome = Outcome::kPermanent;
  failure.prepare = [](Verifier& verifier) {
    verifier.addressPolicy(AddressPolicy::publicAndPrivate());
  };
  expect({failure});
}

TEST_F(FailureReportSource, Responders) {
  const auto asking = [&](const std::string& uri) {
    return leafOf(silent, {.extensions = {{"authorityInfoAccess", "OCSP;URI:" + uri}}});
  };
  const FaultServer errors(Scripts::answer("", "503 Service Unavailable"));
  Failure refused = failureOf("nobody listens", asking(deadURI()), Rule::kOCSPUnreachable);
  refused.told.values = {{"uri", deadURI()}, {"errno", std::int64_t{ECONNREFUSED}}};
  refused.told.origin = {Kind::kNetwork, deadURI()};
  refused.told.inLine = {"Connection refused"};
  refused.also = {Who::kClassic};
  Failure error = failureOf("503", asking(errors.url("/")), Rule::kOCSPUnreachable);
  error.told.values = {{"uri", errors.url("/")}, {"httpStatus", std::int64_t{503}}};
  error.told.origin = {Kind::kNetwork, errors.url("/")};
  error.told.inLine = {"503"};
  error.also = {Who::kClassic};
  expect({refused, error});
}

TEST_F(FailureReportSource, Bounds) {
  const FaultServer mute(Scripts::silence());
  Failure slow =
      at("time", mute.url("/ca.crl"), Rule::kBudgetSpent,
         {{"resource", "network time"}, {"milliseconds", std::int64_t{1000}}}, {"network time"});
  slow.prepare = [](Verifier& verifier) { verifier.maxNetworkTime(1); };
  slow.also = {};
  std::vector<std::string> many;
  for (int i = 0; i < 1000; ++i) many.push_back(deadURI() + std::to_string(i));
  Failure lookups = failureOf("look-ups", pointing(many), Rule::kCRLUnreachable);
  lookups.told.values = {{"uri", many.front()}, {"errno", std::int64_t{ECONNREFUSED}}};
  lookups.told.origin = {Kind::kNetwork, many.front()};
  expect({slow, lookups});
  // What was not looked for any more may be what is missing. What does not fit is counted.
  const Report report = reportOf(lookups);
  ASSERT_GT(report.findings().size(), 1U);
  const ReportFinding& second = report.findings().at(1);
  EXPECT_EQ(second.rule(), Rule::kBudgetSpent) << textOf(report);
  ASSERT_NE(second.find("resource"), nullptr);
  EXPECT_EQ(*second.find("resource"), Report::Value("lookups")) << textOf(report);
  EXPECT_LE(report.findings().size(), Report::kMaximumFindings);
  EXPECT_LE(report.sources().size(), Report::kMaximumSources);
  EXPECT_GT(report.findingsLeftOut(), 0U);
  EXPECT_EQ(report.totals().lookups, 256U) << textOf(report);
  std::size_t size = 0;
  for (const Report::Source& one : report.sources()) size += one.origin().size();
  EXPECT_LE(size, Report::kMaximumSize);
}

TEST_F(FailureReportSource, CRLFiles) {
  const Issued ca = issuer("Damaged");
  const Issued leaf = leafOf(ca);
  const Owned<X509_CRL> crl = makeCRL({.issuer = &ca, .revoked = {{.serial = leaf}}});
  const std::string half = pem(crl.get()).substr(0, pem(crl.get()).size() / 2);
  const std::string damaged = installText(crl.get(), half);
  const auto unreadable = [&](const std::string& name, const std::string& file) {
    Failure failure = failureOf(name, leaf, Rule::kCRLFileUnreadable, Outcome::kLocal);
    failure.untrusted = {ca};
    failure.told.values = {{"directory", kCRLDirectory}, {"file", file}};
    failure.told.origin = {Kind::kMachineCRLs, kCRLDirectory, file};
    return failure;
  };
  expect({unreadable("damaged", damaged)});
  // Whatever a damaged one may have said, the sound one beside it revokes, and it is told of.
  const Said sound = install({.issuer = &ca, .number = Serial(7), .revoked = {{.serial = leaf}}});
  Failure revoked = unreadable("damaged, and one that revokes", damaged);
  revoked.told.rule = Rule::kRevoked;
  revoked.told.outcome = Outcome::kPermanent;
  revoked.told.code = X509_V_ERR_CERT_REVOKED;
  revoked.told.values = sound.values;
  revoked.told.origin = sound.origin;
  expect({revoked});
  const Report report = reportOf(revoked);
  ASSERT_TRUE(has(report, Rule::kCRLFileUnreadable)) << textOf(report);
  EXPECT_NE(allTextsOf(report).find(damaged), std::string::npos);
  // The same beside one that is good.
  const Issued fine = leafOf(ca);
  const Report good = reportOf({.name = "good", .leaf = fine, .untrusted = {ca}});
  EXPECT_TRUE(good.valid()) << textOf(good);
  EXPECT_EQ(good.outcome(), Outcome::kValid);
  EXPECT_TRUE(has(good, Rule::kCRLFileUnreadable)) << textOf(good);
  EXPECT_TRUE(good.line().starts_with("valid")) << good.line();
  // One that this user may not read.
  fs::remove(sound.origin.file());
  fs::remove(damaged);
  writeFile(damaged, pem(crl.get()));
  fs::permissions(damaged, fs::perms::none);
  obeyPermissions();  // and the tool
  giveUpPrivileges();
  Failure forbidden = unreadable("forbidden", damaged);
  forbidden.told.values.push_back({"errno", std::int64_t{EACCES}});
  forbidden.told.inLine = {"Permission denied"};
  expect({forbidden});
}

TEST_F(FailureReportSource, Cache) {
  const Issued ca = issuer("Served");
  const Said list = serve("/ca.crl", {.issuer = &ca});
  const std::string uri = list.origin.place();
  const Issued leaf = leafOf(ca, {.crlDistributionPoints = {{.fullNames = {"URI:" + uri}}}});
  const Failure served{.name = "served", .leaf = leaf, .untrusted = {ca}};
  std::list<std::pair<Report, int>> rows;
  {
    fs::permissions(kCRLCacheDirectory, fs::perms::owner_read | fs::perms::owner_exec);
    giveUpPrivileges();
    rows.emplace_back(reportOf(served), EACCES);
    fs::permissions(kCRLCacheDirectory, fs::perms::owner_all);
  }
  fs::remove_all(kCRLCacheDirectory);
  rows.emplace_back(reportOf(served), ENOENT);
  writeFile(kCRLCacheDirectory, "no directory");
  rows.emplace_back(reportOf(served), ENOTDIR);
  fs::remove(kCRLCacheDirectory);
  fs::create_directory(kCRLCacheDirectory);
  for (const auto& [report, error] : rows) {
    SCOPED_TRACE(textOf(report));
    EXPECT_TRUE(report.valid());
    EXPECT_TRUE(report.line().starts_with("valid"));
    const auto& all = report.findings();
    const auto found = std::find_if(all.begin(), all.end(), [](const ReportFinding& one) {
      return one.rule() == Rule::kCacheUnusable && one.find("errno") != nullptr;
    });
    ASSERT_NE(found, all.end());
    EXPECT_EQ(found->outcome(), Outcome::kLocal);
    EXPECT_EQ(found->certificate().serial(), Serial(leaf).hex());
    const std::pair<const char*, Report::Value> values[] = {{"uri", uri},
                                                            {"errno", std::int64_t{error}}};
    for (const auto& [name, value] : values) {
      ASSERT_NE(found->find(name), nullptr) << name;
      EXPECT_EQ(*found->find(name), value) << name;
    }
    EXPECT_TRUE(found->origin().file().starts_with(kCRLCacheDirectory));
  }
}

TEST_F(FailureReportSource, LDAP) {
  const Issued lost = issueCA("O=Test,CN=Lost", &root);
  const Issued below = leafOf(lost);
  Failure issuer = failureOf("no issuer", below, Rule::kIssuerSourceFailed);
  issuer.told.code = X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY;
  issuer.told.values = {
      {"issuer", nameOf(lost)}, {"uri", deadDirectory()}, {"errno", std::int64_t{ECONNREFUSED}}};
  issuer.told.origin = {Kind::kLDAP, deadDirectory()};
  issuer.told.inLine = {nameOf(lost)};
  issuer.attach = directoryAt(deadDirectory());
  Failure crl = failureOf("no CRL", below, Rule::kCRLSourceFailed);
  crl.untrusted = {lost};
  crl.told.values = {{"uri", deadDirectory()}, {"errno", std::int64_t{ECONNREFUSED}}};
  crl.told.origin = {Kind::kLDAP, deadDirectory()};
  crl.attach = issuer.attach;
  issuer.options = crl.options = {"--ldap", deadDirectory()};
  expect({issuer, crl});
}

}  // namespace
}  // namespace Velantrix::Test
