#include "foundation/run/VerificationRun.h"
#include "support/Bulk.h"
#include "support/Cost.h"
#include "support/LogCapture.h"
#include "unit/store/EmptyStore.h"
#include "unit/store/FakeMethod.h"
#include "unit/store/Model.h"
#include "unit/store/Unprivileged.h"
#include "unit/store/Watch.h"

#include <pkx509/ObjectStore.h>
#include <velantrix/Exception.h>

#include <cctype>
#include <gtest/gtest.h>
#include <type_traits>

namespace Velantrix::Test {
namespace {

using namespace std::string_literals;

static_assert(std::is_base_of_v<RefImpl, ObjectStore>);
static_assert(!std::is_copy_constructible_v<ObjectStore>);
static_assert(std::is_base_of_v<Ref<ObjectStore>, RefObjectStore>);

constexpr unsigned int kUntouched = 0xdeadU;
constexpr unsigned int kNameOnly = 32;
constexpr unsigned int kNameAndKey = 36;

using Certificates = std::list<RefCertificate>;
using CRLs = std::list<RefCertificateRevocationList>;

/// The certificate that OpenSSL finds in the store, null when there is none.
Owned<X509> foundByOpenSSL(X509_STORE* store, const X509* wanted) {
  const Owned<X509_STORE_CTX> context(X509_STORE_CTX_new());
  EXPECT_EQ(X509_STORE_CTX_init(context.get(), store, nullptr, nullptr), 1);
  const Owned<X509_OBJECT> object(X509_STORE_CTX_get_obj_by_subject(context.get(), X509_LU_X509,
                                                                    X509_get_subject_name(wanted)));
  X509* const found = object == nullptr ? nullptr : X509_OBJECT_get0_X509(object.get());
  if (found != nullptr) X509_up_ref(found);
  return Owned<X509>(found);
}

std::vector<std::string> texts(const std::vector<DistinguishedName>& names) {
  std::vector<std::string> out;
  for (const DistinguishedName& name : names) out.push_back(name.asString());
  return out;
}

/// A row's name with nothing in it that GoogleTest does not take.
std::string testName(std::string text) {
  for (char& c : text) {
    if (std::isalnum(static_cast<unsigned char>(c)) == 0) c = '_';
  }
  return text;
}

// -------------------------------------------------------------------------------------- making one

TEST(ObjectStore, DirectoryDoesNotExist_IsAnEmptyOne) {
  RefObjectStore store("/nonexistent/directory", X509_FILETYPE_PEM);
  ASSERT_NE(static_cast<x509_store_st*>(store), nullptr);
  EXPECT_EQ(store->native(), static_cast<x509_store_st*>(store));
  EXPECT_TRUE(store->methods().empty());
  EXPECT_TRUE(store->objects().empty());
  EXPECT_EQ(foundByOpenSSL(store, issueCA("CN=Root").get()), nullptr);
  EXPECT_EQ(ERR_peek_error(), 0UL);
}

TEST(ObjectStore, DirectoryCannotBeAttached_TheStoreIsMadeAllTheSame) {
  ERR_clear_error();
  RefObjectStore store("", X509_FILETYPE_PEM);
  EXPECT_NE(store->native(), nullptr);
  EXPECT_EQ(store->add("", X509_FILETYPE_PEM), 0);
  EXPECT_EQ(ERR_peek_error(), 0UL) << "an error was left to be blamed on the next caller";
}

TEST(ObjectStore, Directory_IsOpenSSLsHashDirectory) {
  const Issued root = issueCA("CN=Root");
  const TempDir directory;
  addToDirectory(directory.path(), root.get());
  RefObjectStore store(directory.string(), X509_FILETYPE_PEM);
  const Owned<X509> found = foundByOpenSSL(store, root.get());
  ASSERT_NE(found, nullptr);
  EXPECT_EQ(X509_cmp(found.get(), root.get()), 0);
  EXPECT_TRUE(store->objects().empty()) << "what OpenSSL finds is its own business";
}

TEST(ObjectStore, FileType_IsHandedToOpenSSL) {
  const Issued root = issueCA("CN=Root");
  const TempDir directory;
  writeFile(directory / hashName(root.get()), der(root.get()));
  EXPECT_EQ(foundByOpenSSL(RefObjectStore(directory.string(), X509_FILETYPE_PEM), root.get()),
            nullptr);
  EXPECT_NE(foundByOpenSSL(RefObjectStore(directory.string(), X509_FILETYPE_ASN1), root.get()),
            nullptr);
  ERR_clear_error();
}

TEST(ObjectStore, MoreDirectories_AreAttachedWithOpenSSLsResult) {
  const Issued root = issueCA("CN=Root");
  const TempDir directory;
  addToDirectory(directory.path(), root.get());
  RefObjectStore store = emptyStore();
  EXPECT_EQ(foundByOpenSSL(store, root.get()), nullptr);
  EXPECT_EQ(store->add(directory.string(), X509_FILETYPE_PEM), 1);
  EXPECT_NE(foundByOpenSSL(store, root.get()), nullptr);
}

TEST(ObjectStore, Objects_AreListedInOrderAndUnknownToOpenSSL) {
  const Issued a = issueCA("CN=A");
  const Issued b = issueCA("CN=B");
  const RefObject first(handle(a));
  RefObjectStore store = emptyStore();
  store->add(first);
  store->add(Certificates{handle(b), handle(a)});
  ASSERT_EQ(store->objects().size(), 3U);
  auto object = store->objects().begin();
  EXPECT_EQ(object->get(), first.get());
  EXPECT_EQ((*++object)->data, b.get());
  EXPECT_EQ((*++object)->data, a.get());
  EXPECT_EQ(foundByOpenSSL(store, a.get()), nullptr);
  EXPECT_EQ(sk_X509_OBJECT_num(X509_STORE_get0_objects(store)), 0);
}

TEST(ObjectStore, MethodAddedTwice_IsOneLookupAndTwoEntries) {
  Events events;
  const Source source("Fake", &events);
  RefObjectStore store = emptyStore();
  store->add(source.handle);
  store->add(source.handle);
  ASSERT_EQ(store->methods().size(), 2U);
  EXPECT_EQ(store->methods().front(), source.handle);
  EXPECT_EQ(store->methods().back(), source.handle);
  EXPECT_EQ(foundByOpenSSL(store, issueCA("CN=Root").get()), nullptr);
  EXPECT_EQ(events, (Events{"initialize", "subject 1 CN=Root"}));
}

// ------------------------------------------------------------------------------------------- clone

TEST(ObjectStore, Clone_SharesMethodsAndDirectoryButNoObjects) {
  const Issued root = issueCA("CN=Root");
  const TempDir directory;
  addToDirectory(directory.path(), root.get());
  const Source first("First");
  const Source second("Second");
  first->crls = {crlHandle({.issuer = &root})};
  RefObjectStore store(directory.string(), X509_FILETYPE_PEM);
  store->add(first.handle);
  store->add(second.handle);
  store->add(first.handle);
  CRLs crls;
  store->find(handle(root)->subject(), crls);
  ASSERT_EQ(store->objects().size(), 2U);

  RefObjectStore clone = store->clone();
  EXPECT_NE(clone.get(), store.get());
  EXPECT_NE(clone->native(), store->native());
  EXPECT_TRUE(clone->objects().empty());
  EXPECT_EQ(pointers(clone->methods()), pointers(store->methods()));
  EXPECT_EQ(clone->referenceCount(), 1);

  EXPECT_NE(foundByOpenSSL(clone, root.get()), nullptr);
  unsigned int score = 0;
  const CRLs one{crlHandle({.issuer = &root})};
  EXPECT_FALSE(clone->findIssuer(one.front(), score).empty()) << "the directory's name was lost";
}

TEST(ObjectStore, Clone_KeepsTheFileType) {
  const Issued root = issueCA("CN=Root");
  const TempDir directory;
  writeFile(directory / hashName(root.get()), der(root.get()));
  const RefObjectStore store(directory.string(), X509_FILETYPE_ASN1);
  EXPECT_NE(foundByOpenSSL(store.get()->clone(), root.get()), nullptr);
}

TEST(ObjectStore, Clone_InitializesItsOwnLookups) {
  Events events;
  const Source source("Fake", &events);
  RefObjectStore store = emptyStore();
  store->add(source.handle);
  {
    const RefObjectStore clone = store->clone();
    EXPECT_EQ(events, (Events{"initialize", "initialize"}));
  }
  EXPECT_EQ(events, (Events{"initialize", "initialize", "finish", "clear"}));
}

// ---------------------------------------------------------------------------------------- find

TEST(ObjectStore, FindCertificates_AsksTheMethodsInOrderAndKeepsDuplicates) {
  Events events;
  const Issued a = issueCA("CN=A");
  const Issued b = issueCA("CN=B");
  const Source first("First", &events);
  const Source second("Second", &events);
  first->certificates = {handle(b), handle(a)};
  second->certificates = {handle(a)};
  RefObjectStore store = emptyStore();
  store->add(first.handle);
  store->add(second.handle);
  store->add(RefObject(handle(a)));
  events.clear();

  Certificates out{handle(a)};
  store->find(modelName("C=DE,CN=Asked"), out);
  std::vector<X509*> found;
  for (const RefCertificate& certificate : out) found.push_back(certificate);
  EXPECT_EQ(found, (std::vector<X509*>{a.get(), b.get(), a.get(), a.get()}));
  EXPECT_EQ(events,
            (Events{"First: certificates CN=Asked,C=DE", "Second: certificates CN=Asked,C=DE"}));
  EXPECT_EQ(first->handed, 0U) << "a method gets a list of its own";
  EXPECT_EQ(second->handed, 0U);
  EXPECT_EQ(store->objects().size(), 1U);
}

TEST(ObjectStore, FindCRLs_CachesEveryOneEveryTime) {
  Events events;
  const Issued root = issueCA("CN=Root");
  const Source first("First", &events);
  const Source second("Second", &events);
  first->crls = {crlHandle({.issuer = &root}), crlHandle({.issuer = &root})};
  second->crls = {first->crls.front()};
  RefObjectStore store = emptyStore();
  store->add(first.handle);
  store->add(second.handle);
  events.clear();

  CRLs out{crlHandle({.issuer = &root})};
  store->find(modelName("CN=Root"), out);
  EXPECT_EQ(events, (Events{"First: crls CN=Root", "Second: crls CN=Root"}));
  EXPECT_EQ(second->handed, 0U) << "a method gets a list of its own";
  ASSERT_EQ(out.size(), 4U);
  std::vector<CertificateRevocationList*> expected = pointers(first->crls);
  expected.push_back(first->crls.front().get());
  std::vector<CertificateRevocationList*> found = pointers(out);
  found.erase(found.begin());
  EXPECT_EQ(found, expected);

  std::vector<CertificateRevocationList*> cached;
  for (const RefObject& object : store->objects()) cached.push_back(object->crl.get());
  EXPECT_EQ(cached, expected) << "what was in the list before is not cached";

  store->find(modelName("CN=Root"), out);
  EXPECT_EQ(store->objects().size(), 6U);
}

TEST(ObjectStore, FindThrows_WhatWasFoundBeforeStays) {
  const Issued root = issueCA("CN=Root");
  const Source first("First");
  const Source second("Second");
  first->crls = {crlHandle({.issuer = &root})};
  first->certificates = {handle(root)};
  RefObjectStore store = emptyStore();
  store->add(first.handle);
  store->add(second.handle);

  second->throwOn = "crls";
  CRLs crls;
  EXPECT_THROW(store->find(modelName("CN=Root"), crls), FakeMethod::Failure);
  EXPECT_EQ(crls.size(), 1U);
  EXPECT_EQ(store->objects().size(), 1U);

  second->throwOn = "certificates";
  Certificates certificates;
  EXPECT_THROW(store->find(modelName("CN=Root"), certificates), FakeMethod::Failure);
  EXPECT_EQ(certificates.size(), 1U);

  unsigned int score = kUntouched;
  const Issued other = issueCA("CN=Other");
  EXPECT_THROW(store->findIssuer(crlHandle({.issuer = &other}), score), FakeMethod::Failure);
}

TEST(ObjectStore, FindByNullURI_DoesNothing) {
  const Issued root = issueCA("CN=Root");
  const LogCapture log;
  RefObjectStore store = emptyStore();
  CRLs out{crlHandle({.issuer = &root})};
  store->find(Uri(), out);
  EXPECT_EQ(out.size(), 1U);
  EXPECT_TRUE(store->objects().empty());
  EXPECT_TRUE(log.lines().empty());
}

TEST(ObjectStore, FindByURI_CachesWhatTheListHeldBefore) {
  const Issued root = issueCA("CN=Root");
  const LogCapture log;
  RefObjectStore store = emptyStore();
  CRLs out{crlHandle({.issuer = &root}), crlHandle({.issuer = &root})};
  const std::vector<CertificateRevocationList*> before = pointers(out);
  store->find(Uri("ldap://example.test/ca.crl"), out);
  EXPECT_EQ(pointers(out), before);
  std::vector<CertificateRevocationList*> cached;
  for (const RefObject& object : store->objects()) cached.push_back(object->crl.get());
  EXPECT_EQ(cached, before);
  EXPECT_EQ(log.text(), "");  // a list that holds something ends the look-up
}

TEST(ObjectStore, FindByGeneralName_TakesDirectoryNamesAndURIs) {
  const struct {
    const char* name;
    std::vector<std::string> names;
    bool uri;
  } rows[] = {
      {"dirName:C=US,O=Example", {"O=Example,C=US"}, false},
      {"URI:ldap://example.test/ca.crl", {}, true},
      {"email:someone@example.test", {}, false},
      {"DNS:example.test", {}, false},
      {"IP:192.0.2.1", {}, false},
      {"RID:1.2.3.4", {}, false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const LogCapture log;
    const Source source;
    RefObjectStore store = emptyStore();
    store->add(source.handle);
    CRLs out;
    store->find(GeneralName(makeGeneralName(row.name).get()), out);
    EXPECT_EQ(texts(source->names), row.names);
    EXPECT_EQ(log.contains("ldap://example.test/ca.crl"), row.uri);
  }
}

// --------------------------------------------------------------------- find for a distribution
// point

struct PointRow {
  const char* name;
  std::string issuer;  ///< of the certificate
  DistributionPoint point;
  std::vector<std::string> names;  ///< CRL issuers that the methods are asked for
  std::vector<std::string> uris;
};

class FindByDistributionPoint : public testing::TestWithParam<PointRow> {};

TEST_P(FindByDistributionPoint, AsksFor) {
  const PointRow& row = GetParam();
  const LogCapture log;
  const Issued ca = issueCA("CN=CA");
  const RefCertificate certificate = handle(issue({.subject = "CN=Leaf",
                                                   .issuer = &ca,
                                                   .issuerName = row.issuer,
                                                   .crlDistributionPoints = {row.point}}));
  const std::list<RefCRLDistributionPoint> points = certificate->crlDistributionPoints();
  ASSERT_EQ(points.size(), 1U);
  const Source source;
  RefObjectStore store = emptyStore();
  store->add(source.handle);

  // A scheme that is not fetched leaves a line, as long as nothing has been found.
  CRLs out;
  store->find(certificate, points.front(), out);
  EXPECT_EQ(texts(source->names), row.names);
  EXPECT_TRUE(out.empty());
  EXPECT_EQ(log.lines().size(), row.uris.size()) << log.text();
  for (const std::string& uri : row.uris) EXPECT_TRUE(log.contains(uri)) << log.text();

  source->crls = {crlHandle({.issuer = &ca})};
  out = source->crls;
  store->find(certificate, points.front(), out);
  EXPECT_EQ(out.size(), 1 + row.names.size());
}

const PointRow kPointRows[] = {
    {"no name and no issuers", "C=US,O=Example", {}, {}, {}},
    {"no name, issuers of all kinds in their order",
     "C=US,O=Example",
     {.crlIssuers = {"dirName:CN=A", "URI:ldap://example.test/a", "email:a@example.test",
                     "dirName:CN=B"}},
     {"CN=A", "CN=B"},
     {"ldap://example.test/a"}},
    {"full names in their order; issuers do not count",
     "C=US,O=Example",
     {.fullNames = {"dirName:CN=B", "DNS:example.test", "URI:ldap://example.test/a", "dirName:CN=A",
                    "URI:ldap://example.test/b"},
      .crlIssuers = {"dirName:CN=C"}},
     {"CN=B", "CN=A"},
     {"ldap://example.test/a", "ldap://example.test/b"}},
    {"a URI that is none",
     "C=US,O=Example",
     {.fullNames = {"URI:not a URI", "dirName:CN=A"}},
     {"CN=A"},
     {}},
    {"relative name, completed by the certificate's issuer",
     "C=US,O=Example",
     {.relativeName = "CN=CRL1"},
     {"CN=CRL1,O=Example,C=US"},
     {}},
    {"relative name of two values",
     "C=US,O=Example",
     {.relativeName = "CN=CRL1+OU=Lists"},
     {"CN=CRL1+OU=Lists,O=Example,C=US"},
     {}},
    {"relative name with a comma and a plus in it",
     "C=US,O=Ex\\,ample",
     {.relativeName = "CN=CRL\\,1\\+2"},
     {"CN=CRL\\,1\\+2,O=Ex\\,ample,C=US"},
     {}},
    {"relative name, completed by every directory name among the issuers",
     "C=US,O=Example",
     {.relativeName = "CN=CRL1",
      .crlIssuers = {"dirName:C=DE,O=A", "URI:ldap://example.test/a", "dirName:O=B"}},
     {"CN=CRL1,O=A,C=DE", "CN=CRL1,O=B"},
     {}},
    {"relative name, no directory name among the issuers",
     "C=US,O=Example",
     {.relativeName = "CN=CRL1", .crlIssuers = {"URI:ldap://example.test/a"}},
     {},
     {}},
};

INSTANTIATE_TEST_SUITE_P(ObjectStore, FindByDistributionPoint, testing::ValuesIn(kPointRows),
                         [](const auto& row) { return testName(row.param.name); });

TEST(ObjectStore, FindByEmptyDistributionPoint_DoesNothing) {
  const Source source;
  RefObjectStore store = emptyStore();
  store->add(source.handle);
  CRLs out;
  store->find(RefCertificate(), RefCRLDistributionPoint(), out);
  EXPECT_TRUE(source->names.empty());
}

TEST(ObjectStore, RelativeName_IsAskedForByItsParsedForm) {
  const Issued ca = issueCA("C=US,O=Example");
  const RefCertificate certificate = certificateWith({.relativeName = "CN=CRL1"}, ca);
  ASSERT_EQ(certificate->issuer().asString(), "O=Example,C=US");
  const Source source;
  RefObjectStore store = emptyStore();
  store->add(source.handle);
  CRLs out;
  store->find(certificate, certificate->crlDistributionPoints().front(), out);
  ASSERT_EQ(source->names.size(), 1U);
  EXPECT_EQ(source->names.front(), DistinguishedName("CN=CRL1,O=Example,C=US"));
  EXPECT_EQ(source->names.front(), modelName("C=US,O=Example,CN=CRL1"));
}

TEST(ObjectStore, RelativeNameThatMakesNoName_IsNotAskedForUnderTheCertificatesIssuer) {
  // An issuer without any RDN leaves "CN=CRL1," behind, which is no name.
  const Issued ca = issueCA("CN=CA");
  Owned<X509> nameless(X509_dup(issue({.subject = "CN=Leaf",
                                       .issuer = &ca,
                                       .crlDistributionPoints = {{.relativeName = "CN=CRL1"}}})
                                    .get()));
  ASSERT_EQ(X509_set_issuer_name(nameless.get(), Owned<X509_NAME>(X509_NAME_new()).get()), 1);
  const RefCertificate certificate = CertificateFactory()(nameless.release(), true);
  ASSERT_TRUE(certificate->issuer().empty());
  const Source source;
  RefObjectStore store = emptyStore();
  store->add(source.handle);
  CRLs out;
  store->find(certificate, certificate->crlDistributionPoints().front(), out);
  EXPECT_TRUE(source->names.empty());
}

TEST(ObjectStore, RelativeNameThatMakesNoName_IsAskedForUnderACRLIssuer) {
  const Issued ca = issueCA("CN=CA");
  const Owned<DIST_POINT> native(DIST_POINT_new());
  native->distpoint = DIST_POINT_NAME_new();
  native->distpoint->type = 1;
  native->distpoint->name.relativename = sk_X509_NAME_ENTRY_new_null();
  const unsigned char value[] = "CRL1";
  sk_X509_NAME_ENTRY_push(
      native->distpoint->name.relativename,
      X509_NAME_ENTRY_create_by_NID(nullptr, NID_commonName, MBSTRING_UTF8, value, 4));
  native->CRLissuer = GENERAL_NAMES_new();
  GENERAL_NAME* const nameless = GENERAL_NAME_new();
  GENERAL_NAME_set0_value(nameless, GEN_DIRNAME, X509_NAME_new());
  sk_GENERAL_NAME_push(native->CRLissuer, nameless);

  const Source source;
  RefObjectStore store = emptyStore();
  store->add(source.handle);
  CRLs out;
  store->find(handle(ca), RefCRLDistributionPoint(native.get()), out);
  ASSERT_EQ(source->names.size(), 1U);
  EXPECT_TRUE(source->names.front().empty());
}

// A name under an issuer's of 60 kB takes ten milliseconds to make.
TEST(ObjectStore, RelativeNamesUnderALongIssuer_AreMadeOnlyWhereSomebodyIsAsked) {
  const std::string rdn = Bulk::element(0x31, Bulk::sequence("\x06\x03\x55\x04\x03\x0c\x01x"s));
  const std::string long60 = Bulk::sequence(Bulk::repeated(rdn, 60000));
  const RefCertificate certificate =
      CertificateFactory()(certFromDer(Bulk::certificate(long60, {})).release(), true);
  const RefCertificate other = certificateWith({.relativeName = "CN=CRL1"}, issueCA("CN=CA"));
  const RefCRLDistributionPoint point = other->crlDistributionPoints().front();
  const auto findAll = [&](const RefObjectStore& store) {
    CRLs out;
    for (int i = 0; i < 100; ++i) store->find(certificate, point, out);
  };
  RefObjectStore store = emptyStore();
  EXPECT_TRUE(costInProportion([&] { findAll(store); }, [] {}));
  const Source source;
  store->add(source.handle);
  const VerificationRun run(static_cast<const X509*>(nullptr));
  while (VerificationRun::admitLookup()) {
  }
  EXPECT_TRUE(costInProportion([&] { findAll(store); }, [] {}));
  EXPECT_TRUE(source->names.empty());
}

// -------------------------------------------------------------------------------- the issuer of a
// CRL

/// What stands in the way of a candidate, and the score that it leaves.
struct CandidateRow {
  const char* name;
  CertificateOptions candidate;
  KeyId crlKeyId;
  bool found;
  unsigned int score;
};

class FindIssuer : public testing::TestWithParam<CandidateRow> {
 protected:
  /// A CRL of CN=CA by the candidate's key, so that the right key identifier is the candidate's.
  static CRLs crlFor(const CandidateRow& row, Issued& candidate) {
    candidate = issue(row.candidate);
    const Issued signer = issue({.subject = "CN=CA", .ca = true, .key = candidate.key});
    return {crlHandle({.issuer = &signer, .authorityKeyId = row.crlKeyId})};
  }
};

const CandidateRow kCandidateRows[] = {
    {"matches", {.subject = "CN=CA", .ca = true}, KeyId::Right, true, kNameAndKey},
    {"matches in other letters", {.subject = "CN=ca", .ca = true}, KeyId::Right, true, kNameAndKey},
    {"other name", {.subject = "CN=Other", .ca = true}, KeyId::Right, false, kUntouched},
    {"other key identifier", {.subject = "CN=CA", .ca = true}, KeyId::Wrong, false, kNameOnly},
    {"no subject key identifier",
     {.subject = "CN=CA", .ca = true, .subjectKeyId = KeyId::Absent},
     KeyId::Right,
     false,
     kNameOnly},
    {"wrong subject key identifier",
     {.subject = "CN=CA", .ca = true, .subjectKeyId = KeyId::Wrong},
     KeyId::Right,
     false,
     kNameOnly},
    {"CRL without authority key identifier",
     {.subject = "CN=CA", .ca = true},
     KeyId::Absent,
     true,
     kNameAndKey},
    {"CRL with an authority key identifier without a key identifier",
     {.subject = "CN=CA", .ca = true},
     KeyId::SerialOnly,
     false,
     kNameOnly},
    {"neither side has a key identifier",
     {.subject = "CN=CA", .ca = true, .subjectKeyId = KeyId::Absent},
     KeyId::SerialOnly,
     true,
     kNameAndKey},
    {"may not sign CRLs",
     {.subject = "CN=CA", .ca = true, .keyUsage = KU_KEY_CERT_SIGN},
     KeyId::Right,
     false,
     kNameAndKey},
    {"may only sign CRLs",
     {.subject = "CN=CA", .ca = true, .keyUsage = KU_CRL_SIGN},
     KeyId::Right,
     true,
     kNameAndKey},
    {"key usage absent",
     {.subject = "CN=CA", .ca = true, .keyUsage = kAbsent},
     KeyId::Right,
     true,
     kNameAndKey},
    {"no CA", {.subject = "CN=CA", .keyUsage = KU_CRL_SIGN}, KeyId::Right, true, kNameAndKey},
};

TEST_P(FindIssuer, AmongTheObjects) {
  Issued candidate;
  const CRLs crl = crlFor(GetParam(), candidate);
  RefObjectStore store = emptyStore();
  store->add(Certificates{handle(candidate)});
  unsigned int score = kUntouched;
  const RefCertificate& issuer = store->findIssuer(crl.front(), score);
  EXPECT_EQ(static_cast<X509*>(issuer), GetParam().found ? candidate.get() : nullptr);
  EXPECT_EQ(score, GetParam().score);
  EXPECT_EQ(store->objects().size(), 1U);
}

TEST_P(FindIssuer, InTheDirectory) {
  Issued candidate;
  const CRLs crl = crlFor(GetParam(), candidate);
  const TempDir directory;
  addToDirectory(directory.path(), candidate.get());
  RefObjectStore store(directory.string(), X509_FILETYPE_PEM);
  unsigned int score = kUntouched;
  const RefCertificate& issuer = store->findIssuer(crl.front(), score);
  EXPECT_EQ(issuer.empty(), !GetParam().found);
  EXPECT_EQ(score, GetParam().score);
  EXPECT_EQ(store->objects().size(), GetParam().found ? 1U : 0U);
}

TEST_P(FindIssuer, FromAMethod) {
  Issued candidate;
  const CRLs crl = crlFor(GetParam(), candidate);
  const Source source;
  source->certificates = {handle(candidate)};
  RefObjectStore store = emptyStore();
  store->add(source.handle);
  unsigned int score = kUntouched;
  const RefCertificate& issuer = store->findIssuer(crl.front(), score);
  EXPECT_EQ(static_cast<X509*>(issuer), GetParam().found ? candidate.get() : nullptr);
  EXPECT_EQ(score, GetParam().score);
  EXPECT_EQ(store->objects().size(), GetParam().found ? 1U : 0U);
}

INSTANTIATE_TEST_SUITE_P(ObjectStore, FindIssuer, testing::ValuesIn(kCandidateRows),
                         [](const auto& row) { return testName(row.param.name); });

TEST(ObjectStore, FindIssuerOfNoCRL_IsEmptyAndLeavesTheScore) {
  Events events;
  const Source source("Fake", &events);
  RefObjectStore store = emptyStore();
  store->add(source.handle);
  events.clear();
  unsigned int score = kUntouched;
  EXPECT_TRUE(store->findIssuer(RefCertificateRevocationList(), score).empty());
  EXPECT_EQ(score, kUntouched);
  EXPECT_EQ(events, Events());
}

TEST(ObjectStore, FindAll_GivesWhateverHasTheName) {
  const TempDir directory;
  Events events;
  const Source source("Fake", &events);
  RefObjectStore store{directory.string(), X509_FILETYPE_PEM};
  store->add(source.handle);
  const Issued object = issueCA("CN=CA");
  const Issued first = issueCA("CN=CA");
  const Issued second = issueCA("CN=CA");
  const Issued other = issueCA("CN=Other");
  Certificates out;
  store->findAll(handle(object)->subject(), out);
  EXPECT_TRUE(out.empty());

  store->add({handle(other), handle(object)});
  writeFile(directory / hashName(first.get(), 0), pem(first.get()) + pem(other.get()));
  writeFile(directory / hashName(first.get(), 1), pem(second.get()));
  events.clear();
  store->findAll(handle(object)->subject(), out);
  ASSERT_EQ(out.size(), 3U);
  EXPECT_EQ(X509_cmp(out.front(), object.get()), 0);
  EXPECT_EQ(X509_cmp(*std::next(out.begin()), first.get()), 0);
  EXPECT_EQ(X509_cmp(out.back(), second.get()), 0);
  EXPECT_EQ(events.size(), 1U) << "the method is asked as well";
}

/// One key under several certificates of one name, so that each of them passes.
class FindIssuerOrder : public testing::Test {
 protected:
  Issued make() const { return issue({.subject = "CN=CA", .ca = true, .key = key}); }
  CRLs crl() const {
    const Issued signer = make();
    return {crlHandle({.issuer = &signer})};
  }

  std::shared_ptr<EVP_PKEY> key = makeKey();
  TempDir directory;
  Events events;
  Source source{"Fake", &events};
  RefObjectStore store{directory.string(), X509_FILETYPE_PEM};
  unsigned int score = kUntouched;
};

TEST_F(FindIssuerOrder, Object_BeatsDirectoryAndMethods) {
  const Issued object = make();
  addToDirectory(directory.path(), make().get());
  source->certificates = {handle(make())};
  store->add(source.handle);
  events.clear();
  store->add(RefObject(handle(issueCA("CN=Other"))));
  store->add(RefObject(modelPair(object)));
  store->add(RefObject(crl().front()));
  store->add(RefObject(handle(object)));
  store->add(RefObject(handle(make())));
  EXPECT_EQ(static_cast<X509*>(store->findIssuer(crl().front(), score)), object.get());
  EXPECT_EQ(score, kNameAndKey);
  EXPECT_EQ(events, Events());
  EXPECT_EQ(store->objects().size(), 5U);
}

TEST_F(FindIssuerOrder, Directory_BeatsMethods) {
  const Issued filed = make();
  addToDirectory(directory.path(), filed.get());
  source->certificates = {handle(make())};
  store->add(source.handle);
  events.clear();
  const RefCertificate& issuer = store->findIssuer(crl().front(), score);
  ASSERT_FALSE(issuer.empty());
  EXPECT_EQ(X509_cmp(issuer, filed.get()), 0);
  EXPECT_EQ(events, Events());
}

TEST_F(FindIssuerOrder, Methods_ComeLast) {
  const Issued fromMethod = make();
  source->certificates = {handle(issueCA("CN=Other")), handle(fromMethod), handle(make())};
  store->add(source.handle);
  events.clear();
  EXPECT_EQ(static_cast<X509*>(store->findIssuer(crl().front(), score)), fromMethod.get());
  EXPECT_EQ(events, (Events{"certificates CN=CA"}));
}

TEST_F(FindIssuerOrder, Directory_AllCertificatesOfTheNameAreCandidates) {
  const Issued wrong = issueCA("CN=CA");
  const Issued right = make();
  addToDirectory(directory.path(), wrong.get());
  addToDirectory(directory.path(), right.get());
  const RefCertificate& issuer = store->findIssuer(crl().front(), score);
  ASSERT_FALSE(issuer.empty());
  EXPECT_EQ(X509_cmp(issuer, right.get()), 0);
}

TEST_F(FindIssuerOrder, FoundInTheDirectory_IsCachedAndFoundThereTheNextTime) {
  const std::filesystem::path file = addToDirectory(directory.path(), make().get());
  const RefCertificate* const first = &store->findIssuer(crl().front(), score);
  ASSERT_FALSE(first->empty());
  ASSERT_EQ(store->objects().size(), 1U);
  EXPECT_EQ(first, &store->objects().front()->certificate) << "it must lead into the store";

  std::filesystem::remove(file);
  EXPECT_EQ(&store->findIssuer(crl().front(), score), first);
  EXPECT_EQ(store->objects().size(), 1U);
}

TEST_F(FindIssuerOrder, FoundByAMethod_IsCachedAndTheMethodNotAskedAgain) {
  source->certificates = {handle(make())};
  store->add(source.handle);
  events.clear();
  const RefCertificate* const first = &store->findIssuer(crl().front(), score);
  EXPECT_EQ(&store->findIssuer(crl().front(), score), first);
  EXPECT_EQ(first, &store->objects().front()->certificate);
  EXPECT_EQ(events, (Events{"certificates CN=CA"}));
}

TEST_F(FindIssuerOrder, Reference_StaysValidWhileTheStoreGrows) {
  source->certificates = {handle(make())};
  source->crls = {crl().front()};
  store->add(source.handle);
  const RefCertificate& issuer = store->findIssuer(crl().front(), score);
  X509* const before = issuer;
  for (int i = 0; i < 100; ++i) {
    CRLs out;
    store->find(modelName("CN=CA"), out);
  }
  EXPECT_EQ(static_cast<X509*>(issuer), before);
  EXPECT_EQ(store->objects().size(), 101U);
}

TEST_F(FindIssuerOrder, NothingFound_TheScoreIsTheLastNamesakes) {
  const Issued mayNotSign =
      issue({.subject = "CN=CA", .ca = true, .keyUsage = KU_KEY_CERT_SIGN, .key = key});
  const Issued wrongKey = issueCA("CN=CA");
  const Issued other = issueCA("CN=Other");
  {
    RefObjectStore one = emptyStore();
    one->add(Certificates{handle(wrongKey), handle(mayNotSign), handle(other)});
    EXPECT_TRUE(one->findIssuer(crl().front(), score).empty());
    EXPECT_EQ(score, kNameAndKey);
  }
  {
    // The last one counts across objects, directory and methods.
    addToDirectory(directory.path(), mayNotSign.get());
    store->add(RefObject(handle(mayNotSign)));
    source->certificates = {handle(wrongKey), handle(other)};
    store->add(source.handle);
    score = kUntouched;
    EXPECT_TRUE(store->findIssuer(crl().front(), score).empty());
    EXPECT_EQ(score, kNameOnly);
  }
}

TEST_F(FindIssuerOrder, BrokenFileInTheDirectory_IsAnExceptionThatNamesIt) {
  const std::filesystem::path file = directory / hashName(make().get());
  writeFile(file, "-----BEGIN CERTIFICATE-----\nMIIB\n-----END CERTIFICATE-----\n");
  try {
    static_cast<void>(store->findIssuer(crl().front(), score));
    ADD_FAILURE() << "nothing was thrown";
  } catch (const Exception& e) {
    EXPECT_NE(e.asString().find(file.string()), std::string::npos) << e.asString();
  }
}

// --------------------------------------------------------------------------- bounds of a
// verification

TEST(ObjectStore, CRLLookupsOfOneVerification_EndWithTheLimit) {
  const LogCapture log;
  Events events;
  const Issued root = issueCA("CN=Root");
  const Source first("First", &events);
  const Source second("Second", &events);
  first->crls = {crlHandle({.issuer = &root})};
  RefObjectStore store = emptyStore();
  store->add(first.handle);
  store->add(second.handle);
  events.clear();
  {
    const VerificationRun run(static_cast<const X509*>(nullptr));
    CRLs out;
    for (int i = 0; i < 200; ++i) store->find(modelName("CN=Root"), out);
    EXPECT_EQ(events.size(), 2U) << "each source is asked once";
    EXPECT_EQ(out.size(), 128U) << "each use of its answer counts";
    EXPECT_EQ(log.lines().size(), 1U) << log.text();
    Certificates certificates;
    for (int i = 0; i < 3; ++i) store->find(modelName("CN=Root"), certificates);
    EXPECT_EQ(events.size(), 4U) << "certificates are not limited, and asked for once as well";
  }
  events.clear();
  CRLs out;
  for (int i = 0; i < 2; ++i) store->find(modelName("CN=Root"), out);
  EXPECT_EQ(events.size(), 4U) << "outside a verification nothing is counted or shared";
}

TEST(ObjectStore, EqualNamesInOneVerification_ShareOneAnswer) {
  Events events;
  const Issued root = issueCA("CN=Root");
  const Source source("Source", &events);
  source->crls = {crlHandle({.issuer = &root})};
  RefObjectStore store = emptyStore();
  store->add(source.handle);
  events.clear();
  const VerificationRun run(static_cast<const X509*>(nullptr));
  CRLs out;
  for (const char* const name : {"CN=Root", "CN=ROOT", "CN=root "}) {
    store->find(modelName(name), out);
  }
  EXPECT_EQ(events, (Events{"Source: crls CN=Root"}));
  ASSERT_EQ(out.size(), 3U);
  EXPECT_EQ(out.front()->native(), out.back()->native()) << "the same object, not read again";
  EXPECT_EQ(store->objects().size(), 3U);
  {
    const VerificationRun nested(static_cast<const X509*>(nullptr));
    const RefObjectStore clone = store->clone();
    events.clear();
    clone->find(modelName("CN=Root"), out);
    EXPECT_TRUE(events.empty());
    EXPECT_EQ(out.size(), 4U);
  }
  store->find(modelName("CN=Other"), out);
  EXPECT_EQ(events.back(), "Source: crls CN=Other");
}

TEST(ObjectStore, IssuersInOneVerification_AreLookedForOnce) {
  const TempDir directory;
  const Issued root = issueCA("CN=Root");
  RefObjectStore store(directory.string(), X509_FILETYPE_PEM);
  const RefCertificateRevocationList crl = crlHandle({.issuer = &root});
  unsigned int score = 0;
  {
    const VerificationRun run(static_cast<const X509*>(nullptr));
    EXPECT_TRUE(store->findIssuer(crl, score).empty());
    addToDirectory(directory.path(), root.get());
    EXPECT_TRUE(store->clone()->findIssuer(crl, score).empty());
  }
  EXPECT_FALSE(store->findIssuer(crl, score).empty());
}

// ---------------------------------------------------------------------------------------- lifetime

TEST(ObjectStore, LastHandle_DestroysTheStoreOnce) {
  Events events;
  RefObjectStore first = emptyStore();
  first->add(Source("Fake", &events).handle);
  EXPECT_EQ(first->referenceCount(), 1);
  RefObjectStore second(first);
  EXPECT_EQ(first->referenceCount(), 2);
  first = RefObjectStore();
  EXPECT_EQ(events, (Events{"initialize"}));
  second = RefObjectStore();
  EXPECT_EQ(events, (Events{"initialize", "finish", "clear", "destroyed"}));
}

TEST(ObjectStore, Destroyed_LookupsThenObjectsThenMethods) {
  Events events;
  Owned<X509> x509 = issueCA("CN=Root").reference();
  const CertificateWatch watch(x509.get(), events, "object freed");
  RefObjectStore store = emptyStore();
  store->add(Source("Fake", &events).handle);
  store->add(RefObject(CertificateFactory()(x509.release(), true)));
  events.clear();
  store = RefObjectStore();
  EXPECT_EQ(events, (Events{"finish", "clear", "object freed", "destroyed"}));
}

// -------------------------------------------------------------------------------- programming
// errors

TEST(ObjectStoreDeathTest, EmptyHandleAsOpenSSLStore_StopsTheProcess) {
  const RefObjectStore empty;
  EXPECT_DEATH(static_cast<void>(static_cast<x509_store_st*>(empty)), "Assertion `px != 0' failed");
  const RefObjectStore null{static_cast<ObjectStore*>(nullptr)};
  EXPECT_DEATH(static_cast<void>(static_cast<x509_store_st*>(null)), "Assertion `px != 0' failed");
}

TEST(ObjectStoreDeathTest, EmptyMethodInTheList_StopsTheProcessAtTheNextQuery) {
  const Issued root = issueCA("CN=Root");
  const CRLs crl{crlHandle({.issuer = &root})};
  RefObjectStore store = emptyStore();
  store->add(RefLookupMethod());
  ASSERT_EQ(store->methods().size(), 1U);
  Certificates certificates;
  CRLs crls;
  unsigned int score = 0;
  EXPECT_DEATH(store->find(modelName("CN=Root"), certificates), "Assertion `px != 0' failed");
  EXPECT_DEATH(store->find(modelName("CN=Root"), crls), "Assertion `px != 0' failed");
  EXPECT_DEATH(store->findIssuer(crl.front(), score), "Assertion `px != 0' failed");
}

TEST(ObjectStoreDeathTest, EmptyObjectInTheList_StopsTheProcessWhenASearchMeetsIt) {
  const Issued root = issueCA("CN=Root");
  const CRLs crl{crlHandle({.issuer = &root})};
  RefObjectStore store = emptyStore();
  store->add(RefObject());
  unsigned int score = 0;
  EXPECT_DEATH(store->findIssuer(crl.front(), score), "Assertion `px != 0' failed");

  RefObjectStore found = emptyStore();
  found->add(RefObject(handle(root)));
  found->add(RefObject());
  EXPECT_FALSE(found->findIssuer(crl.front(), score).empty()) << "the search ended before it";
}

TEST(ObjectStore, EmptyHandleDereferenced_Throws) {
  RefObjectStore empty;
  EXPECT_THROW(static_cast<void>(empty->methods()), Exception);
}

}  // namespace
}  // namespace Velantrix::Test
