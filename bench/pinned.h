// Processes bound to a processor.
#pragma once

#include <sched.h>

#include <string>
#include <vector>

#include "tests/support/process.h"

namespace portsvc::bench {

/// While it lives, this process and the others run on one and the same processor.
class Pinned {
 public:
  explicit Pinned(const std::vector<const Process*>& others);
  ~Pinned();
  Pinned(const Pinned&) = delete;
  Pinned& operator=(const Pinned&) = delete;

  /// How a row calls it.
  static constexpr const char* processors = "one";

 private:
  std::vector<pid_t> processes_;
  cpu_set_t before_;
};

}  // namespace portsvc::bench
