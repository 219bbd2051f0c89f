#include "bench/pinned.h"

#include <unistd.h>

#include <filesystem>

namespace portsvc::bench {
namespace {

/// Threads come and go while they are listed; those that went need no pinning, and new ones
/// inherit.
void pin_all_threads(pid_t process, const cpu_set_t& processors) {
  std::error_code gone;
  for (std::filesystem::directory_iterator task("/proc/" + std::to_string(process) + "/task", gone),
       end;
       task != end; task.increment(gone)) {
    ::sched_setaffinity(std::stoi(task->path().filename()), sizeof processors, &processors);
  }
}

}  // namespace

Pinned::Pinned(const std::vector<const Process*>& others) : processes_{::getpid()} {
  for (const Process* other : others) processes_.push_back(other->pid());
  ::sched_getaffinity(0, sizeof before_, &before_);
  int last = CPU_SETSIZE - 1;
  while (!CPU_ISSET(last, &before_)) --last;
  cpu_set_t one;
  CPU_ZERO(&one);
  CPU_SET(last, &one);
  for (const pid_t process : processes_) pin_all_threads(process, one);
}

Pinned::~Pinned() {
  for (const pid_t process : processes_) pin_all_threads(process, before_);
}

}  // namespace portsvc::bench
