// From a client handle to the ports that hold it, so that finding a client's port does not walk
// all ports.
#pragma once

#include <ace/Thread_Mutex.h>

#include <unordered_map>

class Port_impl;

namespace portsvc {

/// The index of one servant. The ports in its port table keep it up to date themselves, each under
/// its own connection lock; a port enters with Port_impl::join_index and leaves with
/// Port_impl::leave_index. Thread-safe.
class Client_Index {
 public:
  void add(unsigned int handle, Port_impl* port);
  void remove(unsigned int handle, Port_impl* port);

  /// Of the ports that hold `handle` the first in name order; nullptr when there is none. The
  /// pointer is good as long as the caller keeps ports from leaving the port table.
  Port_impl* first(unsigned int handle) const;

 private:
  mutable ACE_Thread_Mutex lock_;  // guards ports_; a leaf
  std::unordered_multimap<unsigned int, Port_impl*> ports_;
};

}  // namespace portsvc
