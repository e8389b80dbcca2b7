// LDAPLookupMethod against OpenLDAP's server.
#include "integration/ConnectWatch.h"
#include "support/LogCapture.h"
#include "support/PrivateView.h"
#include "support/Slapd.h"
#include "support/SourceTexts.h"
#include "unit/store/Model.h"
#include "unit/verify/World.h"

#include <pkx509/ConformingVerifier.h>
#include <pkx509/LDAPLookup.h>
#include <pkx509/ObjectStore.h>
#include <pkx509/Verifier.h>
#include <velantrix/Exception.h>

#include <algorithm>
#include <cstdlib>
#include <gtest/gtest.h>
#include <list>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

namespace Velantrix::Test {
namespace {

using namespace Crypto::PKX509;

constexpr char kUser[] = "userCertificate;binary";
constexpr char kAuthority[] = "cACertificate;binary";
constexpr char kCRL[] = "certificateRevocationList;binary";
constexpr char kDelta[] = "deltaRevocationList;binary";
constexpr char kPair[] = "crossCertificatePair;binary";

// libldap reads these when it is first used. All tests run with them, and none notices.
const bool kEnvironmentIsHostile = [] {
  for (const auto& [name, value] :
       {std::pair{"LDAPURI", "ldap://127.0.0.1:1"}, std::pair{"LDAPBASE", "o=Nowhere"},
        std::pair{"LDAPSIZELIMIT", "1"}, std::pair{"LDAPTIMELIMIT", "1"},
        std::pair{"LDAPREFERRALS", "on"}, std::pair{"LDAPDEREF", "always"},
        std::pair{"LDAPVERSION", "2"}, std::pair{"LDAPTIMEOUT", "1"},
        std::pair{"LDAPTLS_REQCERT", "never"}, std::pair{"LDAPTLS_CACERT", "/nonexistent"}}) {
    ::setenv(name, value, 1);
  }
  return true;
}();

class LDAPLookup : public testing::Test {
 protected:
  LDAPLookup() { EXPECT_TRUE(kEnvironmentIsHostile); }

  static LDAPLookupMethod::Config config(const std::string& uri) {
    return {LDAPConnection::RefServer(uri), "", ""};
  }

  // Attached to `store` as its users do it.
  LDAPLookupMethod& attach(const LDAPLookupMethod::Config& configuration) {
    auto* const method = new LDAPLookupMethod(configuration);
    store->add(RefLookupMethod(method));
    method->store(store);
    return *method;
  }

