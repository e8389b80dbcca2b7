#include "foundation/run/Counters.h"

#include "foundation/base/Fail.h"
#include "foundation/base/Text.h"
#include "foundation/net/NetworkBudget.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdio>
#include <limits>

namespace Velantrix::Crypto::PKX509 {

namespace {

using Counter = Statistics::Counter;

constexpr Origin kHere{"Statistics", "Statistics"};

// Threads count in different lines of the processor's caches; a snapshot adds them up.
constexpr std::size_t kShards = 16;
constexpr std::size_t kCacheLine = 64;

struct alignas(kCacheLine) Shard {
  std::array<std::atomic<std::uint64_t>, Statistics::kCounters> values{};
};

constinit std::array<Shard, kShards> shards{};

constexpr std::uint64_t kNotCounted = std::numeric_limits<std::uint64_t>::max();
constinit std::atomic<std::uint64_t> filesOfCache = kNotCounted;
constinit std::atomic<std::uint64_t> bytesOfCache = kNotCounted;

std::optional<std::uint64_t> ifCounted(const std::atomic<std::uint64_t>& value) noexcept {
  const std::uint64_t now = value.load(std::memory_order_relaxed);
  return now == kNotCounted ? std::nullopt : std::optional(now);
}

Shard& ownShard() noexcept {
  static constinit std::atomic<std::size_t> next = 0;
  thread_local constinit Shard* own = nullptr;
  if (own == nullptr) own = &shards[next.fetch_add(1, std::memory_order_relaxed) % kShards];
  return *own;
}

constexpr bool isSeconds(Counter counter) noexcept {
  return counter == Counter::kNetworkMicroseconds || counter == Counter::kProcessorMicroseconds;
}

constexpr std::string_view kHelpOfVerifications =
    "Verifications that have ended, by outcome; those that are nested in others are left out.";
constexpr std::string_view kHelpOfLookups =
    "Questions to sources of certificates, CRLs and answers.";
constexpr std::string_view kHelpOfHits = "Questions to sources that found something.";

constexpr std::array<CounterFacts, Statistics::kCounters> kFacts{{
    {Counter::kVerificationsValid, "verifications_total", "outcome", "valid", kHelpOfVerifications},
    {Counter::kVerificationsPermanent, "verifications_total", "outcome", "permanent",
     kHelpOfVerifications},
    {Counter::kVerificationsTemporary, "verifications_total", "outcome", "temporary",
     kHelpOfVerifications},
    {Counter::kVerificationsLocal, "verifications_total", "outcome", "local", kHelpOfVerifications},
    {Counter::kLookupsDirectory, "lookups_total", "source", "directory", kHelpOfLookups},
    {Counter::kLookupsMethod, "lookups_total", "source", "lookup-method", kHelpOfLookups},
    {Counter::kLookupsLDAP, "lookups_total", "source", "ldap", kHelpOfLookups},
    {Counter::kLookupsCache, "lookups_total", "source", "cache", kHelpOfLookups},
    {Counter::kLookupsCRLServer, "lookups_total", "source", "crl-server", kHelpOfLookups},
    {Counter::kLookupsOCSPResponder, "lookups_total", "source", "ocsp-responder", kHelpOfLookups},
    {Counter::kHitsDirectory, "lookup_hits_total", "source", "directory", kHelpOfHits},
    {Counter::kHitsMethod, "lookup_hits_total", "source", "lookup-method", kHelpOfHits},
    {Counter::kHitsLDAP, "lookup_hits_total", "source", "ldap", kHelpOfHits},
    {Counter::kHitsCache, "lookup_hits_total", "source", "cache", kHelpOfHits},
    {Counter::kHitsCRLServer, "lookup_hits_total", "source", "crl-server", kHelpOfHits},
    {Counter::kHitsOCSPResponder, "lookup_hits_total", "source", "ocsp-responder", kHelpOfHits},
    {Counter::kFetches, "fetches_total", "", "",
     "Requests to hosts of CRLs and to OCSP responders."},
    {Counter::kNotModified, "fetches_not_modified_total", "", "",
     "Requests that were answered by \"not modified\"."},
    {Counter::kFetchFailures, "fetch_failures_total", "", "", "Requests without a whole answer."},
    {Counter::kFetchesSpared, "fetches_spared_total", "", "",
     "Requests that were not made, since the host had failed just before."},
    {Counter::kFetchesShared, "fetches_shared_total", "", "",
     "Requests that were not made, since another thread or process made them."},
    {Counter::kNetworkBytes, "network_bytes_total", "", "",
     "Octets that hosts of CRLs and OCSP responders sent."},
    {Counter::kNetworkMicroseconds, "network_seconds_total", "", "",
     "Time that threads waited for name servers, hosts and those who fetch the same."},
    {Counter::kProcessorMicroseconds, "processor_seconds_total", "", "",
     "Processor time of the threads that verified, while they did."},
    {Counter::kCacheStored, "cache_stored_total", "", "", "CRLs that were put into the cache."},
    {Counter::kCacheRemoved, "cache_removed_total", "", "",
     "CRLs of the cache that made way for others, had run out, or were forged."},
}};

// A backslash and a line feed would need an escape, in the value of a label a quotation mark as well.
static_assert(std::all_of(kFacts.begin(), kFacts.end(), [](const CounterFacts& one) {
  return one.help.find_first_of("\\\n") == std::string_view::npos &&
         one.value.find_first_of("\\\n\"") == std::string_view::npos;
}));

bool isLabelName(std::string_view name) noexcept {
  static constexpr std::string_view kFirst =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ_";
  if (name.empty() || kFirst.find(name.front()) == std::string_view::npos) return false;
  if (name.starts_with("__") || name == "outcome" || name == "source") return false;
  return std::all_of(name.begin(), name.end(), [](char c) {
    return kFirst.find(c) != std::string_view::npos || (c >= '0' && c <= '9');
  });
}

std::string escaped(std::string_view value) {
  std::string text;
  for (const char c : value) {
    if (c == '\\' || c == '"') text += '\\';
    text += c == '\n' ? "\\n" : std::string_view(&c, 1);
  }
  return text;
}

class Exposition {
 public:
  explicit Exposition(const std::map<std::string, std::string>& labels) {
    for (const auto& [name, value] : labels) {
      if (!isLabelName(name)) fail(kHere, "no name of a label: " + escapeControls(name, 64));
      labels_ += (labels_.empty() ? "" : ",") + name + "=\"" + escaped(value) + "\"";
    }
  }

