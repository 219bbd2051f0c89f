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

}  // namespace portsvc
