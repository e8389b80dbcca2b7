#include "foundation/run/VerificationRun.h"
#include "support/LogCapture.h"
#include "support/Pki.h"
#include "verify/ConnectionSubject.h"

#include <openssl/err.h>

#include <chrono>
#include <gtest/gtest.h>
#include <string>

namespace Velantrix::Test {
namespace {

using namespace std::chrono_literals;
using Crypto::PKX509::connectionAdmitted;
using Crypto::PKX509::ConnectionSubject;
using Crypto::PKX509::VerificationRun;

constexpr char kForged[] =
    "6 Verifier: no connection is made for a certificate that its issuer did not sign: ";
constexpr char kTimeSpent[] =
    "6 Verifier: the time for the network is spent, the rest of this verification reaches no "
    "host\n";

// A CA, what it issued, and what only says so.
struct Chain {
  Issued root = issueCA("CN=Root");
  Issued other = issueCA("CN=Root");
  Issued genuine = issue({.subject = "CN=Genuine", .issuer = &root});
  Issued forged = issue({.subject = "CN=Forged", .issuer = &root, .badSignature = true});
  Issued foreign = issue({.subject = "CN=Foreign", .issuer = &other});
};

std::string forgedLine(const std::string& name) { return kForged + name + "\n"; }

TEST(ConnectionAdmitted, NothingGoesOn_IsAdmitted) {
  LogCapture log;
  EXPECT_TRUE(connectionAdmitted());
  EXPECT_EQ(log.text(), "");
}

TEST(ConnectionAdmitted, BySignatureOfTheCertificateThatIsChecked) {
  const Chain chain;
  const struct {
    const char* what;
    const Issued& certificate;
    const Issued* issuer;
    bool admitted;
    std::string log;
  } rows[] = {
      {"genuine", chain.genuine, &chain.root, true, ""},
      {"signature changed", chain.forged, &chain.root, false, forgedLine("CN=Forged")},
      {"signed by another of that name", chain.foreign, &chain.root, false,
       forgedLine("CN=Foreign")},
      {"end of the chain, self-signed", chain.root, nullptr, true, ""},
      {"end of the chain, not self-signed", chain.forged, nullptr, true, ""},
  };
  for (const auto& row : rows) {
    LogCapture log;
    const VerificationRun run(nullptr);
    const ConnectionSubject subject(row.certificate.get(),
                                    row.issuer == nullptr ? nullptr : row.issuer->get());
    EXPECT_EQ(connectionAdmitted(), row.admitted) << row.what;
    EXPECT_EQ(log.text(), row.log) << row.what;
  }
}

TEST(ConnectionAdmitted, ForgedCertificateOutsideARun_IsRefusedToo) {
  const Chain chain;
  LogCapture log;
  const ConnectionSubject subject(chain.forged.get(), chain.root.get());
  EXPECT_FALSE(connectionAdmitted());
  EXPECT_EQ(log.text(), forgedLine("CN=Forged"));
}

TEST(ConnectionAdmitted, IssuerWithAKeyThatNobodyKnows_IsRefused) {
  const Chain chain;
  // 1.2.840.10045.2.1, the algorithm of the key, becomes one that OpenSSL has never heard of.
  std::string bytes = der(chain.root.get());
  const std::string algorithm = "\x2a\x86\x48\xce\x3d\x02\x01";
  const std::size_t place = bytes.find(algorithm);
  ASSERT_NE(place, std::string::npos);
  bytes[place + algorithm.size() - 1] = '\x7f';
  const Owned<X509> issuer = certFromDer(bytes);
  ERR_clear_error();
  LogCapture log;
  const ConnectionSubject subject(chain.genuine.get(), issuer.get());
  EXPECT_FALSE(connectionAdmitted());
  EXPECT_EQ(log.text(), forgedLine("CN=Genuine"));
  EXPECT_EQ(ERR_peek_error(), 0U);
}

TEST(ConnectionAdmitted, Refusal_LeavesNoErrorToOpenSSLAndTakesNoneAway) {
  const Chain chain;
  ERR_clear_error();
  ERR_raise(ERR_LIB_USER, 17);
  const unsigned long before = ERR_peek_last_error();
  LogCapture log;
  const ConnectionSubject subject(chain.forged.get(), chain.root.get());
  EXPECT_FALSE(connectionAdmitted());
  EXPECT_EQ(ERR_peek_last_error(), before);
  EXPECT_EQ(ERR_get_error(), before);
  EXPECT_EQ(ERR_get_error(), 0U);
}

TEST(ConnectionAdmitted, AskedAgain_RefusedWithoutAnotherLine) {
  const Chain chain;
  LogCapture log;
  const VerificationRun run(nullptr);
  {
    const ConnectionSubject subject(chain.forged.get(), chain.root.get());
    for (int i = 0; i < 5; ++i) EXPECT_FALSE(connectionAdmitted());
    EXPECT_EQ(log.text(), forgedLine("CN=Forged"));
  }
  const ConnectionSubject subject(chain.foreign.get(), chain.root.get());
  EXPECT_FALSE(connectionAdmitted());
  EXPECT_EQ(log.text(), forgedLine("CN=Forged") + forgedLine("CN=Foreign"));
}

// The signature is not looked at as long as nobody wants to connect: that is what most
// certificates, whose CRL is on the machine, would pay for.
TEST(ConnectionAdmitted, NotAsked_NothingIsVerified) {
  const Chain chain;
  LogCapture log;
  const VerificationRun run(nullptr);
  { const ConnectionSubject subject(chain.forged.get(), chain.root.get()); }
  EXPECT_EQ(log.text(), "");
  EXPECT_TRUE(connectionAdmitted());
}

TEST(ConnectionAdmitted, ControlCharactersInTheName_StayOnOneLine) {
  const Issued root = issueCA("CN=Root");
  const Issued forged = issue({.subject = "CN=a\nb\x1b[2J", .issuer = &root, .badSignature = true});
  LogCapture log;
  const ConnectionSubject subject(forged.get(), root.get());
  EXPECT_FALSE(connectionAdmitted());
  EXPECT_EQ(log.count("\n"), 0U) << log.text();
  EXPECT_EQ(log.count("\x1b"), 0U) << log.text();
  EXPECT_EQ(log.text(), forgedLine("CN=a\\0Ab\\1B[2J"));
}

TEST(ConnectionAdmitted, InnerSubject_StandsInFrontOfTheOuter) {
  const Chain chain;
  LogCapture log;
  const VerificationRun run(nullptr);
  const ConnectionSubject outer(chain.genuine.get(), chain.root.get());
  {
    const ConnectionSubject inner(chain.forged.get(), chain.root.get());
    EXPECT_FALSE(connectionAdmitted());
  }
  EXPECT_TRUE(connectionAdmitted());
}

// The path of a CRL's issuer is verified while a certificate is checked, and is another's: a
// forgery down there does not count up here, nor the other way round.
TEST(ConnectionAdmitted, NestedRun_HasItsOwnSubject) {
  const Chain chain;
  LogCapture log;
  const VerificationRun run(nullptr);
  const ConnectionSubject outer(chain.forged.get(), chain.root.get());
  {
    const VerificationRun nested(nullptr);
    EXPECT_TRUE(connectionAdmitted());
    {
      const ConnectionSubject inner(chain.foreign.get(), chain.root.get());
      EXPECT_FALSE(connectionAdmitted());
    }
    const ConnectionSubject inner(chain.genuine.get(), chain.root.get());
    EXPECT_TRUE(connectionAdmitted());
  }
  EXPECT_FALSE(connectionAdmitted());
  EXPECT_EQ(log.text(), forgedLine("CN=Foreign") + forgedLine("CN=Forged"));
}

TEST(ConnectionAdmitted, NoTimeLeftForTheNetwork_IsRefusedWithOneLine) {
  const Chain chain;
  LogCapture log;
  VerificationRun run(nullptr, 60s);
  const ConnectionSubject subject(chain.genuine.get(), chain.root.get());
  EXPECT_TRUE(connectionAdmitted());
  run.network().countTime(60s);
  for (int i = 0; i < 3; ++i) EXPECT_FALSE(connectionAdmitted());
  EXPECT_EQ(log.text(), kTimeSpent);
}

TEST(ConnectionAdmitted, ForgedCertificateAndNoTime_SaysThatItIsForged) {
  const Chain chain;
  LogCapture log;
  VerificationRun run(nullptr, 1s);
  run.network().countTime(2s);
  const ConnectionSubject subject(chain.forged.get(), chain.root.get());
  EXPECT_FALSE(connectionAdmitted());
  EXPECT_EQ(log.text(), forgedLine("CN=Forged"));
}

}  // namespace
}  // namespace Velantrix::Test