  RefObjectStore store{"/nonexistent/pkx509-test", X509_FILETYPE_PEM};
  LogCapture log;
};

std::string ders(const std::list<RefCertificate>& certificates) {
  std::string all;
  for (const RefCertificate& certificate : certificates) all += der(certificate->native());
  return all;
}

// The certificates in OpenSSL's own store.
std::size_t heldByOpenSSL(const RefObjectStore& store) {
  return static_cast<std::size_t>(sk_X509_OBJECT_num(X509_STORE_get0_objects(store)));
}

std::string pairOf(const Issued* forward, const Issued* reverse) {
  const auto element = [](unsigned char tag, const std::string& content) {
    return std::string(1, static_cast<char>(tag)) + '\x82' +
           static_cast<char>(content.size() >> 8U) + static_cast<char>(content.size() & 0xffU) +
           content;
  };
  std::string content;
  if (forward != nullptr) content += element(0xa0, der(forward->get()));
  if (reverse != nullptr) content += element(0xa1, der(reverse->get()));
  return element(0x30, content);
}

const Slapd::Entry kTop{"o=Test", {"organization"}, {}};

// An entry that can hold everything.
Slapd::Entry holder(const std::string& dn,
                    const std::vector<std::pair<std::string, std::string>>& values) {
  return {dn, {"device", "pkiUser", "pkiCA", "deltaCRL"}, values};
}

TEST_F(LDAPLookup, CertificatesOfOneEntry_UserAndAuthority_AllValuesInTheServersOrder) {
  const Slapd directory;
  const Issued root = issueCA("CN=Root");
  const Issued first = issue({.subject = "CN=First", .issuer = &root});
  const Issued second = issue({.subject = "CN=Second", .issuer = &root});
  directory.add({kTop, holder("cn=Root,o=Test", {{kUser, der(first.get())},
                                                 {kUser, der(second.get())},
                                                 {kAuthority, der(root.get())}})});
  LDAPLookupMethod& method = attach(config(directory.uri()));
  std::list<RefCertificate> found{handle(root)};
  method.getBySubject(std::string("o=Test"), found);
  EXPECT_EQ(ders(found), der(root.get()) + der(first.get()) + der(second.get()) + der(root.get()));
  EXPECT_EQ(log.text(), "");
  EXPECT_TRUE(store->objects().empty());

  const RefObject object = method.getBySubject(Object::TypeCertificate, std::string("o=Test"));
  ASSERT_FALSE(object.empty());
  EXPECT_EQ(der(object->certificate->native()), der(first.get()));
  EXPECT_EQ(store->objects().size(), 3U);
  EXPECT_EQ(store->objects().front().get(), object.get());
  EXPECT_EQ(heldByOpenSSL(store), 3U);
}

TEST_F(LDAPLookup, WholeSubtree_EntriesWithoutTheAttributesContributeNothing) {
  const Slapd directory;
  const Issued root = issueCA("CN=Root");
  const Issued leaf = issue({.subject = "CN=Leaf", .issuer = &root});
  directory.add({kTop,
                 {"cn=Empty,o=Test", {"device"}, {}},
                 holder("cn=Root,o=Test", {{kAuthority, der(root.get())}}),
                 {"cn=Between,cn=Root,o=Test", {"device"}, {{"description", "no certificate"}}},
                 holder("cn=Leaf,cn=Between,cn=Root,o=Test", {{kUser, der(leaf.get())}})});
  LDAPLookupMethod method(config(directory.uri()));
  std::list<RefCertificate> found;
  method.getBySubject(std::string("o=Test"), found);
  EXPECT_EQ(ders(found), der(root.get()) + der(leaf.get()));
  found.clear();
  method.getBySubject(std::string("cn=Between,cn=Root,o=Test"), found);
  EXPECT_EQ(ders(found), der(leaf.get()));
  found.clear();
  method.getBySubject(std::string("cn=Empty,o=Test"), found);
  EXPECT_TRUE(found.empty());
}

TEST_F(LDAPLookup, CRLs_BaseAndDeltaInOrder) {
  const Slapd directory;
  const Issued root = issueCA("CN=Root");
  const auto base = makeCRL({.issuer = &root, .number = Serial(5)});
  const auto older = makeCRL({.issuer = &root, .number = Serial(4)});
  const auto delta = makeCRL({.issuer = &root, .number = Serial(6), .deltaBase = Serial(5)});
  directory.add({kTop, holder("cn=Root,o=Test", {{kCRL, der(base.get())},
                                                 {kCRL, der(older.get())},
                                                 {kDelta, der(delta.get())}})});
  LDAPLookupMethod& method = attach(config(directory.uri()));
  std::list<RefCertificateRevocationList> found;
  method.getBySubject(DistinguishedName("CN=Root,O=Test"), found);
  std::string all;
  for (const RefCertificateRevocationList& crl : found) all += der(crl->native());
  EXPECT_EQ(all, der(base.get()) + der(older.get()) + der(delta.get()));
  EXPECT_TRUE(store->objects().empty());

  const RefObject object =
      method.getBySubject(Object::TypeCRL, DistinguishedName("CN=Root,O=Test"));
  ASSERT_FALSE(object.empty());
  EXPECT_EQ(object->type, Object::TypeCRL);
  EXPECT_EQ(der(object->crl->native()), der(base.get()));
  EXPECT_EQ(store->objects().size(), 3U);
  EXPECT_EQ(heldByOpenSSL(store), 3U);
}

TEST_F(LDAPLookup, CrossCertificatePair_BothCertificatesGoToOpenSSL) {
  const Slapd directory;
  const Issued ours = issueCA("CN=Ours");
  const Issued theirs = issueCA("CN=Theirs");
  const Issued forward = issueCA("CN=Ours", &theirs);
  const Issued reverse = issueCA("CN=Theirs", &ours);
  directory.add({kTop, holder("cn=Ours,o=Test", {{kPair, pairOf(&forward, &reverse)}}),
                 holder("cn=Half,o=Test", {{kPair, pairOf(nullptr, &reverse)}})});
  LDAPLookupMethod& method = attach(config(directory.uri()));
  const RefObject object =
      method.getBySubject(Object::TypeCrossCertificatePair, std::string("cn=Ours,o=Test"));
  ASSERT_FALSE(object.empty());
  EXPECT_EQ(object->type, Object::TypeNone);
  EXPECT_EQ(der(object->crossPair->forward()->native()), der(forward.get()));
  EXPECT_EQ(der(object->crossPair->reverse()->native()), der(reverse.get()));
  ASSERT_EQ(store->objects().size(), 1U);
  EXPECT_EQ(store->objects().front().get(), object.get());
  EXPECT_EQ(heldByOpenSSL(store), 2U);

  RefObjectStore other("/nonexistent/pkx509-test", X509_FILETYPE_PEM);
  method.store(other);
  ASSERT_FALSE(
      method.getBySubject(Object::TypeCrossCertificatePair, std::string("cn=Half,o=Test")).empty());
  EXPECT_EQ(heldByOpenSSL(other), 1U);
}

TEST_F(LDAPLookup, NothingThere_EmptyObjectAndNothingAdded) {
  const Slapd directory;
  directory.add({kTop, {"cn=Empty,o=Test", {"device"}, {}}});
  LDAPLookupMethod& method = attach(config(directory.uri()));
  for (const char* base : {"o=Test", "cn=Empty,o=Test", "cn=Missing,o=Test", "c=DE"}) {
    for (const int type : {1, 2, 99}) {
      EXPECT_TRUE(method.getBySubject(static_cast<Object::Type>(type), std::string(base)).empty());
    }
  }
  EXPECT_EQ(log.text(), "");
  // A name out of a certificate whose types this server has never heard of.
  EXPECT_TRUE(
      method.getBySubject(Object::TypeCertificate, DistinguishedName("1.2.3.4.5=#0c0141")).empty());
  EXPECT_EQ(log.count("The server cannot read the base: 1.2.3.4.5=#0C0141"), 1U) << log.text();
  EXPECT_TRUE(store->objects().empty());
  EXPECT_EQ(heldByOpenSSL(store), 0U);
}

TEST_F(LDAPLookup, EmptyName_IsNotSearched) {
  const Slapd directory;
  const Issued root = issueCA("CN=Root");
  directory.add({kTop, holder("cn=Root,o=Test", {{kAuthority, der(root.get())}})});
  LDAPLookupMethod& method = attach(config(directory.uri()));
  std::list<RefCertificate> found;
  method.getBySubject(DistinguishedName(), found);
  EXPECT_TRUE(found.empty());
  EXPECT_TRUE(method.getBySubject(Object::TypeCertificate, DistinguishedName()).empty());
}

TEST_F(LDAPLookup, MethodWithoutAStore_AnswersAndAddsNothing) {
  const Slapd directory;
  const Issued root = issueCA("CN=Root");
  directory.add({kTop, holder("cn=Root,o=Test", {{kAuthority, der(root.get())}})});
  auto* const method = new LDAPLookupMethod(config(directory.uri()));
  store->add(RefLookupMethod(method));  // without method->store(store)
  const RefObject object = method->getBySubject(Object::TypeCertificate, std::string("o=Test"));
  ASSERT_FALSE(object.empty());
  EXPECT_EQ(der(object->certificate->native()), der(root.get()));
  EXPECT_TRUE(store->objects().empty());
  EXPECT_EQ(heldByOpenSSL(store), 0U);
}

TEST_F(LDAPLookup, SameObjectTwice_IsNoError) {
  const Slapd directory;
  const Issued root = issueCA("CN=Root");
  directory.add({kTop, holder("cn=Root,o=Test", {{kAuthority, der(root.get())}})});
  LDAPLookupMethod& method = attach(config(directory.uri()));
  for (int i = 0; i < 2; ++i) {
    EXPECT_FALSE(method.getBySubject(Object::TypeCertificate, std::string("o=Test")).empty());
  }
  EXPECT_EQ(store->objects().size(), 2U);
  EXPECT_EQ(heldByOpenSSL(store), 1U);
  EXPECT_EQ(ERR_peek_error(), 0U);
}

TEST_F(LDAPLookup, ValueThatIsNoPair_Throws) {
  const Slapd directory;
  directory.add({kTop, holder("cn=Broken,o=Test", {{kPair, "0\x03\x02\x01\x05"}})});
  LDAPLookupMethod& method = attach(config(directory.uri()));
  EXPECT_THROW(method.getBySubject(Object::TypeCrossCertificatePair, std::string("o=Test")),
               Exception);
  EXPECT_TRUE(store->objects().empty());
}

// --- names as bases

struct NameCase {
  const char* name;
  const char* subject;  // as makeName() wants it
};

// For test names.
void PrintTo(const NameCase& row, std::ostream* out) { *out << row.name; }

class LDAPNames : public LDAPLookup, public testing::WithParamInterface<NameCase> {};

TEST_P(LDAPNames, SubjectIsTheBase) {
  const Slapd directory;
  const Issued root = issueCA("CN=Root");
  const Issued leaf = issue({.subject = "O=Test,CN=Other", .issuer = &root});
  const Issued wanted = issue({.subject = GetParam().subject, .issuer = &root});
  const DistinguishedName subject(X509_get_subject_name(wanted.get()));
  directory.add({kTop, holder("cn=Other,o=Test", {{kUser, der(leaf.get())}}),
                 holder(subject.asString(), {{kUser, der(wanted.get())}})});
  LDAPLookupMethod method(config(directory.uri()));
  std::list<RefCertificate> found;
  method.getBySubject(subject, found);
  EXPECT_EQ(ders(found), der(wanted.get())) << subject.asString() << '\n' << log.text();
}

INSTANTIATE_TEST_SUITE_P(
    Names, LDAPNames,
    testing::Values(NameCase{"Commas", "O=Test,CN=Doe\\, John\\, Jr."},
                    NameCase{"Quotes", "O=Test,CN=\"The\" Mailer"},
                    NameCase{"PlusSigns", "O=Test,CN=one\\+two"},
                    NameCase{"SeveralAttributesInOneRdn", "O=Test,CN=Ann+serialNumber=7"},
                    NameCase{"NonAscii", "O=Test,CN=Jürgen Groß 株式会社 🔑"},
                    NameCase{"BlanksAtTheEnds", "O=Test,CN= spaced "},
                    NameCase{"NumberSignInFront", "O=Test,CN=#1"},
                    NameCase{"SemicolonsAndAngles", "O=Test,CN=a;b<c>d=e"},
                    NameCase{"Backslashes", "O=Test,CN=a\\\\b"},
                    NameCase{"FilterCharacters", "O=Test,CN=*)(objectClass=*"}),
    [](const testing::TestParamInfo<NameCase>& row) { return std::string(row.param.name); });

// --- e-mail addresses

class LDAPMail : public LDAPLookup {
 protected:
  LDAPMail() {
    const Issued root = issueCA("CN=Root");
    ann = issue({.subject = "CN=Ann", .issuer = &root});
    bob = issue({.subject = "CN=Bob", .issuer = &root});
    directory.add({kTop,
                   {"ou=People,o=Test", {"organizationalUnit"}, {}},
                   {"cn=Ann,ou=People,o=Test",
                    {"inetOrgPerson"},
                    {{"sn", "A"}, {"mail", "ann@a.test"}, {kUser, der(ann.get())}}},
                   {"cn=Bob,o=Test",
                    {"inetOrgPerson"},
                    {{"sn", "B"}, {"mail", "bob@a.test"}, {kUser, der(bob.get())}}}});
  }

