#include "ports/slave_port.h"

#include <ace/Guard_T.h>

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

// Closes a client connection on the peer; whether that works concerns nobody.
void close_remote(Varo::DT_PORT_SVC::Port_Factory_ptr peer, unsigned int remote) {
  if (remote == 0) return;
  const orb::CallTimeout scope;
  peer->disconnect_port(remote);
}

}  // namespace

vrSlave_Port::vrSlave_Port(const char* name, unsigned int port_id, unsigned int limit,
                           Port_Factory_i* owner)
    : Port_impl(name, port_id, limit, PORT_SLAVE), owner_(owner), remote_owner_mark_(no_owner) {}

vrSlave_Port::Peer vrSlave_Port::peer() const { return servant::get_remote_point(owner_); }

unsigned int vrSlave_Port::connect(unsigned int handle, unsigned int mode, unsigned int access,
                                   unsigned int& owner) {
  if (mode == CONNECT_CLIENT) return connect_client(handle, access, owner);
  if (mode != CONNECT_OWNER) return result::bad_mode;

  const Peer peer = this->peer();
  if (CORBA::is_nil(peer.in())) return result::no_peer;
  try {
    const orb::CallTimeout scope;
    CORBA::ULong remote = 0;
    CORBA::ULong reported = owner;
    const unsigned int answer =
        peer->connect_port(name(), remote, CONNECT_OWNER, ACCESS_WAIT, reported);
    owner = reported;
    ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, state_lock_, result::port_lock);
    if (answer == result::ok) {
      remote_owner_mark_ = reported;
    } else {
      remote_owner_mark_ = no_owner;
      port_id_ = reported;
    }
    owner_connected_ = answer == result::ok;
    return answer;
  } catch (const CORBA::Exception&) {
    servant::releaseRemotePoint(owner_);
    return result::ok;
  }
}

unsigned int vrSlave_Port::disconnect(unsigned int handle) {
  const bool is_owner = handle == port_id();
  unsigned int remote = 0;
  if (!is_owner) {
    ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, connection_lock_, result::port_lock);
    if (!remove_client(handle)) return result::unknown_handle;
    remote = take_remote_handle(handle);
    if (remote == 0) return result::ok;
  }

  const Peer peer = this->peer();
  if (CORBA::is_nil(peer.in())) return is_owner ? result::no_peer : result::ok;
  try {
    close_remote(peer, is_owner ? port_id() : remote);
  } catch (const CORBA::Exception&) {
    return is_owner ? result::peer_disconnect : result::ok;
  }
  if (is_owner) {
    ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, state_lock_, result::port_lock);
    owner_connected_ = false;
  }
  return result::ok;
}

unsigned int vrSlave_Port::receive(unsigned int& source, vrBuffer& data, unsigned int timeout) {
  const Peer peer = this->peer();
  if (CORBA::is_nil(peer.in())) return result::no_peer;
  if (remote_owner_mark_ == no_owner) return result::unknown_handle;
  try {
    DATA_BUFFER_var bytes;
    CORBA::ULong remote_source = 0;
    const unsigned int answer = wait_on_peer(timeout, result::timed_out, [&](unsigned int seconds) {
      return peer->packet_receive(port_id(), remote_source, bytes.out(), seconds);
    });
    if (answer != result::ok) return answer;
    data.assign(orb::bytes_of(bytes.in()), bytes->length());
    source = remote_source + remote_client_offset;
    ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, connection_lock_, result::port_lock);
    enter_remote_client(source);
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

unsigned int vrSlave_Port::replay(unsigned int handle, vrBuffer data, unsigned int timeout) {
  const Peer peer = this->peer();
  if (CORBA::is_nil(peer.in())) return result::no_peer;
  try {
    const DATA_BUFFER_var bytes = to_wire(std::move(data));
    const orb::CallTimeout scope;
    return peer->packet_replay(handle, bytes.in(), timeout);
  } catch (const CORBA::Exception&) {
    servant::releaseRemotePoint(owner_);
    return result::peer_receive;
  }
}

unsigned int vrSlave_Port::forward(unsigned int handle, vrBuffer data, unsigned int timeout) {
  const Peer peer = this->peer();
  if (CORBA::is_nil(peer.in())) return result::no_peer;
  try {
    const DATA_BUFFER_var bytes = to_wire(std::move(data));
    unsigned int access = 0;
    unsigned int earlier = 0;
    {
      ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, connection_lock_, result::port_lock);
      access = client_access(handle);
      earlier = take_remote_handle(handle);
    }
    close_remote(peer, earlier);

    CORBA::ULong remote = 0;
    {
      const orb::CallTimeout scope;
      CORBA::ULong scratch = 0;
      const unsigned int connected =
          peer->connect_port(name(), remote, CONNECT_CLIENT, access, scratch);
      if (connected != result::ok) return connected;
    }
    {
      ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, connection_lock_, result::port_lock);
      // A forward of the same client that ran at the same time may have kept one meanwhile.
      earlier = take_remote_handle(handle);
      remote_handles_[handle] = remote;
    }
    close_remote(peer, earlier);

    const unsigned int answer = wait_on_peer(
        timeout, result::send_timed_out,
        [&](unsigned int seconds) { return peer->packet_foward(remote, bytes.in(), seconds); });
    close_if_abandoned(peer, handle);
    return answer;
  } catch (const CORBA::Exception&) {
    forget_remote_handles();
    servant::releaseRemotePoint(owner_);
    return result::peer_forward;
  }
}

unsigned int vrSlave_Port::forward_front(unsigned int, vrBuffer, unsigned int) {
  return result::ok;
}

unsigned int vrSlave_Port::replay_wait(unsigned int handle, vrBuffer& data, unsigned int timeout) {
  const Peer peer = this->peer();
  if (CORBA::is_nil(peer.in())) return result::no_peer;
  unsigned int remote = 0;
  {
    ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, connection_lock_, result::port_lock);
    remote = take_remote_handle(handle);
  }
  try {
    DATA_BUFFER_var bytes;
    const unsigned int answer =
        wait_on_peer(timeout, result::reply_timed_out, [&](unsigned int seconds) {
          return peer->packet_replay_wait(remote, bytes.out(), seconds);
        });
    close_remote(peer, remote);
    if (answer == result::ok) data.assign(orb::bytes_of(bytes.in()), bytes->length());
    return answer;
  } catch (const CORBA::Exception&) {
    forget_remote_handles();
    return result::failed;
  }
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
void vrSlave_Port::close_if_abandoned(Varo::DT_PORT_SVC::Port_Factory_ptr peer,
                                      unsigned int handle) {
  unsigned int remote = 0;
  {
    ACE_GUARD(ACE_Recursive_Thread_Mutex, guard, connection_lock_);
    if (clients_.count(handle) != 0) return;
    remote = take_remote_handle(handle);
  }
  close_remote(peer, remote);
}

// After a failed call the peer may be a restarted server that has handed these numbers to others.
void vrSlave_Port::forget_remote_handles() {
  ACE_GUARD(ACE_Recursive_Thread_Mutex, guard, connection_lock_);
  remote_handles_.clear();
}
