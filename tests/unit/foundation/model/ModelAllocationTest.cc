// What the certificate model does when OpenSSL gets no memory: the exception of the class that
// needed it, never half a value. This program replaces OpenSSL's allocator, which has to happen
// before OpenSSL allocates for the first time.
#include "support/StarvedOpenSSL.h"
#include "unit/store/Model.h"

#include <velantrix/ASN1.h>
#include <velantrix/Certificate.h>
#include <velantrix/DistinguishedName.h>
#include <velantrix/Exception.h>
#include <velantrix/Extension.h>
#include <velantrix/GeneralName.h>
#include <velantrix/MediaOut.h>

#include <openssl/err.h>

#include <functional>
#include <gtest/gtest.h>
#include <new>
#include <set>
#include <string>
#include <utility>

namespace Velantrix::Test {
namespace {

using namespace Crypto::PKX509;
namespace ASN1 = Crypto::ASN1;

/// Fails the first allocation of `scenario`, then the second and so on, each time only that one or
/// all after it too. Whatever it comes to without an exception has to be `expected`. Returns what
/// was thrown.
std::set<std::string> starve(const std::string& expected,
                             const std::function<std::string()>& scenario) {
  EXPECT_TRUE(Starvation::possible());
  EXPECT_EQ(scenario(), expected);  // what is allocated once for all is allocated now
  std::set<std::string> thrown;
  for (const bool forGood : {false, true}) {
    constexpr long kMost = 20000;
    long first = 0;
    for (; first < kMost; ++first) {
      const Starvation starvation(first, forGood);
      std::string outcome = expected;
      std::string failure;
      try {
        outcome = scenario();
      } catch (const Exception& e) {
        failure = e.context() + ": " + e.what();
        EXPECT_EQ(e.code(), Exception::kFailure);
      } catch (const std::bad_alloc&) {
      }
      Starvation::end();
      ERR_clear_error();
      EXPECT_EQ(outcome, expected) << "allocation " << first;
      if (!failure.empty()) thrown.insert(failure);
      if (!Starvation::refused()) break;
    }
    EXPECT_LT(first, kMost);
  }
  return thrown;
}

/// Is there one among them with these words in it?
bool anyWith(const std::set<std::string>& thrown, const std::string& words) {
  for (const std::string& text : thrown) {
    if (text.find(words) != std::string::npos) return true;
  }
  return false;
}

#define EXPECT_THROWN(words, thrown)                                         \
  do {                                                                       \
    const std::set<std::string> thrown_ = (thrown);                          \
    EXPECT_TRUE(anyWith(thrown_, words)) << testing::PrintToString(thrown_); \
  } while (false)

// A value that cannot be converted is printed in hexadecimal, which stands for the same.
std::string readable(std::string text) {
  const std::pair<std::string, std::string> forms[] = {{"#0C04526F6F74", "Root"},
                                                       {"#0C0454657374", "Test"},
                                                       {"#0C0443524C31", "CRL1"},
                                                       {"#0C0178", "x"}};
  for (const auto& [hexadecimal, plain] : forms) {
    const std::size_t at = text.find(hexadecimal);
    if (at != std::string::npos) text.replace(at, hexadecimal.size(), plain);
  }
  return text;
}

TEST(ModelAllocation, Names) {
  const Owned<X509_NAME> native = makeName("O=Test,CN=Root");
  EXPECT_THROWN("name cannot be encoded", starve("CN=Root,O=Test", [&] {
                  return readable(DistinguishedName(native.get()).asString());
                }));
  const Owned<GENERAL_NAME> directory = makeGeneralName("dirName:O=Test,CN=Root");
  EXPECT_THROWN("name cannot be copied", starve("CN=Root,O=Test", [&] {
                  return readable(GeneralName(directory.get()).dn().asString());
                }));
}

TEST(ModelAllocation, Integers) {
  const Owned<ASN1_INTEGER> native(ASN1_INTEGER_new());
  ASSERT_EQ(ASN1_INTEGER_set(native.get(), 0x1234), 1);
  EXPECT_THROWN("no memory for a copy",
                starve("1234", [&] { return ASN1::Integer(native.get()).asString(); }));
}

// Arcs that fit no word are OpenSSL's big numbers on both ways.
TEST(ModelAllocation, ObjectIdentifiersWithLargeArcs) {
  const std::string dotted =
      "2.123456789012345678901234567890.340282366920938463463374607431768211456";
  EXPECT_THROWN("no memory for an arc",
                starve(dotted, [&] { return ASN1::RefObjectIdentifier(dotted)->asString(); }));
  const Issued issued = issue({.rawExtensions = {{dotted, false, "\x05"}}});
  const RefCertificate certificate = handle(issued);
  const ASN1::RefObjectIdentifier wanted(dotted);
  const std::set<std::string> thrown =
      starve(dotted, [&] { return certificate->find(wanted)->oid(); });
  EXPECT_TRUE(anyWith(thrown, "no memory for an arc")) << testing::PrintToString(thrown);
  EXPECT_TRUE(anyWith(thrown, "extension cannot be copied")) << testing::PrintToString(thrown);
}

TEST(ModelAllocation, RelativeNameOfADistributionPoint) {
  const Issued issued = issue({.crlDistributionPoints = {{.relativeName = "O=x+CN=CRL1"}}});
  const RefCertificate certificate = handle(issued);
  EXPECT_THROWN("no memory for a relative name", starve("O=x+CN=CRL1", [&] {
                  const auto points = certificate->crlDistributionPoints();
                  return readable(points.front()->distributionPointName()->relativeName());
                }));
}

TEST(ModelAllocation, PemIsWrittenWholeOrNotAtAll) {
  const Issued root = issueCA("CN=Root");
  const RefCertificate certificate = handle(root);
  EXPECT_THROWN("cannot be encoded", starve(pem(root.get()), [&] {
                  StringMediaOut out;
                  certificate->writePEM(out);
                  return out.text();
                }));
}

}  // namespace
}  // namespace Velantrix::Test
