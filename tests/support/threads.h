// Waiting for other threads, and work done by several at once.
#pragma once

#include <chrono>
#include <functional>
#include <thread>
#include <vector>

namespace portsvc {

/// True as soon as `condition` is, false when it is not within ten seconds.
inline bool eventually(const std::function<bool()>& condition) {
  using std::chrono::steady_clock;
  const auto deadline = steady_clock::now() + std::chrono::seconds(10);
  while (!condition()) {
    if (steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

/// Runs work(0) to work(count - 1), each on a thread of its own, and waits for all.
inline void in_parallel(int count, const std::function<void(int)>& work) {
  std::vector<std::thread> threads;
  for (int i = 0; i < count; ++i) threads.emplace_back(work, i);
  for (std::thread& thread : threads) thread.join();
}

}  // namespace portsvc
