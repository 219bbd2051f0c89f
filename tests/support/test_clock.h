// A clock that stands still until the test moves it.
#pragma once

#include <functional>

#include "platform/clock.h"

namespace portsvc {

/// Puts a clock of its own in the place of the process's; one at a time. On the thread that made it
/// a pause takes no time and moves the clock on by its length, so a wait of minutes is over at
/// once. On any other thread (servants' own ones, a test's helpers) a pause sleeps a millisecond
/// and leaves the clock alone.
class TestClock {
 public:
  TestClock();
  ~TestClock();
  TestClock(const TestClock&) = delete;
  TestClock& operator=(const TestClock&) = delete;

  /// Moves the clock, backwards too.
  void advance(double seconds);
  /// Seconds since the clock was made.
  double elapsed() const;
  /// Pauses of the clock's own thread so far.
  int pauses() const;

  /// Waits until other threads have begun `times` further pauses of a wait on `object` (null: of
  /// any wait). False when that does not happen within ten seconds.
  bool await_poll(const void* object = nullptr, int times = 1) const;
  /// As await_poll, for the longer pauses of background threads.
  bool await_round(int times = 1) const;

  /// Called in each pause of the clock's own thread, after the clock has moved.
  std::function<void(const ACE_Time_Value& length)> on_pause;
};

}  // namespace portsvc
