#include "roles/port_factory_sub.h"

#include <ace/Guard_T.h>

#include <boost/make_shared.hpp>

#include "core/out_values.h"
#include "middleware/reference_container.h"
#include "ports/event_box.h"
#include "ports/wire.h"

using namespace portsvc;
using Peer = Varo::DT_PORT_SVC::Port_Factory;

namespace {

// The key under which a consumer's reference to the port service is found.
constexpr const char* consumer_key = "ref_key_data_port_naming_service";
constexpr const char* no_master = "DUMMY";

}  // namespace

Port_Factory_Sub::Port_Factory_Sub(const char* main_server, const char* interface_name,
                                   const char* realm, CORBA::ORB_var orb)
    : Port_Factory_i(interface_name), main_server_(main_server), orb_(orb) {
  if (realm) SetReleam(realm);
  do_init_operation();
}

Port_Factory_Sub::~Port_Factory_Sub() { stop_housekeeping(); }

Varo::DT_PORT_SVC::Port_Factory_var Port_Factory_Sub::get_remote_point() {
  return vrReferenceContainer::instance()->GetPortReferenceWithServerName(main_server_.c_str(),
                                                                          realm_.c_str());
}

void Port_Factory_Sub::releaseRemotePoint() {
  vrReferenceContainer::instance()->ReleasePortReference(main_server_.c_str(), realm_.c_str());
}

int Port_Factory_Sub::do_init_operation() {
  ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, registry_guard, registry_lock_,
                   result::servant_lock);
  ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, sub_lock_, result::servant_lock);
  clon_all_object();
  return result::ok;
}

boost::shared_ptr<Port_impl> Port_Factory_Sub::get_port(const char* name) {
  ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, registry_lock_, {});
  if (auto port = registry_.find(name)) return port;
  return create_clon_port(name);
}

unsigned int Port_Factory_Sub::back_call_(CORBA::Object_var& object) {
  {
    ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, sub_lock_, result::servant_lock);
    master_ = Peer::_nil();
    try {
      const orb::CallTimeout scope;
      master_ = Peer::_narrow(object.in());
      if (CORBA::is_nil(master_.in())) return result::failed;
      master_->push_remote_consumer(interface_name_.c_str());
    } catch (const CORBA::Exception&) {
      master_ = Peer::_nil();
      return result::failed;
    }
  }
  // Without the sub lock: reporting takes the registry lock, which comes before it.
  notify_masters();
  return result::ok;
}

int Port_Factory_Sub::notify_masters() {
  ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, registry_lock_, result::servant_lock);
  const auto ports = ports_in_name_order([](Port_impl& port) { return port.notify() != 0; });
  for (const auto& port : ports) {
    ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, sub_guard, sub_lock_, result::servant_lock);
    if (CORBA::is_nil(master_.in())) return static_cast<int>(result::failed);
    try {
      const orb::CallTimeout scope;
      master_->force_toslave(interface_name_.c_str(), port->name());
    } catch (const CORBA::Exception&) {
      master_ = Peer::_nil();
      return static_cast<int>(result::failed);
    }
  }
  return result::ok;
}

void Port_Factory_Sub::set_notify_port(const char* name) {
  const auto port = get_port(name);
  if (!port) return;
  ACE_GUARD(ACE_Recursive_Thread_Mutex, guard, sub_lock_);
  if (CORBA::is_nil(master_.in())) return;
  try {
    const orb::CallTimeout scope;
    master_->force_toslave(interface_name_.c_str(), name);
    port->set_notify(1);
  } catch (const CORBA::Exception&) {
    master_ = Peer::_nil();
  }
}

int Port_Factory_Sub::process_event_data(Port_impl* port, unsigned int handle, const vrBuffer& data,
                                         bool) {
  ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, sub_lock_, 0);
  const Port_Factory_var peer = get_remote_point();
  if (CORBA::is_nil(peer.in())) return result::no_peer;
  try {
    const orb::CallTimeout scope;
    const Varo::DATA_BUFFER_var bytes = to_wire(vrBuffer(data));
    peer->update_port(port->name(), handle, bytes.in());
  } catch (const CORBA::Exception&) {
    releaseRemotePoint();
  }
  return 0;
}

