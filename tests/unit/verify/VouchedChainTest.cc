#include "support/LogCapture.h"
#include "unit/verify/World.h"
#include "verify/VouchedChain.h"

#include <openssl/err.h>

#include <gtest/gtest.h>
#include <list>
#include <string>
#include <vector>

namespace Velantrix::Test {
namespace {

using Crypto::PKX509::ChainSubject;
using Crypto::PKX509::connectionAdmitted;
using Crypto::PKX509::isVouchedFor;
using Crypto::PKX509::VouchedChain;

constexpr char kRefused[] =
    "6 Verifier: no connection is made for a certificate that no trust anchor vouches for: ";

std::string refusedLine(const std::string& name) { return kRefused + name + "\n"; }

// Lets everything pass, so that OpenSSL goes on to revocation whatever the chain.
int s_let_pass(int /*ok*/, X509_STORE_CTX* /*context*/) { return 1; }

class VouchedChainTest : public testing::Test {
 protected:
  using Path = std::vector<const Issued*>;

  /// Lets OpenSSL build the chain of the first, and asks while revocation is checked for which of
  /// the path a trust anchor vouches: a character each.
  std::string vouched(const Path& path, const Path& untrusted) {
    std::list<RefCertificate> others;
    for (const Issued* one : untrusted) others.push_back(handle(*one));
    Probe verifier(world.store, handle(*path.front()), RefStackOfCertificate(others), false);
    X509_STORE_CTX_set_verify_cb(verifier, s_let_pass);
    std::string answers;
    verifier.onCheck = [&](const std::list<RefCertificate>& chain) {
      EXPECT_EQ(chain.size(), path.size());
      VouchedChain vouching(verifier);
      EXPECT_TRUE(vouching.isOf(verifier));
      EXPECT_TRUE(vouching.beginsWith(chain));
      for (const Issued* one : path) answers += vouching.vouchesFor(one->get()) ? '+' : '-';
      return 1;
    };
    static_cast<void>(verifier.isValid());
    return answers;
  }

  /// As `vouched()`, of a list that somebody made.
  std::string vouchedList(const Path& path) {
    Verifier verifier(world.store, handle(*path.front()), false);
    std::list<RefCertificate> list;
    for (const Issued* one : path) list.push_back(handle(*one));
    VouchedChain vouching(list, verifier);
    std::string answers;
    for (const Issued* one : path) answers += vouching.vouchesFor(one->get()) ? '+' : '-';
    return answers;
  }

