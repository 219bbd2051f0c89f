#include "roles/port_factory_sub.h"

#include <ace/Guard_T.h>
#include <ace/OS_NS_sys_time.h>
#include <fmt/format.h>

#include <algorithm>
#include <boost/make_shared.hpp>
#include <random>

#include "core/out_values.h"
#include "middleware/reference_container.h"
#include "platform/clock.h"
#include "platform/log.h"
#include "platform/time_value.h"
#include "ports/event_box.h"
#include "ports/slave_port.h"
#include "ports/wire.h"

using namespace portsvc;
using Peer = Varo::DT_PORT_SVC::Port_Factory;
using std::chrono::steady_clock;

namespace {

// The key under which a consumer's reference to the port service is found.
constexpr const char* consumer_key = "ref_key_data_port_naming_service";
constexpr const char* no_master = "DUMMY";

// About a beat of the connection manager.
constexpr std::chrono::seconds after_lost_time(1);
// A failure that took less has cost nobody anything.
constexpr std::chrono::milliseconds lost_time(200);

}  // namespace

Port_Factory_Sub::Port_Factory_Sub(const char* main_server, const char* interface_name,
                                   const char* realm, CORBA::ORB_var orb)
    : Port_Factory_i(interface_name),
      main_server_(main_server),
      orb_(orb),
      owner_note_(std::string("owner at ") + interface_name),
      life_(interface_name),
      time_lost_at_((steady_clock::now() - after_lost_time).time_since_epoch().count()) {
  peer_.name = main_server;
  peer_.since = calendar_seconds();
  if (realm) SetReleam(realm);
  do_init_operation();
}

Port_Factory_Sub::~Port_Factory_Sub() { stop_housekeeping(); }

Varo::DT_PORT_SVC::Port_Factory_var Port_Factory_Sub::get_remote_point() {
  if (leads_back_) return Peer::_nil();
  return vrReferenceContainer::instance()->GetPortReferenceWithServerName(main_server_.c_str(),
                                                                          realm_.c_str());
}

void Port_Factory_Sub::releaseRemotePoint() {
  vrReferenceContainer::instance()->ReleasePortReference(main_server_.c_str(), realm_.c_str());
}

/// An exchange with the main server under the sub lock that is given up when one call time-out has
/// passed, the wait for the lock included. Within another exchange of the same thread it does not
/// begin: a main server that is this very server calls it in the same thread.
class Port_Factory_Sub::Exchange {
 public:
  explicit Exchange(ACE_Recursive_Thread_Mutex& lock) : lock_(lock) {
    if (under_way) return;
    ACE_Time_Value until = ACE_OS::gettimeofday() + time_value(orb::peer_call_timeout());
    begun_ = under_way = lock_.acquire(until) == 0;
  }
  ~Exchange() {
    if (!begun_) return;
    under_way = false;
    lock_.release();
  }
  Exchange(const Exchange&) = delete;
  Exchange& operator=(const Exchange&) = delete;

  bool begun() const { return begun_; }
  steady_clock::duration lasts() const { return steady_clock::now() - start_; }
  std::chrono::milliseconds time_left() const {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(orb::peer_call_timeout() - lasts());
    return std::max(left, std::chrono::milliseconds(1));
  }

 private:
  static thread_local bool under_way;

  ACE_Recursive_Thread_Mutex& lock_;
  const steady_clock::time_point start_ = steady_clock::now();
  bool begun_ = false;
};

thread_local bool Port_Factory_Sub::Exchange::under_way = false;

bool Port_Factory_Sub::ask_for(const char* name, Varo::DT_PORT_SVC::PORT_INFO& info) {
  const Exchange exchange(sub_lock_);
  // Whoever waited for the lock is spared the time that its holder has lost.
  const steady_clock::time_point lost{steady_clock::duration(time_lost_at_.load())};
  if (!exchange.begun() || steady_clock::now() < lost + after_lost_time) return false;
  const orb::CallTimeout scope(exchange.time_left());  // also for finding it anew
  const Port_Factory_var peer = get_remote_point();
  bool known = false;
  bool failed = CORBA::is_nil(peer.in());
  if (!failed) try {
      known = peer->get_port_info(name, info) == result::ok;
    } catch (const CORBA::Exception&) {
      releaseRemotePoint();
      failed = true;
    }
  if (failed && exchange.lasts() >= lost_time) {
    time_lost_at_ = steady_clock::now().time_since_epoch().count();
  }
  return known;
}

int Port_Factory_Sub::do_init_operation() {
  // Each copy takes the registry lock: the order is always sub lock, then registry lock.
  ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, sub_lock_, result::servant_lock);
  clon_all_object();
  return result::ok;
}

