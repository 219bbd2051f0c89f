#include "ports/slave_port.h"

#include <ace/Guard_T.h>

#include <algorithm>
#include <chrono>
#include <utility>

#include "ports/servant_hooks.h"
#include "ports/wire.h"

using namespace portsvc;
using Varo::DATA_BUFFER_var;

namespace {

constexpr unsigned int no_owner = 0xFFFFFFFF;
constexpr unsigned int failed_slot = 0xFFFFFFFF;
constexpr unsigned int slice_seconds = 30;
// Peer clients that an owner may still answer. Requests that come over another sub server carry a
// new handle each, so without a bound the client table would grow for ever.
constexpr std::size_t remote_client_limit = 100000;

// Runs a wait on the peer. call(seconds) answers the peer's code, `over` when its time ran out.
template <class Call>
unsigned int wait_on_peer(unsigned int timeout, unsigned int over, Call&& call) {
  for (;;) {
    const unsigned int seconds = timeout != 0 ? timeout : slice_seconds;
    const orb::CallTimeout scope(std::chrono::seconds(seconds) + orb::peer_call_timeout());
    const unsigned int result = call(seconds);
    if (timeout != 0 || result != over) return result;
  }
}

// Counts what the peer has done, and answers its code.
unsigned int counted(std::atomic<std::uint64_t>& done, unsigned int code) {
  if (code == result::ok) count(done);
  return code;
}

// The peer has been restarted between the calls of one exchange.
class AnotherLife : public CORBA::TRANSIENT {};

}  // namespace

vrSlave_Port::vrSlave_Port(const char* name, unsigned int port_id, unsigned int limit,
                           Port_Factory_i* owner)
    : Port_impl(name, port_id, limit, PORT_SLAVE), owner_(owner), remote_owner_mark_(no_owner) {}

vrSlave_Port::Peer vrSlave_Port::peer() const { return servant::get_remote_point(owner_); }

// --- lives of the peer

std::uint64_t vrSlave_Port::life_of(PeerPtr peer) {
  const std::uint64_t life = servant::peer_life(owner_, peer, false);
  ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, connection_lock_, life);
  if (life > life_) {
    life_ = life;
    remote_handles_.clear();
    stale_clients_.clear();
    for (const unsigned int client : remote_clients_) {
      if (remove_client(client)) stale_clients_.insert(client);
    }
    remote_clients_.clear();
  }
  return life;
}

template <class Call>
unsigned int vrSlave_Port::in_life(PeerPtr peer, std::uint64_t life, Call&& call) {
  for (;;) {
    bool refused = false;
    try {
      const orb::OpenConnectionsOnly scope(refused);
      return call();
    } catch (const CORBA::SystemException&) {
      if (!refused) throw;
    }
    // Asking opens the connection that was refused, and leaves it open for the next try.
    if (servant::peer_life(owner_, peer, true) != life) throw AnotherLife();
  }
}

unsigned int vrSlave_Port::connect_at_peer(PeerPtr peer, unsigned int mode, unsigned int access,
                                           CORBA::ULong& handle, CORBA::ULong& reported,
                                           std::uint64_t& life) {
  for (;;) {
    life = life_of(peer);
    try {
      return in_life(peer, life, [&] {
        const orb::CallTimeout scope;
        return peer->connect_port(name(), handle, mode, access, reported);
      });
    } catch (const AnotherLife&) {
      // Nothing was sent: the connection is made in the new life.
    }
  }
}

void vrSlave_Port::close_remote(PeerPtr peer, std::uint64_t life, unsigned int remote) {
  if (remote == 0) return;
  try {
    in_life(peer, life, [&] {
      const orb::CallTimeout scope;
      return peer->disconnect_port(remote);
    });
    servant::note_peer_handle(owner_, remote, life, PeerHandle::closed);
  } catch (const CORBA::Exception&) {
    servant::note_peer_handle(owner_, remote, life, PeerHandle::left_open);
    throw;
  }
}

// --- the owner

