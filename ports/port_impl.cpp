#include "ports/port_impl.h"

#include <ace/Guard_T.h>

#include <new>

#include "platform/limits.h"

using namespace portsvc;

Port_impl::Port_impl(const char* name, unsigned int port_id, unsigned int limit, unsigned int kind)
    : name_(name), port_id_(port_id), kind_(kind), limit_(limit) {
  if (!name_.c_str()) throw std::bad_alloc();  // this string reports a failure by being null
  packet_queue_.set_limit(limit);
}

unsigned int Port_impl::disconnect(unsigned int handle) {
  if (handle != port_id()) return disconnect_client(handle);

  bool was_connected = false;
  {
    ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, state_lock_, result::port_lock);
    was_connected = owner_connected_;
    if (was_connected) connected_host_.clear();
    owner_connected_ = false;
    receiver_waiting_ = false;
    selector_count_.store(0, std::memory_order_relaxed);
  }
  everything_changed(packets());  // selections drop the port
  return was_connected ? result::ok : result::not_connected;
}

void Port_impl::set_connected_host(const char* host) {
  ACE_GUARD(ACE_Recursive_Thread_Mutex, guard, state_lock_);
  connected_host_ = host;
}

std::string Port_impl::connected_host() {
  ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, state_lock_, {});
  return connected_host_;
}

void Port_impl::push_events(const std::vector<Event_ptr>&) {}

unsigned int Port_impl::receive_n(unsigned int&, std::vector<Event_ptr>&, unsigned int,
                                  unsigned int) {
  return result::ok;
}

unsigned int Port_impl::select(bool on) {
  ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, state_lock_, result::port_lock);
  if (owner_access_ != ACCESS_SELECT) return result::access_refused;
  if (on) {
    ++selector_count_;
  } else if (selector_count_ != 0) {
    --selector_count_;
  }
  return result::ok;
}

unsigned int Port_impl::owner_signal() {
  {
    ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, state_lock_, result::port_lock);
    if (!owner_connected_) return result::not_connected;
  }
  return packet_queue_.is_empty() == 0 ? result::ok : result::queue_empty;
}

unsigned int Port_impl::reply_signal(unsigned int handle) {
  {
    ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, connection_lock_, result::port_lock);
    if (reply_registrations_.count(handle) == 0) return result::not_connected;
  }
  return reply_queue_.find(handle);
}

unsigned int Port_impl::has_client(unsigned int handle) {
  ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, connection_lock_, result::port_lock);
  return clients_.count(handle) != 0 ? result::ok : result::unknown_name;
}

void Port_impl::info(unsigned int& access, unsigned int& kind, bool& connected,
                     unsigned int& limit) {
  {
    ACE_GUARD(ACE_Recursive_Thread_Mutex, guard, state_lock_);
    access = owner_access_;
    kind = kind_;
    connected = owner_connected_;
  }
  limit = packet_queue_.limit();
}

Port_Figures Port_impl::figures() {
  Port_Figures figures;
  figures.name = name();
  figures.port_id = port_id();
  info(figures.owner_access, figures.kind, figures.owner_connected, figures.limit);
  figures.host = connected_host();
  {
    ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, connection_lock_, figures);
    figures.clients = clients_.size();
  }
  figures.packets = packet_queue_.flow();
  figures.replies = reply_queue_.flow();
  figures.senders_waiting = senders_waiting_.load(std::memory_order_relaxed);
  figures.takers_waiting = takers_waiting_.load(std::memory_order_relaxed);
  figures.reply_takers_waiting = reply_takers_waiting_.load(std::memory_order_relaxed);
  figures.selections = selector_count_.load(std::memory_order_relaxed);
  return figures;
}

unsigned int Port_impl::select_replay(unsigned int handle, bool mark) {
  ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, connection_lock_, result::port_lock);
  if (client_access(handle) != ACCESS_SELECT) return result::access_refused;
  reply_registrations_[handle] = mark;
  return result::ok;
}

unsigned int Port_impl::notify() {
  ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, connection_lock_, result::port_lock);
  return notify_;
}

void Port_impl::set_notify(unsigned int value) {
  ACE_GUARD(ACE_Recursive_Thread_Mutex, guard, connection_lock_);
  notify_ = value;
}

void Port_impl::wake_everybody() {
  everything_changed(packets());
  everything_changed(admission());
  std::vector<unsigned int> handles;
  {
    ACE_GUARD(ACE_Recursive_Thread_Mutex, guard, connection_lock_);
    for (const auto& client : clients_) handles.push_back(client.first);
  }
  for (const unsigned int handle : handles) everything_changed(replies(handle));
}

void Port_impl::join_index(Client_Index* index) {
  ACE_GUARD(ACE_Recursive_Thread_Mutex, guard, connection_lock_);
  index_ = index;
  for (const auto& client : clients_) index_->add(client.first, this);
}

void Port_impl::leave_index() {
  ACE_GUARD(ACE_Recursive_Thread_Mutex, guard, connection_lock_);
  if (!index_) return;
  for (const auto& client : clients_) index_->remove(client.first, this);
  index_ = nullptr;
}

unsigned int Port_impl::client_access(unsigned int handle) {
  const auto found = clients_.find(handle);
  if (found != clients_.end()) return found->second;
  enter_client(handle, 0);
  return 0;
}

void Port_impl::enter_client(unsigned int handle, unsigned int access) {
  const auto [entry, added] = clients_.emplace(handle, access);
  if (!added || !index_) return;
  try {
    index_->add(handle, this);
  } catch (...) {
    clients_.erase(entry);
    throw;
  }
}

void Port_impl::set_client(unsigned int handle, unsigned int access) {
  enter_client(handle, access);
  clients_[handle] = access;
}

bool Port_impl::remove_client(unsigned int handle) {
  if (clients_.erase(handle) == 0) return false;
  reply_registrations_.erase(handle);
  if (index_) index_->remove(handle, this);
  return true;
}

unsigned int Port_impl::connect_client(unsigned int handle, unsigned int access,
                                       unsigned int& owner) {
  owner = 0;
  ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, connection_lock_, result::port_lock);
  const auto registration = reply_registrations_.emplace(handle, false);
  try {
    enter_client(handle, access);
  } catch (...) {
    if (registration.second) reply_registrations_.erase(registration.first);
    throw;
  }
  return result::ok;
}

bool Port_impl::has_room() {
  std::size_t clients = 0;
  {
    ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, connection_lock_, true);
    clients = clients_.size();
  }
  return limits().clients.allows(clients, full_, name());
}

unsigned int Port_impl::disconnect_client(unsigned int handle) {
  {
    ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, connection_lock_, result::port_lock);
    if (!remove_client(handle)) return result::unknown_handle;
  }
  everything_changed(replies(handle));  // selections drop the client
  return result::ok;
}

unsigned int Port_impl::connect_owner(unsigned int access, unsigned int& owner) {
  ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, state_lock_, result::port_lock);
  if (owner_connected_) {
    owner = port_id();
    return result::owner_exists;
  }
  owner_access_ = access;
  owner_connected_ = true;
  return result::ok;
}

unsigned int Port_impl::owner_access() {
  ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, state_lock_, 0);
  return owner_access_;
}
