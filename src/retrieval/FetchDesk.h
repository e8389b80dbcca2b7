// Who fetches what, over all threads and processes that share a cache: one at a time for each URI, and
// nobody who has failed just now.
//
//   FetchDesk desk(kCRLCacheDirectory);
//   if (const auto failed = desk.failureOf(place)) ...        // told instead of repeated
//   const FetchDesk::Turn turn = desk.turn(place, deadline);  // waits for who is at it
//   if (const auto delivered = desk.delivered(place)) ...     // what he has got meanwhile
//   ...
//   desk.deliver(place, {body, validators, now});             // before the turn ends
//   desk.failed(place, failure);
//
// It all lies in a subdirectory of the cache, whose name no scan of a hash directory takes for a CRL:
// lock files, marks of failures, and what was delivered and is not verified. It is bounded in files and
// octets, and what is oldest goes; a lock only while nobody has it. Where it cannot be written, the same
// is kept for this process, and one line of the log says so. What lies there is read with the suspicion
// of what a network sends.
//
// Used from any number of threads. A child that is forked has none of its parent's turns.
#pragma once

#include "foundation/net/http/WebClient.h"

#include <velantrix/NonCopyable.h>
#include <velantrix/Time.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace Velantrix::Crypto::PKX509 {

class FetchDesk {
 public:
  static constexpr char kSubdirectory[] = ".fetch";
  static constexpr std::chrono::seconds kFirstPause{30};  // doubles with each failure in a row
  static constexpr std::chrono::minutes kLongestPause{15};
  static constexpr std::chrono::milliseconds kPoll{25};  // at most, while one waits for a turn
  // For how long what one has got is the host's answer for the others as well.
  static constexpr std::chrono::seconds kDeliveryTime{30};

  // A failure that is the host's own. A cancellation, a deadline, our own bounds, a refused address
  // and a lack of descriptors or memory are none (`isOfHost`).
  struct Mark {
    Time at = {};               // of the last failure
    Time until = {};            // nobody asks before
    unsigned int failures = 0;  // in a row
    std::string reason = {};    // for people, on one line, at most 256 octets
    int httpStatus = 0;
    int errorNumber = 0;
    bool malformed = false;  // it answered, with something else than was asked for
    // What failed, for people: a URI, "http://host" of a whole host, or a responder's URI, without what
    // may be secret, at most 1024 octets. Empty where nobody knows.
    enum class Of { kURI, kHost, kResponder };
    Of of = Of::kURI;
    std::string place = {};
  };

  struct Delivery {
    std::string octets = {};
    LW::HTTP::Validators validators = {};
    Time fetched = {};
  };

  // The right to fetch for one place. Ends with the object and with the process.
  class Turn : private NonCopyable {
   public:
    Turn() noexcept;
    Turn(Turn&& other) noexcept;
    Turn& operator=(Turn&&) = delete;
    ~Turn();
    // False when the deadline came first, or somebody asked to stop; and in a child that was forked
    // meanwhile.
    bool held() const noexcept;

   private:
    friend class FetchDesk;
    struct Part;
    std::unique_ptr<Part> part_;
  };

  // The cache's. Throws Exception for a name with a NUL byte; that there is none, or none that can be
  // written, shows when it is used.
  explicit FetchDesk(std::string directory);

  // A place is the normal form of a URI, or "host " and scheme, host and port, or "text " and a URI as it
  // stands. An OCSP responder is never the place of the same URI as a CRL's: a certificate may name the CRL
  // of an honest CA as its responder.
  static std::string placeOf(const Uri& uri);
  static std::string hostPlaceOf(const Uri& uri);
  static std::string textPlaceOf(const Uri& uri);
  static std::string responderPlaceOf(const Uri& uri);
  // Whether the host failed, and not what this thread still has of its time and may do, or this
  // machine.
  static bool isOfHost(const LW::HTTP::Failure& failure);
  // The same for who knows what was asked: an exchange that was ended before the time or the octets
  // which the terms allow were used up has not failed by the host, and a proxy is another host.
  static bool isOfHost(const LW::HTTP::WebAnswer& answer, const LW::HTTP::WebTerms& terms);
  // Whether all that the host serves is concerned, and not the one URI: it cannot be reached. Silence is the
  // URI's: a certificate may name a slow one of an honest host, whose CRLs others need.
  static bool isOfAllHost(const LW::HTTP::Failure& failure) noexcept;

  // That the place failed, while nobody is to ask again; a mark from the future is void.
  std::optional<Mark> failureOf(const std::string& place) const;
  // The last one, whether or not it is time to ask again: for who tells of it.
  std::optional<Mark> lastFailureOf(const std::string& place) const;
  // The last failure of every place that says which one it is, as far as the cache's directory has them,
  // with the SHA-256 of the place in hexadecimal.
  using MarkVisitor = std::function<void(const std::string& digest, const Mark& mark)>;
  void visitFailures(const MarkVisitor& visitor) const;
  // Nothing happens where the failure is not the host's. While a mark is in force, another failure only
  // renews it: who met it had begun before.
  void failed(const std::string& place, const LW::HTTP::Failure& failure);
  // It answered: what is known against it is forgotten.
  void succeeded(const std::string& place);

  // Tries once in any case, also after the deadline.
  Turn turn(const std::string& place, std::chrono::steady_clock::time_point deadline);

  // Empty octets are a delivery like any other. What is larger than 64 MiB is not kept.
  void deliver(const std::string& place, const Delivery& delivery);
  // What was delivered within kDeliveryTime.
  std::optional<Delivery> delivered(const std::string& place) const;
  // It is of no use: nobody is to have it from here.
  void withdraw(const std::string& place);

 private:
  std::string directory_;
};

}  // namespace Velantrix::Crypto::PKX509
