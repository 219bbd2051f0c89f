// The processes that a benchmark starts, and what it may do to them: pin, freeze, read their use of
// processor and memory. They end with the benchmark, whatever becomes of it.
#pragma once

#include <sched.h>
#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace portsvc::bench {

/// A folder for one run, removed with all its content by the destructor.
class TemporaryFolder {
 public:
  TemporaryFolder();
  ~TemporaryFolder();
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  std::string file(const std::string& name) const { return path_ + "/" + name; }
  /// What the destructor does.
  void remove() const;

 private:
  std::string path_;
};

/// A process started by this one. The destructor kills it and waits for it; the kernel does so when
/// this process dies first. Start them from the main thread.
class Child {
 public:
  /// Runs `command` (looked up in PATH) with both outputs in the file `log`. Throws when it cannot
  /// be started at all; a command that does not exist ends the child with 127.
  Child(const std::vector<std::string>& command, const std::string& log);
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  pid_t pid() const { return pid_; }
  /// Throws, with the log's last lines, when the child has ended.
  void require_alive() const;

  /// Stops every thread of it, and lets them go on.
  void freeze() const;
  void thaw() const;

  /// Processor time used so far, user and system, all threads.
  double cpu_seconds() const;
  /// Resident memory in bytes.
  double resident_bytes() const;
  unsigned int threads() const;

 private:
  const std::string log_;
  pid_t pid_;
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

/// A TCP port on the loopback that was free a moment ago.
unsigned int free_port();

/// True when a program of that name is in PATH.
bool is_installed(const std::string& program);

/// The content of a file, empty when there is none.
std::string read_text(const std::string& path);

/// As many open files, and so connections, as the system allows this process.
void allow_many_connections();

}  // namespace portsvc::bench
