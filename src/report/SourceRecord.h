// Which sources a verification has asked, and what came of it: for whoever asks afterwards. No verdict
// depends on it.
//
//   SourceUse use(Kind::kCRLServer, Wanted::kCRLs, FetchRecord::placeOf(uri));
//   ...
//   use.failed({.reason = "could not connect", .errorNumber = ECONNREFUSED});   // or use.found(1)
//
// What has ended neither way when it goes out of scope has found nothing. Uses nest: where those within
// one say all that there is to say, that one is left out.
#pragma once

#include "report/ObjectOrigins.h"
#include "report/SharedText.h"

#include <pkx509/VerificationReport.h>
#include <velantrix/NonCopyable.h>
#include <velantrix/Time.h>

#include <openssl/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Velantrix::Crypto::PKX509 {

class SourceUse;
class VerificationRun;

// What there is to say about one use beside its result.
struct UseFacts {
  // What kind of failure it was, where that makes a rule of its own.
  enum class Failure {
    kOther,
    kNoAnswer,  // of a host, whatever it was: no address, no connection, no whole answer, a status
    kAddressRefused,
    kScheme,
    kClientIdentity,
    kNotVouched,  // no trust anchor vouches for the certificate that names the host
    kBudget,      // ours is spent: see `resource`
    kUnreadable,  // a file or a directory
    kMalformed    // what came was not what was asked for
  };

  Failure failure = Failure::kOther;
  std::string reason = {};  // for people; where there is none, the number of the error says it
  std::string file = {};    // which one, where a file is to blame
  int httpStatus = 0;
  int errorNumber = 0;
  std::uint64_t bytes = 0;
  std::optional<Time> stored = {};  // when what a cache has was stored
  std::string_view resource = {};   // what is spent; a literal
};

class SourceRecord {
 public:
  using Source = VerificationReport::Source;

  // A certificate decides how many places there are to look at.
  static constexpr std::size_t kMaximumUses = VerificationReport::kMaximumSources;

  struct Use {
    Source::Kind kind = Source::Kind::kDirectory;
    Source::Wanted wanted = Source::Wanted::kCertificates;
    SharedText origin = {};  // without what may be secret
    bool fromMemory = false;
    Source::Result result = Source::Result::kNothing;
    std::size_t found = 0;
    std::chrono::nanoseconds taken{};
    const X509* about =
        nullptr;  // whose revocation it was asked for; only compared, null for a path's sake
    UseFacts facts = {};
  };

  // Of the outermost run of this thread; null outside of one, or when there is no memory for it.
  static SourceRecord* current() noexcept;

  void add(Use&& use);

  // What was asked for one answer, from one use up to another.
  struct Stretch {
    std::size_t begin = 0;
    std::size_t end = 0;
  };
  // How many uses there are by now.
  static std::size_t reached() noexcept;
  // The answer is given once more, from memory. Of a certificate of which that is known nothing is said.
  static void again(const Stretch& asked) noexcept;

  // Uses that tell the same of one source are one.
  std::vector<Use> summedUp() const;

  const std::vector<Use>& uses() const noexcept { return uses_; }
  std::size_t leftOut() const noexcept { return leftOut_; }

  // While it lives, what is asked on this thread is for the revocation of the certificate, borrowed.
  class About : private NonCopyable {
   public:
    explicit About(const X509* certificate) noexcept;
    ~About();

   private:
    SourceRecord* record_;
    const X509* outer_ = nullptr;
  };

 private:
  friend class SourceUse;

  bool knows(const Use& use) const noexcept;

  std::vector<Use> uses_;
  std::size_t leftOut_ = 0;
  const X509* about_ = nullptr;
  SourceUse* innermost_ = nullptr;
};

// One question to one source, from when it is made on. Never throws: what cannot be noted is not.
class SourceUse : private NonCopyable {
 public:
  SourceUse(SourceRecord::Source::Kind kind, SourceRecord::Source::Wanted wanted,
            std::string_view origin) noexcept;
  ~SourceUse();

  void found(std::size_t objects) noexcept;
  // Something was found, and there may be more.
  void cut(std::string_view reason) noexcept;
  void failed(UseFacts facts) noexcept;
  // By our own bounds or policies.
  void refused(UseFacts facts) noexcept;
  // What failed did so since that is spent; a literal.
  void spent(std::string_view resource) noexcept;
  // By what the verification was refused last.
  void refusedByBudget() noexcept;
  // It has nothing, and that is why.
  void nothing(UseFacts facts) noexcept;
  // Of the network, or of a cache.
  void bytes(std::uint64_t received) noexcept;
  void stored(const Time& when) noexcept;
  // It is told elsewhere.
  void drop() noexcept;
  // It is to be told, and for `Statistics` it is none.
  void noQuestion() noexcept { counted_ = true; }
  // Of the source, as it is told.
  const SharedText& origin() const noexcept { return use_.origin; }

  // Has the source asked. What is thrown is a failure, and thrown on.
  template <class Body>
  void during(const Body& body) {
    try {
      body();
    } catch (...) {
      failedBy(std::current_exception());
      throw;
    }
  }

  // A file of the source that is asked now cannot be read. One that is gone meanwhile is none of it.
  static void unreadable(const std::string& file, const std::exception& failure) noexcept;
  // Something that came from it is not what was asked for.
  static void malformed(const std::exception& failure) noexcept;
  // Something of it was not looked at, since a bound forbade it.
  static void leftOut() noexcept;
  // Where what was read from the file comes from; none when nobody records.
  static std::optional<ObjectOrigins::Where> originOf(const std::string& file);

 private:
  friend class SourceRecord;

  // Of what is asked now; null when there is none.
  static SourceUse* innermost() noexcept;
  void failedBy(const std::exception_ptr& thrown) noexcept;
  void addTold(SourceRecord::Source::Result result, UseFacts&& facts);
  bool isTold() const noexcept;

  SourceRecord* record_;  // null: nobody is interested
  SourceUse* outer_ = nullptr;
  const VerificationRun* run_ = nullptr;
  SourceRecord::Use use_;
  std::chrono::nanoseconds start_{};
  bool told_ = false;         // uses within it, or an answer from memory, have told of it
  bool failureTold_ = false;  // also of a failure
  bool leftOut_ = false;
  bool counted_ = false;  // by those within it, or when what is answered from memory was asked
};

// Why `connectionAdmitted()` says no.
UseFacts notAdmitted();
// The facts about a file or a directory that cannot be read.
UseFacts unreadableFacts(const std::string& path, const std::exception& failure);

}  // namespace Velantrix::Crypto::PKX509
