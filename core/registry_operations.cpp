// Connections and registry.

#include <ace/Guard_T.h>

#include <algorithm>
#include <utility>

#include "core/out_values.h"
#include "core/port_factory_i.h"
#include "platform/wait.h"
#include "ports/event_box.h"

using namespace portsvc;
using Varo::STRING_LIST;
using Varo::DT_PORT_SVC::ConnectionSeq;

namespace {

// Once a port is out of the registry. A wake-up missed for lack of memory costs a pause.
void wake(Port_impl& port) {
  try {
    port.wake_everybody();
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
  }
}

}  // namespace

CORBA::ULong Port_Factory_i::connect_port(const char* name, CORBA::ULong_out handle,
                                          CORBA::ULong mode, CORBA::ULong access,
                                          CORBA::ULong_out owner) try {
  owner = 0;
  const auto port = get_port(name);
  if (!port) return result::unknown_name;
  // What a caller was given that no longer hears of it would stay connected for ever.
  if (gone(Caller::of_this_thread())) return result::not_connected;

  switch (mode) {
    case CONNECT_CLIENT: {
      if (!port->has_room()) orb::refuse(refusal::clients);
      // The port enters the client under the lock, so that nobody else is given its number.
      ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, registry_lock_, result::servant_lock);
      do {
        if (next_handle_ >= handle_limit_) next_handle_ = client_handle_restart;
        handle = next_handle_++;
      } while (registry_.in_use(handle));
      return port->connect(handle, CONNECT_CLIENT, access, owner);
    }
    case CONNECT_OWNER:
      handle = port->port_id();
      return port->connect(handle, CONNECT_OWNER, access, owner);
    default:
      return result::bad_mode;
  }
} catch (const std::bad_alloc&) {
  return no_memory(result::out_of_memory);
}

CORBA::ULong Port_Factory_i::set_connected_host(const char* name, const char* host) try {
  if (const auto port = get_port(name)) port->set_connected_host(host);
  return result::ok;
} catch (const std::bad_alloc&) {
  return no_memory(result::out_of_memory);
}

CORBA::ULong Port_Factory_i::disconnect_port(CORBA::ULong handle) try {
  auto port = get_port(handle);
  if (!port) port = find_port(handle);
  return port ? port->disconnect(handle) : result::unknown_handle;
} catch (const std::bad_alloc&) {
  return no_memory(result::out_of_memory);
}

CORBA::Long Port_Factory_i::exist(const char* name) {
  return static_cast<CORBA::Long>(get_port(name) ? result::ok : result::unknown_name);
}

CORBA::ULong Port_Factory_i::delete_port(const char* name) try {
  boost::shared_ptr<Port_impl> port;  // let go after the lock
  {
    ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, registry_lock_, result::servant_lock);
    port = registry_.find(name);
    if (!port) return result::ok;
    if (port->kind() == PORT_EVENTBOX) {
      ACE_WRITE_GUARD_RETURN(ACE_RW_Thread_Mutex, event_guard, event_lock_, result::servant_lock);
      events_.remove(name);
    }
    registry_.remove(*port);
  }
  wake(*port);
  return result::ok;
} catch (const std::bad_alloc&) {
  return no_memory(result::out_of_memory);
}

CORBA::ULong Port_Factory_i::get_port_info(const char* name,
                                           Varo::DT_PORT_SVC::PORT_INFO_out info) {
  const auto port = get_port(name);
  if (!port) return result::no_such_port;
  unsigned int access = 0;
  unsigned int kind = 0;
  unsigned int limit = 0;
  bool connected = false;
  port->info(access, kind, connected, limit);
  info.kind = kind;
  info.port_id = port->port_id();
  info.owner_connected = connected ? 1 : 0;
  info.owner_access = access;
  info.limit = limit;
  return result::ok;
}

CORBA::ULong Port_Factory_i::current_connection(Varo::DT_PORT_SVC::ConnectionSeq_out list) try {
  auto* const connections = fresh<ConnectionSeq>(list);
  if (!connections) return result::failed;

  std::vector<std::pair<std::string, std::string>> hosts;
  {
    ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, registry_lock_, result::servant_lock);
    registry_.for_each([&](const boost::shared_ptr<Port_impl>& port) {
      std::string host = port->connected_host();
      if (!host.empty()) hosts.emplace_back(port->name(), std::move(host));
    });
  }
  std::sort(hosts.begin(), hosts.end());

  if (!set_length(*connections, hosts.size())) return result::failed;
  for (unsigned int i = 0; i < hosts.size(); ++i) {
    (*connections)[i].port_name = CORBA::string_dup(hosts[i].first.c_str());
    (*connections)[i].host = CORBA::string_dup(hosts[i].second.c_str());
  }
  return result::ok;
} catch (const std::bad_alloc&) {
  return no_memory(result::failed);
}

void Port_Factory_i::clearAll() {
  Port_Registry::Ports ports;  // let go after the locks, like the table
  Event_Table events;
  {
    ACE_GUARD(ACE_Recursive_Thread_Mutex, guard, registry_lock_);
    ports = registry_.take_all();
    ACE_WRITE_GUARD(ACE_RW_Thread_Mutex, event_guard, event_lock_);
    std::swap(events, events_);
  }
  for (const auto& entry : ports) wake(*entry.second.port);
}

CORBA::ULong Port_Factory_i::patch_object_name(Varo::STRING_LIST_out ports,
                                               Varo::STRING_LIST_out boxes) try {
  auto* const port_names = fresh<STRING_LIST>(ports);
  auto* const box_names = fresh<STRING_LIST>(boxes);
  if (!port_names || !box_names) return result::out_of_memory;
  ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, registry_lock_, result::servant_lock);
  const bool filled =
      fill(*port_names, registry_.port_names()) && fill(*box_names, registry_.box_names());
  return filled ? result::ok : result::out_of_memory;
} catch (const std::bad_alloc&) {
  return no_memory(result::out_of_memory);
}

void Port_Factory_i::heart_bit() {}

CORBA::ULong Port_Factory_i::gen_evc_code(CORBA::ULong_out) { return result::ok; }