  std::string find(const std::string& base, const std::string& address) {
    LDAPLookupMethod method(config(directory.uri()));
    std::list<RefCertificate> found;
    method.getByEmailAddress(base, address, found);
    return ders(found);
  }

  Slapd directory;
  Issued ann;
  Issued bob;
};

TEST_F(LDAPMail, AddressUnderABase) {
  EXPECT_EQ(find("o=Test", "ann@a.test"), der(ann.get()));
  EXPECT_EQ(find("o=Test", "BOB@A.TEST"), der(bob.get()));
  EXPECT_EQ(find("ou=People,o=Test", "bob@a.test"), "");
  EXPECT_EQ(find("o=Test", "nobody@a.test"), "");
  EXPECT_EQ(find("o=Missing", "ann@a.test"), "");
}

TEST_F(LDAPMail, EmptyBase_IsSearchedWhole) { EXPECT_EQ(find("", "ann@a.test"), der(ann.get())); }

TEST_F(LDAPMail, FilterCharactersAreNotEscaped) {
  EXPECT_EQ(find("o=Test", "*"), der(ann.get()) + der(bob.get()));
  EXPECT_EQ(find("o=Test", "b*"), der(bob.get()));
  EXPECT_EQ(find("o=Test", "\\61nn@a.test"), der(ann.get()));
  EXPECT_THROW(find("o=Test", "ann@a.test)"), Exception);
  EXPECT_THROW(find("o=Test", "(("), Exception);
}

// --- binding

TEST_F(LDAPLookup, RefusedBind_Throws) {
  const Slapd directory({.config = "disallow bind_anon"});
  LDAPLookupMethod method(config(directory.uri()));
  std::list<RefCertificate> found;
  try {
    method.getBySubject(std::string("o=Test"), found);
    ADD_FAILURE() << "nothing was thrown";
  } catch (const Exception& e) {
    EXPECT_EQ(e.context(), "LDAPConnection::bind");
    EXPECT_NE(e.asString().find("Inappropriate authentication"), std::string::npos) << e.asString();
    EXPECT_NE(e.asString().find(directory.uri()), std::string::npos) << e.asString();
  }
}

TEST_F(LDAPLookup, PasswordWithoutAName_IsSentAndRefused) {
  const Slapd directory;
  LDAPLookupMethod method({LDAPConnection::RefServer(directory.uri()), "", "secret"});
  std::list<RefCertificate> found;
  EXPECT_THROW(method.getBySubject(std::string("o=Test"), found), Exception);
}

TEST_F(LDAPLookup, NameInTheConfiguration_MakesNoBind) {
  // Binding is forbidden and nobody has this name, but nothing of it is tried.
  const Slapd directory({.config = "disallow bind_anon bind_simple"});
  LDAPLookupMethod method({LDAPConnection::RefServer(directory.uri()), "cn=nobody", "wrong"});
  std::list<RefCertificate> found;
  EXPECT_NO_THROW(method.getBySubject(std::string("o=Test"), found));
  EXPECT_TRUE(found.empty());
}

// --- servers that cannot help

TEST_F(LDAPLookup, ServerThatIsDown_Throws) {
  Slapd directory;
  directory.stop();
  LDAPLookupMethod& method = attach(config(directory.uri()));
  std::list<RefCertificateRevocationList> found;
  try {
    method.getBySubject(std::string("o=Test"), found);
    ADD_FAILURE() << "nothing was thrown";
  } catch (const Exception& e) {
    EXPECT_NE(e.asString().find("Connection refused"), std::string::npos) << e.asString();
    EXPECT_NE(e.asString().find(directory.uri()), std::string::npos) << e.asString();
  }
  // As it leaves a verification.
  const Issued root = issueCA("CN=Root");
  const Issued leaf = issue({.subject = "CN=Leaf", .issuer = &root});
  Verifier verifier(store, handle(leaf), false);
  EXPECT_THROW(verifier.isValid(), Exception);
  EXPECT_EQ(textsOf(verifier.report().sources()),
            Texts{"LDAP failed " + directory.uri() + ": Connection refused"});
}

// The server is gone after the first search: whoever asks again is not told.
TEST_F(LDAPLookup, OneVerification_SearchesOnceForEachBaseAndKind) {
  Slapd directory;
  const Issued root = issueCA("CN=Root");
  directory.add({kTop, holder("cn=Root,o=Test", {{kAuthority, der(root.get())},
                                                 {kCRL, der(makeCRL({.issuer = &root}).get())}})});
  LDAPLookupMethod& method = attach(config(directory.uri()));
  const std::string base("o=Test");
  std::list<RefCertificate> certificates;
  std::list<RefCertificateRevocationList> crls;
  World world;
  world.trust(root);
  Probe verifier(world.store, handle(root), false);
  verifier.onCheck = [&](const std::list<RefCertificate>&) {
    EXPECT_FALSE(method.getBySubject(Object::TypeCertificate, base).empty());
    method.getBySubject(base, crls);
    directory.stop();
    method.getBySubject(base, certificates);
    method.getBySubject(base, crls);
    EXPECT_EQ(certificates.size(), 1U);
    EXPECT_EQ(crls.front()->native(), crls.back()->native());
    EXPECT_FALSE(method.getBySubject(Object::TypeCertificate, base).empty());
    EXPECT_EQ(heldByOpenSSL(store), 1U);
    const RefObject first = method.getBySubject(Object::TypeCRL, base);
    EXPECT_FALSE(first.empty());
    EXPECT_EQ(heldByOpenSSL(store), 2U) << "what is found is still added";
    EXPECT_THROW(method.getBySubject(std::string("cn=Root,o=Test"), crls), Exception);
    return 1;
  };
  EXPECT_EQ(verifier.isValid(), X509_V_OK);
  EXPECT_EQ(crls.size(), 2U);
  EXPECT_THROW(method.getBySubject(base, crls), Exception);
}

TEST_F(LDAPLookup, Referral_IsNotFollowed) {
  const Slapd other;
  const Issued root = issueCA("CN=Root");
  other.add({kTop, holder("cn=Root,o=Test", {{kAuthority, der(root.get())}})});
  // Nothing is held here: everything is referred to the other one.
  const Slapd directory({.config = "referral " + other.uri()});
  const Slapd partly;
  partly.add(
      {kTop,
       holder("cn=Here,o=Test", {{kAuthority, der(root.get())}}),
       {"ou=There,o=Test", {"referral", "extensibleObject"}, {{"ref", other.uri() + "/o=Test"}}}});
  LDAPLookupMethod method(config(partly.uri()));
  std::list<RefCertificate> found;
  method.getBySubject(std::string("o=Test"), found);
  EXPECT_EQ(ders(found), der(root.get()));
  EXPECT_EQ(log.count("What another server holds of the directory is left out."), 1U) << log.text();
  found.clear();
  method.getBySubject(std::string("cn=Below,ou=There,o=Test"), found);
  EXPECT_TRUE(found.empty());
  EXPECT_EQ(log.count("A referral is not followed: cn=Below,ou=There,o=Test"), 1U) << log.text();
}

TEST_F(LDAPLookup, SizeLimitOfTheServer_GivesWhatArrivedAndSaysSo) {
  const Slapd directory({.database = "sizelimit 2"});
  const Issued root = issueCA("CN=Root");
  std::vector<Slapd::Entry> entries{kTop};
  for (const char* name : {"cn=A,o=Test", "cn=B,o=Test", "cn=C,o=Test"}) {
    entries.push_back(holder(name, {{kAuthority, der(root.get())}}));
  }
  directory.add(entries);
  LDAPLookupMethod method(config(directory.uri()));
  std::list<RefCertificate> found;
  method.getBySubject(std::string("o=Test"), found);
  EXPECT_EQ(found.size(), 2U);
  EXPECT_EQ(log.count("The answer is cut short: Size limit exceeded"), 1U) << log.text();
}

TEST_F(LDAPLookup, ThousandEntries_AreTakenAndNoMore) {
  const Slapd directory;
  const Issued root = issueCA("CN=Root");
  std::vector<Slapd::Entry> entries{kTop};
  for (int i = 0; i < 1001; ++i) {
    entries.push_back(
        holder("cn=" + std::to_string(i) + ",o=Test", {{kAuthority, der(root.get())}}));
  }
  directory.add(entries);
  LDAPLookupMethod method(config(directory.uri()));
  std::list<RefCertificate> found;
  method.getBySubject(std::string("o=Test"), found);
  EXPECT_EQ(found.size(), 1000U);
  EXPECT_EQ(log.count("The answer is cut short"), 1U) << log.text();
}

// Users below a CA have no CRLs. Their entries once used up the limit before that of the delta CRL
// came.
TEST_F(LDAPLookup, ManyUsersBelowACA_DoNotPushTheDeltaOutOfTheAnswer) {
  const Slapd directory({.database = "sizelimit 20"});
  const Issued root = issueCA("O=Test,CN=Root");
  const Issued leaf = issue({.subject = "CN=Leaf", .issuer = &root});
  const auto base = makeCRL({.issuer = &root, .number = Serial(1)});
  const auto delta = makeCRL({.issuer = &root,
                              .number = Serial(2),
                              .deltaBase = Serial(1),
                              .revoked = {{.serial = leaf, .reason = 1}}});
  std::vector<Slapd::Entry> entries{
      kTop, holder("cn=Root,o=Test", {{kAuthority, der(root.get())}, {kCRL, der(base.get())}})};
  for (int i = 0; i < 30; ++i) {
    entries.push_back({"cn=" + std::to_string(i) + ",cn=Root,o=Test", {"device"}, {}});
  }
  entries.push_back(holder("cn=Deltas,cn=Root,o=Test", {{kDelta, der(delta.get())}}));
  directory.add(entries);
  attach(config(directory.uri()));
  EXPECT_EQ(Verifier(store, handle(leaf), false).isValid(), X509_V_ERR_CERT_REVOKED) << log.text();
}

TEST_F(LDAPLookup, SearchForCRLsThatIsCutShort_IsNeverValid) {
  const Issued root = issueCA("O=Test,CN=Root");
  const Issued leaf = issue({.subject = "CN=Leaf", .issuer = &root});
  const auto base = makeCRL({.issuer = &root, .number = Serial(1)});
  const auto delta = makeCRL({.issuer = &root,
                              .number = Serial(2),
                              .deltaBase = Serial(1),
                              .revoked = {{.serial = leaf, .reason = 1}}});
  for (const auto& [limit, expected] : {std::pair("sizelimit 2", int{X509_V_ERR_UNABLE_TO_GET_CRL}),
                                        std::pair("sizelimit 3", int{X509_V_ERR_CERT_REVOKED})}) {
    SCOPED_TRACE(limit);
    const Slapd directory({.database = limit});
    directory.add(
        {kTop, holder("cn=Root,o=Test", {{kAuthority, der(root.get())}, {kCRL, der(base.get())}}),
         holder("cn=A,cn=Root,o=Test", {{kCRL, der(base.get())}}),
         holder("cn=Deltas,cn=Root,o=Test", {{kDelta, der(delta.get())}})});
    RefObjectStore fresh("/nonexistent/pkx509-test", X509_FILETYPE_PEM);
    auto* const method = new LDAPLookupMethod(config(directory.uri()));
    fresh->add(RefLookupMethod(method));
    method->store(fresh);
    EXPECT_EQ(Verifier(fresh, handle(leaf), false).isValid(), expected) << log.text();
  }
}

// --- TLS

class LDAPTls : public LDAPLookup {
 protected:
  LDAPTls() {
    directory.add({kTop, holder("cn=Root,o=Test", {{kAuthority, der(ca.get())}})});
    writeFile(work / "ca.pem", pem(ca.get()));
    writeFile(work / "other.pem", pem(issueCA("CN=Server CA").get()));
  }

