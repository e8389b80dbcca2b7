#include "foundation/base/DotSegments.h"
#include "foundation/base/NoCancellation.h"
#include "foundation/model/DistributionPoints.h"
#include "foundation/net/Cancellation.h"
#include "foundation/run/VerificationRun.h"
#include "refresh/RefreshRound.h"
#include "refresh/Refresher.h"
#include "refresh/Schedule.h"
#include "refresh/WebMeans.h"
#include "revocation/CRLScope.h"

#include <pkx509/CRLRefresh.h>
#include <velantrix/CertificateFactory.h>
#include <velantrix/Exception.h>
#include <velantrix/File.h>

#include <openssl/objects.h>
#include <openssl/x509.h>

#include <algorithm>
#include <cstddef>
#include <exception>
#include <string_view>
#include <utility>

namespace Velantrix::Crypto::PKX509 {

namespace {

using Clock = std::chrono::steady_clock;

std::string reasonOf(const Exception& failure) {
  return failure.stringParameter().empty() ? failure.context() : failure.stringParameter();
}

// What is thrown for a file, in words; nothing where nothing is.
template <class Work>
std::string untilFailure(Work&& work) {
  try {
    work();
  } catch (const Exception& failure) {
    return reasonOf(failure);
  }
  return {};
}

// Hash directories have certificates in "0a1b2c3d.0" and CRLs in "0a1b2c3d.r0".
bool isOfCertificate(std::string_view name) {
  constexpr std::string_view kDigits = "0123456789";
  const std::size_t dot = name.find('.');
  return dot != std::string_view::npos && dot + 1 < name.size() &&
         name.find_first_not_of(kDigits, dot + 1) == std::string_view::npos;
}

bool isWeb(const Uri& uri) { return uri.scheme() == "http:" || uri.scheme() == "https:"; }

// URIs of delta CRLs that the CRLs of the cache name, all together and one of them: several hosts may have
// the same.
constexpr std::size_t kMostDeltas = 1000;
constexpr std::size_t kMostDeltasOfOne = 4;

// Of one round: what it is about, and until when.
class Round {
 public:
  Round(const RefreshSettings& settings, const std::stop_token& stop)
      : settings_(settings), stop_(stop) {
    if (settings.deadline.count() > 0) deadline_ = Clock::now() + settings.deadline;
  }

  CRLRefresh run(const CRLRefresh::Listener& listener) {
    std::vector<Uri> uris = settings_.uris;
    std::string problem = settings_.onlyNamed ? std::string() : addOthers(uris);
    std::vector<CRLRefresh::Entry> entries =
        RefreshRound(settings_.parallel, listener).run(std::move(uris), [this](const Uri& uri) {
          return refresh(uri);
        });
    return {std::move(entries), std::move(problem), Time::now()};
  }

 private:
  // Why some of them are missing; empty when none are.
  std::string addOthers(std::vector<Uri>& uris) const {
    for (const RefCertificate& certificate : settings_.certificates) addNamedBy(certificate, uris);
    std::string problem = untilFailure([&] { addTrusted(uris); });
    const std::string ofCache = untilFailure([&] { addHeld(uris); });
    return problem.empty() ? ofCache : problem;
  }

  // A broken certificate names nothing.
  static void addNamedBy(const RefCertificate& certificate, std::vector<Uri>& uris) {
    try {
      Revocation::CRLScope(certificate).forEachPlace([&](const Revocation::Place& place) {
        if (place.uri && isWeb(*place.uri)) uris.push_back(*place.uri);
        return true;
      });
    } catch (const Exception&) {
      return;
    }
  }

  // Whatever cannot be read there, verifications tell of when it matters.
  void addTrusted(std::vector<Uri>& uris) const {
    struct Reading : File::Processor {
      int process(const File::Path& path) override {
        try {
          CertificateFactory::read(path, certificates);
        } catch (const Exception&) {
          return 0;
        }
        return 0;
      }
      std::list<RefCertificate> certificates;
    } reading;
    File::Selector(File::Path(settings_.trustDirectory), reading, isOfCertificate).start();
    for (const RefCertificate& certificate : reading.certificates) addNamedBy(certificate, uris);
  }

