// Events from a command's output.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "observe/observed.h"
#include "roles/port_factory_main.h"
#include "server/options.h"

namespace portsvc::server {

/// Runs a command while it lives, hands each line of its output to an event box of the main server
/// within the process, so that sub servers get their copies, and starts the command anew when it
/// has ended: after a second, and after twice as long each time, up to a minute, unless it has run
/// for a minute.
///
/// A line that cannot be handed over, because there is no such box or because the limit of queued
/// bytes is reached, is tried again each second, and until it is in nothing more is read: the
/// command waits. A line longer than 1 MiB is cut. The log says what happens.
class Feed {
 public:
  /// The servant is not owned and must outlive the feed.
  Feed(Feed_Option option, Port_Factory_Main* servant);
  /// Ends the command and its children: SIGTERM, after two seconds SIGKILL.
  ~Feed();
  Feed(const Feed&) = delete;
  Feed& operator=(const Feed&) = delete;

  /// Begins to end, so that several feeds end side by side.
  void ask_to_stop();

  observe::Feed_Figures figures() const;

 private:
  void run();
  // Runs the command once, until it ends or the feed is asked to stop.
  void run_once();
  void hand_over(const std::string& line);
  // Sleeps; true when the feed has been asked to stop.
  bool stopped_within(std::chrono::seconds time);

  const Feed_Option option_;
  Port_Factory_Main* const servant_;
  std::atomic<bool> running_{false};
  std::atomic<std::uint64_t> starts_{0};
  std::atomic<std::uint64_t> lines_{0};

  mutable std::mutex lock_;  ///< guards stop_; nothing is called under it
  std::condition_variable asked_;
  bool stop_ = false;
  std::thread thread_;  // last: it uses the rest
};

}  // namespace portsvc::server
