#include "core/port_factory_i.h"

#include <ace/Guard_T.h>

#include <new>

#include "core/port_id_generator.h"
#include "middleware/interface_name.h"
#include "persistence/servant_hooks.h"
#include "platform/clock.h"
#include "platform/counters.h"
#include "platform/limits.h"
#include "platform/process.h"
#include "ports/servant_hooks.h"

using namespace portsvc;

Port_Factory_i::Port_Factory_i(const char* interface_name)
    : interface_name_(interface_name), housekeeping_(this) {
  remove_file(get_snap_path());
  {
    ACE_GUARD(ACE_Recursive_Thread_Mutex, guard, registry_lock_);
    seed_port_ids(static_cast<unsigned int>(calendar_seconds()) + process_id());
    next_handle_ = first_client_handle;
    handle_limit_ = client_handle_limit;
  }
  VARO_UTIL_API::parse_interface(interface_name, first_part_, second_part_);
  data_sender_.reset(new (std::nothrow) vrData_Sender(second_part_.c_str()));
  housekeeping_.activate(0, 1, 0, 0, -1);
}

Port_Factory_i::~Port_Factory_i() {
  stop_housekeeping();
  data_sender_.reset();
  ACE_GUARD(ACE_Recursive_Thread_Mutex, guard, registry_lock_);
  (void)registry_.take_all();
  events_.clear();
}

void Port_Factory_i::stop_housekeeping() {
  housekeeping_.stop();
  housekeeping_.wait();
}

void Port_Factory_i::SetReleam(const char* realm) { realm_ = realm; }

boost::shared_ptr<Port_impl> Port_Factory_i::get_port(const char* name) {
  ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, registry_lock_, {});
  return registry_.find(name);
}

boost::shared_ptr<Port_impl> Port_Factory_i::get_port(unsigned int id) {
  ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, registry_lock_, {});
  return registry_.find_id(id);
}

boost::shared_ptr<Port_impl> Port_Factory_i::find_port(unsigned int handle) {
  ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, registry_lock_, {});
  return registry_.find_client(handle);
}

unsigned int Port_Factory_i::last_handle() {
  ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, registry_lock_, first_client_handle);
  return registry_.last_id();
}

Server_Figures Port_Factory_i::figures() {
  Server_Figures figures;
  for (const auto& port : ports_in_name_order([](Port_impl&) { return true; })) {
    figures.ports.push_back(port->figures());
  }
  {
    ACE_READ_GUARD_RETURN(ACE_RW_Thread_Mutex, guard, event_lock_, figures);
    figures.subscriptions = events_.subscriptions();
  }
  figures.snapshot = snapshot_state();
  figures.calls = orb::served_calls().read();
  figures.bytes_received = traffic().received.sum();
  figures.bytes_sent = traffic().sent.sum();
  figures.connections_taken = orb::connections_taken();
  const auto add = [&](const char* what, const Limit& limit, std::uint64_t used) {
    figures.limits.push_back({what, used, limit.most(), limit.refused()});
  };
  add("connections", limits().connections, orb::connections_served());
  add("blocked_calls", limits().blocked_calls, limits().blocked_calls.used());
  add("ports", limits().ports, figures.ports.size());
  add("queued_bytes", limits().queued_bytes, limits().queued_bytes.used());
  return figures;
}

// What ports and background tasks ask of their servant. These definitions stand here because every
// program that has a servant has this file linked in.

namespace portsvc::servant {

Varo::DT_PORT_SVC::Port_Factory_var get_remote_point(Port_Factory_i* servant) {
  return servant->get_remote_point();
}

void releaseRemotePoint(Port_Factory_i* servant) { servant->releaseRemotePoint(); }

int process_event_data(Port_Factory_i* servant, Port_impl* port, unsigned int handle,
                       const vrBuffer& data, bool front) {
  return servant->process_event_data(port, handle, data, front);
}

std::uint64_t peer_life(Port_Factory_i* servant, Varo::DT_PORT_SVC::Port_Factory_ptr peer,
                        bool certainly) {
  return servant->peer_life(peer, certainly);
}

void note_peer_handle(Port_Factory_i* servant, unsigned int handle, std::uint64_t life,
                      PeerHandle now) {
  servant->note_peer_handle(handle, life, now);
}

void note_peer_owner(Port_Factory_i* servant, Port_impl* port,
                     Varo::DT_PORT_SVC::Port_Factory_ptr peer) {
  servant->note_peer_owner(port, peer);
}

void make_snapshot(Port_Factory_i* servant) { servant->make_snapshot(); }

void check_no_transition(Port_Factory_i* servant) { servant->checkNoTransition(); }

}  // namespace portsvc::servant
