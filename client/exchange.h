// A client's side of the exchanges with a port's owner. For this folder only.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "client/link.h"

namespace portsvc::client::detail {

/// One thread at a time, but for cancel().
class Exchange {
 public:
  /// Connects, or throws Error.
  Exchange(std::shared_ptr<Link> link, std::string port, Access access);
  ~Exchange();
  Exchange(const Exchange&) = delete;
  Exchange& operator=(const Exchange&) = delete;

  Result send(Bytes packet, Wait& wait);
  Result wait_reply(Payload& reply, Wait& wait);
  /// Connects as another client unless all replies have been taken.
  void give_up_replies();

  Link& link() const { return *link_; }
  const std::string& port() const { return port_; }
  Access access() const { return access_; }
  bool ended() const { return ended_.load(); }
  void cancel();

  /// Sees to it that the client is connected in the life that the server is in.
  Result hold();
  unsigned int handle() const { return handle_; }
  std::uint64_t life() const { return life_; }

 private:
  void give_up_handle();
  bool port_is_the_same();
  Result wait_through_proxy(Payload& reply, Wait& wait);

  const std::shared_ptr<Link> link_;
  const std::string port_;
  const Access access_;
  std::atomic<bool> ended_{false};
  unsigned int handle_ = 0;
  std::uint64_t life_ = 0;  // in which the handle is good, 0: in none
  unsigned int port_id_ = 0;
  bool through_proxy_ = false;
  unsigned int replies_due_ = 0;
};

}  // namespace portsvc::client::detail
