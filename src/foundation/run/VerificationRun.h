// One run of a verification on this thread: what its callbacks leave behind, and what bounds it.
//
// OpenSSL calls back through C frames. An exception that unwinds through them leaks what libcrypto
// holds, so a callback parks it here, answers "failed", and the verification throws it on when
// OpenSSL has returned. Verifications nest, because the issuer of a CRL is verified while the
// certificate that the CRL speaks about is; the runs of one thread form a stack.
#pragma once

#include "foundation/base/LogBudget.h"
#include "foundation/base/Shortfall.h"
#include "foundation/net/AddressAdmission.h"
#include "foundation/net/Cancellation.h"
#include "foundation/net/NetworkBudget.h"

#include <openssl/types.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <exception>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Velantrix::Crypto::PKX509 {

class VerificationRun {
 public:
  // The outermost run is level 1; a run on a deeper level than this one is refused.
  static constexpr unsigned int kMaximumLevel = 8;
  // How many nested runs one outermost run may start.
  static constexpr unsigned int kMaximumNested = 64;
  // How often one outermost run may ask a source for the CRLs of one name or URI.
  static constexpr unsigned int kMaximumLookups = 256;
  // The bytes of CRLs that one outermost run reads from the network.
  static constexpr std::size_t kMaximumCRLBytes = std::size_t{128} * 1024 * 1024;
  // The bytes of certificates and CRLs, from whatever source, that one outermost run decodes.
  static constexpr std::size_t kMaximumDecodedBytes = std::size_t{256} * 1024 * 1024;
  // The lines that one outermost run logs, beside those that say what is not valid and why.
  static constexpr unsigned int kMaximumLines = 200;
  // The refusal of a run that an enclosing one is about already.
  static constexpr char kDependsOnItself[] = "its own verification depends on it";

  // What the caller of an outermost run bounds.
  struct Limits {
    std::optional<NetworkBudget::Clock::duration> networkTime = {};  ///< none: no limit
    std::optional<std::chrono::nanoseconds> processorTime = {};      ///< none: no limit
    AddressPolicy addresses = {};
    std::optional<NetworkBudget::Clock::duration> wholeTime = {};  ///< from now on; none: no limit
    std::stop_token stop = std::stop_token();                      ///< asks to stop
  };

  // Marks a frame that only parks exceptions, for OpenSSL calls of destructors. It is not counted.
  struct Shelter {};

  explicit VerificationRun(Shelter /*shelter*/) noexcept;
  // Enters a run on this thread. The target is borrowed and outlives the run; it may be null. The
  // limits of an outermost run hold for all that are nested in it, whatever theirs: the outermost
  // run installs the thread's network budget and address policy.
  explicit VerificationRun(const X509* target) noexcept : VerificationRun(target, Limits()) {}
  VerificationRun(const X509* target, const Limits& limits) noexcept;
  ~VerificationRun();
  VerificationRun(const VerificationRun&) = delete;
  VerificationRun& operator=(const VerificationRun&) = delete;

  // The innermost run of this thread, null when none is going on.
  static VerificationRun* current() noexcept;

  // Why this run must not go on; null when it may. CRL issuers that vouch for each other in a
  // circle can be fed in from outside, since signatures are checked only after revocation.
  const char* refusal() const noexcept { return refusal_; }

  // Counts one look-up of CRLs. False when the outermost run has used up its share: the look-up is
  // then to find nothing, and the run has fallen short. The first refusal is logged. Always true
  // outside a run.
  static bool admitLookup();
  // Whether there is one to admit, before what is looked for is made. It counts nothing; a refusal
  // is the same.
  static bool mayLookUp();

  // Whether the outermost run may go on: nobody asks it to stop, and its deadline is not over. If not,
  // the run has fallen short of what is left to do. The first refusal is logged. Always true outside a
  // run.
  static bool mayGoOn();

  // Whether it may, and there is processor time left for another step. False when the outermost run has
  // used up its share: the step is then left out, and the run has fallen short. To be asked between
  // steps whose number a stranger decides. The first refusal is logged. Always true outside a run.
  static bool admitStep();

  // Counts bytes that are about to be decoded. False when the outermost run has used up its share:
  // they are then to be left alone, and the run has fallen short. The first refusal is logged.
  // Always true outside a run.
  static bool admitDecoding(std::size_t bytes);

  // What the last of these that was refused has no more of, as `spent()` has it; empty when none
  // was, and outside a run.
  static std::string_view refusedLast() noexcept;

  // What a room keeps for as long as the outermost run of this thread lasts, a T for each T; made
  // when it is first asked for. Null outside a run.
  template <class T>
  static T* kept();

