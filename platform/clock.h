// Time, and the pause between two tests of a wait: the only two calls by which the system meets
// the platform's clock. Tests replace the clock and move it by hand.
#pragma once

#include <ace/Time_Value.h>

#include <cstdint>
#include <functional>

namespace portsvc {

/// The pause between two tests of a wait.
inline const ACE_Time_Value polling_pause(0, 10000);

/// The wall clock and the pause. Thread-safe; one instance serves the whole process.
class Clock {
 public:
  virtual ~Clock() = default;

  /// Wall-clock time in microseconds resolution. It may step back when the system time is set.
  virtual ACE_Time_Value now() const = 0;

  /// Lets the calling thread sleep for `length` (0 only yields). No lock may be held. `waited_on`
  /// names the object whose state the caller tests again afterwards (a port, a task's stop flag);
  /// it is never dereferenced. A caller tests its condition again whatever the pause did.
  virtual void pause(const ACE_Time_Value& length, const void* waited_on) = 0;

  /// Pauses for polling_pause and calls step(), again and again until it answers true. The system's
  /// clock does so for all waiting threads on one thread (platform/poller.h); this one, for clocks
  /// that tests move, on the calling thread.
  virtual void poll(const void* waited_on, const std::function<bool()>& step) {
    do {
      pause(polling_pause, waited_on);
    } while (!step());
  }
};

/// The process's clock: the system's, unless a test has put another one in its place.
Clock& clock();

/// Puts `replacement` in the clock's place, nullptr the system's clock back. The replacement must
/// outlive every thread that still uses it.
void replace_clock(Clock* replacement);

/// Calendar time in whole seconds since 1970.
std::int64_t calendar_seconds();

}  // namespace portsvc
