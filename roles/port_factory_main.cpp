#include "roles/port_factory_main.h"

#include <ace/Guard_T.h>

#include <boost/make_shared.hpp>

#include "core/out_values.h"
#include "core/port_id_generator.h"
#include "middleware/server_list.h"
#include "ports/port_creator.h"
#include "ports/wire.h"

using namespace portsvc;

Port_Factory_Main::Port_Factory_Main(const char* interface_name) : Port_Factory_i(interface_name) {
  Kestrum::ServerNameList list;
  Kestrum::GetServerNames("slave", list);
  for (int i = 0; i < list.count(); ++i) sub_servers_.emplace_back(list[i]);
}

Port_Factory_Main::~Port_Factory_Main() {
  stop_housekeeping();
  // All are asked before any is waited for: their pauses run side by side.
  for (const auto& task : tasks_) task.second->stop();
}

Varo::DT_PORT_SVC::Port_Factory_var Port_Factory_Main::get_remote_point() {
  return Varo::DT_PORT_SVC::Port_Factory::_nil();
}

CORBA::ULong Port_Factory_Main::connect_port(const char* name, CORBA::ULong_out handle,
                                             CORBA::ULong mode, CORBA::ULong access,
                                             CORBA::ULong_out owner) {
  const CORBA::ULong answer = Port_Factory_i::connect_port(name, handle, mode, access, owner);
  const Caller* const caller = Caller::of_this_thread();
  if (answer == result::ok && caller) known_subs_.opened(caller->server(), handle);
  return answer;
}

CORBA::ULong Port_Factory_Main::disconnect_port(CORBA::ULong handle) {
  known_subs_.closed(handle);
  return Port_Factory_i::disconnect_port(handle);
}

std::vector<std::string> Port_Factory_Main::end_silent_sub_servers(unsigned int rounds) {
  std::vector<std::string> names;
  for (const auto& [server, left_open] : known_subs_.next_round(rounds)) {
    disconnect_all(left_open);
    names.push_back(server);
  }
  return names;
}

void Port_Factory_Main::disconnect_all(const Sub_Servers::Handles& handles) {
  for (const unsigned int handle : handles) Port_Factory_i::disconnect_port(handle);
}

CORBA::ULong Port_Factory_Main::create_port(const char* name, CORBA::ULong kind,
                                            CORBA::ULong limit) try {
  ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, registry_lock_, result::servant_lock);
  if (registry_.find(name)) return result::ok;
  unsigned int id = next_port_id();
  while (registry_.has_id(id)) id = next_port_id();
  const auto port = ACE_Singleton<vrMainPort_Creator, ACE_Thread_Mutex>::instance()->create(
      name, id, limit, kind, this);
  if (!port) return result::bad_mode;
  if (!limits().ports.allows(registry_.size())) orb::refuse(refusal::ports);
  registry_.add(port, kind == PORT_EVENTBOX);
  return result::ok;
} catch (const std::bad_alloc&) {
  return no_memory(result::out_of_memory);
}

int Port_Factory_Main::process_event_data(Port_impl* port, unsigned int handle,
                                          const vrBuffer& data, bool front) {
  const auto event =
      boost::make_shared<Counted_Event>(handle, vrBuffer(data), Queued_Bytes(data.size()));
  port->push_event(event, front);
  for (const std::string& server : sub_servers_) {
    if (port->copy_enable() == 0) continue;
    auto request = std::make_unique<SendEventRequest>(port->name(), server.c_str(),
                                                      realm_.empty() ? nullptr : realm_.c_str(),
                                                      data, handle, front);
    if (EventSendTask* const task = task_for(port->name())) task->push_request(request.release());
  }
  return 0;
}

unsigned int Port_Factory_Main::forward_event(const char* box, std::string_view data) try {
  const auto port = get_port(box);
  if (!port || port->kind() != PORT_EVENTBOX) return result::unknown_name;
  const auto size = static_cast<unsigned int>(data.size());
  Queued_Bytes admitted;
  if (!admitted.take(size)) return result::out_of_memory;
  return port->forward(0, vrBuffer(size, data.data()), 0);
} catch (const std::bad_alloc&) {
  return no_memory(result::out_of_memory);
}

EventSendTask* Port_Factory_Main::task_for(const char* port_name) {
  ACE_GUARD_RETURN(ACE_Thread_Mutex, guard, task_table_lock_, nullptr);
  std::unique_ptr<EventSendTask>& task = tasks_[port_name];
  if (!task) {
    task = std::make_unique<EventSendTask>();
    task->activate(0, 1, 0, 0, -1);
  }
  return task.get();
}

