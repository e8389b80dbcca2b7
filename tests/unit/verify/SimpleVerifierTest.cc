// Trust and CRLs come from a lookup method here. What stands in the fixed directories is tried in
// tests/integration/SimpleVerifierTest.cc.
#include "support/LogCapture.h"
#include "unit/verify/World.h"

#include <pkx509/SimpleVerifier.h>
#include <velantrix/CertificateVerifier.h>

#include <boost/system/system_error.hpp>

#include <algorithm>
#include <chrono>
#include <gtest/gtest.h>
#include <memory>
#include <stdexcept>
#include <stop_token>
#include <type_traits>
#include <vector>

namespace Velantrix::Test {
namespace {

static_assert(std::is_base_of_v<CertificateVerifier, SimpleVerifier>);
static_assert(!std::is_copy_constructible_v<SimpleVerifier>);

constexpr char kMismatch[] = "SimpleVerifier: Requested value is not present in the Key Usage.";
constexpr char kCaught[] = "Cryptod::CMS::SimpleVerifier: Caught ";

// Switched on for a scope.
struct ConformingHere {
  ConformingHere() { SimpleVerifier::useConformingVerifier(); }
  ~ConformingHere() { SimpleVerifier::useConformingVerifier(false); }
};

class SimpleVerifierTest : public testing::Test {
 protected:
  const Issued root = issueCA("O=Test,CN=Root");
  const Issued leaf = issue({.subject = "O=Test,CN=Leaf", .issuer = &root});
  MemorySource* source = new MemorySource;  // owned by `method`
  const RefLookupMethod method{source};
  SimpleVerifier verifier;
  LogCapture log;

  SimpleVerifierTest() {
    source->certificates.push_back(handle(root));
    source->crls.push_back(crlHandle({.issuer = &root}));
    verifier.add(method);
  }

  int isValid(const Issued& issued, int keyUsage = 0, bool require = true) {
    return verifier.isValid(handle(issued), keyUsage, require);
  }
};

TEST_F(SimpleVerifierTest, KeyUsage) {
  constexpr int kSign = KU_DIGITAL_SIGNATURE;
  constexpr int kEncrypt = KU_KEY_ENCIPHERMENT;
  struct Row {
    const char* name;
    int granted;
    int asked;
    bool require;
    int result;
    int lines;
  };
  static constexpr Row kRows[] = {
      {"0 asks for none, though nothing else would fit", kEncrypt, 0, true, 0, 0},
      {"no extension", kAbsent, kSign, true, 0, 0},
      {"no extension, a bit of the second octet", kAbsent, KU_DECIPHER_ONLY, true, 0, 0},
      {"fits", kSign, kSign, true, 0, 0},
      {"one of those granted", kSign | kEncrypt, kEncrypt, true, 0, 0},
      {"one of those asked for", kSign, kSign | kEncrypt, true, 0, 0},
      {"fits in the second octet", KU_DECIPHER_ONLY | KU_KEY_AGREEMENT, KU_DECIPHER_ONLY, true, 0,
       0},
      {"does not fit", kEncrypt, kSign, true, -1, 1},
      {"does not fit and need not", kEncrypt, kSign, false, 0, 1},
      {"several asked for, none granted", kEncrypt, kSign | KU_NON_REPUDIATION, true, -1, 1},
  };
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.name);
    const Issued issued =
        issue({.subject = "O=Test,CN=Leaf", .issuer = &root, .keyUsage = row.granted});
    log.clear();
    source->objectQueries = 0;
    EXPECT_EQ(isValid(issued, row.asked, row.require), row.result) << log.text();
    ASSERT_EQ(log.lines().size(), static_cast<std::size_t>(row.lines)) << log.text();
    if (row.lines != 0) {
      EXPECT_EQ(log.lines().front().text, kMismatch);
      EXPECT_EQ(log.lines().front().priority, 7);
    }
    // What is refused for its key usage is not verified.
    EXPECT_EQ(source->objectQueries == 0, row.result == -1);
  }
}

TEST_F(SimpleVerifierTest, ExtensionThatGrantsNothing_PassesTheKeyUsageTest) {
  const Issued issued = issue({.subject = "O=Test,CN=Leaf", .issuer = &root, .keyUsage = 0});
  ASSERT_EQ(handle(issued)->keyUsage(), 0U);
  // What OpenSSL makes of such a certificate is its own business.
  EXPECT_GE(isValid(issued, KU_DIGITAL_SIGNATURE, true), 0);
  EXPECT_FALSE(log.contains("SimpleVerifier: ")) << log.text();
  EXPECT_NE(source->objectQueries, 0);
}

