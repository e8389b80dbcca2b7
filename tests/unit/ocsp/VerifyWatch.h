// Sees the verifications that OpenSSL is asked for while the object lives.
//
//   const VerifyWatch watch;
//   client.isSignatureValid(response, basic);
//   ASSERT_EQ(watch.runs().size(), 1U);
//   EXPECT_EQ(watch.runs().front().parent, static_cast<X509_STORE_CTX*>(verifier));
//
// The program's X509_verify_cert stands in front of libcrypto's for all that the library calls.
#pragma once

#include <openssl/x509.h>

#include <vector>

namespace Velantrix::Test {

/// A context as it was when the verification began. All pointers are borrowed, and most of what
/// they point to is gone when the test looks.
struct VerificationSeen {
  const X509_STORE_CTX* context;
  const X509_STORE_CTX* parent;  ///< of its Verifier
  const X509_STORE* store;
  const X509* target;
  std::vector<const X509*> untrusted;
  unsigned long flags;
};

class VerifyWatch {
 public:
  VerifyWatch();
  ~VerifyWatch();
  VerifyWatch(const VerifyWatch&) = delete;
  VerifyWatch& operator=(const VerifyWatch&) = delete;

  const std::vector<VerificationSeen>& runs() const { return runs_; }

  void see(X509_STORE_CTX* context);

 private:
  std::vector<VerificationSeen> runs_;
};

}  // namespace Velantrix::Test
