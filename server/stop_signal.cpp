#include "server/stop_signal.h"

#include <cstdio>
#include <cstdlib>
#include <thread>
#include <utility>

#include "platform/signals.h"
#include "server/options.h"

namespace portsvc::server {

StopSignal::StopSignal(std::chrono::seconds grace) : state_(std::make_shared<State>()) {
  hold_signals();
  std::thread([grace, state = state_] {
    const auto note = [&state](auto& what, auto value) {
      {
        const std::lock_guard<std::mutex> guard(state->lock);
        what = value;
      }
      state->asked.notify_all();
    };
    int number = next_held_signal();
    for (; is_hang_up(number); number = next_held_signal()) note(state->reload, true);
    note(state->stop, number);
    wait_for_held_end(grace);
    end_process(status::success);
  }).detach();
}

Asked StopSignal::wait_for(std::chrono::seconds time) {
  std::unique_lock<std::mutex> guard(state_->lock);
  state_->asked.wait_for(guard, time, [this] { return state_->stop != 0 || state_->reload; });
  if (state_->stop != 0) return Asked::stop;
  return std::exchange(state_->reload, false) ? Asked::reload : Asked::nothing;
}

int StopSignal::stopped_by() const {
  const std::lock_guard<std::mutex> guard(state_->lock);
  return state_->stop;
}

void end_process(int status) {
  std::fflush(stdout);
  std::_Exit(status);
}

}  // namespace portsvc::server
