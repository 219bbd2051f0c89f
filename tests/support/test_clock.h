// A clock that stands still until the test moves it.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <thread>

#include "platform/clock.h"

namespace portsvc {

/// The process's clock while it lives. On the thread that made it a pause takes no time and moves
/// the clock on by its length, so a wait of minutes is over at once. On any other thread (servants'
/// own ones, a test's helpers) a pause sleeps a millisecond and leaves the clock alone.
class TestClock final : public Clock {
 public:
  TestClock();
  ~TestClock() override;
  TestClock(const TestClock&) = delete;
  TestClock& operator=(const TestClock&) = delete;

  ACE_Time_Value now() const override;
  void pause(const ACE_Time_Value& length, const void* waited_on) override;

  /// Moves the clock, backwards too.
  void advance(double seconds);
  /// Seconds since the clock was made.
  double elapsed() const;
  /// Pauses of the clock's own thread so far.
  int pauses() const { return pauses_; }

  /// Waits until other threads have begun `times` further pauses of a wait on `object` (null: of
  /// any wait). False when that does not happen within ten seconds.
  bool await_poll(const void* object = nullptr, int times = 1) const;
  /// As await_poll, for the longer pauses of background threads.
  bool await_round(int times = 1) const;

  /// Called in each pause of the clock's own thread, after the clock has moved.
  std::function<void(const ACE_Time_Value& length)> on_pause;

 private:
  bool await(const std::function<int()>& count, int times) const;

  const std::thread::id own_thread_ = std::this_thread::get_id();
  std::atomic<std::int64_t> microseconds_;
  int pauses_ = 0;
  mutable std::mutex lock_;  // guards the two below
  std::map<const void*, int> polls_;
  int rounds_ = 0;
};

}  // namespace portsvc
