// Keeps a thread from being cancelled (pthread_cancel) while it is in the library's hands.
//
//   const NoCancellation untilReturn;
//   X509_verify_cert(context);
//
// glibc cancels a thread by unwinding its stack. That ends the process where the stack has a
// destructor or a callback out of which nothing may be thrown, and leaks what libcrypto and libldap
// hold. So a request to cancel waits until the call is done: the next cancellation point after it
// heeds it.
#pragma once

#include <velantrix/NonCopyable.h>

#include <pthread.h>

namespace Velantrix {

class NoCancellation : private NonCopyable {
 public:
  NoCancellation() noexcept { ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &former_); }
  ~NoCancellation() { ::pthread_setcancelstate(former_, nullptr); }

 private:
  int former_ = PTHREAD_CANCEL_ENABLE;
};

}  // namespace Velantrix