  void head(std::string_view name, std::string_view type, std::string_view help) {
    add("# HELP pkx509_").add(name).add(" ").add(help).add("\n");
    add("# TYPE pkx509_").add(name).add(" ").add(type).add("\n");
  }
  void sample(const CounterFacts& facts, std::uint64_t value) {
    std::string own;
    if (!facts.label.empty()) {
      own.append(facts.label).append("=\"").append(facts.value).append("\"");
    }
    add(facts.name, own, isSeconds(facts.counter) ? secondsText(value) : std::to_string(value));
  }
  void gauge(std::string_view name, std::string_view help,
             const std::optional<std::uint64_t>& value) {
    if (!value) return;
    head(name, "gauge", help);
    add(name, {}, std::to_string(*value));
  }
  std::string take() && { return std::move(text_); }

 private:
  Exposition& add(std::string_view text) {
    text_ += text;
    return *this;
  }

  void add(std::string_view name, std::string_view own, const std::string& value) {
    add("pkx509_").add(name);
    const bool both = !own.empty() && !labels_.empty();
    if (!own.empty() || !labels_.empty()) {
      add("{").add(own).add(both ? "," : "").add(labels_).add("}");
    }
    add(" ").add(value).add("\n");
  }

  static std::string secondsText(std::uint64_t microseconds) {
    constexpr std::uint64_t kMicro = 1'000'000;
    char text[32] = {};
    static_cast<void>(std::snprintf(text, sizeof text, "%llu.%06llu",
                                    static_cast<unsigned long long>(microseconds / kMicro),
                                    static_cast<unsigned long long>(microseconds % kMicro)));
    return text;
  }

  std::string labels_;  // of every sample
  std::string text_;
};

}  // namespace

constinit const std::array<CounterFacts, Statistics::kCounters> kCounterFacts = kFacts;

void count(Counter counter, std::uint64_t by) noexcept {
  ownShard().values[static_cast<std::size_t>(counter)].fetch_add(by, std::memory_order_relaxed);
}

void noteCacheSize(std::uint64_t files, std::uint64_t bytes) noexcept {
  filesOfCache.store(files, std::memory_order_relaxed);
  bytesOfCache.store(bytes, std::memory_order_relaxed);
}

Statistics Statistics::snapshot() noexcept {
  Statistics all;
  for (const Shard& shard : shards) {
    for (std::size_t i = 0; i < kCounters; ++i) {
      all.values_[i] += shard.values[i].load(std::memory_order_relaxed);
    }
  }
  // Timers stand below whoever counts, and add up by themselves.
  all.values_[static_cast<std::size_t>(Counter::kNetworkMicroseconds)] +=
      static_cast<std::uint64_t>(NetworkTimer::timeOfAll().count());
  all.cacheFiles_ = ifCounted(filesOfCache);
  all.cacheBytes_ = ifCounted(bytesOfCache);
  return all;
}

std::string Statistics::asPrometheusText(const std::map<std::string, std::string>& labels) const {
  Exposition all(labels);
  std::string_view name;
  for (const CounterFacts& facts : kCounterFacts) {
    if (facts.name != name) all.head(facts.name, "counter", facts.help);
    name = facts.name;
    all.sample(facts, of(facts.counter));
  }
  all.gauge("cache_files", "Files of the cache, when one was last put there.", cacheFiles_);
  all.gauge("cache_bytes", "Octets of the files of the cache, when one was last put there.",
            cacheBytes_);
  return std::move(all).take();
}

}  // namespace Velantrix::Crypto::PKX509
