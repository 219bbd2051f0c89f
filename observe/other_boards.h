// What other servers say of themselves.
#pragma once

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace portsvc::observe {

/// Asks the endpoints of other servers, on a thread of its own and only while somebody wants to
/// know: a question is answered with what is known, and has them asked again.
class Other_Boards {
 public:
  struct Server {
    std::string role;
    std::int64_t uptime = 0;
    std::string peer;  ///< its main server
    bool peer_up = false;
  };

  /// The servers' addresses, HOST:PORT, by name.
  explicit Other_Boards(std::map<std::string, std::string> addresses);
  ~Other_Boards();
  Other_Boards(const Other_Boards&) = delete;
  Other_Boards& operator=(const Other_Boards&) = delete;

  const std::map<std::string, std::string>& addresses() const { return addresses_; }

  /// By name those that have been asked since somebody last wanted to know; empty for one that has
  /// not answered.
  std::map<std::string, std::optional<Server>> known();

 private:
  void keep_asking();

  const std::map<std::string, std::string> addresses_;
  std::mutex lock_;  ///< guards the rest but the thread; nobody is asked under it
  std::condition_variable changed_;
  std::chrono::steady_clock::time_point wanted_until_{};
  std::map<std::string, std::optional<Server>> known_;
  bool stop_ = false;
  std::thread thread_;
};

}  // namespace portsvc::observe
