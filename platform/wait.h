// The one shape of every wait in the system: count the time off, test, give up when the time is
// used up, pause, test again if the caller's mode says so.
#pragma once

#include <ace/Time_Value.h>

#include <optional>

#include "platform/clock.h"
#include "platform/countdown.h"

namespace portsvc {

/// Waits up to `timeout` seconds; 0 means no limit.
///   test()   std::optional<unsigned int>: the wait's result when it is over, else nothing
///   again()  std::optional<unsigned int>: asked after each pause; a result ends the wait
/// Answers `timed_out` when the time is used up; the test comes first, so what is there at the last
/// test is still taken. No lock may be held. All but the first test may run on another thread,
/// which serves every wait of the process: they take locks for a moment at most. `waited_on` goes
/// to the pause.
template <class Test, class Again>
unsigned int wait(unsigned int timeout, unsigned int timed_out, const void* waited_on, Test&& test,
                  Again&& again) {
  ACE_Time_Value remaining(static_cast<time_t>(timeout), 0);
  Countdown countdown(timeout != 0 ? &remaining : nullptr);
  std::optional<unsigned int> answer;
  const auto is_over = [&] {
    if (timeout != 0) countdown.update();
    answer = test();
    if (!answer && timeout != 0 && countdown.expired()) answer = timed_out;
    return answer.has_value();
  };
  if (!is_over()) {
    clock().poll(waited_on, [&] {
      answer = again();
      return answer.has_value() || is_over();
    });
  }
  return *answer;
}

}  // namespace portsvc
