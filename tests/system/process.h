// The processes that a test starts, and what it may do to them.
#pragma once

#include <netinet/in.h>
#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace portsvc {

/// A process started by the test, in a group of its own, with its outputs in files. It is killed
/// with its whole group when this object goes, and when the test's main thread ends: start it from
/// there.
class Process {
 public:
  /// Runs `command` with standard input from the file `input`. The outputs go to `files`.out and
  /// `files`.err.
  Process(std::vector<std::string> command, std::string files,
          const std::string& input = "/dev/null");
  ~Process();
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  pid_t pid() const { return pid_; }
  /// After SIGSTOP it stands still when this returns.
  void signal(int number) const;
  /// SIGKILL, and waits until the process is gone.
  void kill();
  /// The exit status, 128 + number after a signal; nothing when it still runs after `patience`.
  std::optional<int> wait(std::chrono::milliseconds patience);
  bool running() { return !wait(std::chrono::milliseconds(0)); }

  /// What it has written so far.
  std::string out() const;
  std::string err() const;

  /// Sockets it has open, threads it has: how a test sees that calls have arrived and ended.
  int sockets() const;
  int threads() const;
  long resident_kib() const;

 private:
  const std::string files_;
  pid_t pid_ = -1;
  std::optional<int> status_;
};

/// The address of a TCP port of the loopback.
sockaddr_in loopback(int port);

/// A TCP port of the loopback that nobody uses, below those that systems give to outgoing
/// connections: it stays free while its server is down.
int free_port();

/// A request to the port service as bytes: an operation whose in arguments are numbers.
std::string request(const std::string& operation, const std::vector<unsigned int>& arguments);

/// A TCP connection to the loopback, for what is no client of the broker.
class RawConnection {
 public:
  explicit RawConnection(int port);
  ~RawConnection();
  RawConnection(const RawConnection&) = delete;
  RawConnection& operator=(const RawConnection&) = delete;

  void send(const std::string& bytes) const;
  /// As far as the other side takes it without anybody waiting.
  void send_what_fits(const std::string& bytes) const;
  /// True when the other side closes within `patience`.
  bool closed_by_peer(std::chrono::milliseconds patience) const;

 private:
  int socket_;
};

}  // namespace portsvc