  World world;
  Issued root = issueCA("CN=Root");
  Issued inter = issueCA("CN=Inter", &root);
  Issued leaf = issue({.subject = "CN=Leaf", .issuer = &inter});
  // As `inter`, and the root never signed it.
  Issued fake = issue({.subject = "CN=Inter", .issuer = &root, .ca = true, .signer = makeKey()});
  Issued faked = issue({.subject = "CN=Leaf", .issuer = &fake});
  LogCapture log;
};

TEST_F(VouchedChainTest, EverySignatureUpToTheAnchor) {
  const Issued forged = issue({.subject = "CN=Leaf", .issuer = &inter, .badSignature = true});
  const Issued stranger = issueCA("CN=Stranger");
  const Issued strangers = issue({.subject = "CN=Leaf", .issuer = &stranger});
  const struct {
    const char* what;
    Path path;  // the end comes from the store, or from nowhere
    Path untrusted;
    std::string vouched;
  } rows[] = {
      {"genuine", {&leaf, &inter, &root}, {&inter}, "+++"},
      {"the leaf is forged", {&forged, &inter, &root}, {&inter}, "-++"},
      {"a forged CA signed the leaf", {&faked, &fake, &root}, {&fake}, "--+"},
      {"the end came along", {&strangers, &stranger}, {&stranger}, "--"},
      {"no end at all", {&strangers}, {}, "-"},
      {"itself, trusted", {&root}, {}, "+"},
      {"itself, not trusted", {&stranger}, {}, "-"},
  };
  world.trust(root);
  for (const auto& row : rows) EXPECT_EQ(vouched(row.path, row.untrusted), row.vouched) << row.what;
}

TEST_F(VouchedChainTest, AnchorThatIsNotSelfSigned_Vouches) {
  world.trust(inter);
  EXPECT_EQ(vouched({&leaf, &inter}, {}), "++");
}

TEST_F(VouchedChainTest, RightSignaturesBelowAForgedCA_ProveNothing) {
  world.trust(root);
  const Issued below = issueCA("CN=Below", &fake);
  const Issued person = issue({.subject = "CN=Person", .issuer = &below});
  EXPECT_EQ(vouched({&person, &below, &fake, &root}, {&below, &fake}), "---+");
}

TEST_F(VouchedChainTest, OfAnotherCertificate_Nobody) {
  world.trust(root);
  Verifier verifier(world.store, handle(leaf), false);
  VouchedChain nothingBuilt(verifier);
  EXPECT_FALSE(nothingBuilt.vouchesFor(leaf.get()));
  EXPECT_FALSE(nothingBuilt.vouchesFor(root.get()));
}

TEST_F(VouchedChainTest, Copy_IsTheSameCertificate) {
  world.trust(root);
  Verifier verifier(world.store, handle(leaf), false);
  VouchedChain vouching({handle(leaf), handle(inter), handle(root)}, verifier);
  const Owned<X509> copy = certFromDer(der(leaf.get()));
  EXPECT_TRUE(vouching.contains(copy.get()));
  EXPECT_FALSE(vouching.contains(faked.get()));
  EXPECT_TRUE(vouching.vouchesFor(copy.get()));
  const Owned<X509> other = certFromDer(der(faked.get()));
  EXPECT_FALSE(vouching.vouchesFor(other.get()));
}

TEST_F(VouchedChainTest, ListOfSomebodysMaking_NeedsAnEndThatTheStoreHas) {
  EXPECT_EQ(vouchedList({&leaf, &inter, &root}), "---");
  world.trust(root);
  EXPECT_EQ(vouchedList({&leaf, &inter, &root}), "+++");
  EXPECT_EQ(vouchedList({&faked, &fake, &root}), "--+");
  EXPECT_EQ(vouchedList({&leaf, &inter}), "--");
  EXPECT_EQ(vouchedList({&leaf, &root}), "-+");
  const Issued mimic = issueCA("CN=Root");
  const Issued mimics = issue({.subject = "CN=Leaf", .issuer = &mimic});
  EXPECT_EQ(vouchedList({&mimics, &mimic}), "--");
}

TEST_F(VouchedChainTest, ListWithAnEmptyHandle_EndsThere) {
  world.trust(root);
  Verifier verifier(world.store, handle(leaf), false);
  VouchedChain middle({handle(leaf), RefCertificate(), handle(root)}, verifier);
  EXPECT_FALSE(middle.vouchesFor(leaf.get()));
  EXPECT_TRUE(middle.vouchesFor(root.get()));
  VouchedChain end({handle(leaf), RefCertificate()}, verifier);
  EXPECT_FALSE(end.vouchesFor(leaf.get()));
  VouchedChain none({}, verifier);
  EXPECT_FALSE(none.vouchesFor(leaf.get()));
}

TEST_F(VouchedChainTest, LookupMethodThatThrowsWhileTheEndIsLookedFor_IsTheCallersException) {
  world.source->onQuery = [](Query, const DistinguishedName&) {
    throw std::runtime_error("no source");
  };
  Verifier verifier(world.store, handle(leaf), false);
  VouchedChain vouching({handle(leaf), handle(inter), handle(root)}, verifier);
  EXPECT_THROW(static_cast<void>(vouching.vouchesFor(leaf.get())), std::runtime_error);
}

TEST_F(VouchedChainTest, IssuerWithAKeyThatNobodyKnows_VouchesForNobody) {
  // 1.2.840.10045.2.1, the algorithm of the key, becomes one that OpenSSL has never heard of.
  std::string bytes = der(root.get());
  const std::string algorithm = "\x2a\x86\x48\xce\x3d\x02\x01";
  const std::size_t place = bytes.find(algorithm);
  ASSERT_NE(place, std::string::npos);
  bytes[place + algorithm.size() - 1] = '\x7f';
  Issued odd = root;
  odd.cert = certFromDer(bytes);
  world.trust(odd);
  ERR_clear_error();
  EXPECT_EQ(vouchedList({&inter, &odd}), "-+");
  EXPECT_EQ(ERR_peek_error(), 0U);
}

TEST_F(VouchedChainTest, AnotherChain_IsNotThisOne) {
  world.trust(root);
  Verifier verifier(world.store, handle(leaf), RefStackOfCertificate({handle(inter)}), false);
  static_cast<void>(verifier.isValid());
  const VouchedChain before(verifier);
  EXPECT_TRUE(before.isOf(verifier));
  EXPECT_TRUE(before.beginsWith({handle(leaf)}));
  EXPECT_TRUE(before.beginsWith({}));
  EXPECT_FALSE(before.beginsWith({handle(inter)}));
  EXPECT_FALSE(before.beginsWith({handle(leaf), handle(inter), handle(root), handle(root)}));
  // No root is found, and the chain ends below it.
  RefObjectStore other("/nonexistent/pkx509-test", X509_FILETYPE_PEM);
  Verifier second(other, handle(leaf), RefStackOfCertificate({handle(inter)}), false);
  static_cast<void>(second.isValid());
  EXPECT_FALSE(before.isOf(second));
}

// --- the subject of a check

class ChainSubjectTest : public VouchedChainTest {
 protected:
  ChainSubjectTest() { world.trust(root); }