  // Makes certificates known to the run, so that reading one of them again costs no second
  // decoding; decoding the key is the dearest step of making a certificate. The X509s are borrowed
  // and outlive the run.
  void know(X509* certificate) { known_.push_back({certificate, {}}); }
  // A certificate that this or an enclosing run of this thread knows and whose DER is exactly these
  // octets; borrowed, null when there is none.
  static X509* known(const unsigned char* der, std::size_t length);

  // Whether the outermost run, or one that is nested in it, has fallen short of something that all
  // of them share. What it has not found out may be a revocation: it must not end valid.
  bool fellShort() const noexcept { return totals_->shortfall->noted(); }

  // Whether the outermost run has left something out since it was asked to stop, or its deadline was over.
  bool wasStopped() const noexcept;

  // Whether no other goes on around it.
  bool isOutermost() const noexcept { return outer_ == nullptr; }
  // The look-ups of CRLs so far, of the outermost run and all that are nested in it.
  unsigned int lookups() const noexcept { return std::min(totals_->lookups, kMaximumLookups); }

  // What the outermost run has no more of: of "lookups", "processor time", "decoded bytes", "network
  // time", "network bytes", "time" those of which some was refused; "cancelled" where it was asked to
  // stop before its end. They are literals.
  std::vector<std::string_view> spent() const;

  // What the outermost run has used of the processor so far; none where that is not known.
  std::optional<std::chrono::nanoseconds> processorTime() const noexcept;

  // Which of these ends every use of the network now, of the run of this thread; empty where there is
  // none.
  static std::string_view endOfNetwork() noexcept;

  // What the outermost run may use of the network, and has used.
  NetworkBudget& network() noexcept { return *totals_->network; }

  bool hasParked() const noexcept { return parked_ != nullptr; }
  // Keeps the first exception of the run.
  void park(std::exception_ptr exception) noexcept;
  // Throws what was parked, if anything.
  void rethrowParked();

 private:
  struct Totals {
    unsigned int nested = 0;
    unsigned int lookups = 0;
    bool strangersLookupsTold = false;
    std::size_t decoded = 0;
    bool decodedTold = false;
    std::optional<std::chrono::nanoseconds> processorLimit;
    std::optional<std::chrono::nanoseconds> processorStart;  // by the thread's processor clock
    std::chrono::nanoseconds start{};                        // by the coarse clock
    bool processorTold = false;
    bool cancelledTold = false;
    std::string_view refusedLast = {};                                // a literal
    std::vector<std::pair<const void*, std::shared_ptr<void>>> kept;  // a handful, by their tags
    std::optional<LogBudget> lines;
    std::optional<Shortfall::Watch> shortfall;
    std::optional<NetworkBudget> network;
  };

  struct Known {
    X509* certificate;
    std::string der;  // encoded when it is first compared
  };

  // On the outermost run only: what is bounded and watched for all of them.
  void begin(const Limits& limits) noexcept;
  const char* judge() noexcept;

  const X509* target_;
  VerificationRun* outer_;
  unsigned int level_;
  Totals own_;                                         // counted only on the outermost run
  Totals* totals_;                                     // the outermost run's
  std::optional<NetworkBudget::Installed> installed_;  // on the outermost run, which holds `own_`
  std::optional<AddressAdmission> addresses_;          // on the outermost run
  std::optional<Cancellation> cancellation_;           // on the outermost run
  const char* refusal_;
  std::exception_ptr parked_;
  std::vector<Known> known_;
};

template <class T>
T* VerificationRun::kept() {
  VerificationRun* const run = current();
  if (run == nullptr) return nullptr;
  static const char tag = 0;  // its address stands for the type
  for (const auto& [owner, slot] : run->totals_->kept) {
    if (owner == &tag) return static_cast<T*>(slot.get());
  }
  const auto made = std::make_shared<T>();
  run->totals_->kept.emplace_back(&tag, made);
  return made.get();
}

// The one shape of every callback that OpenSSL gets from us: nothing is done once an exception is
// parked, and none leaves while a run goes on. Outside a run it passes to the caller unchanged.
template <class Body>
auto guardedCallback(decltype(std::declval<Body>()()) failed, Body&& body) {
  VerificationRun* const run = VerificationRun::current();
  if (run == nullptr) return body();
  if (run->hasParked()) return failed;
  try {
    return body();
  } catch (...) {
    run->park(std::current_exception());
    return failed;
  }
}

// For callbacks that release something: they do their work also when an exception is parked.
template <class Body>
void guardedCleanup(Body&& body) {
  VerificationRun* const run = VerificationRun::current();
  if (run == nullptr) {
    body();
    return;
  }
  try {
    body();
  } catch (...) {
    run->park(std::current_exception());
  }
}

}  // namespace Velantrix::Crypto::PKX509
