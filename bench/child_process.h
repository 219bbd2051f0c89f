// The processes that a benchmark starts, and what it may do to them: pin, freeze, read their use of
// the processor. They end with the benchmark, whatever becomes of it.
#pragma once

#include <sched.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "tests/support/folder.h"
#include "tests/system/process.h"

namespace portsvc::bench {

/// A process started by this one. Start them from the main thread.
class Child {
 public:
  /// Runs `command` (looked up in PATH) with its outputs in `files`.out and `files`.err.
  Child(const std::vector<std::string>& command, const std::string& files)
      : process_(command, files) {}

  pid_t pid() const { return process_.pid(); }
  /// Throws, with what it said last, when the child has ended.
  void require_alive() const;

  /// Stops every thread of it, and lets them go on.
  void freeze() const;
  void thaw() const;

  /// Processor time used so far, user and system, all threads.
  double cpu_seconds() const;
  unsigned int threads() const;

 private:
  mutable Process process_;  // notes the end when it is asked
};

/// While it lives, this process and the children run on one and the same processor, or this process
/// on one and the children on another.
class Pinned {
 public:
  enum Places { together, apart };
  explicit Pinned(const std::vector<const Child*>& children, Places places = together);
  ~Pinned();
  Pinned(const Pinned&) = delete;
  Pinned& operator=(const Pinned&) = delete;

  /// How a row calls it: "one", or "two"; "one" too when there is only one processor.
  std::string processors() const { return processors_; }

 private:
  std::string processors_ = "one";
  std::vector<pid_t> processes_;
  cpu_set_t before_;
};

/// Ends this process with status 130, and the folder with it, when SIGINT or SIGTERM comes. Call it
/// before other threads are started: they must not take those signals. The folder must live on.
void end_on_signal(const TemporaryFolder& folder);

/// Polls until `done` is true. Throws when that takes longer than `patience`, naming `what`.
void wait_until(const std::function<bool()>& done, std::chrono::seconds patience,
                const std::string& what);

/// True when a program of that name is in PATH.
bool is_installed(const std::string& program);

/// As many open files, and so connections, as the system allows this process.
void allow_many_connections();

}  // namespace portsvc::bench