unsigned int vrSlave_Port::connect(unsigned int handle, unsigned int mode, unsigned int access,
                                   unsigned int& owner) {
  if (mode == CONNECT_CLIENT) return connect_client(handle, access, owner);
  if (mode != CONNECT_OWNER) return result::bad_mode;

  const Peer peer = this->peer();
  if (CORBA::is_nil(peer.in())) return result::no_peer;
  try {
    CORBA::ULong reported = owner;
    const unsigned int answer = connect_owner_at(peer.in(), reported);
    owner = reported;
    if (answer == result::ok) return answer;
    port_id_ = reported;
    servant::note_peer_owner(owner_, this, PeerRef::_nil());
    return answer;
  } catch (const CORBA::Exception&) {
    // The owner takes it for done, so it is done as soon as the peer answers.
    servant::releaseRemotePoint(owner_);
    {
      ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, state_lock_, result::ok);
      owner_here_ = true;
    }
    servant::note_peer_owner(owner_, this, PeerRef::_nil());
    return result::ok;
  }
}

unsigned int vrSlave_Port::connect_owner_at(PeerPtr peer, CORBA::ULong& reported) {
  CORBA::ULong remote = 0;
  std::uint64_t life = 0;
  const unsigned int answer =
      connect_at_peer(peer, CONNECT_OWNER, ACCESS_WAIT, remote, reported, life);
  {
    ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, state_lock_, result::port_lock);
    owner_connected_ = owner_here_ = answer == result::ok;
    remote_owner_mark_ = answer == result::ok ? reported : no_owner;
    owner_life_ = life;
  }
  if (answer == result::ok) servant::note_peer_owner(owner_, this, peer);
  return answer;
}

bool vrSlave_Port::settle_owner(PeerPtr peer) {
  const std::uint64_t life = life_of(peer);
  {
    ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, state_lock_, false);
    if (!owner_here_ || (owner_connected_ && owner_life_ == life)) return true;
  }
  CORBA::ULong reported = 0;
  const unsigned int answer = connect_owner_at(peer, reported);
  if (answer == result::ok || answer == result::owner_exists) return true;
  // The peer may get the port later.
  ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, state_lock_, false);
  owner_here_ = true;
  return false;
}

bool vrSlave_Port::has_owner_here() {
  ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, state_lock_, true);
  return owner_here_;
}

void vrSlave_Port::take_over_id(unsigned int id) {
  ACE_GUARD(ACE_Recursive_Thread_Mutex, guard, state_lock_);
  earlier_ids_.insert(port_id());
  port_id_ = id;
}

bool vrSlave_Port::is_own_id(unsigned int handle) {
  ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, state_lock_, false);
  return handle == port_id() || earlier_ids_.count(handle) != 0;
}

unsigned int vrSlave_Port::disconnect(unsigned int handle) {
  if (is_own_id(handle)) return disconnect_owner();

  unsigned int remote = 0;
  std::uint64_t life = 0;
  {
    ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, connection_lock_, result::port_lock);
    if (!remove_client(handle)) return result::unknown_handle;
    const auto entered = std::find(remote_clients_.begin(), remote_clients_.end(), handle);
    if (entered != remote_clients_.end()) remote_clients_.erase(entered);
    remote = take_remote_handle(handle);
    life = life_;
  }
  if (remote == 0) return result::ok;
  const Peer peer = this->peer();
  if (CORBA::is_nil(peer.in())) {
    servant::note_peer_handle(owner_, remote, life, PeerHandle::left_open);
    return result::ok;
  }
  try {
    if (life_of(peer.in()) == life) close_remote(peer.in(), life, remote);
  } catch (const CORBA::Exception&) {
    servant::note_peer_handle(owner_, remote, life, PeerHandle::left_open);
  }
  return result::ok;
}

unsigned int vrSlave_Port::disconnect_owner() {
  const Peer peer = this->peer();
  if (CORBA::is_nil(peer.in())) return result::no_peer;
  {
    ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, state_lock_, result::port_lock);
    owner_here_ = false;
  }
  try {
    const orb::CallTimeout scope;
    peer->disconnect_port(port_id());
  } catch (const CORBA::Exception&) {
    servant::note_peer_owner(owner_, this, PeerRef::_nil());
    return result::peer_disconnect;
  }
  ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, state_lock_, result::port_lock);
  owner_connected_ = false;
  return result::ok;
}

