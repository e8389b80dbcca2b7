#include "refresh/RefreshRound.h"

#include "retrieval/FetchDesk.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstddef>
#include <exception>
#include <map>
#include <mutex>
#include <thread>
#include <utility>

namespace Velantrix::Crypto::PKX509 {

namespace {

// Signals are for the threads that the program knows of.
class NoSignals : private NonCopyable {
 public:
  NoSignals() noexcept {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &former_);
  }
  ~NoSignals() { pthread_sigmask(SIG_SETMASK, &former_, nullptr); }

 private:
  sigset_t former_{};
};

// The places in the list of URIs of each host.
std::vector<std::vector<std::size_t>> byHost(const std::vector<Uri>& uris) {
  std::map<std::string, std::vector<std::size_t>> hosts;
  for (std::size_t i = 0; i < uris.size(); ++i) {
    hosts[FetchDesk::hostPlaceOf(uris[i])].push_back(i);
  }
  std::vector<std::vector<std::size_t>> queues;
  for (auto& [host, queue] : hosts) queues.push_back(std::move(queue));
  // The longest first, so that it is not the last to be begun.
  std::stable_sort(queues.begin(), queues.end(),
                   [](const auto& a, const auto& b) { return a.size() > b.size(); });
  return queues;
}

class Workers {
 public:
  Workers(const std::vector<Uri>& uris, const RefreshRound::Work& work,
          const CRLRefresh::Listener& listener)
      : uris_(uris),
        queues_(byHost(uris)),
        work_(work),
        listener_(listener),
        entries_(uris.size()) {}

  std::vector<CRLRefresh::Entry> run(std::size_t threads) {
    tell(nullptr);
    {
      std::vector<std::jthread> others;
      start(others, std::min(threads, queues_.size()));
      drain();
    }
    if (thrown_) std::rethrow_exception(thrown_);
    return std::move(entries_);
  }

 private:
  void start(std::vector<std::jthread>& others, std::size_t threads) {
    const NoSignals inThreads;
    try {
      for (std::size_t i = 1; i < threads; ++i) others.emplace_back([this] { drain(); });
    } catch (...) {
      keep(std::current_exception());
    }
  }

  void drain() noexcept {
    try {
      while (!ended_) {
        const std::size_t next = next_.fetch_add(1);
        if (next >= queues_.size()) return;
        for (const std::size_t at : queues_[next]) refresh(at);
      }
    } catch (...) {
      keep(std::current_exception());
    }
  }

  void refresh(std::size_t at) {
    if (ended_) return;
    entries_[at] = work_(uris_[at]);
    const std::lock_guard lock(mutex_);
    ++done_;
    if (!ended_) tell(&entries_[at]);
  }

  void tell(const CRLRefresh::Entry* last) {
    if (listener_) listener_({.done = done_, .total = uris_.size(), .last = last});
  }

  void keep(std::exception_ptr thrown) noexcept {
    const std::lock_guard lock(thrownMutex_);
    if (!thrown_) thrown_ = std::move(thrown);
    ended_ = true;
  }

  const std::vector<Uri>& uris_;
  const std::vector<std::vector<std::size_t>> queues_;
  const RefreshRound::Work& work_;
  const CRLRefresh::Listener& listener_;
  std::vector<CRLRefresh::Entry> entries_;
  std::atomic<std::size_t> next_ = 0;
  std::atomic<bool> ended_ = false;
  std::mutex mutex_;  // while the listener is told
  std::size_t done_ = 0;
  std::mutex thrownMutex_;
  std::exception_ptr thrown_;
};

}  // namespace

std::vector<CRLRefresh::Entry> RefreshRound::run(std::vector<Uri> uris, const Work& work) {
  const auto precedes = [](const Uri& a, const Uri& b) {
    return a.canonicalized() < b.canonicalized();
  };
  std::stable_sort(uris.begin(), uris.end(), precedes);
  uris.erase(std::unique(uris.begin(), uris.end()), uris.end());
  return Workers(uris, work, listener_)
      .run(std::clamp(parallel_, 1U, RefreshSettings::kMostParallel));
}

}  // namespace Velantrix::Crypto::PKX509