  Verifier verifier{world.store, handle(leaf), false};
};

TEST_F(ChainSubjectTest, ForgedCertificate_IsRefusedWithOneLine) {
  VouchedChain chain({handle(faked), handle(fake), handle(root)}, verifier);
  {
    const ChainSubject subject(faked.get(), chain);
    for (int i = 0; i < 5; ++i) EXPECT_FALSE(connectionAdmitted());
    EXPECT_EQ(log.text(), refusedLine("CN=Leaf"));
    EXPECT_TRUE(isVouchedFor(root.get()));
    EXPECT_FALSE(isVouchedFor(fake.get()));
  }
  const ChainSubject subject(fake.get(), chain);
  EXPECT_FALSE(connectionAdmitted());
  EXPECT_EQ(log.text(), refusedLine("CN=Leaf") + refusedLine("CN=Inter"));
}

TEST_F(ChainSubjectTest, GenuineCertificate_IsAdmittedWithoutALine) {
  VouchedChain chain({handle(leaf), handle(inter), handle(root)}, verifier);
  const ChainSubject subject(leaf.get(), chain);
  EXPECT_TRUE(connectionAdmitted());
  EXPECT_TRUE(isVouchedFor(leaf.get()));
  EXPECT_EQ(log.text(), "");
}

TEST_F(ChainSubjectTest, Refusal_LeavesNoErrorToOpenSSLAndTakesNoneAway) {
  ERR_clear_error();
  ERR_raise(ERR_LIB_USER, 17);
  const unsigned long before = ERR_peek_last_error();
  VouchedChain chain({handle(faked), handle(fake), handle(root)}, verifier);
  const ChainSubject subject(faked.get(), chain);
  EXPECT_FALSE(connectionAdmitted());
  EXPECT_EQ(ERR_peek_last_error(), before);
  EXPECT_EQ(ERR_get_error(), before);
  EXPECT_EQ(ERR_get_error(), 0U);
}

// No signature is looked at as long as nobody wants to connect: that is what most certificates,
// whose CRL is on the machine, would pay for.
TEST_F(ChainSubjectTest, NotAsked_NothingIsVerified) {
  VouchedChain chain({handle(faked), handle(fake), handle(root)}, verifier);
  const int before = world.source->objectQueries;
  { const ChainSubject subject(faked.get(), chain); }
  EXPECT_EQ(log.text(), "");
  EXPECT_EQ(world.source->objectQueries, before);
}

TEST_F(ChainSubjectTest, ControlCharactersInTheName_StayOnOneLine) {
  const Issued odd = issue({.subject = "CN=a\nb\x1b[2J", .issuer = &root, .badSignature = true});
  VouchedChain chain({handle(odd), handle(root)}, verifier);
  const ChainSubject subject(odd.get(), chain);
  EXPECT_FALSE(connectionAdmitted());
  EXPECT_EQ(log.text(), refusedLine("CN=a\\0Ab\\1B[2J"));
}

}  // namespace
}  // namespace Velantrix::Test
