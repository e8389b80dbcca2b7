// How lookup methods read on this thread: for somebody who judges for himself.
//
// Who asks a hash directory for CRLs gets those that are fresh now, and an exception when something
// there is damaged. Who verifies for a moment in the past needs the others as well, and nothing that
// lies beside the right object may hide it.
//
//   const TolerantReading reading;
//   method.getBySubject(issuer, crls);
//   if (reading.cut()) ...                            // there may be more than was found
//   ...
//   readOneOf(path.asString(), [&] { load(path); });  // what reads several objects
//
// It holds for what goes on in the same run. A verification that a lookup method starts meanwhile
// reads as ever.
#pragma once

#include <velantrix/Exception.h>
#include <velantrix/NonCopyable.h>

#include <string>
#include <string_view>

namespace Velantrix::Crypto::PKX509 {

class VerificationRun;

class TolerantReading : private NonCopyable {
 public:
  TolerantReading() noexcept;
  ~TolerantReading();

  // The one that holds; null when there is none.
  static TolerantReading* current() noexcept;
  // Something was not looked at, because a bound forbade it. What was found is no answer for later.
  static void leftOut() noexcept;

  // Something cannot be read: it is passed over, and a log line says so.
  void passOver(std::string_view what, const Exception& failure);

  // Whether there may be more than what was found.
  bool cut() const noexcept { return cut_; }
  // Whether asking again may find more.
  bool unsettled() const noexcept { return unsettled_; }
  // Why something was passed over, the first time; empty when nothing was.
  const std::string& reason() const noexcept { return reason_; }

 private:
  const VerificationRun* run_;
  TolerantReading* outer_;
  bool cut_ = false;
  bool unsettled_ = false;
  std::string reason_;
};

// Has one of several objects read. An exception leaves it unless reading is tolerant.
template <class Read>
void readOneOf(std::string_view what, const Read& read) {
  TolerantReading* const tolerant = TolerantReading::current();
  if (tolerant == nullptr) return read();
  try {
    read();
  } catch (const Exception& failure) {
    tolerant->passOver(what, failure);
  }
}

}  // namespace Velantrix::Crypto::PKX509
