#include "server/stop_signal.h"

#include <pthread.h>
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <utility>

#include "server/options.h"

namespace portsvc::server {

StopSignal::StopSignal(std::chrono::seconds grace) {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  std::promise<void> asked;
  asked_ = asked.get_future();
  std::thread(
      [signals, grace](std::promise<void> first) {
        int number = 0;
        sigwait(&signals, &number);
        first.set_value();
        timespec left{};
        left.tv_sec = grace.count();
        sigtimedwait(&signals, nullptr, &left);
        end_process(status::success);
      },
      std::move(asked))
      .detach();
}

void end_process(int status) {
  std::fflush(stdout);
  std::_Exit(status);
}

}  // namespace portsvc::server