  static void addHeld(std::vector<Uri>& uris) {
    std::size_t deltas = 0;
    VerifiedCache(kCRLCacheDirectory).visit([&](const VerifiedCache::Listed& file) {
      const Uri uri(file.uri);
      if (isWeb(uri)) uris.push_back(uri);
      if (!file.crl.empty() && deltas < kMostDeltas) deltas += addDeltasOf(file.crl, uris);
    });
  }

  // How many. What lies in the cache may be anybody's, so that it does not name any number.
  static std::size_t addDeltasOf(const RefCertificateRevocationList& crl, std::vector<Uri>& uris) {
    if (crl->isDeltaCRL()) return 0;  // RFC 5280, 5.2.6: it has none of its own
    std::size_t count = 0;
    try {
      const DistributionPoints freshest(X509_CRL_get0_extensions(crl), NID_freshest_crl,
                                        "X509::CertificateRevocationList");
      Revocation::forEachPlace(freshest, crl->crlInfo().issuer(),
                               [&](const Revocation::Place& place) {
                                 if (!place.uri || !isWeb(*place.uri)) return true;
                                 uris.push_back(*place.uri);
                                 return ++count < kMostDeltasOfOne;
                               });
    } catch (const Exception&) {
      return count;  // what is broken names no more
    }
    return count;
  }

  // What is left of the round for the next one; none where there is no bound.
  std::optional<Clock::duration> timeLeft() const {
    if (!deadline_) return std::nullopt;
    return *deadline_ - Clock::now();
  }

  CRLRefresh::Entry refresh(const Uri& uri) const {
    if (!isWeb(uri)) return unusable(uri, "its scheme is neither http nor https");
    // The file would be that of the URI without them.
    if (hasDotSegments(uri.path())) return unusable(uri, "its path has dot segments");
    const std::optional<Clock::duration> left = timeLeft();
    if (stop_.stop_requested() || (left && *left <= Clock::duration::zero())) {
      return unusable(uri, "it was not its turn before the end");
    }
    const NoCancellation untilReturn;
    const Cancellation here(stop_);
    VerificationRun run(nullptr, {.addresses = settings_.addresses, .wholeTime = left});
    WebMeans means(settings_, kCRLCacheDirectory);
    return Refresher(means, {.share = settings_.share, .all = settings_.all}).refresh(uri);
  }

  static CRLRefresh::Entry unusable(const Uri& uri, const std::string& reason) {
    return {.uri = uri, .reason = reason, .due = Schedule::after(Time::now(), Schedule::kRound)};
  }

  const RefreshSettings& settings_;
  const std::stop_token& stop_;
  std::optional<Clock::time_point> deadline_;
};

}  // namespace

CRLRefresh::CRLRefresh(std::vector<Entry> entries, std::string problem, const Time& now)
    : entries_(std::move(entries)),
      problem_(std::move(problem)),
      nextDue_(Schedule::after(now, Schedule::kRound)) {
  for (const Entry& entry : entries_) nextDue_ = std::min(nextDue_, entry.due);
  nextDue_ = std::max(nextDue_, Schedule::after(now, FetchDesk::kFirstPause));
}

std::size_t CRLRefresh::count(Result result) const noexcept {
  return static_cast<std::size_t>(
      std::count_if(entries_.begin(), entries_.end(),
                    [result](const Entry& entry) { return entry.result == result; }));
}

CRLRefresh refresh(const RefreshSettings& settings, const std::stop_token& stop,
                   const CRLRefresh::Listener& listener) {
  return Round(settings, stop).run(listener);
}

}  // namespace Velantrix::Crypto::PKX509