boost::shared_ptr<Port_impl> Port_Factory_Sub::get_port(const char* name) {
  if (auto port = Port_Factory_i::get_port(name)) return port;
  return create_clon_port(name);
}

void Port_Factory_Sub::note_main_server(bool reached) {
  {
    const std::lock_guard<std::mutex> guard(peer_lock_);
    if (reached == peer_.up) return;
    peer_.up = reached;
    peer_.since = calendar_seconds();
    ++(reached ? peer_.found : peer_.lost);
  }
  if (reached) {
    log(Log_Level::info, "peer", fmt::format("main server {} found", main_server_.c_str()));
  } else {
    log(Log_Level::warning, "peer", fmt::format("main server {} lost", main_server_.c_str()));
  }
}

Server_Figures Port_Factory_Sub::figures() {
  Server_Figures figures = Port_Factory_i::figures();
  const std::lock_guard<std::mutex> guard(peer_lock_);
  figures.peer = peer_;
  return figures;
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
  log(Log_Level::info, "peer",
      fmt::format("announced to the main server as {}", interface_name_.c_str()));
  // Without the sub lock: finding the ports takes the registry lock, which comes before it.
  notify_masters();
  return result::ok;
}

int Port_Factory_Sub::notify_masters() {
  for (const auto& port : ports_in_name_order([](Port_impl& port) { return port.notify() != 0; })) {
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
                                      const Varo::DATA_BUFFER& data, bool front) try {
  // Before the lookup: cloning may make calls of its own.
  const auto event = event_from_wire(handle, data, orb::may_take_arguments());
  auto port = get_port(name);
  if (!port) port = create_clon_port(name);
  if (!port) return result::failed;
  port->push_event(event, front);
  return result::ok;
} catch (const std::bad_alloc&) {
  return no_memory(result::out_of_memory);
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
                                             CORBA::ULong timeout) try {
  const auto port = find_port(handle);
  if (!port) return result::unknown_handle;
  // Only what reached an owner through a proxy carries the offset: the clients of a port that is
  // served here answer to the handle they were given.
  const unsigned int client = port->kind() == PORT_SLAVE ? handle - remote_client_offset : handle;
  const Queued_Bytes counted = admit(data.length());
  return port->replay(client, from_wire(data), timeout);
} catch (const std::bad_alloc&) {
  return no_memory(result::out_of_memory);
}

CORBA::ULong Port_Factory_Sub::sendEvcDatatoSlave(const char*, CORBA::Long) { return result::ok; }

CORBA::ULong Port_Factory_Sub::push_remote_consumer(const char* name) {
  if (data_sender_) data_sender_->push_remote_consumer(name, consumer_key);
  return result::ok;
}

CORBA::ULong Port_Factory_Sub::force_toslave(const char*, const char* name) {
  const auto port = get_port(name);
  if (!port) return result::unknown_name;
  const unsigned int limit = port->limit();
  ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, registry_lock_, result::servant_lock);
  delete_port(name);
  return create_port(name, PORT_SLAVE, limit);
}

CORBA::ULong Port_Factory_Sub::inquire_master(const char* name, CORBA::String_out master) try {
  const auto not_asked = [&] {
    master = CORBA::string_dup(no_master);
    return result::failed;
  };
  {
    const std::lock_guard<std::mutex> round(round_lock_);
    if (!round_.empty() && round_ == name) {
      came_round_ = true;
      return not_asked();
    }
  }
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
} catch (const std::bad_alloc&) {
  master = CORBA::string_dup("");
  return no_memory(result::out_of_memory);
}

