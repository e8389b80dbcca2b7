#include "foundation/base/Fail.h"
#include "foundation/openssl/OpenSSLOwners.h"

#include <velantrix/StackOfCertificate.h>

namespace Velantrix::Crypto::PKX509 {

namespace {

constexpr Origin kHere{"X509::StackOfCertificate", "StackOfCertificate"};
constexpr const char* kNoMemory = "no memory for the stack";

}  // namespace

StackOfCertificate::StackOfCertificate(const std::list<RefCertificate>& certificates)
    : stack_(Owned<STACK_OF(X509)>(sk_X509_new_null())) {
  if (stack_ == nullptr) fail(kHere, kNoMemory);
  for (const RefCertificate& certificate : certificates) {
    X509* native = certificate;
    if (native == nullptr) continue;
    if (X509_up_ref(native) != 1) fail(kHere, kNoMemory);
    Owned<X509> reference(native);
    if (sk_X509_push(stack_.get(), native) <= 0) fail(kHere, kNoMemory);
    static_cast<void>(reference.release());  // the stack's now
  }
}

RefStackOfCertificate::RefStackOfCertificate(const std::list<RefCertificate>& certificates)
    : Ref<StackOfCertificate>(new StackOfCertificate(certificates)) {}

}  // namespace Velantrix::Crypto::PKX509