TEST_F(SimpleVerifierTest, KeyUsageThatNeedNotFit_LeavesTheVerdictToTheVerification) {
  const Issued revoked =
      issue({.subject = "O=Test,CN=Gone", .issuer = &root, .keyUsage = KU_KEY_ENCIPHERMENT});
  source->crls = {crlHandle({.issuer = &root, .revoked = {{.serial = revoked}}})};
  EXPECT_EQ(isValid(revoked, KU_DIGITAL_SIGNATURE, false), X509_V_ERR_CERT_REVOKED);
  EXPECT_EQ(log.texts(), (std::vector<std::string>{kMismatch, failureLine(revoked, 23)}));
  log.clear();
  EXPECT_EQ(isValid(revoked, KU_DIGITAL_SIGNATURE, true), -1);
  EXPECT_EQ(log.texts(), std::vector<std::string>{kMismatch});
}

TEST_F(SimpleVerifierTest, Verdict_IsThatOfADefaultVerifierWithItsOwnRevocationCheck) {
  EXPECT_EQ(isValid(leaf), 0);
  EXPECT_EQ(log.text(), "");
  // A CRL that takes a certificate off the list again is not for OpenSSL's revocation check.
  source->crls.clear();
  EXPECT_EQ(isValid(leaf), X509_V_ERR_UNABLE_TO_GET_CRL);
  const Issued held = issue({.subject = "O=Test,CN=Held", .issuer = &root});
  source->crls = {crlHandle({.issuer = &root, .revoked = {{.serial = held, .reason = 6}}}),
                  crlHandle({.issuer = &root,
                             .number = Serial(2),
                             .deltaBase = Serial(1),
                             .revoked = {{.serial = held, .reason = CRL_REASON_REMOVE_FROM_CRL}}})};
  EXPECT_EQ(isValid(held), 0) << log.text();
}

TEST_F(SimpleVerifierTest,
       ConformingVerifier_ServesAllObjectsFromTheNextCallOn_UntilItIsSwitchedOff) {
  // A reason that does not revoke for a Verifier.
  source->crls = {crlHandle(
      {.issuer = &root, .revoked = {{.serial = leaf, .reason = CRL_REASON_UNSPECIFIED}}})};
  EXPECT_EQ(isValid(leaf), 0) << log.text();
  {
    const ConformingHere switched;
    EXPECT_EQ(isValid(leaf), X509_V_ERR_CERT_REVOKED);
    SimpleVerifier other;
    other.add(method);
    EXPECT_EQ(other.isValid(handle(leaf), 0, true), X509_V_ERR_CERT_REVOKED);
    source->crls = {crlHandle({.issuer = &root})};
    EXPECT_EQ(isValid(leaf), 0) << log.text();
    source->onQuery = [](Query, const DistinguishedName&) {
      throw Exception("Source", Exception::kFailure, "Source", 12).stringParameter("It is down.");
    };
    EXPECT_NE(isValid(leaf), 0);
    source->onQuery = nullptr;
    source->crls = {crlHandle(
        {.issuer = &root, .revoked = {{.serial = leaf, .reason = CRL_REASON_UNSPECIFIED}}})};
  }
  EXPECT_EQ(isValid(leaf), 0) << log.text();
}

TEST_F(SimpleVerifierTest, KeyUsage_IsAskedForWithTheConformingVerifierToo) {
  const Issued issued =
      issue({.subject = "O=Test,CN=Leaf", .issuer = &root, .keyUsage = KU_KEY_ENCIPHERMENT});
  const ConformingHere switched;
  EXPECT_EQ(isValid(issued, KU_KEY_ENCIPHERMENT), 0) << log.text();
  EXPECT_EQ(isValid(issued, KU_DIGITAL_SIGNATURE), -1);
}

// For the process, for the call, and the shorter one where there are both.
TEST_F(SimpleVerifierTest, Deadline_IsTheShorterOfTheProcessAndTheCall) {
  using namespace std::chrono_literals;
  constexpr auto kNone = std::chrono::milliseconds::max();
  const struct {
    std::chrono::milliseconds ofAll;
    std::chrono::milliseconds ofCall;
    int result;
  } rows[] = {{kNone, kNone, 0}, {1min, kNone, 0}, {kNone, 1min, 0}, {0ms, kNone, 3},
              {kNone, 0ms, 3},   {0ms, 1min, 3},   {1min, 0ms, 3}};
  for (const bool conforming : {false, true}) {
    SimpleVerifier::useConformingVerifier(conforming);
    for (const auto& row : rows) {
      const auto which = testing::Message() << conforming << " " << row.ofAll.count() << " "
                                            << row.ofCall.count() << "\n";
      SimpleVerifier::useDeadline(row.ofAll);
      const SimpleVerifier::Terms terms{.deadline = row.ofCall};
      VerificationReport report;
      EXPECT_EQ(verifier.isValid(handle(leaf), 0, false, terms), row.result) << which << log.text();
      EXPECT_EQ(verifier.isValid(handle(leaf), 0, false, terms, report), row.result) << which;
      EXPECT_EQ(report.code(), row.result) << which;
      EXPECT_EQ(report.outcome(), row.result == 0 ? Outcome::kValid : Outcome::kTemporary) << which;
      const bool overForAll = row.ofAll == 0ms;
      CertificateVerifier& asLibrariesDo = verifier;
      EXPECT_EQ(asLibrariesDo.isValid(handle(leaf), 0, false), overForAll ? 3 : 0) << which;
    }
  }
  SimpleVerifier::useDeadline(kNone);
  SimpleVerifier::useConformingVerifier(false);
}

