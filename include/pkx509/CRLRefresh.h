/// @file
/// Fetches CRLs before they run out, so that no verification has to wait for one.
///
/// @code
///   RefreshSettings settings;
///   settings.uris.push_back(Uri("http://crl.example.com/ca.crl"));  // beside what the cache holds
///   while (!stop.stop_requested()) {                                // in a daemon's own thread
///     const CRLRefresh round = refresh(settings, stop);
///     waitUntil(round.nextDue(), stop);
///   }
/// @endcode
#pragma once

#include <pkx509/AddressPolicy.h>
#include <pkx509/FixedPaths.h>
#include <pkx509/RetrievalSettings.h>
#include <velantrix/Certificate.h>
#include <velantrix/Export.h>
#include <velantrix/Time.h>
#include <velantrix/Uri.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <list>
#include <optional>
#include <stop_token>
#include <string>
#include <vector>

namespace Velantrix::Crypto::PKX509 {

/// A plain value.
struct PKX509_EXPORT RefreshSettings {
  static constexpr unsigned int kMostParallel = 64;

  RetrievalSettings retrieval = {};
  /// Hash directory of the trust anchors, in PEM. A CRL is stored only when the path of its issuer ends
  /// there. The CRL distribution points of the certificates in it are fetched too.
  std::string trustDirectory = kCADirectory;
  /// Further URIs, http or https, beside those that the cache holds CRLs for, and those where these say
  /// that their delta CRLs are (RFC 5280, 5.2.6; four of each).
  std::vector<Uri> uris = {};
  /// Theirs too. They may be the issuers of CRLs, and stand in the middle of the paths of these;
  /// nothing about them is trusted.
  std::list<RefCertificate> certificates = {};
  /// After which part of a CRL's life, from thisUpdate to nextUpdate, its host is asked for the next
  /// one. It is moved by up to a tenth of the life to either side (less where the share is near 0 or
  /// 1), by how much the URI and the thisUpdate decide: CRLs that one CA issues together are not all
  /// fetched together, and one machine asks for a CRL at the same time however often it looks. What
  /// lives longer than a day is asked for 30 to 36 hours before it runs out at the latest (but no
  /// sooner than after a quarter of its life), so that a host that answers once a day is asked in time.
  double share = 0.5;
  /// Asks every host, whether or not it is time. Those that have failed just now are left in peace.
  bool all = false;
  /// Only `uris`: neither what the cache holds nor what certificates name.
  bool onlyNamed = false;
  /// So many hosts are asked at once, by as many threads, of which the caller's is one; at most kMostParallel.
  /// Requests to one host go one after the other, so that a host that is dead is waited for once.
  unsigned int parallel = 4;
  /// For the whole round, computing included; 0 for no such bound. What is under way when it ends is given
  /// up, and what the cache has stays.
  std::chrono::milliseconds deadline{0};
  /// Which addresses may be contacted; the process may refuse more.
  AddressPolicy addresses = AddressPolicy::publicAndPrivate();
};

/// What one round came to. A plain value.
class PKX509_EXPORT CRLRefresh {
 public:
  enum class Result : unsigned char {
    kKept,             ///< what the cache has is good, and it is not time to ask
    kUpdated,          ///< there is another one now
    kNotModified,      ///< the host has none newer than the good one of the cache
    kFailedOldIsGood,  ///< nothing new, and what the cache has is good for now
    kFailed            ///< there is no good one, or it was not looked for before the end
  };
  static constexpr std::size_t kResults = static_cast<std::size_t>(Result::kFailed) + 1;

  struct Entry {
    Uri uri = {};
    Result result = Result::kFailed;
    /// Why it failed, for people, on one line; empty for what did not.
    std::string reason = {};
    /// Until when the one in the cache is good; none where there is no good one.
    std::optional<Time> nextUpdate = {};
    /// When it is worth looking at the URI again.
    Time due = {};
  };
  /// How far a round is.
  struct Progress {
    std::size_t done = 0;  ///< URIs, the last one among them
    std::size_t total = 0;
    const Entry* last = nullptr;  ///< borrowed for the call; null at the beginning
  };
  /// Told of the beginning and of each URI as soon as it is done, of one at a time, on whatever thread of
  /// the round. What it throws ends the round and leaves `refresh()`.
  using Listener = std::function<void(const Progress&)>;

  CRLRefresh() = default;
  /// @param problem what `problem()` says
  /// @param now     when the round ended
  CRLRefresh(std::vector<Entry> entries, std::string problem, const Time& now);

  /// One for each URI, in the order of their normal forms.
  const std::vector<Entry>& entries() const noexcept { return entries_; }
  std::size_t count(Result result) const noexcept;
  /// Why the cache or the trust directory could not be looked through, for people; empty when both
  /// could. URIs that only these know are missing then.
  const std::string& problem() const noexcept { return problem_; }
  /// When the next round is worth it: when the first of the URIs is due, and in a quarter of an hour at
  /// the latest, since verifications put other CRLs into the cache meanwhile.
  Time nextDue() const noexcept { return nextDue_; }

 private:
  std::vector<Entry> entries_;
  std::string problem_;
  Time nextDue_;
};

/// Asks the hosts of the CRLs that are due, and stores what they send in the cache.
///
/// **What is due**: what has come to the part of its life that the settings name, what has run out,
/// what is not there or cannot be verified, and with `all` everything. A host that had nothing newer
/// is asked again when the same part of what is left has gone by, after 5 minutes at the soonest and
/// 6 hours at the latest. A host that has failed is asked again no sooner than verifications would ask
/// it: after 30 seconds, doubling to 15 minutes, which all processes share.
///
/// **What is stored** is signed by a key whose certificate allows that and has a valid path to a trust
/// anchor of the directory, as a `ConformingVerifier` builds it, at its least security level. The
/// issuer is looked for in that directory, among `certificates`, and among the issuers that were
/// remembered beside the cache when a CRL of the URI was stored. Whether it is itself revoked is not asked
/// here: the cache makes nothing trusted, a verification checks what it finds there in full, and what
/// tells of the revocation may be the very CRL. A CRL that is of the future or has run out, or that
/// is older, of another issuer or of another scope, replaces none that is good; one of the issuer's
/// new key replaces it where both keys end at one trust anchor.
///
/// **Exceptions.** What hosts and files do is told in the result and never thrown.
/// @throws std::bad_alloc, std::system_error when a thread cannot be started, and what the listener
///         throws
///
/// **Threads.** Any thread may call it, several at once too: what one of them, or of other
/// processes, is fetching, the others do not fetch as well. It returns when all its threads have ended.
///
/// @param stop ends the round early, from another thread; what is not done by then has failed, with
///             that as its reason
PKX509_EXPORT CRLRefresh refresh(const RefreshSettings& settings, const std::stop_token& stop = {},
                                 const CRLRefresh::Listener& listener = {});

}  // namespace Velantrix::Crypto::PKX509
