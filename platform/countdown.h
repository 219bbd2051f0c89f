// The measure of a time-out over the wall clock.
#pragma once

#include <ace/Time_Value.h>

namespace portsvc {

/// Counts elapsed time off a remaining time that the caller owns. Not thread-safe: it belongs to
/// one waiting call.
class Countdown {
 public:
  /// Starts counting `remaining` down; nullptr means no limit, then nothing ever expires.
  explicit Countdown(ACE_Time_Value* remaining);
  ~Countdown();
  Countdown(const Countdown&) = delete;
  Countdown& operator=(const Countdown&) = delete;

  /// Begins a measuring interval.
  void start();
  /// Ends the interval and takes it off the remaining time. A wall clock that stepped back counts
  /// as no time elapsed.
  void stop();
  /// stop() and start(): afterwards expired() tells whether the time is used up.
  void update();
  /// True after update() once the time is used up, and ever after.
  bool expired() const { return expired_; }

 private:
  ACE_Time_Value* remaining_;  // not owned; nullptr once the time is used up
  ACE_Time_Value start_;
  bool expired_ = false;
};

}  // namespace portsvc
