// How far down a chain its trust anchor vouches for the certificates.
//
// Signatures are verified from the anchor downwards, as far as somebody asks, each once. The first
// one that is wrong ends it, so that no key is ever used whose own certificate is not vouched for:
// a stranger's key can be made to be expensive, and proves nothing.
//
//   VouchedChain chain(context);         // after OpenSSL has built it
//   const ChainSubject subject(certificate, chain);
//   ...                                  // connectionAdmitted() and isVouchedFor() ask the subject
#pragma once

#include "foundation/openssl/OpenSSLOwners.h"
#include "foundation/run/ConnectionSubject.h"

#include <velantrix/Certificate.h>
#include <velantrix/NonCopyable.h>

#include <cstddef>
#include <list>
#include <optional>
#include <vector>

namespace Velantrix::Crypto::PKX509 {

class VouchedChain : private NonCopyable {
 public:
  // The chain that OpenSSL has built in the context. It is anchored when its end comes from the
  // trust store; one whose untrusted end a caller's callback has let pass is not.
  explicit VouchedChain(X509_STORE_CTX* context);
  // A list that somebody made, leaf first. It is anchored when its end is in the store of the
  // context, which is borrowed and looked at when the first signature is to be verified.
  VouchedChain(const std::list<RefCertificate>& chain, X509_STORE_CTX* context);
  // One of whose end it is known whether it is trusted.
  VouchedChain(const std::list<RefCertificate>& chain, bool anchored);

  // Whether it is what OpenSSL has built in the context now.
  bool isOf(const X509_STORE_CTX* context) const noexcept;
  // Whether the list is the lower end of it, down to the very objects.
  bool beginsWith(const std::list<RefCertificate>& chain) const noexcept;

  bool contains(const X509* certificate) const noexcept { return find(certificate) != 0; }
  bool vouchesFor(const X509* certificate);

 private:
  // One more than its index; 0 when it is not there.
  std::size_t find(const X509* certificate) const noexcept;
  bool anchored();
  bool verifyNext() const;

  std::vector<Owned<X509>> chain_;  // leaf first; null where a list has an empty handle
  std::optional<bool> anchored_;    // empty: not looked at yet
  X509_STORE_CTX* context_;
  std::size_t lowest_;  // that is vouched for; the size of the chain when none is
  bool broken_ = false;
};

// One certificate of a chain, while it is checked for revocation. Both are borrowed.
class ChainSubject final : public ConnectionSubject {
 public:
  ChainSubject(X509* certificate, VouchedChain& chain) noexcept
      : certificate_(certificate), chain_(chain) {}

  bool vouched() override { return chain_.vouchesFor(certificate_); }
  bool admits() override;
  bool vouchesFor(X509* certificate) override { return chain_.vouchesFor(certificate); }

 private:
  X509* certificate_;
  VouchedChain& chain_;
  bool told_ = false;
};

}  // namespace Velantrix::Crypto::PKX509
