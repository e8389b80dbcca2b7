// Whether something was given up because what a whole verification shares ran out: its look-ups, its
// time or bytes on the network, memory, descriptors.
//
//   const Shortfall::Watch watch;  // whoever answers for the whole
//   ...
//   Shortfall::note();             // deep down, where a look-up is refused
//   ...
//   if (watch.noted()) ...         // no good answer: what is missing may have been the revocation
//
// A source that does not answer leads on to the next one, and that is how it should be. A source
// that was not asked any more is another matter: a stranger's certificate can be made so that the
// share is used up just before the source that tells of a revocation.
#pragma once

#include <velantrix/NonCopyable.h>

namespace Velantrix {

class Shortfall {
 public:
  /// Notices what this thread falls short of while it lives. Watches nest: what an inner one
  /// notices, those around it do too.
  class Watch : private NonCopyable {
   public:
    Watch() noexcept;
    ~Watch();

    bool noted() const noexcept { return noted_; }

   private:
    friend class Shortfall;

    Watch* outer_;
    bool noted_ = false;
  };

  static void note() noexcept;
  /// Notes one when a system call failed with @p error for want of memory or descriptors.
  static void noteIfExhausted(int error) noexcept;
};

}  // namespace Velantrix
