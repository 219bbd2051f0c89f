// Remote waits that can be interrupted. A call that blocks in the server cannot be taken back, so
// a long wait is made of slices: after an interruption nothing is left behind in the server for
// longer than one slice.
#pragma once

#include <chrono>
#include <future>
#include <memory>
#include <thread>
#include <utility>

#include "middleware/orb/orb.h"
#include "tools/errors.h"
#include "tools/interrupt.h"

namespace portsvc::tools {

/// Length of one slice, in the seconds of the remote time-outs.
constexpr unsigned int slice_seconds = 1;

/// Time limit of a remote call that waits up to `seconds` in the server.
inline std::chrono::milliseconds limit_of_wait(unsigned int seconds) {
  return std::chrono::seconds(seconds) + orb::peer_call_timeout();
}

/// Calls `wait(seconds)` again and again until it answers something other than `ran_out`, the
/// code with which this wait reports that its time-out ran out and that nothing has happened.
/// After `timeout` seconds (0: never) the answer is `ran_out`. Throws Interrupted between slices.
template <class Wait>
unsigned int wait_in_slices(unsigned int timeout, unsigned int ran_out, Wait&& wait) {
  using std::chrono::steady_clock;
  // The server's countdown ends a little late, never early: a rest this short is no slice more.
  constexpr std::chrono::milliseconds rest{50};
  const auto end = steady_clock::now() + std::chrono::seconds(timeout);
  for (;;) {
    throw_if_interrupted();
    const orb::CallTimeout limit(limit_of_wait(slice_seconds));
    const unsigned int code = wait(slice_seconds);
    if (code != ran_out) return code;
    if (timeout != 0 && steady_clock::now() + rest >= end) return code;
  }
}

/// True when an interruption has left a thread behind in its remote call. The process must then
/// end without waiting for threads.
bool left_a_call_behind();
void set_left_a_call_behind();

/// Calls `wait(timeout)` once, in a thread of its own, for a wait that must not be cut in slices.
/// An interruption leaves that thread behind and throws Interrupted. `wait` owns all that it uses.
template <class Wait>
unsigned int wait_in_one_call(unsigned int timeout, Wait wait) {
  std::packaged_task<unsigned int()> task([timeout, wait = std::move(wait)] {
    const orb::CallTimeout limit(limit_of_wait(timeout));
    return static_cast<unsigned int>(wait(timeout));
  });
  std::future<unsigned int> answer = task.get_future();
  std::thread thread(std::move(task));
  while (answer.wait_for(std::chrono::milliseconds(50)) != std::future_status::ready) {
    if (interrupted() != 0) {
      thread.detach();
      set_left_a_call_behind();
      throw Interrupted();
    }
  }
  thread.join();
  return answer.get();
}

}  // namespace portsvc::tools
