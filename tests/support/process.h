// The processes that tests, chaos and benchmarks start, and connections of what is no client of the
// broker.
#pragma once

#include <ace/SOCK_Stream.h>
#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "platform/child_process.h"

namespace portsvc {

using Words = std::vector<std::string>;

/// Commands are put together of their parts.
inline Words operator+(Words left, const Words& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

/// A server of the loopback, for the program port_server: its address, files and reference are
/// under its name in `folder`.
Words server_words(const std::string& role, const std::string& name, int port,
                   const std::string& folder);

/// An omniNames that keeps its files in `folder`.
Words naming_words(int port, const std::string& folder);
/// A server's entry in a directory file.
std::string directory_entry(const std::string& name, const std::string& role,
                            const std::string& reference);

/// A program with its outputs in files. It is killed with its whole group when this object goes,
/// and when this process ends, whatever becomes of it.
class Process {
 public:
  /// Runs `command` (looked up in PATH) with standard input from the file `input`. The outputs go
  /// to `files`.out and `files`.err.
  Process(const Words& command, std::string files, const std::string& input = "/dev/null");
  ~Process() { kill(); }
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  pid_t pid() const { return child_.pid(); }
  /// After SIGSTOP it stands still when this returns.
  void signal(int number) const { child_.signal(number); }
  /// SIGKILL, and waits until the process is gone.
  void kill() const { child_.kill(); }
  /// The exit status, 128 + number after a signal; nothing when it still runs after `patience`.
  std::optional<int> wait(std::chrono::milliseconds patience) const {
    return child_.status(patience);
  }
  /// Of a server: waits until it says that it serves; false when it ends instead.
  bool serves() const;
  bool running() const { return !wait(std::chrono::milliseconds(0)); }

  /// What it has written so far.
  std::string out() const;
  std::string err() const;

  /// Sockets it has open, threads it has: how a test sees that calls have arrived and ended.
  int sockets() const;
  int threads() const;
  long resident_kib() const;
  /// Processor time used so far, user and system, all threads.
  double cpu_seconds() const;

 private:
  const std::string files_;
  mutable Child_Process child_;  // notes the end when it is asked
};

/// Lets a process of many connections have them.
void allow_many_connections();

/// A TCP port of the loopback that nobody uses, below those that systems give to outgoing
/// connections: it stays free while its server is down.
int free_port();

/// A request to the port service as bytes: an operation whose in arguments are numbers.
std::string request(const std::string& operation, const std::vector<unsigned int>& arguments);

/// A TCP connection to the loopback.
class RawConnection {
 public:
  explicit RawConnection(int port);
  ~RawConnection() { stream_.close(); }
  RawConnection(const RawConnection&) = delete;
  RawConnection& operator=(const RawConnection&) = delete;

  // A server that has closed already is no failure: that is what the tests look for.
  void send(const std::string& bytes) const;
  /// As far as the other side takes it without anybody waiting.
  void send_what_fits(const std::string& bytes) const;
  /// True when the other side closes within `patience`.
  bool closed_by_peer(std::chrono::milliseconds patience) const;

 private:
  ACE_SOCK_Stream stream_;
};

}  // namespace portsvc
