#include "foundation/net/Cancellation.h"

#include "foundation/base/FileDescriptor.h"
#include "foundation/base/NoCancellation.h"
#include "foundation/base/Shortfall.h"

#include <cstdint>
#include <new>
#include <sys/eventfd.h>
#include <unistd.h>
#include <utility>

namespace Velantrix {

namespace {
thread_local Cancellation* current = nullptr;
}  // namespace

// A token that either of two stops.
struct Cancellation::Both {
  struct Forward {
    std::stop_source* source;

    void operator()() const noexcept { source->request_stop(); }
  };

  Both(const std::stop_token& one, const std::stop_token& other)
      : first(one, Forward{&source}), second(other, Forward{&source}) {}

  std::stop_source source;
  std::stop_callback<Forward> first;
  std::stop_callback<Forward> second;
};

// The descriptor, and what makes it readable.
struct Cancellation::Event {
  struct Write {
    Event* event;

    // In whatever thread asks to stop.
    void operator()() const noexcept {
      // Parent and child have one event between them, and only one of them is asked.
      if (::getpid() != event->process) return;
      const NoCancellation untilReturn;
      const std::uint64_t once = 1;
      static_cast<void>(::write(event->descriptor.get(), &once, sizeof once));
    }
  };

  explicit Event(const std::stop_token& token) noexcept
      : descriptor(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)), callback(token, Write{this}) {}

  bool isOfThisProcess() const noexcept { return process == ::getpid(); }

  const pid_t process = ::getpid();
  FileDescriptor descriptor;
  std::stop_callback<Write> callback;
};

Cancellation::Cancellation(std::stop_token token) noexcept
    : token_(std::move(token)), outer_(current), holds_(token_.stop_possible()) {
  if (!holds_) return;
  if (outer_ != nullptr) {
    try {
      both_ = std::make_unique<Both>(outer_->token_, token_);
      token_ = both_->source.get_token();
    } catch (const std::bad_alloc&) {
      lost_ = true;
    }
    lost_ = lost_ || outer_->lost_;
  }
  current = this;
}

Cancellation::~Cancellation() {
  if (!holds_) return;
  current = outer_;
  // A child that was forked while another thread asked to stop would wait for that thread, which it has not
  // got. So it leaves there what its parent made.
  if (event_ != nullptr && !event_->isOfThisProcess()) static_cast<void>(event_.release());
}

bool Cancellation::requested() noexcept {
  if (current == nullptr || !(current->lost_ || current->token_.stop_requested())) return false;
  current->noticed_ = true;
  Shortfall::note();
  return true;
}

bool Cancellation::noticed() noexcept { return current != nullptr && current->noticed_; }

int Cancellation::descriptor() noexcept {
  if (current == nullptr) return -1;
  std::unique_ptr<Event>& event = current->event_;
  if (event != nullptr && !event->isOfThisProcess()) static_cast<void>(event.release());
  if (event == nullptr) event.reset(new (std::nothrow) Event(current->token_));
  if (event == nullptr) return -1;
  const int descriptor = event->descriptor.get();
  if (descriptor < 0) event.reset();  // there may be one the next time
  return descriptor;
}

const std::stop_token& Cancellation::token() noexcept {
  static const std::stop_token none;
  return current == nullptr ? none : current->token_;
}

}  // namespace Velantrix
