#include "unit/store/FakeMethod.h"
#include "unit/store/Model.h"

#include <pkx509/ObjectKeyStorePlugin.h>

#include <gtest/gtest.h>
#include <list>
#include <memory>
#include <string>
#include <type_traits>

namespace Velantrix::Test {
namespace {

static_assert(std::is_base_of_v<KeyStorePlugin, ObjectKeyStorePlugin>);
static_assert(!std::is_copy_constructible_v<ObjectKeyStorePlugin>);

class ObjectKeyStorePluginTest : public testing::Test {
 protected:
  const Issued root = issueCA("CN=Root");
  const Issued other = issueCA("CN=Other Root");
  const EmailAddress address{"alice@example.com"};
  RefObjectStore store{"/nonexistent", X509_FILETYPE_PEM};

  RefCertificate issued(const std::string& subject, const Issued& issuer, int serial) const {
    return handle(issue({.subject = subject, .issuer = &issuer, .serial = serial}));
  }
  // Asked the way a user of the interface asks.
  static RefCertificate find(KeyStorePlugin& keys, const RefCertificate& like) {
    const KeyCertificatePair found = keys.find(like->issuer(), like->serialNumber());
    EXPECT_FALSE(found.empty());
    EXPECT_TRUE(found.key().empty());
    return found.certificate();
  }
};

TEST_F(ObjectKeyStorePluginTest, WithoutAStore_PairHasABodyAndNothingInIt) {
  const RefCertificate wanted = issued("CN=A", root, 1);
  for (const RefObjectStore& none :
       {RefObjectStore(), RefObjectStore(static_cast<ObjectStore*>(nullptr))}) {
    ObjectKeyStorePlugin keys(none);
    const KeyCertificatePair found = keys.find(wanted->issuer(), wanted->serialNumber());
    EXPECT_FALSE(found.empty());
    EXPECT_TRUE(found.key().empty());
    EXPECT_TRUE(found.certificate().empty());
  }
}

TEST_F(ObjectKeyStorePluginTest, IssuerAndSerialNumber_BothHaveToMatch) {
  const RefCertificate first = issued("CN=A", root, 1);
  const RefCertificate second = issued("CN=B", root, 2);
  const RefCertificate third = issued("CN=C", other, 1);
  store->add(std::list<RefCertificate>{first, second, third});
  ObjectKeyStorePlugin keys(store);
  for (const RefCertificate& certificate : {first, second, third}) {
    EXPECT_EQ(find(keys, certificate).get(), certificate.get());
  }
  EXPECT_TRUE(find(keys, issued("CN=B", other, 2)).empty());
  EXPECT_TRUE(find(keys, issued("CN=A", root, 3)).empty());
  // The subject plays no part, and names are compared as OpenSSL compares them.
  EXPECT_EQ(find(keys, issued("CN=Z", root, 2)).get(), second.get());
  EXPECT_EQ(keys.find(modelName("CN=rOOT"), first->serialNumber()).certificate().get(),
            first.get());
}

TEST_F(ObjectKeyStorePluginTest, TwoOfTheSameIssuerAndSerialNumber_FirstAddedIsFound) {
  const RefCertificate first = issued("CN=A", root, 7);
  const RefCertificate second = issued("CN=B", root, 7);
  for (const auto& [early, late] : {std::pair(first, second), std::pair(second, first)}) {
    RefObjectStore own("/nonexistent", X509_FILETYPE_PEM);
    own->add(RefObject(early));
    own->add(RefObject(late));
    ObjectKeyStorePlugin keys(own);
    EXPECT_EQ(find(keys, first).get(), early.get());
  }
}

TEST_F(ObjectKeyStorePluginTest, CRLsAndCrossCertificatePairs_ArePassedOver) {
  const RefCertificate wanted = issued("CN=A", root, 1);
  store->add(RefObject(crlHandle({.issuer = &root})));
  store->add(RefObject(modelPair(root)));
  store->add(RefObject(RefCertificate()));
  ObjectKeyStorePlugin keys(store);
  EXPECT_TRUE(find(keys, wanted).empty());
  EXPECT_TRUE(find(keys, handle(root)).empty()) << "found in a pair";
  store->add(RefObject(wanted));
  EXPECT_EQ(find(keys, wanted).get(), wanted.get());
}

TEST_F(ObjectKeyStorePluginTest, AddedAsAList_IsFound_KnownToDirectoryOrMethodOnly_IsNot) {
  TempDir directory;
  addToDirectory(directory.path(), root.get());
  RefObjectStore own(directory.string(), X509_FILETYPE_PEM);
  const Source source;
  source->certificates = {handle(root)};
  source->answer = RefObject(handle(root));
  own->add(source.handle);
  ObjectKeyStorePlugin keys(own);
  EXPECT_TRUE(find(keys, handle(root)).empty());
  EXPECT_TRUE(own->objects().empty());
  const RefCertificate added = handle(root);
  own->add(std::list<RefCertificate>{added});  // after the plug-in was made
  EXPECT_EQ(find(keys, added).get(), added.get());
}

TEST_F(ObjectKeyStorePluginTest, ByMailAddress_NothingIsFound) {
  const RefCertificate certificate = handle(
      issue({.issuer = &root, .extensions = {{"subjectAltName", "email:alice@example.com"}}}));
  store->add(RefObject(certificate));
  ObjectKeyStorePlugin plugin(store);
  KeyStorePlugin& keys = plugin;
  for (const EmailAddress& asked : {address, EmailAddress()}) {
    EXPECT_TRUE(keys.findEncryptionCertificate(asked).empty());
    EXPECT_TRUE(keys.findSigningKey(asked).empty());
    EXPECT_TRUE(keys.findDecryptionKey(asked).empty());
  }
}

TEST_F(ObjectKeyStorePluginTest, StoreLives_AsLongAsThePlugIn) {
  Events events;
  const RefCertificate wanted = issued("CN=A", root, 1);
  Source source("source", &events);
  auto keys = std::make_unique<ObjectKeyStorePlugin>(store);
  store->add(source.handle);
  store->add(RefObject(wanted));
  source.handle = RefLookupMethod();
  store = RefObjectStore();
  EXPECT_EQ(find(*keys, wanted).get(), wanted.get());
  EXPECT_NE(events.back(), "source: destroyed");
  std::unique_ptr<KeyStorePlugin> base = std::move(keys);
  base.reset();
  EXPECT_EQ(events.back(), "source: destroyed");
}

TEST(ObjectKeyStorePluginDeathTest, EmptyObjectInTheList_StopsTheProcessWhenTheSearchMeetsIt) {
  const RefCertificate root = handle(issueCA("CN=Root"));
  RefObjectStore store("/nonexistent", X509_FILETYPE_PEM);
  store->add(RefObject(root));
  store->add(RefObject());
  ObjectKeyStorePlugin keys(store);
  EXPECT_FALSE(keys.find(root->issuer(), root->serialNumber()).certificate().empty())
      << "the search ends before it";
  EXPECT_DEATH(static_cast<void>(keys.find(modelName("CN=Other"), root->serialNumber())),
               "Assertion `px != 0' failed");
}

}  // namespace
}  // namespace Velantrix::Test
