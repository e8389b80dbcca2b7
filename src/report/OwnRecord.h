// What is noted for a call that may be made outside of a verification, where nobody else notes anything.
//
//   Evidence evidence;
//   {
//     OwnRecord record(evidence, certificate);
//     ...                                        // asks, as within a verification
//   }
//   return makeReport(evidence, ...);
//
// Within a verification it does nothing: that one has a report of its own.
#pragma once

#include "foundation/run/VerificationRun.h"
#include "report/Evidence.h"
#include "report/OutcomeRecord.h"

#include <velantrix/NonCopyable.h>

#include <optional>

namespace Velantrix::Crypto::PKX509 {

class OwnRecord : private NonCopyable {
 public:
  // The evidence is borrowed, and begun anew: on one certificate, about which nothing is known. It may be
  // null, for what is asked for no certificate's sake; it outlives the record.
  OwnRecord(Evidence& evidence, const X509* certificate);
  ~OwnRecord();

  bool records() const noexcept { return outcome_.has_value(); }

  // A verification that begins while it lives is an outermost one, with bounds of its own.
  class Pause : private NonCopyable {
   public:
    // Of none where it is null.
    explicit Pause(OwnRecord* record) noexcept;
    ~Pause();

   private:
    OwnRecord* record_;
  };

 private:
  void begin() noexcept;
  void end() noexcept;

  Evidence& evidence_;
  const X509* certificate_;
  std::optional<VerificationRun> run_;  // none within a verification
  std::optional<SourceRecord::About> about_;
  std::optional<OutcomeRecord> outcome_;
};

}  // namespace Velantrix::Crypto::PKX509
