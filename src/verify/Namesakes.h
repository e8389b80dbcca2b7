// The certificates that a path may be built from, and which of several with one name issued another.
//
// A CA that has changed its key, or that others have cross-certified, has several certificates. OpenSSL
// takes the first one whose name and key identifiers fit, and does not come back to the others. So where
// that one leads to no valid path all of them are gathered, and where the key identifiers do not tell, the
// signature does.
//
//   Namesakes namesakes;
//   namesakes.add(X509_STORE_CTX_get0_untrusted(context));
//   namesakes.gather(certificate, sources, trustedOf);
//   const Namesakes::Attached attached(namesakes, context);   // they are its untrusted certificates
//   X509_verify_cert(context);
#pragma once

#include "foundation/openssl/OpenSSLOwners.h"
#include "revocation/RevocationSources.h"

#include <velantrix/Certificate.h>
#include <velantrix/NonCopyable.h>

#include <cstddef>
#include <functional>
#include <map>
#include <set>

namespace Velantrix::Crypto::PKX509 {

class Namesakes : private NonCopyable {
 public:
  // How many names sources are asked for, and how many certificates are taken of what they answer.
  static constexpr std::size_t kMaximumNames = 32;
  static constexpr std::size_t kMaximumCertificates = 256;
  // How many signatures one outermost run verifies to tell namesakes apart. After that they are told
  // apart as OpenSSL does it.
  static constexpr std::size_t kMaximumSignatures = 32;

  Namesakes();
  ~Namesakes();

  void add(X509* certificate);
  void add(const STACK_OF(X509) * certificates);
  // What may end a path, of those with that subject.
  using TrustedOf = std::function<Owned<STACK_OF(X509)>(const X509_NAME* subject)>;
  // All that the sources have of the names of its issuer, of that one's issuers, and so on up. Those
  // that are nearer to a trusted name come first then: of several that fit OpenSSL takes the first,
  // and does not come back to the others where that leads nowhere. False when there are none at all.
  bool gather(const RefCertificate& target, Revocation::RevocationSources& sources,
              const TrustedOf& trustedOf);

  // Whether sources have been asked. As long as they have not, a path is built of what is at hand.
  bool areGathered() const noexcept { return gathered_; }

  // Each once; borrowed, until more are added.
  STACK_OF(X509) * stack() const noexcept { return stack_.get(); }

  // Another one than the first of that name has another key than this.
  bool haveOtherKey(X509* certificate) const;

  // While they are the context's untrusted certificates. They and it are borrowed.
  class Attached : private NonCopyable {
   public:
    Attached(Namesakes& namesakes, X509_STORE_CTX* context);
    ~Attached();

   private:
    X509_STORE_CTX* context_;
    STACK_OF(X509) * former_;
  };

  // Those that are attached to the context; null when none are.
  static Namesakes* of(const X509_STORE_CTX* context);
  // For X509_STORE_set_check_issued.
  static int s_check_issued(X509_STORE_CTX* context, X509* certificate, X509* issuer);

  // Whether it is handed out in the place of a trusted certificate now, which happens once only: a
  // path that goes in a circle comes to an end.
  bool handOut(X509* certificate);

 private:
  struct ByOctets {
    bool operator()(X509* left, X509* right) const { return X509_cmp(left, right) < 0; }
  };
  struct ByName {
    bool operator()(const X509_NAME* left, const X509_NAME* right) const {
      return X509_NAME_cmp(left, right) < 0;
    }
  };
  struct Holders {
    X509* first = nullptr;  // that has the name; borrowed from the stack
    bool several = false;   // keys
  };

  using Names = std::set<const X509_NAME*, ByName>;

  bool insert(X509* certificate);
  void arrange(const Names& trusted);

  Owned<STACK_OF(X509)> stack_;
  std::set<X509*, ByOctets> known_;  // borrowed from the stack
  std::map<const X509_NAME*, Holders, ByName> holders_;
  std::set<X509*, ByOctets> handedOut_;
  bool gathered_ = false;
};

}  // namespace Velantrix::Crypto::PKX509
