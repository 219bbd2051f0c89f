// Waiting for other threads, and work done by several at once.
#pragma once

#include <chrono>
#include <functional>
#include <future>
#include <thread>
#include <utility>
#include <vector>

namespace portsvc {

/// True as soon as `condition` is, false when it is not within `patience`.
inline bool eventually(const std::function<bool()>& condition,
                       std::chrono::seconds patience = std::chrono::seconds(10)) {
  using std::chrono::steady_clock;
  const auto deadline = steady_clock::now() + patience;
  while (!condition()) {
    if (steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

/// Does the work on a thread of its own; the answer, for which its end waits.
template <class Work>
auto started(Work work) {
  return std::async(std::launch::async, std::move(work));
}

/// Runs work(0) to work(count - 1), each on a thread of its own, and waits for all; what one throws
/// is thrown here.
inline void in_parallel(int count, const std::function<void(int)>& work) {
  std::vector<std::future<void>> all;
  for (int i = 0; i < count; ++i) all.push_back(std::async(std::launch::async, work, i));
  for (auto& one : all) one.get();
}

}  // namespace portsvc
