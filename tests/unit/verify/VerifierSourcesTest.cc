#include "foundation/run/VerificationRun.h"
#include "support/Files.h"
#include "support/LogCapture.h"
#include "unit/verify/World.h"
#include "verify/VerifierSources.h"

#include <pkx509/HashDirLookup.h>

#include <chrono>
#include <gtest/gtest.h>
#include <new>
#include <stdexcept>
#include <vector>

namespace Velantrix::Test {
namespace {

using namespace std::chrono_literals;
using Revocation::Offers;
using Revocation::Provenance;
using Kinds = std::vector<Provenance::Kind>;
using Kind = Provenance::Kind;

template <class Handle>
Kinds kindsOf(const Offers<Handle>& offers) {
  Kinds kinds;
  for (const auto& one : offers.found) kinds.push_back(one.from.kind);
  return kinds;
}

class VerifierSourcesTest : public testing::Test {
 protected:
  VerifierSourcesTest() { store->add(RefLookupMethod(source)); }

  Offers<RefCertificate> certificates(const RefStackOfCertificate& untrusted = {}) {
    return VerifierSources(store, untrusted).certificates(name);
  }
  Offers<RefCertificateRevocationList> crls() {
    return VerifierSources(store, RefStackOfCertificate()).crls(name);
  }
  /// A source of its own with these CRLs.
  MemorySource& another() {
    auto* const method = new MemorySource;
    store->add(RefLookupMethod(method));
    return *method;
  }

