// Events: put into one box by name, or declared under a code to every box subscribed to it.

#include <ace/Guard_T.h>

#include <algorithm>
#include <boost/make_shared.hpp>
#include <utility>

#include "core/out_values.h"
#include "core/port_factory_i.h"
#include "ports/event_box.h"
#include "ports/wire.h"

using namespace portsvc;

Event_ptr Port_Factory_i::make_event(const Varo::DATA_BUFFER& data, bool may_take) {
  return event_from_wire(0, data, may_take);
}

CORBA::ULong Port_Factory_i::add_event(const char* name, CORBA::ULong code) try {
  ACE_WRITE_GUARD_RETURN(ACE_RW_Thread_Mutex, guard, event_lock_, result::servant_lock);
  return events_.add(name, static_cast<int>(code)) ? result::ok : result::already_subscribed;
} catch (const std::bad_alloc&) {
  return no_memory(result::out_of_memory);
}

unsigned int Port_Factory_i::subscribers(int code,
                                         boost::shared_ptr<const Event_Table::Names>& names) {
  ACE_READ_GUARD_RETURN(ACE_RW_Thread_Mutex, guard, event_lock_, result::servant_lock);
  if (events_.empty()) return result::no_subscriptions;
  names = events_.names(code);
  return names && !names->empty() ? result::ok : result::not_subscribed;
}

CORBA::ULong Port_Factory_i::declare_event(CORBA::ULong code, const Varo::DATA_BUFFER& data,
                                           CORBA::ULong) try {
  boost::shared_ptr<const Event_Table::Names> names;
  if (const unsigned int failure = subscribers(static_cast<int>(code), names)) return failure;
  const Event_ptr event = make_event(data, orb::may_take_arguments());
  for (const std::string& name : *names) {
    if (const auto port = get_port(name.c_str())) port->push_event(event);
  }
  return result::ok;
} catch (const std::bad_alloc&) {
  return no_memory(result::out_of_memory);
}

CORBA::ULong Port_Factory_i::declare_event_n(CORBA::ULong code, const Varo::DATA_BUFFER_SEQ& list,
                                             CORBA::ULong) try {
  boost::shared_ptr<const Event_Table::Names> names;
  if (const unsigned int failure = subscribers(static_cast<int>(code), names)) return failure;
  const bool may_take = orb::may_take_arguments();
  std::vector<boost::shared_ptr<vrEventBox>> boxes;
  std::size_t wanted = 0;
  for (const std::string& name : *names) {
    auto box = boost::dynamic_pointer_cast<vrEventBox>(get_port(name.c_str()));
    if (!box) continue;
    wanted = std::max(wanted, vrEventBox::most_kept(*box));
    boxes.push_back(std::move(box));
  }
  // Of more events than any box keeps the oldest are not made.
  const std::size_t count = std::min<std::size_t>(wanted, list.length());
  std::vector<Event_ptr> events;
  events.reserve(count);
  for (std::size_t i = list.length() - count; i < list.length(); ++i) {
    events.push_back(make_event(list[static_cast<CORBA::ULong>(i)], may_take));
  }
  for (const auto& box : boxes) {
    box->push_events(events);
    box->count_never_made(list.length() - count);
  }
  return result::ok;
} catch (const std::bad_alloc&) {
  return no_memory(result::out_of_memory);
}

CORBA::ULong Port_Factory_i::send_event(const char* name, const Varo::DATA_BUFFER& data) try {
  const auto port = get_port(name);
  if (!port) return result::unknown_name;
  port->push_event(make_event(data, orb::may_take_arguments()));
  return result::ok;
} catch (const std::bad_alloc&) {
  return no_memory(result::out_of_memory);
}

CORBA::ULong Port_Factory_i::event_count(const char* name, CORBA::ULong_out count) {
  const auto port = get_port(name);
  if (!port) return result::unknown_handle;
  count = port->event_count();
  return result::ok;
}

CORBA::ULong Port_Factory_i::clear_event(const char* name) {
  const auto port = get_port(name);
  if (!port) return result::unknown_handle;
  port->clear_events();
  return result::ok;
}

CORBA::ULong Port_Factory_i::setPersistent(const char* name, CORBA::Long flag) {
  // Looked up first: a sub server may have to ask its main server, which nobody waits for here.
  const auto box = boost::dynamic_pointer_cast<vrEventBox>(get_port(name));
  ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, registry_lock_, result::servant_lock);
  if (!box) return result::unknown_name;
  box->set_persistent(flag != 0);
  return result::ok;
}

CORBA::Long Port_Factory_i::copy_enable(const char* name, CORBA::Long flag) {
  const auto port = get_port(name);
  if (!port) return result::unknown_name;
  port->set_copy_enable(flag);
  return result::ok;
}
