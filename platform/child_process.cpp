#include "platform/child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>

namespace portsvc {
namespace {

// Somebody in the command's group who waits for the end of this process.
std::string guard(int at_our_end) {
  return "{ read -r gone <&3; kill -" + std::to_string(at_our_end) +
         " 0; } >/dev/null 2>&1 &\n"
         "exec 3<&-\n";
}

[[noreturn]] void failed(const char* what, int error) {
  throw std::runtime_error(std::string("cannot ") + what + ": " +
                           std::generic_category().message(error));
}

}  // namespace

Child_Process::Child_Process(const std::string& command, int at_our_end) {
  std::array<int, 2> ends{-1, -1};
  std::array<int, 2> life{-1, -1};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) failed("make a pipe", errno);
  if (::pipe2(life.data(), O_CLOEXEC) != 0) {
    const int error = errno;
    for (const int end : ends) ::close(end);
    failed("make a pipe", error);
  }
  posix_spawn_file_actions_t files;
  ::posix_spawn_file_actions_init(&files);
  ::posix_spawn_file_actions_addopen(&files, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  ::posix_spawn_file_actions_adddup2(&files, ends[1], STDOUT_FILENO);
  ::posix_spawn_file_actions_adddup2(&files, life[0], 3);
  posix_spawnattr_t attributes;
  ::posix_spawnattr_init(&attributes);
  // What this process blocks or ignores is its own affair.
  sigset_t none;
  sigemptyset(&none);
  sigset_t ignored = none;
  sigaddset(&ignored, SIGPIPE);
  ::posix_spawnattr_setsigmask(&attributes, &none);
  ::posix_spawnattr_setsigdefault(&attributes, &ignored);
  ::posix_spawnattr_setpgroup(&attributes, 0);
  ::posix_spawnattr_setflags(
      &attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
  const std::string script = guard(at_our_end) + command;
  const char* const arguments[] = {"sh", "-c", script.c_str(), nullptr};
  const int error = ::posix_spawn(&pid_, "/bin/sh", &files, &attributes,
                                  const_cast<char* const*>(arguments), environ);
  ::posix_spawnattr_destroy(&attributes);
  ::posix_spawn_file_actions_destroy(&files);
  ::close(ends[1]);
  ::close(life[0]);
  output_ = ends[0];
  lifeline_ = life[1];
  if (error == 0) return;
  ::close(output_);
  ::close(lifeline_);
  failed("start /bin/sh", error);
}

Child_Process::~Child_Process() {
  if (!end_) stop();
  (void)wait();
  kill();  // what it has left behind in its group, which has its number till here
  ::close(output_);
  ::close(lifeline_);
}

void Child_Process::stop() const { ::kill(-pid_, SIGTERM); }

void Child_Process::kill() {
  if (std::exchange(reaped_, true)) return;
  ::kill(-pid_, SIGKILL);
  (void)ended(std::chrono::hours(1));
  while (::waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
  }
}

void Child_Process::signal(int number) {
  if (ended(std::chrono::milliseconds(0)) || ::kill(pid_, number) != 0 || number != SIGSTOP) return;
  // Its threads stop one after the other, and on a busy machine one may still be at work.
  siginfo_t stopped;
  (void)::waitid(P_PID, static_cast<id_t>(pid_), &stopped, WSTOPPED | WEXITED | WNOWAIT);
}

std::optional<int> Child_Process::status(std::chrono::milliseconds patience) {
  if (!ended(patience)) return std::nullopt;
  return end_->si_code == CLD_EXITED ? end_->si_status : 128 + end_->si_status;
}

bool Child_Process::ended(std::chrono::milliseconds patience) {
  const auto until = std::chrono::steady_clock::now() + patience;
  while (!end_) {
    siginfo_t end{};
    const int answer = ::waitid(P_PID, static_cast<id_t>(pid_), &end, WEXITED | WNOHANG | WNOWAIT);
    if ((answer == 0 && end.si_pid == pid_) || (answer < 0 && errno != EINTR)) {
      end_ = end;
    } else if (std::chrono::steady_clock::now() >= until) {
      break;
    } else {
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
  }
  return end_.has_value();
}

std::string Child_Process::wait() {
  if (!ended(std::chrono::seconds(2))) {
    ::kill(-pid_, SIGKILL);
    (void)ended(std::chrono::hours(1));
  }
  if (!end_) return "no end";
  return (end_->si_code == CLD_EXITED ? "exit status " : "signal ") +
         std::to_string(end_->si_status);
}

Child_Process::Read Child_Process::read_line(std::string& line, std::size_t longest,
                                             std::chrono::milliseconds patience) {
  const auto until = std::chrono::steady_clock::now() + patience;
  for (;;) {
    const auto newline = unread_.find('\n', looked_at_);
    if (newline != std::string::npos || (output_ended_ && !unread_.empty())) {
      const auto length = newline != std::string::npos ? newline : unread_.size();
      const bool rest_only = passing_over_;
      if (!rest_only) line.assign(unread_, 0, std::min(length, longest));
      unread_.erase(0, newline != std::string::npos ? newline + 1 : length);
      looked_at_ = 0;
      passing_over_ = false;
      if (!rest_only) return Read::line;
      continue;
    }
    if (output_ended_) return Read::end;
    looked_at_ = unread_.size();
    if (unread_.size() > longest) {
      const bool first = !passing_over_;
      if (first) line.assign(unread_, 0, longest);
      unread_.clear();
      looked_at_ = 0;
      passing_over_ = true;
      if (first) return Read::line;
    }
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        until - std::chrono::steady_clock::now());
    pollfd watched{output_, POLLIN, 0};
    const int ready = ::poll(&watched, 1, static_cast<int>(std::max<long>(left.count(), 0)));
    if (ready == 0) return Read::nothing_yet;
    if (ready < 0) continue;
    std::array<char, 65536> chunk;
    const ssize_t got = ::read(output_, chunk.data(), chunk.size());
    if (got > 0) unread_.append(chunk.data(), static_cast<std::size_t>(got));
    if (got == 0 || (got < 0 && errno != EINTR)) output_ended_ = true;
  }
}

}  // namespace portsvc