  TempDir directory;
  RefObjectStore store{directory.string(), X509_FILETYPE_PEM};
  MemorySource* const source = new MemorySource;
  const Issued root = issueCA("O=Test,CN=Root");
  const DistinguishedName name = handle(root)->subject();
  LogCapture log;
};

// ------------------------------------------------------------------------------------ certificates

TEST_F(VerifierSourcesTest, Certificates_ComeInTheOrderOfTheirSourcesAndTheMessageLast) {
  const Issued namesakes[] = {issueCA("O=Test,CN=Root"), issueCA("O=Test,CN=Root"),
                              issueCA("O=Test,CN=Root")};
  addToDirectory(directory.path(), root.get());
  source->certificates = {handle(namesakes[0]), handle(issueCA("CN=Other"))};
  store->add(RefObject(handle(namesakes[1])));
  store->add(RefObject(handle(issueCA("CN=Other"))));
  const auto found = certificates(stackOf({issueCA("CN=Other"), namesakes[2]}));
  EXPECT_EQ(kindsOf(found),
            (Kinds{Kind::kTrustDirectory, Kind::kLookupMethod, Kind::kStore, Kind::kMessage}));
  ASSERT_EQ(found.found.size(), 4U);
  EXPECT_EQ(found.found[0].object, handle(root));
  EXPECT_EQ(found.found[0].from.place, directory.string());
  EXPECT_EQ(found.found[1].object, handle(namesakes[0]));
  EXPECT_EQ(found.found[1].from.place, "memory");
  EXPECT_EQ(found.found[2].object, handle(namesakes[1]));
  EXPECT_EQ(found.found[3].object, handle(namesakes[2]));
  for (const auto& one : found.found) EXPECT_LE((Time::now().seconds() - one.fetched.seconds()), 5);
  EXPECT_FALSE(found.cut);
  EXPECT_EQ(log.text(), "");
}

TEST_F(VerifierSourcesTest, EqualCertificates_ComeOnceFromTheFirstSource) {
  source->certificates = {handle(root), handle(root)};
  store->add(RefObject(handle(root)));
  EXPECT_EQ(kindsOf(certificates(stackOf({root, root}))), Kinds{Kind::kLookupMethod});
  addToDirectory(directory.path(), root.get());
  EXPECT_EQ(kindsOf(certificates(stackOf({root}))), Kinds{Kind::kTrustDirectory});
}

TEST_F(VerifierSourcesTest, AnswersOfAnotherName_AreLeftOut) {
  const Issued other = issueCA("CN=Other");
  writeFile(directory / hashName(root.get()), pem(other.get()));
  class Careless : public LookupMethod {
   public:
    Careless() : LookupMethod("careless") {}
    using LookupMethod::getBySubject;
    void getBySubject(const DistinguishedName& /*name*/, std::list<RefCertificate>& out) override {
      out = {RefCertificate(), handle(issueCA("CN=Third"))};
    }
  };
  store->add(RefLookupMethod(new Careless));
  const auto found = certificates();
  EXPECT_EQ(found.found.size(), 0U);
  EXPECT_FALSE(found.cut);
}

TEST_F(VerifierSourcesTest, ObjectsOfTheStore_StayAsTheyAre) {
  addToDirectory(directory.path(), root.get());
  source->certificates = {handle(root)};
  source->crls = {crlHandle({.issuer = &root})};
  EXPECT_EQ(certificates().found.size(), 1U);
  EXPECT_EQ(crls().found.size(), 1U);
  EXPECT_TRUE(store->objects().empty());
}

// -------------------------------------------------------------------------------------------- CRLs

TEST_F(VerifierSourcesTest, CRLs_ComeFromTheDirectoryAndTheMethodsWhateverTheirDates) {
  addToDirectory(directory.path(),
                 makeCRL({.issuer = &root, .lastUpdate = -48h, .nextUpdate = -24h}).get());
  addToDirectory(directory.path(),
                 makeCRL({.issuer = &root, .lastUpdate = 24h, .nextUpdate = 48h}).get());
  const TempDir other;
  store->add(RefLookupMethod(new HashDirLookupMethod(other.string())));
  addToDirectory(other.path(),
                 makeCRL({.issuer = &root, .lastUpdate = -72h, .nextUpdate = -48h}).get());
  source->crls = {RefCertificateRevocationList(),
                  crlHandle({.issuer = &root, .lastUpdate = -96h, .nextUpdate = -72h})};
  source->anyName = true;
  const auto found = crls();
  EXPECT_EQ(kindsOf(found), (Kinds{Kind::kLookupMethod, Kind::kLookupMethod, Kind::kTrustDirectory,
                                   Kind::kTrustDirectory}));
  EXPECT_EQ(found.found[1].from.place, "HashDirLookupMethod");
  EXPECT_FALSE(found.cut);
}

TEST_F(VerifierSourcesTest, CRLsBesideTheAnchors_AreReadWhereNoOtherSourceHasACurrentOne) {
  addToDirectory(directory.path(), makeCRL({.issuer = &root}).get());
  const Issued other = issueCA("CN=Other");
  source->anyName = true;
  struct Row {
    CRLOptions options;
    bool read;
  };
  const Row rows[] = {{{.issuer = &root}, false},
                      {{.issuer = &other}, true},
                      {{.issuer = &root, .lastUpdate = -48h, .nextUpdate = -1h}, true},
                      {{.issuer = &root, .lastUpdate = 1h, .nextUpdate = 48h}, true},
                      {{.issuer = &root, .nextUpdate = std::nullopt}, true},
                      {{.issuer = &root, .number = Serial(2), .deltaBase = Serial(1)}, true}};
  for (const Row& row : rows) {
    source->crls = {crlHandle(row.options)};
    EXPECT_EQ(crls().found.size(), row.read ? 2U : 1U);
  }
}

TEST_F(VerifierSourcesTest, CRLsOfOtherIssuers_AreKept) {
  const Issued other = issueCA("CN=Other");
  source->crls = {crlHandle({.issuer = &other})};
  source->anyName = true;
  EXPECT_EQ(crls().found.size(), 1U);
}

TEST_F(VerifierSourcesTest, EqualCRLs_ComeOnceFromTheFirstSource) {
  const Owned<X509_CRL> crl = makeCRL({.issuer = &root});
  addToDirectory(directory.path(), crl.get());
  source->crls = {handle(crlFromDer(der(crl.get()))), handle(crlFromDer(der(crl.get())))};
  EXPECT_EQ(kindsOf(crls()), Kinds{Kind::kLookupMethod});
}

// ---------------------------------------------------------------------------------- what is damaged

TEST_F(VerifierSourcesTest, DamagedFiles_HideNothing) {
  const Owned<X509_CRL> crl = makeCRL({.issuer = &root});
  const std::string damagedCRL = crlHashName(crl.get(), 0);
  const std::string damaged = hashName(root.get(), 0);
  writeFile(directory / damagedCRL, "-----BEGIN X509 CRL-----\nMAA=\n-----END X509 CRL-----\n");
  writeFile(directory / crlHashName(crl.get(), 1), pem(crl.get()));
  const auto lists = crls();
  EXPECT_EQ(lists.found.size(), 1U);
  EXPECT_TRUE(lists.cut);
  EXPECT_EQ(log.count("Passed over " + (directory / damagedCRL).string() + ": malformed X509 CRL"),
            1U)
      << log.text();
  log.clear();
  writeFile(directory / damaged, "neither of the two");
  writeFile(directory / hashName(root.get(), 1), pem(root.get()));
  const auto found = certificates();
  EXPECT_EQ(found.found.size(), 1U);
  EXPECT_TRUE(found.cut);
  EXPECT_EQ(log.count("Passed over " + (directory / damaged).string()), 1U) << log.text();
}

TEST_F(VerifierSourcesTest, DamagedFilesInADirectoryMethod_HideNothing) {
  const TempDir other;
  store->add(RefLookupMethod(new HashDirLookupMethod(other.string())));
  const Owned<X509_CRL> crl = makeCRL({.issuer = &root});
  writeFile(other / crlHashName(crl.get(), 0), "damaged");
  writeFile(other / crlHashName(crl.get(), 1), pem(crl.get()));
  const auto lists = crls();
  EXPECT_EQ(kindsOf(lists), Kinds{Kind::kLookupMethod});
  EXPECT_TRUE(lists.cut);
}

TEST_F(VerifierSourcesTest, WhatCannotBeReadAsEver_StillThrowsThere) {
  writeFile(directory / hashName(root.get()), "damaged");
  const VerificationRun run(static_cast<const X509*>(nullptr));
  EXPECT_TRUE(certificates().cut);
  std::list<RefCertificate> found;
  EXPECT_THROW(store->findAll(name, found), Exception);
}

TEST_F(VerifierSourcesTest, SourcesThatThrow_KeepNoneFromAnswering) {
  source->onQuery = [](Query, const DistinguishedName&) {
    throw Exception("Source", Exception::kFailure, "Source", 1).stringParameter("is down");
  };
  MemorySource& next = another();
  next.crls = {crlHandle({.issuer = &root})};
  next.certificates = {handle(root)};
  const VerificationRun run(static_cast<const X509*>(nullptr));
  for (int i = 0; i < 2; ++i) {
    const auto lists = crls();
    EXPECT_EQ(lists.found.size(), 1U);
    EXPECT_TRUE(lists.cut);
  }
  EXPECT_EQ(source->crlQueries, 1) << "one that is down is not asked again";
  EXPECT_EQ(log.text(), "7 Passed over what lookup method memory has: is down\n");
  const auto found = certificates();
  EXPECT_EQ(found.found.size(), 1U);
  EXPECT_TRUE(found.cut);
  EXPECT_FALSE(run.fellShort());
}

TEST_F(VerifierSourcesTest, WithoutMemory_TheRunFallsShort) {
  source->onQuery = [](Query, const DistinguishedName&) { throw std::bad_alloc(); };
  another().crls = {crlHandle({.issuer = &root})};
  const VerificationRun run(static_cast<const X509*>(nullptr));
  const auto lists = crls();
  EXPECT_EQ(lists.found.size(), 1U);
  EXPECT_TRUE(lists.cut);
  EXPECT_TRUE(run.fellShort());
}

TEST_F(VerifierSourcesTest, ExceptionsOfADaemon_GoOn) {
  source->onQuery = [](Query, const DistinguishedName&) { throw std::runtime_error("mine"); };
  EXPECT_THROW(crls(), std::runtime_error);
  EXPECT_THROW(certificates(), std::runtime_error);
}

// ------------------------------------------------------------------------------------------ bounds

TEST_F(VerifierSourcesTest, InAVerification_EachSourceIsAskedOnceForAName) {
  source->crls = {crlHandle({.issuer = &root})};
  source->certificates = {handle(root)};
  const VerificationRun run(static_cast<const X509*>(nullptr));
  for (int i = 0; i < 3; ++i) {
    const VerificationRun nested(static_cast<const X509*>(nullptr));
    EXPECT_EQ(crls().found.size(), 1U);
    EXPECT_EQ(certificates().found.size(), 1U);
  }
  EXPECT_EQ(source->crlQueries, 1);
  EXPECT_EQ(source->certificateQueries, 1);
}

TEST_F(VerifierSourcesTest, WhenTheLookUpsAreUsedUp_NothingIsFoundAndTheAnswerIsCut) {
  source->crls = {crlHandle({.issuer = &root})};
  const VerificationRun run(static_cast<const X509*>(nullptr));
  for (unsigned int i = 0; i < VerificationRun::kMaximumLookups; ++i) {
    ASSERT_TRUE(VerificationRun::admitLookup());
  }
  const auto lists = crls();
  EXPECT_TRUE(lists.found.empty());
  EXPECT_TRUE(lists.cut);
  EXPECT_TRUE(run.fellShort());
  const auto byURI = VerifierSources(store, {}).crls(Uri("urn:nobody"));
  EXPECT_TRUE(byURI.cut);
}

TEST_F(VerifierSourcesTest, WhatIsTooMuchToDecode_IsLeftOut) {
  addToDirectory(directory.path(), makeCRL({.issuer = &root}).get());
  const VerificationRun run(static_cast<const X509*>(nullptr));
  ASSERT_TRUE(VerificationRun::admitDecoding(VerificationRun::kMaximumDecodedBytes));
  const auto lists = crls();
  EXPECT_TRUE(lists.found.empty());
  EXPECT_TRUE(lists.cut);
  EXPECT_TRUE(run.fellShort());
}

TEST_F(VerifierSourcesTest, WithoutProcessorTime_NoSourceIsAsked) {
  source->certificates = {handle(root)};
  const VerificationRun run(nullptr, {.processorTime = 0ns});
  const auto found = certificates();
  EXPECT_TRUE(found.found.empty());
  EXPECT_TRUE(found.cut);
  EXPECT_EQ(source->certificateQueries, 0);
}

// ---------------------------------------------------------------------------------- URIs of nobody

TEST_F(VerifierSourcesTest, OtherSchemes_HaveNothing) {
  VerifierSources sources(store, RefStackOfCertificate());
  for (const char* const text : {"", "ldap://host.test/cn=CA", "file:///etc/passwd", "urn:a"}) {
    SCOPED_TRACE(text);
    const auto lists = sources.crls(Uri(text));
    EXPECT_TRUE(lists.found.empty());
    EXPECT_FALSE(lists.cut);
    const auto answers = sources.ocsp(Uri(text), "request");
    EXPECT_TRUE(answers.found.empty());
    EXPECT_FALSE(answers.cut);
  }
}

}  // namespace
}  // namespace Velantrix::Test
