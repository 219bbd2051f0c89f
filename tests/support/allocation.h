// Memory that runs out when a test says so.
#pragma once

namespace portsvc {

/// While it lives, allocations of this thread that report failure by a null pointer do so.
class NoMemory {
 public:
  NoMemory();
  ~NoMemory();
  NoMemory(const NoMemory&) = delete;
  NoMemory& operator=(const NoMemory&) = delete;
};

/// Fails one allocation of this thread, of whatever form, after `good` that succeed.
class FailingAllocation {
 public:
  explicit FailingAllocation(int good);
  ~FailingAllocation();
  FailingAllocation(const FailingAllocation&) = delete;
  FailingAllocation& operator=(const FailingAllocation&) = delete;
  /// True when it has come to that.
  bool failed() const;
};

}  // namespace portsvc
