// The sub role's copies of the main server's ports, and the ports it creates itself.

#include <ace/Guard_T.h>
#include <fmt/format.h>

#include <cerrno>
#include <new>

#include "core/out_values.h"
#include "platform/limits.h"
#include "platform/log.h"
#include "ports/port_creator.h"
#include "roles/port_factory_sub.h"

using namespace portsvc;
using Varo::DT_PORT_SVC::PORT_INFO;

namespace {

const vrPort_Creator* creator() {
  return ACE_Singleton<vrSubPort_Creator, ACE_Thread_Mutex>::instance();
}

}  // namespace

void Port_Factory_Sub::clon_all_object() {
  ACE_GUARD(ACE_Recursive_Thread_Mutex, guard, sub_lock_);
  const Port_Factory_var peer = get_remote_point();
  if (CORBA::is_nil(peer.in())) {
    log(Log_Level::warning, "clone", "no ports cloned: the main server is not reached");
    return;
  }
  std::size_t cloned = 0;
  std::size_t named = 0;
  try {
    const orb::CallTimeout scope;
    Varo::STRING_LIST_var ports;
    Varo::STRING_LIST_var boxes;
    if (peer->patch_object_name(ports.out(), boxes.out()) != result::ok) return;
    const auto clone_each = [&](const Varo::STRING_LIST& names) {
      for (CORBA::ULong i = 0; i < names.length(); ++i) {
        ++named;
        PORT_INFO info{};
        if (peer->get_port_info(names[i], info) != result::ok) continue;
        ACE_GUARD(ACE_Recursive_Thread_Mutex, registry_guard, registry_lock_);
        if (create_clon(names[i], info)) ++cloned;
      }
    };
    clone_each(ports.in());
    clone_each(boxes.in());
    log(cloned == named ? Log_Level::info : Log_Level::warning, "clone",
        fmt::format("{} of the main server's {} ports cloned", cloned, named));
  } catch (const CORBA::Exception& failure) {
    releaseRemotePoint();  // the copies made so far stay
    log(Log_Level::warning, "clone",
        fmt::format("{} ports cloned, then: {}", cloned, orb::describe(failure)));
  }
}

boost::shared_ptr<Port_impl> Port_Factory_Sub::create_clon(const char* name,
                                                           const PORT_INFO& info) {
  if (registry_.find(name)) return {};
  auto port = creator()->create(name, info.port_id, info.limit, info.kind, this);
  if (!port || !limits().ports.allows(registry_.size())) return {};
  registry_.add(port, info.kind == PORT_EVENTBOX);
  next_handle_ = registry_.last_id() + 1;
  return port;
}

boost::shared_ptr<Port_impl> Port_Factory_Sub::create_clon_port(const char* name) try {
  PORT_INFO info{};
  if (!ask_for(name, info)) return {};
  boost::shared_ptr<Port_impl> port;
  {
    ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, registry_lock_, {});
    if (auto first = registry_.find(name)) return first;  // somebody else was first
    port = create_clon(name, info);
  }
  if (port) log(Log_Level::debug, "clone", fmt::format("{} cloned", name));
  return port;
} catch (const std::bad_alloc&) {
  errno = ENOMEM;  // it is not here yet
  return {};
}

CORBA::ULong Port_Factory_Sub::create_port(const char* name, CORBA::ULong kind,
                                           CORBA::ULong limit) try {
  ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, registry_lock_, result::servant_lock);
  if (registry_.find(name)) return result::already_exists;
  while (registry_.in_use(next_handle_)) ++next_handle_;
  const auto port = creator()->create(name, next_handle_, limit, kind, this);
  if (!port) return result::bad_mode;
  if (!limits().ports.allows(registry_.size())) orb::refuse(refusal::ports);
  if (port->kind() == PORT_MASTER) {
    const std::lock_guard<std::mutex> unsettled(unsettled_lock_);
    unreported_.insert(name);  // a name that does not become a port is dropped when it is looked at
  }
  registry_.add(port, kind == PORT_EVENTBOX);
  ++next_handle_;
  return result::ok;
} catch (const std::bad_alloc&) {
  return no_memory(result::out_of_memory);
}