Server_Figures Port_Factory_Main::figures() {
  Server_Figures figures = Port_Factory_i::figures();
  figures.sub_servers = sub_servers_;
  ACE_GUARD_RETURN(ACE_Thread_Mutex, guard, task_table_lock_, figures);
  // Both are in name order.
  auto port = figures.ports.begin();
  for (const auto& [name, task] : tasks_) {
    const Forwarded copies = task->figures();
    figures.copies.pending += copies.pending;
    figures.copies.sent += copies.sent;
    figures.copies.lost += copies.lost;
    while (port != figures.ports.end() && port->name < name) ++port;
    if (port != figures.ports.end() && port->name == name) port->copies = copies;
  }
  return figures;
}

CORBA::ULong Port_Factory_Main::update(const char* name, unsigned int handle,
                                       const Varo::DATA_BUFFER& data, bool front) try {
  const auto port = get_port(name);
  if (!port) return result::unknown_handle;
  const auto event = event_from_wire(handle, data, orb::may_take_arguments());
  port->push_event(event, front);
  return result::ok;
} catch (const std::bad_alloc&) {
  return no_memory(result::out_of_memory);
}

CORBA::ULong Port_Factory_Main::update_port(const char* name, CORBA::ULong handle,
                                            const Varo::DATA_BUFFER& data) {
  return update(name, handle, data, false);
}

CORBA::ULong Port_Factory_Main::update_port_front(const char* name, CORBA::ULong handle,
                                                  const Varo::DATA_BUFFER& data) {
  return update(name, handle, data, true);
}

CORBA::ULong Port_Factory_Main::sendEvcDatatoSlave(const char* name, CORBA::Long enable) {
  return static_cast<CORBA::ULong>(copy_enable(name, enable));
}

CORBA::ULong Port_Factory_Main::push_remote_consumer(const char*) { return result::ok; }

void Port_Factory_Main::enter_master(const char* name, const char* server) {
  if (!add_master(name, server)) return;
  // The oldest names that are no ports here make room. Few are looked at, in turn, so that an entry
  // costs the same however many there are.
  ACE_GUARD(ACE_Recursive_Thread_Mutex, registry_guard, registry_lock_);
  ACE_GUARD(ACE_Thread_Mutex, guard, master_lock_);
  for (int looked_at = 0; looked_at < 8 && masters_.size() > most_masters; ++looked_at) {
    const auto oldest = masters_by_age_.front();
    if (registry_.find(oldest->first)) {
      masters_by_age_.splice(masters_by_age_.end(), masters_by_age_, masters_by_age_.begin());
    } else {
      masters_by_age_.pop_front();
      masters_.erase(oldest);
    }
  }
}

bool Port_Factory_Main::add_master(const char* name, const char* server) {
  ACE_GUARD_RETURN(ACE_Thread_Mutex, guard, master_lock_, false);
  const auto [entry, added] = masters_.emplace(name, server);
  if (added) {
    try {
      masters_by_age_.push_back(entry);
    } catch (...) {
      masters_.erase(entry);
      throw;
    }
  }
  return masters_.size() > most_masters;
}

CORBA::ULong Port_Factory_Main::force_toslave(const char* server, const char* name) try {
  if (Sub_Servers::is_mark(name)) {
    disconnect_all(known_subs_.enter(name, server));
  } else {
    enter_master(name, server);
  }
  return result::ok;
} catch (const std::bad_alloc&) {
  return no_memory(result::out_of_memory);
}

void Port_Factory_Main::set_notify_port(const char* name) {
  enter_master(name, interface_name_.c_str());
}

CORBA::ULong Port_Factory_Main::inquire_master(const char* name, CORBA::String_out master) try {
  std::string server;
  bool known = false;
  if (Sub_Servers::is_mark(name)) {
    server = known_subs_.ask(name);
    known = !server.empty();
  } else {
    ACE_GUARD_RETURN(ACE_Thread_Mutex, guard, master_lock_, result::servant_lock);
    const auto found = masters_.find(std::string_view(name));
    known = found != masters_.end();
    if (known) server = found->second;
  }
  master = CORBA::string_dup(server.c_str());
  return known ? result::ok : result::unknown_name;
} catch (const std::bad_alloc&) {
  master = CORBA::string_dup("");
  return no_memory(result::out_of_memory);
}

CORBA::ULong Port_Factory_Main::get_remote_sub(Varo::STRING_LIST_out list) try {
  std::vector<ACE_CString> consumers;
  if (data_sender_) data_sender_->get_consumer_list(consumers);
  auto* const names = fresh<Varo::STRING_LIST>(list);
  if (!names) return result::out_of_memory;
  if (consumers.empty()) return result::no_consumers;
  if (!set_length(*names, consumers.size())) return result::out_of_memory;
  for (unsigned int i = 0; i < consumers.size(); ++i) {
    (*names)[i] = CORBA::string_dup(consumers[i].c_str());
  }
  return result::ok;
} catch (const std::bad_alloc&) {
  return no_memory(result::out_of_memory);
}
