#include "server/stop_signal.h"

#include <pthread.h>
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <thread>
#include <utility>

#include "server/options.h"

namespace portsvc::server {

StopSignal::StopSignal(std::chrono::seconds grace) : state_(std::make_shared<State>()) {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  sigset_t ending = signals;
  sigaddset(&signals, SIGHUP);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  std::thread([signals, ending, grace, state = state_] {
    const auto note = [&state](auto& what, auto value) {
      {
        const std::lock_guard<std::mutex> guard(state->lock);
        what = value;
      }
      state->asked.notify_all();
    };
    int number = 0;
    while (sigwait(&signals, &number) != 0 || number == SIGHUP) note(state->reload, true);
    note(state->stop, number);
    timespec left{};
    left.tv_sec = grace.count();
    sigtimedwait(&ending, nullptr, &left);
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
