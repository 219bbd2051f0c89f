// The one shape of every wait in the system: count the time off, test, give up when the time is
// used up, pause, test again if the caller's mode says so.
#pragma once

#include <ace/Time_Value.h>

#include <functional>
#include <optional>

#include "platform/caller.h"
#include "platform/clock.h"
#include "platform/countdown.h"

namespace portsvc {

/// A blocked call looks once a second whether its caller is still there.
constexpr unsigned int pauses_between_looks = 100;

/// Who has sent its call within this time is there: looking costs more than the rest of a short
/// wait, and nobody can tell a caller that dies now from one that dies while it is answered.
inline const ACE_Time_Value just_heard_from(0, 1000);

inline bool gone(const Caller* caller) { return caller && caller->gone(); }

/// Waits up to `timeout` seconds; 0 means no limit.
///   test(caller)  std::optional<unsigned int>: the wait's result when it is over, else nothing.
///                 `caller` is null as long as the call has only just come, and in calls within
///                 the process; a test that is about to take something first asks
///                 gone(caller), and does not take it for a caller that has gone.
///   again()       std::optional<unsigned int>: asked after each pause; a result ends the wait
/// Answers `timed_out` when the time is used up, and when the caller has gone; the test comes
/// first, so what is there at the last test is still taken. No lock may be held. All but the first
/// test may run on another thread, which serves every wait of the process: they take locks for a
/// moment at most. A wait that would give up after its pause is not woken before it.
template <class Test, class Again>
unsigned int wait(unsigned int timeout, unsigned int timed_out, Waited_On what, Test&& test,
                  Again&& again) {
  ACE_Time_Value remaining(static_cast<time_t>(timeout), 0);
  Countdown countdown(timeout != 0 ? &remaining : nullptr);
  const Caller* caller = nullptr;
  std::optional<unsigned int> answer;
  const auto is_over = [&] {
    if (timeout != 0) countdown.update();
    answer = test(caller);
    if (!answer && timeout != 0 && countdown.expired()) answer = timed_out;
    return answer.has_value();
  };
  if (is_over()) return *answer;

  const Caller* const here = Caller::of_this_thread();
  const ACE_Time_Value begun = clock().now();
  unsigned int pauses = 0;
  const auto step = [&](Turn turn) {
    if (!caller && here) {
      const ACE_Time_Value since = clock().now() - begun;
      if (since < ACE_Time_Value::zero || since >= just_heard_from) caller = here;
    }
    answer = again();
    if (answer && turn == Turn::woken) {  // the mode has changed: the pause is kept
      answer.reset();
      return false;
    }
    if (answer) return true;
    if (turn == Turn::pause_over && ++pauses % pauses_between_looks == 0 && gone(caller)) {
      answer = timed_out;
      return true;
    }
    return is_over();
  };
  if (again()) what.topic_count = 0;
  clock().poll(what, std::ref(step));
  return *answer;
}

}  // namespace portsvc
