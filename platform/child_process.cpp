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
#include <system_error>
#include <thread>
#include <utility>

#include "platform/streams.h"

namespace portsvc {
namespace {

// Somebody in the command's group who waits for the end of this process.
std::string guard(int at_our_end) {
  return "{ read -r gone <&3; kill -" + std::to_string(at_our_end) +
         " 0; } >/dev/null 2>&1 &\n"
         "exec 3<&-\n";
}

/// The files that a shell is started with, by number; one below 0 is left out.
struct Shell_Files {
  int input = -1;  // without one /dev/null
  int output = -1;
  int third = -1;
};

/// Starts /bin/sh in a process group of its own, so that all it starts can be ended with it. What
/// this process blocks or ignores is its own affair: a pipeline of commands counts on SIGPIPE.
pid_t start_shell(const std::string& script, const Shell_Files& given) {
  posix_spawn_file_actions_t files;
  ::posix_spawn_file_actions_init(&files);
  if (given.input >= 0) {
    ::posix_spawn_file_actions_adddup2(&files, given.input, STDIN_FILENO);
  } else {
    ::posix_spawn_file_actions_addopen(&files, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  }
  ::posix_spawn_file_actions_adddup2(&files, given.output, STDOUT_FILENO);
  if (given.third >= 0) ::posix_spawn_file_actions_adddup2(&files, given.third, 3);
  posix_spawnattr_t attributes;
  ::posix_spawnattr_init(&attributes);
  sigset_t none;
  sigemptyset(&none);
  sigset_t ignored = none;
  sigaddset(&ignored, SIGPIPE);
  ::posix_spawnattr_setsigmask(&attributes, &none);
  ::posix_spawnattr_setsigdefault(&attributes, &ignored);
  ::posix_spawnattr_setpgroup(&attributes, 0);
  ::posix_spawnattr_setflags(
      &attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
  const char* const arguments[] = {"sh", "-c", script.c_str(), nullptr};
  pid_t pid = -1;
  const int error = ::posix_spawn(&pid, "/bin/sh", &files, &attributes,
                                  const_cast<char* const*>(arguments), environ);
  ::posix_spawnattr_destroy(&attributes);
  ::posix_spawn_file_actions_destroy(&files);
  if (error != 0) {
    throw std::system_error(error, std::generic_category(), "cannot start /bin/sh");
  }
  return pid;
}

/// Ends whatever is left in the group of a command and waits for the command.
void end_group(pid_t pid) {
  ::kill(-pid, SIGKILL);
  while (::waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
  }
}

/// A command that is ended, with all it has started, unless its status has been taken.
class Filter {
 public:
  explicit Filter(pid_t pid) : pid_(pid) {}
  ~Filter() {
    if (pid_ > 0) end_group(pid_);
  }
  Filter(const Filter&) = delete;
  Filter& operator=(const Filter&) = delete;

  // Waits for its end; nothing when `stop` could be read before.
  std::optional<int> status(int stop) {
    int status = 0;
    while (::waitpid(pid_, &status, WNOHANG) == 0) {
      if (wait_readable({stop}, std::chrono::milliseconds(5))) return std::nullopt;
    }
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }

 private:
  pid_t pid_;
};

}  // namespace

Child_Process::Child_Process(const std::string& command, int at_our_end) {
  Pipe output;
  Pipe life;
  pid_ = start_shell(guard(at_our_end) + command, {-1, output.write_end.fd(), life.read_end.fd()});
  output_ = std::move(output.read_end);
  lifeline_ = std::move(life.write_end);
}

Child_Process::~Child_Process() {
  if (!end_) stop();
  (void)wait();
  kill();  // what it has left behind in its group, which has its number till here
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
    if (!wait_readable({output_.fd()}, std::max(left, std::chrono::milliseconds(0)))) {
      return Read::nothing_yet;
    }
    try {
      output_ended_ = !read_more(output_.fd(), unread_);
    } catch (const std::system_error&) {
      output_ended_ = true;
    }
  }
}

std::optional<Filtered> run_filter(const std::string& command, std::string_view input, int stop) {
  Pipe to_command;
  Pipe from_command;
  Filter filter(start_shell(command, {to_command.read_end.fd(), from_command.write_end.fd(), -1}));
  to_command.read_end.close();
  from_command.write_end.close();
  File& feed = to_command.write_end;
  ::fcntl(feed.fd(), F_SETFL, O_NONBLOCK);
  if (input.empty()) feed.close();

  Filtered result;
  for (bool ended = false; !ended;) {
    // A closed file has the number -1, which poll passes over.
    std::array<pollfd, 3> watched{pollfd{from_command.read_end.fd(), POLLIN, 0},
                                  pollfd{feed.fd(), POLLOUT, 0}, pollfd{stop, POLLIN, 0}};
    (void)::poll(watched.data(), watched.size(), -1);
    if (watched[2].revents != 0) return std::nullopt;
    if (watched[1].revents != 0) {
      const ssize_t written = ::write(feed.fd(), input.data(), input.size());
      if (written > 0) input.remove_prefix(static_cast<std::size_t>(written));
      const bool wants_no_more = written < 0 && errno != EAGAIN && errno != EINTR;
      if (input.empty() || wants_no_more) feed.close();
    }
    if (watched[0].revents != 0) ended = !read_more(from_command.read_end.fd(), result.output);
  }
  feed.close();
  const std::optional<int> status = filter.status(stop);
  if (!status) return std::nullopt;
  result.status = *status;
  return result;
}

}  // namespace portsvc
