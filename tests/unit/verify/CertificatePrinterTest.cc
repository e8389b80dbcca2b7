#include "unit/verify/World.h"

#include <gtest/gtest.h>
#include <iostream>
#include <sstream>

namespace Velantrix::Test {
namespace {

// What the block writes to standard output.
class CapturedOutput {
 public:
  CapturedOutput() : former_(std::cout.rdbuf(text_.rdbuf())) {}
  ~CapturedOutput() { std::cout.rdbuf(former_); }
  std::string text() const { return text_.str(); }

 private:
  std::ostringstream text_;
  std::streambuf* former_;
};

std::string printed(const Issued& issued) {
  std::ostringstream out;
  out << handle(issued);
  return out.str();
}

std::string keyIdOf(const Issued& issued) {
  return handle(issued)->subjectKeyIdentifier()->asString();
}

class CertificatePrinterTest : public testing::Test {
 protected:
  const Issued root = issueCA("O=Test,CN=Root");
  const std::string names = "CN=Leaf,O=Test / CN=Root,O=Test\n";

  Issued leaf(KeyId subject, KeyId authority) {
    return issue({.subject = "O=Test,CN=Leaf",
                  .issuer = &root,
                  .subjectKeyId = subject,
                  .authorityKeyId = authority});
  }
};

TEST_F(CertificatePrinterTest, EmptyHandle_PrintsNothing) {
  std::ostringstream out;
  out << RefCertificate();
  EXPECT_EQ(out.str(), "");
  Crypto::PKX509::operator<<(out, static_cast<X509*>(nullptr));
  EXPECT_EQ(out.str(), "");
}

TEST_F(CertificatePrinterTest, BothKeyIdentifiers) {
  const Issued issued = leaf(KeyId::Right, KeyId::Right);
  EXPECT_EQ(printed(issued), names + "\t" + keyIdOf(issued) + " / " + keyIdOf(root));
  EXPECT_EQ(keyIdOf(issued).size(), 20U * 3 - 1);
}

TEST_F(CertificatePrinterTest, NoAuthorityKeyIdentifier) {
  const Issued issued = leaf(KeyId::Right, KeyId::Absent);
  EXPECT_EQ(printed(issued), names + "\t" + keyIdOf(issued) + " /");
}

TEST_F(CertificatePrinterTest, AuthorityKeyIdentifierWithoutKeyId) {
  EXPECT_EQ(printed(leaf(KeyId::Right, KeyId::SerialOnly)), names);
}

TEST_F(CertificatePrinterTest, NoSubjectKeyIdentifier) {
  EXPECT_EQ(printed(leaf(KeyId::Absent, KeyId::Right)), names);
}

TEST_F(CertificatePrinterTest, List_AlwaysGoesToStandardOutput) {
  const Issued first = leaf(KeyId::Right, KeyId::Right);
  const Issued second = leaf(KeyId::Absent, KeyId::Right);
  const std::list<RefCertificate> list{handle(first), handle(second), RefCertificate()};
  std::ostringstream given;
  given << "kept";
  std::string output;
  {
    const CapturedOutput captured;
    EXPECT_EQ(&Crypto::PKX509::operator<<(given, list), &given);
    output = captured.text();
  }
  EXPECT_EQ(output, printed(first) + "\n" + printed(second) + "\n" + "\n");
  EXPECT_EQ(given.str(), "kept");
}

TEST_F(CertificatePrinterTest, EmptyList_PrintsNothing) {
  const CapturedOutput captured;
  Crypto::PKX509::operator<<(std::cout, std::list<RefCertificate>());
  EXPECT_EQ(captured.text(), "");
}

TEST_F(CertificatePrinterTest, RawCertificate_PrintsAsTheHandleDoes) {
  const Issued issued = leaf(KeyId::Right, KeyId::Right);
  std::ostringstream out;
  EXPECT_EQ(&Crypto::PKX509::operator<<(out, issued.get()), &out);
  EXPECT_EQ(out.str(), printed(issued));
}

TEST_F(CertificatePrinterTest, Stack_NewLineThenEachOnItsOwn) {
  const Issued first = leaf(KeyId::Right, KeyId::Right);
  const RefStackOfCertificate stack = stackOf({first, root});
  std::ostringstream out;
  Crypto::PKX509::operator<<(out, static_cast<STACK_OF(X509)*>(stack));
  EXPECT_EQ(out.str(), "\n" + printed(first) + "\n" + printed(root) + "\n");
  std::ostringstream none;
  Crypto::PKX509::operator<<(none, static_cast<STACK_OF(X509)*>(nullptr));
  EXPECT_EQ(none.str(), "\n");
}

}  // namespace
}  // namespace Velantrix::Test
