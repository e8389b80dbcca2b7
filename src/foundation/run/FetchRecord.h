// What a verification could not fetch or keep, and why: for whoever asks afterwards. No verdict
// depends on it.
//
//   FetchRecord::notFetched(uri, "could not connect");    // deep down, in any run
//   ...
//   for (const FetchRecord::Note& note : FetchRecord::notes()) ...
#pragma once

#include <velantrix/Uri.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace Velantrix::Crypto::PKX509 {

class FetchRecord {
 public:
  // A stranger's certificate decides how much there is to be told, so what comes after so many notes
  // is left out, and texts are cut.
  static constexpr std::size_t kMaximumNotes = 32;
  static constexpr std::size_t kMaximumURI = 512;
  static constexpr std::size_t kMaximumReason = 256;

  struct Note {
    std::string_view what;  // "not fetched" or "not cached"
    std::string uri;        // without what may be secret: user and password, query, fragment
    std::string reason;     // for people, on one line

    bool operator==(const Note& other) const = default;
  };

  // A URI as notes have it.
  static std::string placeOf(const Uri& uri);

  // For the outermost run of this thread, once for equal notes. Nothing happens outside a run, nor
  // when there is no memory for it.
  static void notFetched(const Uri& uri, std::string_view reason) noexcept;
  static void notCached(const Uri& uri, std::string_view reason) noexcept;

  // Of the outermost run of this thread, in their order; none outside a run, nor when there is no
  // memory for them.
  static std::vector<Note> notes() noexcept;

 private:
  static void add(std::string_view what, const Uri& uri, std::string_view reason) noexcept;

  std::vector<Note> notes_;
};

}  // namespace Velantrix::Crypto::PKX509