unsigned int vrSlave_Port::take_at_peer(unsigned int& source, vrBuffer& data,
                                        unsigned int timeout) {
  const Peer peer = this->peer();
  if (CORBA::is_nil(peer.in())) return result::no_peer;
  if (remote_owner_mark_ == no_owner) return result::unknown_handle;
  try {
    DATA_BUFFER_var bytes;
    CORBA::ULong remote_source = 0;
    const std::uint64_t life = life_of(peer.in());
    const unsigned int answer = wait_on_peer(timeout, result::timed_out, [&](unsigned int seconds) {
      return in_life(peer.in(), life, [&] {
        return peer->packet_receive(port_id(), remote_source, bytes.out(), seconds);
      });
    });
    // The peer's port may have been made anew with another id.
    if (answer == result::unknown_handle) {
      servant::note_peer_owner(owner_, this, PeerRef::_nil());
    }
    if (answer != result::ok) return answer;
    data.assign(orb::bytes_of(bytes.in()), bytes->length());
    source = remote_source + remote_client_offset;
    ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, connection_lock_, result::port_lock);
    if (life == life_) enter_remote_client(source);
    return result::ok;
  } catch (const CORBA::Exception&) {
    servant::releaseRemotePoint(owner_);
    return result::peer_receive;
  }
}

void vrSlave_Port::enter_remote_client(unsigned int handle) {
  const bool known = clients_.count(handle) != 0;
  set_client(handle, CONNECT_CLIENT);
  if (known) return;
  remote_clients_.push_back(handle);
  if (remote_clients_.size() > remote_client_limit) {
    remove_client(remote_clients_.front());
    remote_clients_.pop_front();
  }
}

unsigned int vrSlave_Port::answer_at_peer(unsigned int handle, vrBuffer&& data,
                                          unsigned int timeout) {
  const Peer peer = this->peer();
  if (CORBA::is_nil(peer.in())) return result::no_peer;
  try {
    const DATA_BUFFER_var bytes = to_wire(std::move(data));
    const std::uint64_t life = life_of(peer.in());
    {
      // It has asked in an earlier life of the peer; somebody else may have its number now.
      const unsigned int client = handle + remote_client_offset;
      ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, connection_lock_, result::port_lock);
      if (clients_.count(client) == 0 && stale_clients_.count(client) != 0) {
        return result::unknown_handle;
      }
    }
    return in_life(peer.in(), life, [&] {
      const orb::CallTimeout scope;
      return peer->packet_replay(handle, bytes.in(), timeout);
    });
  } catch (const CORBA::Exception&) {
    servant::releaseRemotePoint(owner_);
    return result::peer_receive;
  }
}

// --- its clients

unsigned int vrSlave_Port::pass_on(unsigned int handle, vrBuffer&& data, unsigned int timeout) {
  const Peer peer = this->peer();
  if (CORBA::is_nil(peer.in())) return result::no_peer;
  try {
    const DATA_BUFFER_var bytes = to_wire(std::move(data));
    std::uint64_t life = life_of(peer.in());
    unsigned int access = 0;
    unsigned int earlier = 0;
    {
      ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, connection_lock_, result::port_lock);
      access = client_access(handle);
      if (life == life_) earlier = take_remote_handle(handle);
    }
    close_remote(peer.in(), life, earlier);

    CORBA::ULong remote = 0;
    CORBA::ULong scratch = 0;
    const unsigned int connected =
        connect_at_peer(peer.in(), CONNECT_CLIENT, access, remote, scratch, life);
    if (connected != result::ok) return connected;
    servant::note_peer_handle(owner_, remote, life, PeerHandle::opened);
    try {
      {
        ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, connection_lock_, result::port_lock);
        if (life != life_) throw AnotherLife();
        // A forward of the same client that ran at the same time may have kept one meanwhile.
        earlier = std::exchange(remote_handles_[handle], remote);
      }
      close_remote(peer.in(), life, earlier);
      const unsigned int answer =
          wait_on_peer(timeout, result::send_timed_out, [&](unsigned int seconds) {
            return in_life(peer.in(), life,
                           [&] { return peer->packet_foward(remote, bytes.in(), seconds); });
          });
      close_if_abandoned(peer.in(), handle);
      return answer;
    } catch (...) {
      give_up(handle, remote, life);
      throw;
    }
  } catch (const CORBA::Exception&) {
    servant::releaseRemotePoint(owner_);
    return result::peer_forward;
  }
}

