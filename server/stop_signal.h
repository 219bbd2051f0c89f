// SIGTERM, SIGINT and SIGHUP.
#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>

namespace portsvc::server {

enum class Asked { nothing, reload, stop };

/// Takes the three signals for the process. SIGHUP asks it to reload and never ends it. The first
/// of the other two asks it to stop; from then on it has `grace` to do so. When that has passed, or
/// at another of the two, the process ends where it stands, with status 0: a call to a silent peer
/// or a blocked caller cannot hold up a stop, and everything the server keeps for a later run has
/// been written when it was made.
///
/// Made once, before any other thread, because threads inherit what is blocked. Its thread lasts as
/// long as the process.
class StopSignal {
 public:
  explicit StopSignal(std::chrono::seconds grace);

  /// Waits for at most `time` to be asked for something. Several requests to reload that come
  /// while nobody waits are one.
  Asked wait_for(std::chrono::seconds time);

  /// The signal that asked for the stop; 0 before.
  int stopped_by() const;

 private:
  struct State {
    std::mutex lock;  ///< guards stop and reload; nothing is called under it
    std::condition_variable asked;
    int stop = 0;  ///< the signal
    bool reload = false;
  };
  std::shared_ptr<State> state_;  // the thread's as well
};

/// Ends the process at once: standard output is flushed, nothing is destroyed.
[[noreturn]] void end_process(int status);

}  // namespace portsvc::server
