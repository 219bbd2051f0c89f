#include "middleware/connect_manager.h"

#include <new>
#include <utility>

#include "middleware/reference_container.h"
#include "platform/time_value.h"

using Varo::DT_PORT_SVC::Port_Factory;
using Varo::DT_PORT_SVC::Port_Factory_ptr;
using Varo::DT_PORT_SVC::Port_Factory_var;

vrConnect_Manager::vrConnect_Manager(const char* server, const char* realm, CORBA::Object_var self,
                                     ACE_Reactor* reactor)
    : server_(server ? server : ""),
      realm_(realm ? realm : ""),
      self_(self),
      reactor_(reactor),
      timer_(*this) {}

vrConnect_Manager::~vrConnect_Manager() { stop(); }

void vrConnect_Manager::set_period(std::chrono::milliseconds period) { period_ = period; }

void vrConnect_Manager::start() {
  {
    const std::lock_guard<std::mutex> guard(lock_);
    if (running_) return;
    running_ = true;
  }
  schedule(std::chrono::milliseconds(0));
}

void vrConnect_Manager::stop() {
  {
    std::unique_lock<std::mutex> guard(lock_);
    running_ = false;
    if (beating_ != std::this_thread::get_id()) {
      beat_ended_.wait(guard, [this] { return beating_ == std::thread::id(); });
    }
  }
  reactor_->cancel_timer(&timer_);
}

int vrConnect_Manager::Timer::handle_timeout(const ACE_Time_Value&, const void*) {
  manager_.run_beat();
  return 0;
}

void vrConnect_Manager::schedule(std::chrono::milliseconds delay) {
  reactor_->schedule_timer(&timer_, nullptr, portsvc::time_value(delay));
}

void vrConnect_Manager::run_beat() {
  {
    const std::lock_guard<std::mutex> guard(lock_);
    if (!running_) return;
    beating_ = std::this_thread::get_id();
  }
  try {
    beat();
  } catch (const std::bad_alloc&) {
    reached_ = false;  // what was not done is done at the next
  }
  // Under the lock, so that stop() cancels what is scheduled here.
  const std::lock_guard<std::mutex> guard(lock_);
  if (running_) schedule(period_);
  beating_ = std::thread::id();
  beat_ended_.notify_all();
}

void vrConnect_Manager::beat() {
  const Port_Factory_var peer = probe();
  const Seen seen = CORBA::is_nil(peer.in()) ? Seen::nobody : look_at(peer.in());
  if (seen == Seen::nobody) {
    reached_ = false;
  } else if (!reached_ || seen == Seen::another) {
    CORBA::Object_var object = CORBA::Object::_duplicate(peer);
    reached_ = on_connected(object) == 0;
  }
  on_heartbeat();
}

vrConnect_Manager::Seen vrConnect_Manager::look_at(Port_Factory_ptr peer) {
  // Read after the probe, which reconnects when the peer was restarted, and before the hook, whose
  // own connections may already belong to yet another start of the peer.
  const std::uint64_t connections = portsvc::orb::connections_opened(peer);
  const bool same = connections == connections_seen_;
  connections_seen_ = connections;
  return same ? Seen::same : Seen::another;
}

Port_Factory_ptr vrConnect_Manager::probe() {
  vrReferenceContainer* const references = vrReferenceContainer::instance();
  references->FollowDirectory(server_.c_str(), realm_.c_str());
  Port_Factory_var peer =
      references->GetPortReferenceWithServerName(server_.c_str(), realm_.c_str());
  if (CORBA::is_nil(peer.in())) return Port_Factory::_nil();
  try {
    const portsvc::orb::CallTimeout limit;
    peer->heart_bit();
  } catch (const CORBA::Exception&) {
    references->ReleasePortReference(server_.c_str(), realm_.c_str());
    return Port_Factory::_nil();
  }
  return peer._retn();
}
