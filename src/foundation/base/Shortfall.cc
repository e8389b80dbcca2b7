#include "foundation/base/Shortfall.h"

#include <cerrno>

namespace Velantrix {

namespace {
thread_local Shortfall::Watch* currentWatch = nullptr;
}  // namespace

Shortfall::Watch::Watch() noexcept : outer_(currentWatch) { currentWatch = this; }

Shortfall::Watch::~Watch() { currentWatch = outer_; }

void Shortfall::note() noexcept {
  for (Watch* watch = currentWatch; watch != nullptr; watch = watch->outer_) watch->noted_ = true;
}

void Shortfall::noteIfExhausted(int error) noexcept {
  switch (error) {
    case EMFILE:
    case ENFILE:
    case ENOBUFS:
    case ENOMEM:
      note();
      break;
    default:
      break;
  }
}

}  // namespace Velantrix