CORBA::ULong Port_Factory_Sub::update(const char* name, unsigned int handle,
                                      const Varo::DATA_BUFFER& data, bool front) {
  // Before the lookup: cloning may make calls of its own.
  const auto event = event_from_wire(handle, data, orb::may_take_arguments());
  auto port = get_port(name);
  if (!port) {
    ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, registry_lock_, result::failed);
    port = create_clon_port(name);
  }
  if (!port) return result::failed;
  if (front) {
    port->push_event_front(event);
  } else {
    port->push_event(event);
  }
  return result::ok;
}

CORBA::ULong Port_Factory_Sub::update_port(const char* name, CORBA::ULong handle,
                                           const Varo::DATA_BUFFER& data) {
  return update(name, handle, data, false);
}

CORBA::ULong Port_Factory_Sub::update_port_front(const char* name, CORBA::ULong handle,
                                                 const Varo::DATA_BUFFER& data) {
  return update(name, handle, data, true);
}

CORBA::ULong Port_Factory_Sub::packet_replay(CORBA::ULong handle, const Varo::DATA_BUFFER& data,
                                             CORBA::ULong timeout) {
  const auto port = find_port(handle);
  if (!port) return result::unknown_handle;
  // Only what reached an owner through a proxy carries the offset: the clients of a port that is
  // served here answer to the handle they were given.
  const unsigned int client = port->kind() == PORT_SLAVE ? handle - remote_client_offset : handle;
  const Queued_Bytes counted = admit(data.length());
  return port->replay(client, from_wire(data), timeout);
}

CORBA::ULong Port_Factory_Sub::sendEvcDatatoSlave(const char*, CORBA::Long) { return result::ok; }

CORBA::ULong Port_Factory_Sub::push_remote_consumer(const char* name) {
  if (data_sender_) data_sender_->push_remote_consumer(name, consumer_key);
  return result::ok;
}

CORBA::ULong Port_Factory_Sub::force_toslave(const char*, const char* name) {
  ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, registry_lock_, result::servant_lock);
  unsigned int limit = 0;
  {
    const auto port = get_port(name);
    if (!port) return result::unknown_name;
    limit = port->limit();
  }
  delete_port(name);
  return create_port(name, PORT_SLAVE, limit);
}

CORBA::ULong Port_Factory_Sub::inquire_master(const char* name, CORBA::String_out master) {
  const auto not_asked = [&] {
    master = CORBA::string_dup(no_master);
    return result::failed;
  };
  ACE_Guard<ACE_Recursive_Thread_Mutex> guard(sub_lock_);
  if (!guard.locked()) {
    master = CORBA::string_dup("");
    return result::servant_lock;
  }
  if (CORBA::is_nil(master_.in())) return not_asked();
  try {
    const orb::CallTimeout scope;
    CORBA::String_var text;
    const CORBA::ULong answer = master_->inquire_master(name, text.out());
    master = text._retn();
    return answer;
  } catch (const CORBA::Exception&) {
    master_ = Peer::_nil();
    return not_asked();
  }
}

CORBA::ULong Port_Factory_Sub::patch_object_name(Varo::STRING_LIST_out ports,
                                                 Varo::STRING_LIST_out boxes) {
  ACE_Guard<ACE_Recursive_Thread_Mutex> guard(registry_lock_);
  Port_Factory_var peer;
  if (guard.locked()) peer = get_remote_point();
  if (CORBA::is_nil(peer.in())) return Port_Factory_i::patch_object_name(ports, boxes);

  Varo::STRING_LIST_var peer_ports;
  Varo::STRING_LIST_var peer_boxes;
  try {
    const orb::CallTimeout scope;
    const CORBA::ULong answer = peer->patch_object_name(peer_ports.out(), peer_boxes.out());
    ports = peer_ports._retn();
    boxes = peer_boxes._retn();
    return answer;
  } catch (const CORBA::Exception&) {
    releaseRemotePoint();
    const bool allocated = fresh<Varo::STRING_LIST>(ports) && fresh<Varo::STRING_LIST>(boxes);
    return allocated ? result::ok : result::out_of_memory;
  }
}

CORBA::ULong Port_Factory_Sub::get_remote_sub(Varo::STRING_LIST_out list) {
  fresh<Varo::STRING_LIST>(list);
  return result::ok;
}

void Port_Factory_Sub::heart_bit() { ACE_GUARD(ACE_Recursive_Thread_Mutex, guard, sub_lock_); }
