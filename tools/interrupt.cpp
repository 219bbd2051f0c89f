#include "tools/interrupt.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <system_error>

#include "tools/errors.h"

namespace portsvc::tools {
namespace {

std::atomic<int> arrived{0};
static_assert(std::atomic<int>::is_always_lock_free, "it is set in a signal handler");
std::array<int, 2> wake_up{-1, -1};

extern "C" void on_signal(int number) {
  const int saved = errno;
  arrived.store(number);
  (void)!::write(wake_up[1], "", 1);
  errno = saved;
}

}  // namespace

void catch_interrupts() {
  if (::pipe2(wake_up.data(), O_CLOEXEC | O_NONBLOCK) != 0) {
    throw std::system_error(errno, std::generic_category(), "cannot make a pipe");
  }
  struct sigaction action {};
  action.sa_handler = on_signal;
  action.sa_flags = SA_RESTART | static_cast<int>(SA_RESETHAND);
  ::sigaction(SIGINT, &action, nullptr);
  ::sigaction(SIGTERM, &action, nullptr);
  // Under nohup the terminal may go and the command stays.
  struct sigaction hang_up {};
  ::sigaction(SIGHUP, nullptr, &hang_up);
  if (hang_up.sa_handler != SIG_IGN) ::sigaction(SIGHUP, &action, nullptr);
  ::signal(SIGPIPE, SIG_IGN);
}

int interrupted() { return arrived.load(); }

int interrupt_fd() { return wake_up[0]; }

void throw_if_interrupted() {
  if (interrupted() != 0) throw Interrupted();
}

}  // namespace portsvc::tools
