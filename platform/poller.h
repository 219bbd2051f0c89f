// One thread that tests for all waits of the process.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <exception>
#include <functional>
#include <mutex>
#include <vector>

namespace portsvc {

/// Runs the tests of all waiting calls, each once per period, on one thread. A thousand waiting
/// calls that sleep and test by themselves wake a hundred thousand times a second, which costs most
/// of a processor and delays everybody else's calls; their tests alone cost next to nothing.
///
/// A test may take locks that are held for a moment, never one that is held across a call or a
/// pause: it would hold up all other waits.
class Poller {
 public:
  /// The process's poller. It lives as long as the process: threads may wait until its very end.
  static Poller& instance();

  /// Blocks until step() has answered true; it is called a period from now for the first time, on
  /// the poller's thread. An exception ends the wait and is passed on. No lock may be held.
  void wait(const std::function<bool()>& step);

 private:
  using Time = std::chrono::steady_clock;

  struct Waiter {
    explicit Waiter(const std::function<bool()>& its_step) : step(its_step) {}

    const std::function<bool()>& step;
    bool done = false;
    std::exception_ptr failure;
    std::condition_variable ended;
  };
  struct Turn {
    Time::time_point due;
    Waiter* waiter;  // on the stack of the thread that waits
  };

  Poller();
  void run();
  static bool test(Waiter& waiter);

  std::mutex lock_;  // guards turns_ and the waiters' done flags; no test runs under it
  std::condition_variable arrived_;
  std::deque<Turn> turns_;  // in order of time, since every turn is a period away when it is added
};

}  // namespace portsvc
