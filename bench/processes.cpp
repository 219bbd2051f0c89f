#include "bench/processes.h"

#include <fmt/format.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace portsvc::bench {
namespace {

std::string proc_file(pid_t pid, const char* name) { return fmt::format("/proc/{}/{}", pid, name); }

/// Threads come and go while they are listed; those that went need no pinning, and new ones
/// inherit.
void pin_all_threads(pid_t pid, const cpu_set_t& processors) {
  std::error_code gone;
  for (std::filesystem::directory_iterator task(proc_file(pid, "task"), gone), end; task != end;
       task.increment(gone)) {
    const pid_t thread = std::stoi(task->path().filename().string());
    ::sched_setaffinity(thread, sizeof processors, &processors);
  }
}

}  // namespace

void require_alive(const Process& process) {
  if (process.running()) return;
  const std::string text = process.out() + process.err();
  throw std::runtime_error("a server ended: " +
                           text.substr(text.size() > 500 ? text.size() - 500 : 0));
}

Pinned::Pinned(const std::vector<const Process*>& children, Places places) {
  ::sched_getaffinity(0, sizeof before_, &before_);
  std::vector<cpu_set_t> single;
  for (int i = 0; i < CPU_SETSIZE; ++i) {
    if (!CPU_ISSET(i, &before_)) continue;
    single.emplace_back();
    CPU_ZERO(&single.back());
    CPU_SET(i, &single.back());
  }
  const bool two = places == apart && single.size() > 1;
  if (two) processors_ = "two";
  processes_.push_back(::getpid());
  pin_all_threads(processes_[0], two ? single.front() : single.back());
  for (const Process* child : children) {
    processes_.push_back(child->pid());
    pin_all_threads(child->pid(), single.back());
  }
}

Pinned::~Pinned() {
  for (const pid_t pid : processes_) pin_all_threads(pid, before_);
}

void end_on_signal(const TemporaryFolder& folder) {
  sigset_t signals;
  ::sigemptyset(&signals);
  ::sigaddset(&signals, SIGINT);
  ::sigaddset(&signals, SIGTERM);
  ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  std::thread([&folder, signals] {
    int signal = 0;
    ::sigwait(&signals, &signal);
    std::filesystem::remove_all(folder.path());
    ::_exit(130);
  }).detach();
}

void wait_until(const std::function<bool()>& done, std::chrono::seconds patience,
                const std::string& what) {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) {
      throw std::runtime_error(fmt::format("{}: not within {} s", what, patience.count()));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

bool is_installed(const std::string& program) {
  const char* const path = std::getenv("PATH");
  std::istringstream folders(path ? path : "");
  for (std::string folder; std::getline(folders, folder, ':');) {
    if (::access((folder + "/" + program).c_str(), X_OK) == 0) return true;
  }
  return false;
}

}  // namespace portsvc::bench
