// Time, and the pause between two tests of a wait: the only two calls by which the system meets
// the platform's clock. Tests replace the clock and move it by hand.
#pragma once

#include <ace/Time_Value.h>

#include <cstddef>
#include <cstdint>
#include <functional>

#include "platform/wake.h"

namespace portsvc {

/// The pause between two tests of a wait.
inline const ACE_Time_Value polling_pause(0, 10000);

/// Why a waiting call tests again.
enum class Turn {
  pause_over,
  woken,  ///< before its pause is over, see platform/wake.h
};

/// What a waiting call waits for.
struct Waited_On {
  /// Whose state is tested (a port, a task's stop flag); never dereferenced.
  const void* object = nullptr;
  /// A change of any of these may end its pause early. None: it keeps its whole pause.
  const Topic* topics = nullptr;
  std::size_t topic_count = 0;
  /// The test takes long: it runs on the calling thread, where it holds up nobody else's.
  bool long_test = false;
};

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

  /// Pauses for `length`, or with early waking at most until ready() answers true after a change.
  virtual void rest(const ACE_Time_Value& length, const Waited_On& what,
                    const std::function<bool()>& /*ready*/) {
    pause(length, what.object);
  }

  /// Pauses for polling_pause and calls step(), again and again until it answers true. The system's
  /// clock does so for all waiting threads together (platform/poller.h); this one, for clocks that
  /// tests move, on the calling thread.
  virtual void poll(const Waited_On& what, const std::function<bool(Turn)>& step) {
    do {
      pause(polling_pause, what.object);
    } while (!step(Turn::pause_over));
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
