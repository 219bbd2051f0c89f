// The proxy for a packet port of the peer server.
#pragma once

#include <cstdint>
#include <deque>
#include <set>

#include "middleware/orb/orb.h"
#include "ports/port_impl.h"

class Port_Factory_i;

/// Keeps no packets: each packet operation is carried out on the port of the same name of the peer
/// server, found through the servant's get_remote_point(). Without a reference to the peer every
/// operation that needs it answers 99 and changes nothing. A broker exception ends an operation
/// with the code given there. No lock is held across a call to the peer, and every call has a
/// time-out: the peer call time-out, plus the wait's own for a wait. A wait without limit reaches
/// the peer as a series of limited ones, so that a peer that has stopped answering is noticed.
///
/// Each local client has its own client connection on the peer, from its forward to the end of its
/// replay_wait; a further forward, or the client's disconnection, closes one left open. What could
/// not be closed is told to the servant. A failure concerns the client whose call it ended.
///
/// Handles are numbers that a restarted peer gives to others. So what was given in one life of the
/// peer (Port_Factory_i::peer_life) is dropped in the next, and no call that names such a handle
/// goes over a connection opened since its life was last made sure of.
class vrSlave_Port : public Port_impl {
 public:
  vrSlave_Port(const char* name, unsigned int port_id, unsigned int limit, Port_Factory_i* owner);

  /// Owner (the port id, or an earlier one): disconnects at the peer, whose answer is ignored: 0;
  /// 111 on an exception.
  /// Client: 0, or 2007.
  unsigned int disconnect(unsigned int handle) override;
  void clear_events() override {}
  unsigned int event_count() override { return 0; }
  void set_connected_host(const char*) override {}
  std::string connected_host() override { return {}; }
  /// Connects as a fresh client on the peer and sends there: the peer's answer; 112 on an
  /// exception.
  unsigned int forward(unsigned int handle, vrBuffer data, unsigned int timeout) override;
  unsigned int forward_front(unsigned int handle, vrBuffer data, unsigned int timeout) override;
  /// A client is recorded here only. The owner connects on the peer, always with ACCESS_WAIT; when
  /// the peer refuses, this port takes over the port id that the peer reports. An exception answers
  /// 0; the owner is connected there with settle_owner().
  unsigned int connect(unsigned int handle, unsigned int mode, unsigned int access,
                       unsigned int& owner) override;
  void push_event(const Event_ptr&) override {}
  void push_event_front(const Event_ptr&) override {}
  /// Takes from the peer's port: the peer's answer; 2007 before any owner connection; 123 on an
  /// exception. `source` is the peer's client handle raised by remote_client_offset.
  unsigned int receive(unsigned int& source, vrBuffer& data, unsigned int timeout) override;
  /// `handle` is the peer's client handle. The peer's answer; 123 on an exception.
  unsigned int replay(unsigned int handle, vrBuffer data, unsigned int timeout) override;
  /// Waits on the peer for the reply to the client's last forward, then disconnects there: the
  /// peer's answer; 0xFFFFFFFF on an exception.
  unsigned int replay_wait(unsigned int handle, vrBuffer& data, unsigned int timeout) override;
  unsigned int take_packet(vrPort_Buffer& out, unsigned int timeout) override;
  unsigned int wait_receiver(unsigned int handle, unsigned int timeout) override;
  unsigned int take_reply(unsigned int handle, unsigned int timeout, vrPort_Buffer& out) override;
  portsvc::Port_Figures figures() override;

  // --- the servant brings the proxy in line with a peer that was away

  /// The peer's port has this id now. The earlier ones stay good for the owner that knows them.
  void take_over_id(unsigned int id);
  /// True while an owner is connected here, whether or not the peer knows it yet.
  bool has_owner_here();
  /// Connects an owner that is connected here at the peer, if it is not there in this life of the
  /// peer. One that the peer refuses is no longer connected. False when it should be tried again;
  /// throws broker exceptions.
  bool settle_owner(Varo::DT_PORT_SVC::Port_Factory_ptr peer);

 private:
  using PeerRef = Varo::DT_PORT_SVC::Port_Factory;
  using PeerPtr = Varo::DT_PORT_SVC::Port_Factory_ptr;
  using Peer = Varo::DT_PORT_SVC::Port_Factory_var;

  Peer peer() const;
  void enter_remote_client(unsigned int handle);

  // The life the peer is in. Drops what was kept of an earlier one. Throws.
  std::uint64_t life_of(PeerPtr peer);
  // Makes a call that is good in this life of the peer only; throws without having made it when the
  // peer is in another.
  template <class Call>
  unsigned int in_life(PeerPtr peer, std::uint64_t life, Call&& call);
  // connect_port, and the life in which it was done. Throws.
  unsigned int connect_at_peer(PeerPtr peer, unsigned int mode, unsigned int access,
                               CORBA::ULong& handle, CORBA::ULong& reported, std::uint64_t& life);
  unsigned int connect_owner_at(PeerPtr peer, CORBA::ULong& reported);
  unsigned int disconnect_owner();
  bool is_own_id(unsigned int handle);

  // The client's open connection on the peer, which is no longer kept afterwards; 0 for none. The
  // caller holds connection_lock_.
  unsigned int take_remote_handle(unsigned int handle);
  // Closes a client connection on the peer, whose answer is ignored. Throws.
  void close_remote(PeerPtr peer, std::uint64_t life, unsigned int remote);
  void close_if_abandoned(PeerPtr peer, unsigned int handle);
  void give_up(unsigned int handle, unsigned int remote, std::uint64_t life);

  unsigned int pass_on(unsigned int handle, vrBuffer&& data, unsigned int timeout);
  unsigned int take_at_peer(unsigned int& source, vrBuffer& data, unsigned int timeout);
  unsigned int answer_at_peer(unsigned int handle, vrBuffer&& data, unsigned int timeout);
  unsigned int take_reply_at_peer(unsigned int handle, vrBuffer& data, unsigned int timeout);

  Port_Factory_i* const owner_;  // not owned
  std::atomic<unsigned int> remote_owner_mark_;

  // What the peer has taken from here and given.
  std::atomic<std::uint64_t> packets_put_{0};
  std::atomic<std::uint64_t> packets_taken_{0};
  std::atomic<std::uint64_t> replies_put_{0};
  std::atomic<std::uint64_t> replies_taken_{0};

  // Guarded by state_lock_.
  bool owner_here_ = false;
  std::uint64_t owner_life_ = 0;  // the life of the peer in which it knows the owner
  std::set<unsigned int> earlier_ids_;

  // What the peer has given in one of its lives; guarded by connection_lock_.
  std::uint64_t life_ = 0;
  std::map<unsigned int, unsigned int> remote_handles_;  // local client to its handle on the peer
  std::deque<unsigned int> remote_clients_;  // peer clients in the client table, oldest first
  std::set<unsigned int> stale_clients_;     // those of the life before
};
