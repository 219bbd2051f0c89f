#include "server/heartbeat.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "platform/limits.h"
#include "platform/process.h"
#include "server/messages.h"
#include "server/service_manager.h"

namespace portsvc::server {

using std::chrono::microseconds;
using std::chrono::milliseconds;

Heartbeat::Heartbeat(const orb::Broker& broker, CORBA::Object_ptr served, std::string status)
    : status_(std::move(status)) {
  const microseconds time = watchdog_time();
  if (time.count() != 0) {
    const CORBA::Object_var server = broker.from_outside(served);
    server_ = Varo::DT_PORT_SVC::Port_Factory::_unchecked_narrow(server.in());
    thread_ = std::thread([this, time] { beat(time); });
  }
  report_ready(status_);
}

Heartbeat::~Heartbeat() {
  report_stopping();
  {
    const std::lock_guard<std::mutex> guard(lock_);
    stop_ = true;
  }
  stopped_.notify_all();
  if (thread_.joinable()) thread_.join();
}

void Heartbeat::beat(microseconds time) {
  name_this_thread("heartbeat");
  // Twice within the time, so that one slow answer is no death.
  const microseconds pause = time / 4;
  std::unique_lock<std::mutex> guard(lock_);
  do {
    guard.unlock();
    const bool alive = answered(time / 4);
    if (alive) report_alive();
    if (alive != alive_) report_status(alive ? status_ : "does not answer its own calls");
    alive_ = alive;
    guard.lock();
  } while (!stopped_.wait_for(guard, pause, [this] { return stop_; }));
}

bool Heartbeat::answered(microseconds time) {
  const auto refused = limits().connections.refused();
  try {
    const auto least = milliseconds(1);
    const auto patience = std::chrono::duration_cast<milliseconds>(time);
    const orb::CallTimeout limit(std::max(least, std::min(patience, orb::peer_call_timeout())));
    // A handle that nobody has: the call looks through the registry and changes nothing. Peers are
    // not asked, so their silence is not taken for this server's.
    (void)server_->disconnect_port(0);
    return true;
  } catch (const CORBA::Exception& exception) {
    // A server with as many connections as it may have refuses this one as well, and lives.
    if (limits().connections.refused() != refused) return true;
    if (alive_) tell("no answer to the server's own call: " + orb::describe(exception));
  }
  return false;
}

}  // namespace portsvc::server
