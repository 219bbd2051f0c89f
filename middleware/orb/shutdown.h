// The end of a broker. For this folder only.
#pragma once

#include <chrono>
#include <future>
#include <thread>

#include "middleware/orb/orb.h"

namespace portsvc::orb {

/// Shuts a broker down without waiting for ever: the broker itself waits for the calls under way
/// without a limit, so a thread does that waiting and may be left behind.
class PatientShutdown {
 public:
  /// Waits for the end of a shutdown.
  ~PatientShutdown();

  /// Begins the shutdown if that has not been done. Whether it has ended within `patience`.
  bool run(CORBA::ORB_ptr orb, std::chrono::milliseconds patience);

 private:
  std::thread thread_;
  std::future<void> ended_;
};

}  // namespace portsvc::orb