unsigned int vrSlave_Port::forward_front(unsigned int, vrBuffer, unsigned int) {
  return result::ok;
}

unsigned int vrSlave_Port::take_reply_at_peer(unsigned int handle, vrBuffer& data,
                                              unsigned int timeout) {
  const Peer peer = this->peer();
  if (CORBA::is_nil(peer.in())) return result::no_peer;
  std::uint64_t life = 0;
  unsigned int remote = 0;
  {
    ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, connection_lock_, result::port_lock);
    life = life_;
    remote = take_remote_handle(handle);
  }
  try {
    if (const std::uint64_t now = life_of(peer.in()); now != life) {
      life = now;
      remote = 0;
    }
    DATA_BUFFER_var bytes;
    const unsigned int answer =
        wait_on_peer(timeout, result::reply_timed_out, [&](unsigned int seconds) {
          return in_life(peer.in(), life,
                         [&] { return peer->packet_replay_wait(remote, bytes.out(), seconds); });
        });
    close_remote(peer.in(), life, remote);
    if (answer == result::ok) data.assign(orb::bytes_of(bytes.in()), bytes->length());
    return answer;
  } catch (const CORBA::Exception&) {
    if (remote != 0) servant::note_peer_handle(owner_, remote, life, PeerHandle::left_open);
    return result::failed;
  }
}

// --- counted

unsigned int vrSlave_Port::receive(unsigned int& source, vrBuffer& data, unsigned int timeout) {
  const Waiting waiting(takers_waiting_);
  return counted(packets_taken_, take_at_peer(source, data, timeout));
}

unsigned int vrSlave_Port::replay(unsigned int handle, vrBuffer data, unsigned int timeout) {
  return counted(replies_put_, answer_at_peer(handle, std::move(data), timeout));
}

unsigned int vrSlave_Port::forward(unsigned int handle, vrBuffer data, unsigned int timeout) {
  const Waiting waiting(senders_waiting_);
  return counted(packets_put_, pass_on(handle, std::move(data), timeout));
}

unsigned int vrSlave_Port::replay_wait(unsigned int handle, vrBuffer& data, unsigned int timeout) {
  const Waiting waiting(reply_takers_waiting_);
  return counted(replies_taken_, take_reply_at_peer(handle, data, timeout));
}

Port_Figures vrSlave_Port::figures() {
  Port_Figures figures = Port_impl::figures();
  figures.packets.put = packets_put_.load(std::memory_order_relaxed);
  figures.packets.taken = packets_taken_.load(std::memory_order_relaxed);
  figures.replies.put = replies_put_.load(std::memory_order_relaxed);
  figures.replies.taken = replies_taken_.load(std::memory_order_relaxed);
  return figures;
}

unsigned int vrSlave_Port::take_packet(vrPort_Buffer&, unsigned int) { return failed_slot; }

unsigned int vrSlave_Port::wait_receiver(unsigned int, unsigned int) { return failed_slot; }

unsigned int vrSlave_Port::take_reply(unsigned int, unsigned int, vrPort_Buffer&) {
  return failed_slot;
}

unsigned int vrSlave_Port::take_remote_handle(unsigned int handle) {
  const auto found = remote_handles_.find(handle);
  if (found == remote_handles_.end()) return 0;
  const unsigned int remote = found->second;
  remote_handles_.erase(found);
  return remote;
}

// A client that disconnected while its forward was under way leaves no connection on the peer.
void vrSlave_Port::close_if_abandoned(PeerPtr peer, unsigned int handle) {
  std::uint64_t life = 0;
  unsigned int remote = 0;
  {
    ACE_GUARD(ACE_Recursive_Thread_Mutex, guard, connection_lock_);
    if (clients_.count(handle) != 0) return;
    remote = take_remote_handle(handle);
    life = life_;
  }
  close_remote(peer, life, remote);
}

// A failed forward ends its own connection and nobody else's.
void vrSlave_Port::give_up(unsigned int handle, unsigned int remote, std::uint64_t life) {
  servant::note_peer_handle(owner_, remote, life, PeerHandle::left_open);
  ACE_GUARD(ACE_Recursive_Thread_Mutex, guard, connection_lock_);
  const auto kept = remote_handles_.find(handle);
  if (kept != remote_handles_.end() && kept->second == remote) remote_handles_.erase(kept);
}