  Issued server(const std::string& names) const {
    return issue({.subject = "CN=directory",
                  .issuer = &ca,
                  .extensions = {{"subjectAltName", names}, {"extendedKeyUsage", "serverAuth"}}});
  }

  std::string file(const char* name) const { return (work / name).string(); }

  // What is found, or what is thrown.
  std::string find(const std::string& uri, const LDAPConnection::Options& options) {
    LDAPLookupMethod method({LDAPConnection::RefServer(uri, options), "", ""});
    std::list<RefCertificate> found;
    try {
      method.getBySubject(std::string("o=Test"), found);
    } catch (const Exception& e) {
      EXPECT_TRUE(found.empty());
      return e.asString();
    }
    return ders(found) == der(ca.get()) ? "found" : "nothing";
  }

  static std::string withHost(std::string uri, const std::string& host) {
    return uri.replace(uri.find("127.0.0.1"), 9, host);
  }

  const TempDir work;
  const Issued ca = issueCA("CN=Server CA");
  const Issued certificate = server("IP:127.0.0.1");
  const Slapd directory{{.certificate = &certificate}};
};

TEST_F(LDAPTls, LDAPSWithTheRightAuthority) {
  EXPECT_EQ(find(directory.tlsURI(), {.caFile = file("ca.pem")}), "found");
  EXPECT_EQ(log.text(), "");
}

TEST_F(LDAPTls, StartTlsWithTheRightAuthority) {
  EXPECT_EQ(find(directory.uri(), {.startTls = true, .caFile = file("ca.pem")}), "found");
  EXPECT_EQ(log.text(), "");
}

TEST_F(LDAPTls, AuthorityThatIsNotKnown_IsRefused) {
  for (const char* other : {"", "other.pem"}) {
    const std::string caFile = *other == '\0' ? "" : file(other);
    EXPECT_NE(find(directory.tlsURI(), {.caFile = caFile}).find("TLS handshake: "),
              std::string::npos);
    EXPECT_NE(find(directory.uri(), {.startTls = true, .caFile = caFile}).find("TLS handshake: "),
              std::string::npos);
  }
}

TEST_F(LDAPTls, CertificateForAnotherHost_IsRefused) {
  const std::string name = withHost(directory.tlsURI(), "localhost");
  EXPECT_NE(find(name, {.caFile = file("ca.pem")}).find("hostname mismatch"), std::string::npos);
  const std::string plain = withHost(directory.uri(), "localhost");
  EXPECT_NE(find(plain, {.startTls = true, .caFile = file("ca.pem")}).find("hostname mismatch"),
            std::string::npos);
}

TEST_F(LDAPTls, CertificateForAName) {
  const Issued named = server("DNS:localhost");
  const Slapd other({.certificate = &named});
  other.add({kTop, holder("cn=Root,o=Test", {{kAuthority, der(ca.get())}})});
  EXPECT_EQ(find(withHost(other.tlsURI(), "localhost"), {.caFile = file("ca.pem")}), "found");
  EXPECT_NE(find(other.tlsURI(), {.caFile = file("ca.pem")}).find("IP address mismatch"),
            std::string::npos);
}

TEST_F(LDAPTls, PeerThatNeedNotVerify) {
  EXPECT_EQ(find(directory.tlsURI(), {.verifyPeer = false}), "found");
  EXPECT_EQ(find(directory.uri(), {.startTls = true, .verifyPeer = false}), "found");
}

TEST_F(LDAPTls, AuthoritiesThatCannotBeRead_Throw) {
  writeFile(work / "empty.pem", "");
  EXPECT_NE(find(directory.tlsURI(), {.caFile = file("missing.pem")}), "found");
  EXPECT_NE(find(directory.tlsURI(), {.caFile = file("empty.pem")}), "found");
}

TEST_F(LDAPTls, ServerWithoutTls_IsNotUsed) {
  const Slapd plain;
  const std::string text = find(plain.uri(), {.startTls = true, .verifyPeer = false});
  EXPECT_NE(text.find("StartTLS: "), std::string::npos) << text;
  EXPECT_NE(find("ldaps" + plain.uri().substr(4), {.verifyPeer = false}), "found");
}

TEST_F(LDAPTls, TrafficIsEncrypted_WhenTheServerWantsIt) {
  const Slapd strict({.config = "security ssf=128", .certificate = &certificate});
  EXPECT_NE(find(strict.uri(), {}).find("Confidentiality required"), std::string::npos);
  EXPECT_EQ(find(strict.uri(), {.startTls = true, .caFile = file("ca.pem")}), "nothing");
}

// --- verifications

TEST_F(LDAPLookup, ChainAndRevocation_EverythingFromTheDirectory) {
  const Slapd directory;
  const Issued root = issueCA("C=DE,O=Müller \\& Söhne\\, Mail,CN=Root");
  const Issued inter = issueCA("C=DE,O=Müller \\& Söhne\\, Mail,CN=Inter", &root);
  const auto leaf = [&](const char* name) { return issue({.subject = name, .issuer = &inter}); };
  const Issued good = leaf("CN=Good");
  const Issued revoked = leaf("CN=Revoked");
  const Issued later = leaf("CN=Later");
  const auto rootCRL = makeCRL({.issuer = &root});
  const auto base = makeCRL(
      {.issuer = &inter, .number = Serial(1), .revoked = {{.serial = revoked, .reason = 1}}});
  const auto delta = makeCRL({.issuer = &inter,
                              .number = Serial(2),
                              .deltaBase = Serial(1),
                              .revoked = {{.serial = later, .reason = 1}}});
  const DistinguishedName rootName(X509_get_subject_name(root.get()));
  const DistinguishedName interName(X509_get_subject_name(inter.get()));
  directory.add(
      {{"c=DE", {"country"}, {}},
       {rootName.asString().substr(std::string("CN=Root,").size()), {"organization"}, {}},
       holder(rootName.asString(), {{kAuthority, der(root.get())}, {kCRL, der(rootCRL.get())}}),
       holder(
           interName.asString(),
           {{kAuthority, der(inter.get())}, {kCRL, der(base.get())}, {kDelta, der(delta.get())}})});
  VerificationReport report;
  const auto verdict = [&](const Issued& subject) {
    RefObjectStore fresh("/nonexistent/pkx509-test", X509_FILETYPE_PEM);
    auto* const method = new LDAPLookupMethod(config(directory.uri()));
    fresh->add(RefLookupMethod(method));
    method->store(fresh);
    Verifier verifier(fresh, handle(subject), false);
    const int code = verifier.isValid();
    report = verifier.report();
    return code;
  };
  EXPECT_EQ(verdict(good), X509_V_OK) << log.text();
  ASSERT_EQ(report.path().size(), 3U);
  const VerificationReport::Origin& origin = report.path()[1].origin();
  EXPECT_EQ(origin.kind(), VerificationReport::Origin::Kind::kLDAP);
  EXPECT_TRUE(origin.place().starts_with(directory.uri())) << origin.place();
  EXPECT_NE(origin.place().find("Inter"), std::string::npos) << origin.place();
  const Texts asked = textsOf(report.sources());
  EXPECT_NE(std::find(asked.begin(), asked.end(), "LDAP found " + directory.uri()), asked.end())
      << testing::PrintToString(asked);
  EXPECT_EQ(verdict(revoked), X509_V_ERR_CERT_REVOKED) << log.text();
  EXPECT_EQ(verdict(later), X509_V_ERR_CERT_REVOKED) << log.text();
  const Issued stranger = issueCA("C=DE,CN=Stranger");
  EXPECT_EQ(verdict(issue({.subject = "CN=Leaf", .issuer = &stranger})),
            X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY);
}

std::string numbersAt(LDAPLookupMethod& method, const std::string& uri) {
  std::list<RefCertificateRevocationList> found;
  method.getByURI(Uri(uri), found);
  std::string numbers;
  for (const RefCertificateRevocationList& crl : found) {
    const std::string number = crl->crlNumber().asString();
    numbers += (numbers.empty() ? "" : " ") + number.substr(number.find_first_not_of('0'));
  }
  return numbers;
}

TEST_F(LDAPLookup, URIWithoutAHost_SaysBaseAttributesScopeAndFilter) {
  const Slapd directory;
  const Issued root = issueCA("CN=Root");
  const auto numbered = [&](int number) {
    return der(makeCRL({.issuer = &root, .number = Serial(number)}).get());
  };
  const auto point = [](const std::string& dn, const char* type, const std::string& crl) {
    return Slapd::Entry{dn, {"cRLDistributionPoint"}, {{type, crl}}};
  };
  directory.add({kTop, holder("cn=A & B,o=Test", {{kCRL, numbered(1)}, {kDelta, numbered(2)}}),
                 point("cn=Points,cn=A & B,o=Test", kCRL, numbered(3)),
                 point("cn=Authorities,cn=Points,cn=A & B,o=Test", "authorityRevocationList;binary",
                       numbered(4))});
  LDAPLookupMethod method(config(directory.uri()));
  const struct {
    const char* behindBase;
    const char* numbers;
  } rows[] = {
      {"", "1 2"},
      {"?deltarevocationlist", "2"},
      {"?certificateRevocationList;binary,cACertificate?base", "1"},
      {"?cACertificate", "1 2"},
      {"?certificateRevocationList?one", "3"},
      {"?certificateRevocationList?sub", "1 3"},
      {"?certificateRevocationList?sub?objectClass=cRLDistributionPoint", "3"},
      {"??sub?(objectClass=cRLDistributionPoint)", "3 4"},
      {"?certificateRevocationList?base?objectClass=cRLDistributionPoint", ""},
      {"???"
       "?!critical",
       ""},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(numbersAt(method, std::string("ldap:///cn=A%20%26%20B,o=Test") + row.behindBase),
              row.numbers)
        << row.behindBase;
  }
  EXPECT_EQ(numbersAt(method, "ldap:///cn=Missing,o=Test"), "");
  EXPECT_EQ(log.text(), "");
  EXPECT_EQ(numbersAt(method, directory.uri() + "/cn=A%20%26%20B,o=Test"), "")
      << "a host of the URI is nobody's to ask";
}

TEST_F(LDAPLookup, DistributionPointWithoutAHost_IsAskedOfTheDirectory) {
  const Slapd directory;
  const Issued root = issueCA("C=DE,CN=Enterprise CA");
  const std::string uri =
      "ldap:///cn=Enterprise%20CA,o=Test?certificateRevocationList?base?objectClass="
      "cRLDistributionPoint";
  const auto leaf = [&](const char* name, const std::string& point) {
    return issue({.subject = name,
                  .issuer = &root,
                  .crlDistributionPoints = {{.fullNames = {"URI:" + point}}}});
  };
  const Issued good = leaf("CN=Good", uri);
  const Issued revoked = leaf("CN=Revoked", uri);
  const Issued elsewhere = leaf("CN=Elsewhere", directory.uri() + "/cn=Enterprise%20CA,o=Test");
  const auto list = makeCRL({.issuer = &root, .revoked = {{.serial = revoked}}});
  directory.add(
      {kTop, {"cn=Enterprise CA,o=Test", {"cRLDistributionPoint"}, {{kCRL, der(list.get())}}}});
  const auto verdict = [&](const Issued& subject, bool configured, Texts& asked) {
    World world;
    world.trust(root);
    if (configured)
      world.store->add(RefLookupMethod(new LDAPLookupMethod(config(directory.uri()))));
    ConformingVerifier verifier(world.store, handle(subject));
    const int code = verifier.isValid();
    asked = textsOf(verifier.report().sources());
    return code;
  };
  Texts asked;
  EXPECT_EQ(verdict(good, true, asked), X509_V_OK) << log.text();
  EXPECT_EQ(asked, (Texts{"method found memory", "LDAP found " + directory.uri()}));
  EXPECT_EQ(verdict(revoked, true, asked), X509_V_ERR_CERT_REVOKED) << log.text();
  EXPECT_EQ(verdict(good, false, asked), X509_V_ERR_UNABLE_TO_GET_CRL);
  EXPECT_NE(std::find(asked.begin(), asked.end(),
                      "server refused ldap:/cn=Enterprise%20CA,o=Test: not spoken: ldap:"),
            asked.end())
      << testing::PrintToString(asked);
  EXPECT_EQ(verdict(elsewhere, true, asked), X509_V_ERR_UNABLE_TO_GET_CRL);
}

// The names that are looked up while revocation is checked are strangers' as long as nobody vouches
// for the certificate that they stand in.
TEST_F(LDAPLookup, ForgedChain_TheDirectoryIsNotAskedForItsCRLs) {
  Slapd directory;
  const Issued root = issueCA("O=Test,CN=Root");
  const auto chain = [&](const std::shared_ptr<EVP_PKEY>& signer) {
    const Issued inter =
        issue({.subject = "O=Test,CN=Inter", .issuer = &root, .ca = true, .signer = signer});
    return std::pair(issue({.subject = "CN=Leaf", .issuer = &inter}), inter);
  };
  const auto [genuine, inter] = chain(root.key);
  const auto [forged, fake] = chain(makeKey());
  directory.add({kTop,
                 holder("cn=Root,o=Test", {{kAuthority, der(root.get())},
                                           {kCRL, der(makeCRL({.issuer = &root}).get())}}),
                 holder("cn=Inter,o=Test", {{kAuthority, der(inter.get())},
                                            {kCRL, der(makeCRL({.issuer = &inter}).get())}})});
  const auto verdict = [&](const Issued& leaf, const Issued& issuer, bool useOpenSSL) {
    RefObjectStore fresh("/nonexistent/pkx509-test", X509_FILETYPE_PEM);
    auto* const method = new LDAPLookupMethod(config(directory.uri()));
    fresh->add(RefLookupMethod(method));
    method->store(fresh);
    X509_STORE_add_cert(fresh, root.get());
    const RefStackOfCertificate untrusted({handle(issuer)});
    return Verifier(fresh, handle(leaf), untrusted, useOpenSSL).isValid();
  };
  for (const bool useOpenSSL : {false, true}) {
    SCOPED_TRACE(useOpenSSL);
    log.clear();
    {
      const ConnectWatch watch;
      EXPECT_EQ(verdict(genuine, inter, useOpenSSL), X509_V_OK) << log.text();
      EXPECT_FALSE(watch.ports().empty());
    }
    const ConnectWatch watch;
    EXPECT_EQ(verdict(forged, fake, useOpenSSL), X509_V_ERR_UNABLE_TO_GET_CRL) << log.text();
    // While the path is built, OpenSSL asks for the issuer of the leaf, and no more.
    EXPECT_LE(watch.ports().size(), 1U);
    EXPECT_EQ(log.count("no trust anchor vouches for: CN=Leaf"), 1U) << log.text();
  }
}

TEST_F(LDAPLookup, SelfSignedCertificateOfTheDirectory_IsATrustAnchor) {
  const Slapd directory;
  const Issued root = issueCA("O=Test,CN=Root");
  const Issued leaf = issue({.subject = "CN=Leaf", .issuer = &root});
  directory.add({kTop, holder("cn=Root,o=Test", {{kAuthority, der(root.get())}})});
  attach(config(directory.uri()));
  Verifier verifier(store, handle(leaf), true);
  X509_VERIFY_PARAM_clear_flags(X509_STORE_CTX_get0_param(verifier),
                                X509_V_FLAG_CRL_CHECK | X509_V_FLAG_CRL_CHECK_ALL);
  EXPECT_EQ(verifier.isValid(), X509_V_OK) << log.text();
  EXPECT_EQ(heldByOpenSSL(store), 1U);
}

TEST_F(LDAPLookup, SeveralThreadsAtOnce) {
  const Slapd directory;
  const Issued root = issueCA("CN=Root");
  directory.add({kTop, holder("cn=Root,o=Test", {{kAuthority, der(root.get())}})});
  LDAPLookupMethod method(config(directory.uri()));
  std::vector<std::string> results(8);
  std::vector<std::thread> threads;
  for (std::string& result : results) {
    threads.emplace_back([&] {
      std::list<RefCertificate> found;
      for (int i = 0; i < 4; ++i) method.getBySubject(std::string("o=Test"), found);
      result = ders(found);
    });
  }
  for (std::thread& thread : threads) thread.join();
  const std::string four = der(root.get()) + der(root.get()) + der(root.get()) + der(root.get());
  for (const std::string& result : results) EXPECT_EQ(result, four);
}

}  // namespace
}  // namespace Velantrix::Test
