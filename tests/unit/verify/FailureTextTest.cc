#include "foundation/base/LogBudget.h"
#include "support/LogCapture.h"
#include "unit/verify/World.h"
#include "verify/FailureText.h"

#include <gtest/gtest.h>
#include <string>

namespace Velantrix::Test {
namespace {

const Issued& root() {
  static const Issued made = issue({.subject = "C=DE,O=Test,CN=Root", .serial = 1, .ca = true});
  return made;
}

TEST(FailureText, Certificate_IsNamedBySubjectIssuerAndSerial) {
  const Issued leaf = issue({.subject = "CN=Leaf", .issuer = &root(), .serial = "0ABC"});
  EXPECT_EQ(failureText(handle(leaf), X509_V_ERR_CERT_REVOKED),
            "Certificate, ( CN=Leaf / CN=Root,O=Test,C=DE serialNumber: 0ABC) is not valid, "
            "certificate revoked");
}

TEST(FailureText, Code_IsSaidInOpenSSLsWords) {
  struct Row {
    int code;
    const char* words;
  };
  const Row rows[] = {
      {X509_V_ERR_CERT_HAS_EXPIRED, "certificate has expired"},
      {X509_V_ERR_UNABLE_TO_GET_CRL, "unable to get certificate CRL"},
      {X509_V_ERR_CRL_HAS_EXPIRED, "CRL has expired"},
  };
  for (const Row& row : rows) {
    EXPECT_TRUE(failureText(handle(root()), row.code)
                    .ends_with(std::string(" serialNumber: 01) is not valid, ") + row.words));
  }
}

TEST(FailureText, EmptyHandle_LeavesTheNamesOut) {
  EXPECT_EQ(failureText(RefCertificate(), X509_V_ERR_CERT_REVOKED),
            ") is not valid, certificate revoked");
}

TEST(FailureText, Logged_IsALineOfItsOwnBeyondEveryBudget) {
  const LogCapture log;
  const LogBudget none(0);
  logFailure(handle(root()), X509_V_ERR_CERT_REVOKED);
  logFailure(handle(root()), X509_V_ERR_CERT_REVOKED, "so it is said");
  const std::string text = failureText(handle(root()), X509_V_ERR_CERT_REVOKED);
  EXPECT_EQ(log.text(), "7 " + text + "\n7 " + text + ": so it is said\n");
}

// Names are a stranger's, and the text is a line of the log.
TEST(FailureText, ControlCharactersInANameOrHugeSerial_StayOnOneLine) {
  const std::string serial(40, '7');
  const Issued odd = issue({.subject = "CN=a\nb", .issuer = &root(), .serial = serial.c_str()});
  const std::string text = failureText(handle(odd), X509_V_ERR_CERT_REVOKED);
  EXPECT_TRUE(text.starts_with("Certificate, ( CN=a\\0Ab / ")) << text;
  EXPECT_NE(text.find(" serialNumber: " + serial + ")"), std::string::npos) << text;
  EXPECT_EQ(text.find('\n'), std::string::npos);
}

}  // namespace
}  // namespace Velantrix::Test
