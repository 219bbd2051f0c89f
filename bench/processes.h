// What a benchmark does to the processes that it starts, beside what tests do: it pins them, and
// ends with them.
#pragma once

#include <sched.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "tests/support/folder.h"
#include "tests/support/process.h"

namespace portsvc::bench {

/// Throws, with what it said last, when the process has ended.
void require_alive(const Process& process);

/// While it lives, this process and the children run on one and the same processor, or this process
/// on one and the children on another.
class Pinned {
 public:
  enum Places { together, apart };
  explicit Pinned(const std::vector<const Process*>& children, Places places = together);
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

}  // namespace portsvc::bench
