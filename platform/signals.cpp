#include "platform/signals.h"

#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <cerrno>

#include "platform/file.h"

namespace portsvc {
namespace {

std::atomic<int> arrived{0};
std::atomic<const Event_File*> arrival{nullptr};
static_assert(std::atomic<int>::is_always_lock_free, "it is set in a signal handler");
static_assert(std::atomic<const Event_File*>::is_always_lock_free, "it is read in one");

extern "C" void on_signal(int number) {
  const int saved = errno;
  arrived.store(number);
  arrival.load()->set();
  errno = saved;
}

sigset_t ending_signals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  return signals;
}

sigset_t held_signals() {
  sigset_t signals = ending_signals();
  sigaddset(&signals, SIGHUP);
  return signals;
}

}  // namespace

void ignore_broken_pipes() { ::signal(SIGPIPE, SIG_IGN); }

void mark_signals() {
  arrival.store(new Event_File);  // for good: a signal may come while the process ends
  struct sigaction action {};
  action.sa_handler = on_signal;
  action.sa_flags = SA_RESTART | static_cast<int>(SA_RESETHAND);
  ::sigaction(SIGINT, &action, nullptr);
  ::sigaction(SIGTERM, &action, nullptr);
  // Under nohup the terminal may go and the command stays.
  struct sigaction hang_up {};
  ::sigaction(SIGHUP, nullptr, &hang_up);
  if (hang_up.sa_handler != SIG_IGN) ::sigaction(SIGHUP, &action, nullptr);
}

int marked_signal() { return arrived.load(); }

int marked_signal_file() {
  const Event_File* const event = arrival.load();
  return event ? event->fd() : -1;
}

void hold_signals() {
  const sigset_t signals = held_signals();
  ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

int next_held_signal() {
  const sigset_t signals = held_signals();
  int number = 0;
  while (::sigwait(&signals, &number) != 0) {
  }
  return number;
}

void wait_for_held_end(std::chrono::seconds patience) {
  const sigset_t signals = ending_signals();
  timespec left{};
  left.tv_sec = patience.count();
  ::sigtimedwait(&signals, nullptr, &left);
}

bool is_hang_up(int signal) { return signal == SIGHUP; }

}  // namespace portsvc
