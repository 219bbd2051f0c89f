// A TCP relay in front of a server, which can be told to misbehave.
#pragma once

#include <ace/SOCK_Acceptor.h>
#include <ace/SOCK_Stream.h>

#include <atomic>
#include <list>
#include <mutex>
#include <thread>

namespace portsvc {

/// Listens on a free loopback port and passes on what comes to `target`, and back.
class Relay {
 public:
  explicit Relay(int target);
  ~Relay();
  Relay(const Relay&) = delete;
  Relay& operator=(const Relay&) = delete;

  int port() const { return port_; }
  /// Every chunk is passed on so much later; 0 again: at once.
  void delay(int milliseconds) { delay_ms_ = milliseconds; }
  /// Ends about one in `one_in` connections, in both directions or in one only.
  void cut(unsigned int one_in, bool half);

 private:
  struct Link {
    ~Link();
    ACE_SOCK_Stream ends[2];
    std::thread pumps[2];
    std::atomic<int> open{2};
  };

  void accept_all();
  void pump(Link& link, int from);

  const int target_;
  ACE_SOCK_Acceptor acceptor_;
  int port_;
  std::atomic<int> delay_ms_{0};
  std::atomic<bool> stop_{false};
  std::mutex lock_;  // guards links_
  std::list<Link> links_;
  unsigned int turn_ = 0;
  std::thread accepting_;
};

}  // namespace portsvc
