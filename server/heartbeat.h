// What the service manager hears of a server that runs.
#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include "middleware/orb/orb.h"

namespace portsvc::server {

/// Says that the server is ready when it is made, and that it stops when it goes. In between, when
/// the service manager watches the server, a thread of its own calls the server over the network as
/// any client does and reports it alive when it has answered: a server that runs and answers nobody
/// is started again.
class Heartbeat {
 public:
  /// `served` is what `broker` serves; `status` says in words what the server does.
  Heartbeat(const orb::Broker& broker, CORBA::Object_ptr served, std::string status);
  /// Takes no longer than the call that is under way.
  ~Heartbeat();
  Heartbeat(const Heartbeat&) = delete;
  Heartbeat& operator=(const Heartbeat&) = delete;

 private:
  void beat(std::chrono::microseconds time);
  bool answered(std::chrono::microseconds time);

  const std::string status_;
  Varo::DT_PORT_SVC::Port_Factory_var
      server_;         // nil when nobody watches; calls take a client's way
  bool alive_ = true;  // what has been said last; the thread's alone

  std::mutex lock_;  ///< guards stop_; nothing is called under it
  std::condition_variable stopped_;
  bool stop_ = false;
  std::thread thread_;
};

}  // namespace portsvc::server