TEST_F(SimpleVerifierTest, StopOfACall_IsThatCallsOnly) {
  for (const bool conforming : {false, true}) {
    SimpleVerifier::useConformingVerifier(conforming);
    std::stop_source stop;
    const SimpleVerifier::Terms terms{.stop = stop.get_token()};
    EXPECT_EQ(verifier.isValid(handle(leaf), 0, false, terms), 0) << log.text();
    source->onQuery = [&](Query, const DistinguishedName&) { stop.request_stop(); };
    EXPECT_EQ(verifier.isValid(handle(leaf), 0, false, terms), X509_V_ERR_UNABLE_TO_GET_CRL);
    source->onQuery = nullptr;
    VerificationReport report;
    EXPECT_EQ(verifier.isValid(handle(leaf), 0, false, terms, report),
              X509_V_ERR_UNABLE_TO_GET_CRL);
    EXPECT_EQ(report.outcome(), Outcome::kTemporary) << report.line();
    EXPECT_NE(report.line().find("cancelled"), std::string::npos) << report.line();
    EXPECT_EQ(isValid(leaf), 0) << "others go on";
  }
  SimpleVerifier::useConformingVerifier(false);
}

TEST_F(SimpleVerifierTest, NothingOfOneVerificationSurvivesIntoTheNext) {
  EXPECT_EQ(isValid(leaf), 0);
  source->crls = {crlHandle({.issuer = &root, .revoked = {{.serial = leaf}}})};
  EXPECT_EQ(isValid(leaf), X509_V_ERR_CERT_REVOKED);
  source->crls = {crlHandle({.issuer = &root})};
  EXPECT_EQ(isValid(leaf), 0) << "a failure sticks to its own verification only";
  source->certificates.clear();
  EXPECT_EQ(isValid(leaf), X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY);
}

// Says what it is asked and which store it is told.
class Witness : public MemorySource {
 public:
  Witness(const std::string& text, std::vector<std::string>& record) : text_(text), all_(record) {}

  int initialize() override {
    all_.push_back(text_ + (objectStore == nullptr ? " added" : " bound, added"));
    return 0;
  }
  int finish() override {
    all_.push_back(text_ + " shut down");
    return 0;
  }
  const ObjectStore* pointed() const { return objectStore; }

 private:
  std::string text_;
  std::vector<std::string>& all_;
};

TEST_F(SimpleVerifierTest, LookupMethods_AreBoundAndAddedToEachStore_InTheirOrder) {
  std::vector<std::string> record;
  auto* const first = new Witness("first", record);
  auto* const second = new Witness("second", record);
  verifier.add(RefLookupMethod(first));
  verifier.add(RefLookupMethod(second));
  const ObjectStore* during = nullptr;
  first->onQuery = [&](Query, const DistinguishedName&) { during = first->pointed(); };
  const std::vector<std::string> once = {"first bound, added", "second bound, added"};
  for (int i = 0; i < 2; ++i) {
    record.clear();
    during = nullptr;
    EXPECT_EQ(isValid(leaf), 0) << log.text();
    ASSERT_GE(record.size(), 4U);
    EXPECT_EQ(std::vector<std::string>(record.begin(), record.begin() + 2), once);
    EXPECT_EQ(std::count(record.begin(), record.end(), "first shut down"), 1);
    EXPECT_EQ(record.size(), 4U);
    EXPECT_NE(during, nullptr);
    EXPECT_EQ(first->pointed(), nullptr) << "the store outlives the verification";
    EXPECT_EQ(second->pointed(), nullptr);
  }
}

TEST_F(SimpleVerifierTest, Exception_IsMinusOneAndOneLine) {
  source->onQuery = [](Query, const DistinguishedName&) {
    throw Exception("Source", Exception::kFailure, "Source", 12).stringParameter("It is down.");
  };
  EXPECT_EQ(isValid(leaf), -1);
  ASSERT_EQ(log.lines().size(), 1U) << log.text();
  EXPECT_EQ(log.lines().front().text, std::string(kCaught) + "Source: It is down. (4, Source:12)");
  EXPECT_EQ(log.lines().front().priority, 7);
  source->onQuery = nullptr;
  EXPECT_EQ(isValid(leaf), 0);
}

