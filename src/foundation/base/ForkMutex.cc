#include "foundation/base/ForkMutex.h"

#include "foundation/base/ForkLock.h"

#include <new>

namespace Velantrix {

namespace {

// Nothing that it protects is ever torn: see below.
ForkLock takingOver([](bool /*whole*/) {});

}  // namespace

unsigned int forkGeneration() noexcept { return takingOver.generation(); }

void ForkMutex::takeOver() {
  const std::lock_guard<ForkLock> held(takingOver);
  if (generation_.load(std::memory_order_relaxed) == takingOver.generation()) return;
  new (&mutex_) std::mutex;
  // Whoever sees it finds the mutex new, also in a child of this process that is forked in between.
  generation_.store(takingOver.generation(), std::memory_order_release);
}

}  // namespace Velantrix
