// Runs one action on several threads that begin at the same moment.
//
//   onThreads(kThreads, [&](int thread) { handles[thread] = Ref<Counted>(); });
#pragma once

#include <latch>
#include <thread>
#include <vector>

namespace Velantrix::Test {

/// As many as tests run where the number does not matter.
inline constexpr int kThreads = 4;

template <typename Action>
void onThreads(int count, Action action) {
  std::latch start(count);
  std::vector<std::thread> threads;
  for (int thread = 0; thread < count; ++thread) {
    threads.emplace_back([&start, &action, thread] {
      start.arrive_and_wait();
      action(thread);
    });
  }
  for (std::thread& thread : threads) thread.join();
}

}  // namespace Velantrix::Test
