// Shell commands that this process runs and whose output it reads.
#pragma once

#include <signal.h>
#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "platform/file.h"

namespace portsvc {

/// A shell command in a process group of its own, with the usual signals, nothing on its standard
/// input, and this process's standard error. It ends with this process, also when that is killed.
/// Used by one thread, but for stop().
class Child_Process {
 public:
  /// Runs `command` with /bin/sh. Its group is sent `at_our_end` when this process ends first.
  /// Throws std::system_error, with a line for people, when no process can be made.
  explicit Child_Process(const std::string& command, int at_our_end = SIGTERM);
  /// stop(), if it still runs; SIGKILL to the group when it has not ended two seconds later.
  ~Child_Process();
  Child_Process(const Child_Process&) = delete;
  Child_Process& operator=(const Child_Process&) = delete;

  enum class Read { line, nothing_yet, end };
  /// The next line of its output, without the newline, in `line`; of one longer than `longest` the
  /// first so many bytes, the rest is passed over. Waits for at most `patience`. A last line
  /// without a newline counts.
  Read read_line(std::string& line, std::size_t longest, std::chrono::milliseconds patience);

  /// Asks the group to end: SIGTERM. Any thread; returns at once.
  void stop() const;
  /// SIGKILL to the group; returns when the command is gone. The last that is done to it.
  void kill();
  /// Sends the command alone a signal. After SIGSTOP it stands still when this returns.
  void signal(int number);

  /// Its process id, its own until kill().
  pid_t pid() const { return pid_; }
  /// Its exit status, 128 + number after a signal; nothing when it still runs after `patience`.
  std::optional<int> status(std::chrono::milliseconds patience);

  /// How it ended, for people: "exit status 1", "signal 15". For one that has been asked to end;
  /// SIGKILL to the group when it has not two seconds later.
  std::string wait();

 private:
  bool ended(std::chrono::milliseconds patience);

  pid_t pid_ = -1;
  File output_;
  File lifeline_;  // closed when this process ends, however that happens
  std::string unread_;
  std::size_t looked_at_ = 0;  // of unread_, without finding a newline
  bool passing_over_ = false;
  bool output_ended_ = false;
  std::optional<siginfo_t> end_;  // it keeps its process id until kill()
  bool reaped_ = false;
};

/// What a command printed and how it ended.
struct Filtered {
  std::string output;  ///< its standard output
  int status = 0;      ///< exit status, or 128 + the signal that ended it
};

/// Runs `command` with /bin/sh as a filter: `input` on its standard input. A command that does not
/// read its input, or that prints more than it reads, is no trouble. As soon as `stop` can be read,
/// the command and all it has started end, and there is no answer. Throws std::system_error, with a
/// line for people, when no process can be made.
std::optional<Filtered> run_filter(const std::string& command, std::string_view input, int stop);

}  // namespace portsvc
