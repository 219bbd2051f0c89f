#include "tools/shell_command.h"

#include <fcntl.h>
#include <fmt/core.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string_view>
#include <system_error>

#include "tools/errors.h"
#include "tools/interrupt.h"

namespace portsvc::tools {
namespace {

[[noreturn]] void failed(const char* what, int error) {
  throw Failure(fmt::format("cannot {}: {}", what, std::generic_category().message(error)));
}

class Pipe {
 public:
  Pipe() {
    if (::pipe2(ends_.data(), O_CLOEXEC) != 0) failed("make a pipe", errno);
  }
  ~Pipe() {
    close_read();
    close_write();
  }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;

  int read_end() const { return ends_[0]; }
  int write_end() const { return ends_[1]; }
  void close_read() { close(ends_[0]); }
  void close_write() { close(ends_[1]); }

 private:
  static void close(int& fd) {
    if (fd >= 0) ::close(fd);
    fd = -1;
  }
  std::array<int, 2> ends_{-1, -1};
};

// A shell in a process group of its own, so that all it starts can be ended with it.
class Shell {
 public:
  Shell(const std::string& command, const Pipe& input, const Pipe& output) {
    posix_spawn_file_actions_t files;
    ::posix_spawn_file_actions_init(&files);
    ::posix_spawn_file_actions_adddup2(&files, input.read_end(), STDIN_FILENO);
    ::posix_spawn_file_actions_adddup2(&files, output.write_end(), STDOUT_FILENO);
    posix_spawnattr_t attributes;
    ::posix_spawnattr_init(&attributes);
    sigset_t defaults;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGPIPE);  // ignored here, but a pipeline of commands counts on it
    ::posix_spawnattr_setsigdefault(&attributes, &defaults);
    ::posix_spawnattr_setpgroup(&attributes, 0);
    ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGDEF);
    const char* const arguments[] = {"sh", "-c", command.c_str(), nullptr};
    const int error = ::posix_spawn(&pid_, "/bin/sh", &files, &attributes,
                                    const_cast<char* const*>(arguments), environ);
    ::posix_spawnattr_destroy(&attributes);
    ::posix_spawn_file_actions_destroy(&files);
    if (error != 0) failed("start /bin/sh", error);
  }
  ~Shell() {
    if (pid_ <= 0) return;
    ::kill(-pid_, SIGKILL);
    while (::waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
    }
  }
  Shell(const Shell&) = delete;
  Shell& operator=(const Shell&) = delete;

  // Waits for the end; throws Interrupted.
  int status() {
    int status = 0;
    while (::waitpid(pid_, &status, WNOHANG) == 0) {
      pollfd interrupt{interrupt_fd(), POLLIN, 0};
      (void)::poll(&interrupt, 1, 5);
      throw_if_interrupted();
    }
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }

 private:
  pid_t pid_ = -1;
};

}  // namespace

CommandResult run_shell_command(const std::string& command, const std::string& input) {
  Pipe to_command;
  Pipe from_command;
  Shell shell(command, to_command, from_command);
  to_command.close_read();
  from_command.close_write();
  ::fcntl(to_command.write_end(), F_SETFL, O_NONBLOCK);
  if (input.empty()) to_command.close_write();

  CommandResult result;
  std::string_view rest = input;
  for (;;) {
    // A closed write end has the number -1, which poll passes over.
    std::array<pollfd, 3> watched{pollfd{from_command.read_end(), POLLIN, 0},
                                  pollfd{to_command.write_end(), POLLOUT, 0},
                                  pollfd{interrupt_fd(), POLLIN, 0}};
    (void)::poll(watched.data(), watched.size(), -1);
    throw_if_interrupted();
    if (watched[1].revents != 0) {
      const ssize_t written = ::write(to_command.write_end(), rest.data(), rest.size());
      if (written > 0) rest.remove_prefix(static_cast<std::size_t>(written));
      const bool wants_no_more = written < 0 && errno != EAGAIN && errno != EINTR;
      if (rest.empty() || wants_no_more) to_command.close_write();
    }
    if (watched[0].revents != 0) {
      std::array<char, 65536> chunk;
      const ssize_t got = ::read(from_command.read_end(), chunk.data(), chunk.size());
      if (got == 0) break;
      if (got > 0) result.output.append(chunk.data(), static_cast<std::size_t>(got));
    }
  }
  to_command.close_write();
  result.status = shell.status();
  return result;
}

}  // namespace portsvc::tools
