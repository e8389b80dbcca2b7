// What a process was asked for last: a few answers that cost more to find than to keep.
//
//   static Recent<Key, Answer, 64>& recent = *new Recent<Key, Answer, 64>;  // threads may ask at exit
//   if (auto known = recent.recall(key)) return *known;
//   recent.remember(key, answer);
//
// Nobody waits, neither for another thread nor, after a fork, for one that is no more: what cannot be had
// at once is not known, and what cannot be put down at once is not remembered.
#pragma once

#include <velantrix/NonCopyable.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <utility>

namespace Velantrix {

// Keys are compared one by one. Copies of answers are made with the lock held and should be cheap.
template <class Key, class Answer, std::size_t Size>
class Recent : private NonCopyable {
 public:
  std::optional<Answer> recall(const Key& key) {
    const std::unique_lock<std::mutex> lock(mutex_, std::try_to_lock);
    if (!lock.owns_lock()) return std::nullopt;
    const auto known = std::find_if(entries_.begin(), entries_.end(), [&](const Entry& entry) {
      return entry.used != 0 && entry.key == key;
    });
    if (known == entries_.end()) return std::nullopt;
    known->used = ++now_;
    return known->answer;
  }

  // In the place of the one that was asked for longest ago.
  void remember(const Key& key, const Answer& answer) {
    Entry entry{key, answer};  // what it replaces is destroyed without the lock
    const std::unique_lock<std::mutex> lock(mutex_, std::try_to_lock);
    if (!lock.owns_lock()) return;
    entry.used = ++now_;
    std::swap(*std::min_element(
                  entries_.begin(), entries_.end(),
                  [](const Entry& one, const Entry& other) { return one.used < other.used; }),
              entry);
  }

 private:
  struct Entry {
    Key key = {};
    Answer answer = {};
    std::uint64_t used = 0;  // 0: there is none
  };

  std::mutex mutex_;
  std::array<Entry, Size> entries_;
  std::uint64_t now_ = 0;
};

}  // namespace Velantrix
