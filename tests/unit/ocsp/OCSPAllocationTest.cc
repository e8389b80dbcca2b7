// What the messages and the client do when OpenSSL gets no memory: an exception or a result that is
// not better than the right one, never a crash or a leak. This program replaces OpenSSL's
// allocator, which has to happen before OpenSSL allocates for the first time.
#include "support/OCSPBuilder.h"
#include "support/StarvedOpenSSL.h"
#include "unit/ocsp/Bytes.h"
#include "unit/verify/World.h"

#include <openssl/err.h>

#include <gtest/gtest.h>
#include <new>

namespace Velantrix::Test {
namespace {

/// Fails the first allocation of a scenario, then the second and so on, each time only that one or
/// all after it too, until the scenario passes without any failing.
template <class Scenario>
void walk(Scenario scenario) {
  ASSERT_TRUE(Starvation::possible());
  scenario();  // what is allocated once for all is allocated now
  for (const bool forGood : {false, true}) {
    constexpr long kMost = 20000;
    long first = 0;
    for (; first < kMost; ++first) {
      const Starvation starvation(first, forGood);
      try {
        scenario();
      } catch (const Exception&) {
      } catch (const std::bad_alloc&) {
      }
      Starvation::end();
      ERR_clear_error();
      if (!Starvation::refused()) break;
    }
    EXPECT_LT(first, kMost);
    EXPECT_GT(first, 1);
  }
}

class OCSPAllocation : public testing::Test {
 protected:
  OCSPAllocation() { world.trust(root); }

  const Issued root = issueCA("O=Test,CN=Root");
  const Issued leaf = issue({.subject = "O=Test,CN=Leaf", .issuer = &root});
  const Issued delegated = issue({.subject = "O=Test,CN=Responder", .issuer = &root});
  const RefCertificate person = handle(leaf);
  const RefCertificate issuer = handle(root);
  World world;
};

TEST_F(OCSPAllocation, Request) {
  walk([&] {
    const OCSP::Request asked(person, issuer);
    EXPECT_NE(asked.pdu()->length(), 0U);
  });
  walk([&] {
    const OCSP::Request asked(person, issuer);
    EXPECT_NE(static_cast<OCSP_REQUEST*>(asked), nullptr);
  });
}

TEST_F(OCSPAllocation, ResponseAndItsStatus) {
  const OCSP::Request asked(person, issuer);
  const std::string revoked =
      ocspAnswer({.signer = &root, .singles = {{.status = V_OCSP_CERTSTATUS_REVOKED, .reason = 1}}},
                 textOf(asked.pdu()));
  const Verifier verifier(world.store, person, false);
  walk([&] {
    const Answer answer(revoked);
    static_cast<void>(answer.basic.matches(asked));
    if (static_cast<OCSP_BASICRESP*>(answer.basic) == nullptr) return;
    EXPECT_EQ(answer.response.find(answer.basic, asked.id()).status, 1);
    EXPECT_EQ(answer.basic.certificates().size(), 1U);
  });
  walk([&] {
    const Answer nothing((std::string()));
    EXPECT_EQ(static_cast<OCSP_BASICRESP*>(nothing.basic), nullptr);
  });
}

TEST_F(OCSPAllocation, SignatureThatIsWrong_IsNeverAccepted) {
  const std::list<RefCertificate> chain{person, issuer};
  Verifier verifier(world.store, person, false);
  for (const Issued* const signer : {&root, &delegated}) {
    const std::string request = ocspRequest(leaf, root);
    const Answer right(ocspAnswer({.signer = signer}, request));
    const Answer wrong(ocspAnswer({.signer = signer, .tampered = true}, request));
    int accepted = 0;
    walk([&] {
      OCSP::Client client(verifier, chain);
      if (client.isSignatureValid(right.response, right.basic) == 0) ++accepted;
    });
    EXPECT_GE(accepted, 3);
    walk([&] {
      OCSP::Client client(verifier, chain);
      EXPECT_NE(client.isSignatureValid(wrong.response, wrong.basic), 0);
    });
  }
}

}  // namespace
}  // namespace Velantrix::Test