TEST_F(SimpleVerifierTest, ExceptionOfTheKeyUsageTest_IsMinusOneToo) {
  const Issued broken = issue({.subject = "O=Test,CN=Broken",
                               .issuer = &root,
                               .keyUsage = kAbsent,
                               .rawExtensions = {{.oid = "2.5.29.15", .der = "\x05"}}});
  for (const bool require : {true, false}) {
    log.clear();
    EXPECT_EQ(isValid(broken, KU_DIGITAL_SIGNATURE, require), -1);
    ASSERT_EQ(log.lines().size(), 1U) << log.text();
    EXPECT_TRUE(log.lines().front().text.starts_with(kCaught)) << log.text();
  }
  // Without a key usage to look at the certificate still is not valid.
  EXPECT_GT(isValid(broken), 0);
}

TEST_F(SimpleVerifierTest, NoCertificate_IsNotValid) {
  EXPECT_EQ(verifier.isValid(RefCertificate(), KU_DIGITAL_SIGNATURE, false), -1);
  EXPECT_EQ(log.count(kCaught), 1U) << log.text();
  EXPECT_NE(verifier.isValid(RefCertificate(), 0, false), 0);
}

TEST_F(SimpleVerifierTest, OtherExceptions_Leave) {
  const auto failing = [this](const auto& failure) {
    source->onQuery = [failure](Query, const DistinguishedName&) { throw failure; };
    log.clear();
  };
  failing(std::runtime_error("down"));
  EXPECT_THROW(isValid(leaf), std::runtime_error);
  EXPECT_EQ(log.text(), "");
  failing(boost::system::system_error(
      boost::system::errc::make_error_code(boost::system::errc::no_such_file_or_directory)));
  EXPECT_THROW(isValid(leaf), boost::system::system_error);
  EXPECT_EQ(log.text(), "");
  failing(42);
  EXPECT_THROW(isValid(leaf), int);
  source->onQuery = nullptr;
  EXPECT_EQ(isValid(leaf), 0);
}

TEST_F(SimpleVerifierTest, Destroyed_ReleasesItsLookupMethods) {
  class Mortal : public LookupMethod {
   public:
    explicit Mortal(bool& gone) : LookupMethod("mortal"), gone_(gone) {}
    ~Mortal() override { gone_ = true; }

   private:
    bool& gone_;
  };
  bool gone = false;
  std::unique_ptr<CertificateVerifier> other = [&gone] {
    auto made = std::make_unique<SimpleVerifier>();
    made->add(RefLookupMethod(new Mortal(gone)));
    return made;
  }();
  EXPECT_FALSE(gone);
  other.reset();
  EXPECT_TRUE(gone);
}

TEST(SimpleVerifierDeathTest, EmptyLookupMethod_StopsTheProcessAtTheNextVerification) {
  SimpleVerifier verifier;
  verifier.add(RefLookupMethod());
  const RefCertificate certificate = handle(issueCA("CN=Root"));
  EXPECT_DEATH(static_cast<void>(verifier.isValid(certificate, 0, false)),
               "Assertion `px != 0' failed");
}

// Nobody is registered while a test runs, and nobody is left behind.
class SimpleVerifierInstance : public testing::Test {
 protected:
  SimpleVerifierInstance() { CertificateVerifier::s_instance = nullptr; }
  ~SimpleVerifierInstance() override { CertificateVerifier::s_instance = nullptr; }
};

TEST_F(SimpleVerifierInstance, IsMadeOnceAndRegistered) {
  CertificateVerifier* const made = SimpleVerifier::instance();
  ASSERT_NE(dynamic_cast<SimpleVerifier*>(made), nullptr);
  const std::unique_ptr<CertificateVerifier> owner(made);
  EXPECT_EQ(CertificateVerifier::s_instance, made);
  EXPECT_EQ(SimpleVerifier::instance(), made);
}

TEST_F(SimpleVerifierInstance, RegisteredBySomebodyElse_IsReturnedAsItIs) {
  class Other : public CertificateVerifier {
   public:
    int isValid(const RefCertificate&, int, bool) override { return 7; }
  };
  Other other;
  CertificateVerifier::s_instance = &other;
  EXPECT_EQ(SimpleVerifier::instance(), &other);
  EXPECT_EQ(CertificateVerifier::s_instance, &other);
  EXPECT_EQ(SimpleVerifier::instance()->isValid(RefCertificate(), 0, false), 7);
}

}  // namespace
}  // namespace Velantrix::Test
