#include "foundation/run/VerificationRun.h"
#include "store/StoreRecord.h"
#include "store/TrustSources.h"
#include "support/Files.h"
#include "support/Handles.h"
#include "unit/store/FakeMethod.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <initializer_list>
#include <string>

namespace Velantrix::Test {
namespace {

class TrustSourcesTest : public testing::Test {
 protected:
  const Issued root = issueCA("O=Test,CN=Root");
  const Issued namesake = issueCA("O=Test,CN=Root");
  Events events;
  TempDir directory;
  RefObjectStore store{directory.path().string(), X509_FILETYPE_PEM};
  Owned<X509_STORE_CTX> context{X509_STORE_CTX_new()};

  TrustSourcesTest() { EXPECT_EQ(X509_STORE_CTX_init(context.get(), store, nullptr, nullptr), 1); }

  // Answers OpenSSL with the first.
  Source attach(const std::list<Issued>& certificates, bool trusted = true) {
    Source source("Fake", &events);
    for (const Issued& issued : certificates) source->certificates.push_back(handle(issued));
    if (!certificates.empty()) source->answer = RefObject(handle(certificates.front()));
    source->trustSource(trusted);
    store->add(source.handle);
    return source;
  }
  // As a path is built, with all sources.
  X509* ask() {
    const Owned<X509_OBJECT> found(X509_STORE_CTX_get_obj_by_subject(
        context.get(), X509_LU_X509, X509_get_subject_name(root.get())));
    return found == nullptr ? nullptr : X509_OBJECT_get0_X509(found.get());
  }
  bool has(const Issued& issued) const {
    const Issued copy{certFromDer(der(issued.get())), issued.key};
    const TrustSources sources(context.get());
    const bool all = sources.have(copy.get());
    EXPECT_TRUE(sources.mayEndPath(copy.get()) || !all);
    return all;
  }
  bool mayEnd(const Issued& issued) const {
    return TrustSources(context.get()).mayEndPath(issued.get());
  }
  int count() const {
    return sk_X509_num(
        TrustSources(context.get()).certificates(X509_get_subject_name(root.get())).get());
  }
};

TEST_F(TrustSourcesTest, Nothing_IsTrusted) {
  EXPECT_FALSE(has(root));
  EXPECT_EQ(count(), 0);
}

TEST_F(TrustSourcesTest, DirectoriesAndTheProgramsOwn_AreTrusted) {
  const TempDir further;
  store->add(further.path().string(), X509_FILETYPE_PEM);
  addToDirectory(directory.path(), root.get());
  addToDirectory(further.path(), namesake.get());
  EXPECT_TRUE(has(root));
  const Issued own = issueCA("O=Test,CN=Own");
  EXPECT_FALSE(has(own));
  X509_STORE_add_cert(store, own.get());
  EXPECT_TRUE(has(own));
}

TEST_F(TrustSourcesTest, LookupMethod_AllOfAListWhereItAnswersOpenSSL) {
  const Source source = attach({root, namesake, issueCA("O=Test,CN=Another")});
  EXPECT_TRUE(source->isTrustSource());
  EXPECT_TRUE(has(root));
  EXPECT_TRUE(has(namesake));
  EXPECT_EQ(count(), 2);
  source->answer = RefObject();
  EXPECT_FALSE(has(root));
  EXPECT_FALSE(has(namesake));
}

TEST_F(TrustSourcesTest, LookupMethod_AnswersForTheStoreThatAsks) {
  const Source source = attach({root});
  X509_STORE* asking = nullptr;
  struct Looking : LookupMethod {
    static X509_STORE* now() { return askingStore(); }
  };
  source->makeAnswer = [&] {
    asking = Looking::now();
    return RefObject();
  };
  EXPECT_FALSE(has(root));
  EXPECT_EQ(asking, static_cast<X509_STORE*>(store));
}

TEST_F(TrustSourcesTest, UntrustedLookupMethod_IsNotAsked) {
  const Source source = attach({root}, false);
  events.clear();
  EXPECT_FALSE(has(root));
  EXPECT_TRUE(events.empty());
  EXPECT_EQ(ask(), root.get());
}

TEST_F(TrustSourcesTest, WhatAnUntrustedOneHandedOut_IsNotTrusted) {
  const Source source = attach({root}, false);
  EXPECT_TRUE(mayEnd(root));  // nothing against it is known
  EXPECT_EQ(ask(), root.get());
  EXPECT_FALSE(mayEnd(root));
  EXPECT_TRUE(mayEnd(namesake));
}

TEST_F(TrustSourcesTest, WhatAnUntrustedOneAdded_IsNotTrusted) {
  const RefObjectStore others("/nonexistent", X509_FILETYPE_PEM);
  for (const bool toAsking : {true, false}) {
    for (const bool throws : {false, true}) {
      RefObjectStore asking("/nonexistent", X509_FILETYPE_PEM);
      RefObjectStore pointed("/nonexistent", X509_FILETYPE_PEM);
      RefObjectStore& target = toAsking ? asking : pointed;
      const Source source;
      source->trustSource(false);
      source->store(pointed);
      asking->add(source.handle);
      X509_STORE_add_cert(target, namesake.get());
      source->makeAnswer = [&]() -> RefObject {
        X509_STORE_add_cert(target, root.get());
        if (throws) throw FakeMethod::Failure{"late"};
        return RefObject();
      };
      const Owned<X509_STORE_CTX> own(X509_STORE_CTX_new());
      ASSERT_EQ(X509_STORE_CTX_init(own.get(), asking, nullptr, nullptr), 1);
      {
        VerificationRun run(nullptr);
        const Owned<X509_OBJECT> found(X509_STORE_CTX_get_obj_by_subject(
            own.get(), X509_LU_X509, X509_get_issuer_name(issueCA("O=Test,CN=Any").get())));
        EXPECT_EQ(run.hasParked(), throws);
      }
      const StoreRecord& record = *StoreRecord::of(target);
      EXPECT_TRUE(record.distrusts(root.get()));
      EXPECT_FALSE(record.distrusts(namesake.get()));  // was there before
    }
  }
}

TEST_F(TrustSourcesTest, SameOctetsFromATrustedSource_AreTrusted) {
  const Source users = attach({root}, false);
  EXPECT_EQ(ask(), root.get());
  X509_STORE_add_cert(store, root.get());
  EXPECT_FALSE(has(root));
  const Source operators = attach({namesake, root});
  EXPECT_TRUE(has(root));
  EXPECT_TRUE(mayEnd(root));
  operators->certificates.pop_back();
  EXPECT_FALSE(has(root));
  addToDirectory(directory.path(), root.get());
  EXPECT_TRUE(has(root));
}

// The directory is not looked into for a name that OpenSSL's store has.
TEST_F(TrustSourcesTest, SameOctetsInADirectory_AreTrusted) {
  attach({root}, false);
  EXPECT_EQ(ask(), root.get());
  X509_STORE_add_cert(store, root.get());
  const TempDir further;
  EXPECT_FALSE(has(root));
  store->add(further.path().string(), X509_FILETYPE_PEM);
  addToDirectory(further.path(), root.get());
  EXPECT_TRUE(has(root));
  EXPECT_EQ(count(), 1);
}

TEST_F(TrustSourcesTest, HandedOutByATrustedOneLater_IsTrusted) {
  const Source source = attach({root}, false);
  EXPECT_EQ(ask(), root.get());
  source->certificates.clear();  // the list form does not say so
  source->trustSource(true);
  EXPECT_EQ(ask(), root.get());
  EXPECT_TRUE(has(root));
  EXPECT_FALSE(StoreRecord::of(store)->distrusts(root.get()));
}

TEST_F(TrustSourcesTest, OneVerification_AsksAMethodOncePerName) {
  const Source source = attach({root});
  const VerificationRun run(nullptr);
  EXPECT_TRUE(has(root));
  events.clear();
  EXPECT_TRUE(has(root));
  EXPECT_EQ(std::count(events.begin(), events.end(), "certificates CN=Root,O=Test"), 0);
}

TEST_F(TrustSourcesTest, StoreOfNobody_IsTrustedAsItIs) {
  const Owned<X509_STORE> plain(X509_STORE_new());
  X509_STORE_add_cert(plain.get(), root.get());
  const Owned<X509_STORE_CTX> own(X509_STORE_CTX_new());
  ASSERT_EQ(X509_STORE_CTX_init(own.get(), plain.get(), nullptr, nullptr), 1);
  EXPECT_TRUE(TrustSources(own.get()).have(root.get()));
  EXPECT_TRUE(TrustSources(own.get()).mayEndPath(namesake.get()));
}

// A query may start a verification of its own, which asks everybody.
TEST_F(TrustSourcesTest, QueryInsideAQuery_AsksAllAgain) {
  const Source users = attach({namesake}, false);
  const Source source = attach({root});
  bool asked = false;
  source->makeAnswer = [&] {
    RefObjectStore other("/nonexistent", X509_FILETYPE_PEM);
    other->add(users.handle);
    const Owned<X509_STORE_CTX> own(X509_STORE_CTX_new());
    EXPECT_EQ(X509_STORE_CTX_init(own.get(), other, nullptr, nullptr), 1);
    const Owned<X509_OBJECT> found(X509_STORE_CTX_get_obj_by_subject(
        own.get(), X509_LU_X509, X509_get_subject_name(root.get())));
    asked = found != nullptr;
    return RefObject(handle(root));
  };
  const OnlyTrustSources others;
  EXPECT_TRUE(has(root));
  EXPECT_TRUE(asked);
}

}  // namespace
}  // namespace Velantrix::Test