CORBA::ULong Port_Factory_Sub::patch_object_name(Varo::STRING_LIST_out ports,
                                                 Varo::STRING_LIST_out boxes) {
  const Exchange exchange(sub_lock_);
  Port_Factory_var peer;
  if (exchange.begun()) peer = get_remote_point();
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

// --- the lives of the main server

std::uint64_t Port_Factory_Sub::peer_life(Port_Factory_ptr peer, bool certainly) {
  return life_.of(peer, certainly);
}

void Port_Factory_Sub::note_peer_handle(unsigned int handle, std::uint64_t life, PeerHandle now) {
  life_.note(handle, life, now);
}

void Port_Factory_Sub::note_peer_owner(Port_impl* port, Port_Factory_ptr peer) {
  try {
    if (!CORBA::is_nil(peer)) {
      const orb::CallTimeout scope;
      peer->set_connected_host(port->name(), owner_note_.c_str());
      take_over_id(peer, *port);
      return;
    }
  } catch (const CORBA::Exception&) {
    // The connection manager settles it.
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
  }
  try {
    const std::lock_guard<std::mutex> guard(unsettled_lock_);
    unsettled_.insert(port->name());
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;  // it is settled when the main server is reached anew
  }
}

std::vector<std::string> Port_Factory_Sub::kept_but_unreported() {
  std::set<std::string> names;
  {
    const std::lock_guard<std::mutex> guard(unsettled_lock_);
    names = unreported_;
  }
  std::vector<std::string> kept;
  for (const std::string& name : names) {
    const auto port = Port_Factory_i::get_port(name.c_str());
    if (port && port->kind() == PORT_MASTER && port->notify() == 0) {
      kept.push_back(name);
      continue;
    }
    const std::lock_guard<std::mutex> guard(unsettled_lock_);
    unreported_.erase(name);
  }
  return kept;
}

bool Port_Factory_Sub::leads_back(Port_Factory_ptr peer) {
  std::string name;
  {
    std::random_device random;
    const std::lock_guard<std::mutex> guard(round_lock_);
    round_ = name = fmt::format("\x01round {:08x}{:08x}", random(), random());
    came_round_ = false;
  }
  try {
    const orb::CallTimeout scope;
    CORBA::String_var nobody;
    peer->inquire_master(name.c_str(), nobody.out());
  } catch (const CORBA::Exception&) {
    // It has not come round, then.
  }
  const std::lock_guard<std::mutex> guard(round_lock_);
  round_.clear();
  leads_back_ = came_round_;
  return came_round_;
}

bool Port_Factory_Sub::settle(Port_Factory_ptr peer, bool all) {
  try {
    close_left_open(peer);
    std::set<std::string> names;
    {
      const std::lock_guard<std::mutex> guard(unsettled_lock_);
      names.swap(unsettled_);
    }
    if (all || !names.empty()) disconnect_strays(peer);
    const auto proxies = ports_in_name_order([&](Port_impl& port) {
      return port.kind() == PORT_SLAVE && (all || names.count(port.name()) != 0);
    });
    for (const auto& port : proxies) {
      if (!settle_proxy(peer, *port)) note_peer_owner(port.get(), Peer::_nil());
    }
    return true;
  } catch (const CORBA::Exception&) {
    return false;
  }
}

void Port_Factory_Sub::close_left_open(Port_Factory_ptr peer) {
  std::uint64_t life = 0;
  for (const unsigned int handle : life_.left_open(life)) {
    if (peer_life(peer, false) != life) return;
    const orb::CallTimeout scope;
    peer->disconnect_port(handle);
    life_.note(handle, life, PeerHandle::closed);
  }
}

// Owners that were connected through an earlier run of this server, or that left unheard.
void Port_Factory_Sub::disconnect_strays(Port_Factory_ptr peer) {
  const orb::CallTimeout scope;
  Varo::DT_PORT_SVC::ConnectionSeq_var connections;
  if (peer->current_connection(connections.out()) != result::ok) return;
  for (CORBA::ULong i = 0; i < connections->length(); ++i) {
    if (owner_note_ != connections[i].host.in()) continue;
    const auto port = Port_Factory_i::get_port(connections[i].port_name.in());
    auto* const proxy = dynamic_cast<vrSlave_Port*>(port.get());
    if (proxy && proxy->has_owner_here()) continue;
    Varo::DT_PORT_SVC::PORT_INFO info{};
    if (peer->get_port_info(connections[i].port_name.in(), info) == result::ok) {
      peer->disconnect_port(info.port_id);
    }
  }
}

bool Port_Factory_Sub::settle_proxy(Port_Factory_ptr peer, Port_impl& port) {
  auto* const proxy = dynamic_cast<vrSlave_Port*>(&port);
  if (!proxy) return true;
  if (!take_over_id(peer, port)) return !proxy->has_owner_here();
  return proxy->settle_owner(peer);
}

bool Port_Factory_Sub::take_over_id(Port_Factory_ptr peer, Port_impl& port) {
  const orb::CallTimeout scope;
  Varo::DT_PORT_SVC::PORT_INFO info{};
  if (peer->get_port_info(port.name(), info) != result::ok) return false;
  auto* const proxy = dynamic_cast<vrSlave_Port*>(&port);
  if (!proxy || info.kind != PORT_MASTER) return true;
  ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, registry_lock_, false);
  if (port.port_id() != info.port_id) proxy->take_over_id(info.port_id);
  if (registry_.find(port.name()).get() == &port) registry_.add_id(port);
  return true;
}
