// SIGTERM and SIGINT.
#pragma once

#include <chrono>
#include <future>
#include <thread>

namespace portsvc::server {

/// Takes the two signals for the process. The first asks it to stop; from then on it has `grace` to
/// do so. When that has passed, or at another signal, the process ends where it stands, with
/// status 0: a call to a silent peer or a blocked caller cannot hold up a stop, and everything
/// the server keeps for a later run has been written when it was made.
///
/// Made once, before any other thread, because threads inherit what is blocked. Its thread lasts as
/// long as the process.
class StopSignal {
 public:
  explicit StopSignal(std::chrono::seconds grace);

  /// Waits for the first signal, for at most `time`. Whether it has arrived.
  bool wait_for(std::chrono::seconds time) {
    return asked_.wait_for(time) == std::future_status::ready;
  }

 private:
  std::future<void> asked_;
};

/// Ends the process at once: standard output is flushed, nothing is destroyed.
[[noreturn]] void end_process(int status);

}  // namespace portsvc::server
