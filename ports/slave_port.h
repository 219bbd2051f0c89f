// The proxy for a packet port of the peer server.
#pragma once

#include <deque>

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
/// replay_wait; a further forward, or the client's disconnection, closes one left open.
class vrSlave_Port : public Port_impl {
 public:
  vrSlave_Port(const char* name, unsigned int port_id, unsigned int limit, Port_Factory_i* owner);

  /// Owner (the port id): disconnects at the peer, whose answer is ignored: 0; 111 on an exception.
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
  /// 0 and changes nothing.
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

 private:
  using Peer = Varo::DT_PORT_SVC::Port_Factory_var;

  Peer peer() const;
  void enter_remote_client(unsigned int handle);

  // The client's open connection on the peer, which is no longer kept afterwards; 0 for none. The
  // caller holds connection_lock_.
  unsigned int take_remote_handle(unsigned int handle);
  void close_if_abandoned(Varo::DT_PORT_SVC::Port_Factory_ptr peer, unsigned int handle);
  void forget_remote_handles();

  Port_Factory_i* const owner_;  // not owned
  std::atomic<unsigned int> remote_owner_mark_;

  // The handles below are guarded by connection_lock_.
  std::map<unsigned int, unsigned int> remote_handles_;  // local client to its handle on the peer
  std::deque<unsigned int> remote_clients_;  // peer clients in the client table, oldest first
};
