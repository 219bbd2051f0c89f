// The abstract port: state and contract of every port object.
#pragma once

#include <ace/Recursive_Thread_Mutex.h>
#include <ace/SString.h>

#include <atomic>
#include <boost/shared_ptr.hpp>
#include <boost/smart_ptr/enable_shared_from_this.hpp>
#include <map>
#include <string>
#include <vector>

#include "idl/port_codes.h"
#include "platform/counters.h"
#include "platform/wake.h"
#include "ports/buffer.h"
#include "ports/buffer_queue.h"
#include "ports/client_index.h"
#include "ports/figures.h"

/// An event: shared by every box and request that holds it, never changed once made.
using Event_ptr = boost::shared_ptr<vrPort_Buffer>;

/// A named message channel with one owner, which takes packets and answers them, and any number of
/// clients, which send packets and wait for replies. vrMaster_Port holds the packets of an owner
/// served here, vrSlave_Port passes everything on to the peer server, vrEventBox holds events.
///
/// Ports are shared: the servant's port table holds one reference, every running operation another,
/// so a deleted port lives until the last operation on it has returned. Operations come from any
/// number of threads at once. Results are the codes of port_codes.h; time-outs are whole seconds, 0
/// meaning no limit on packet ports and no waiting on event boxes. A lock that cannot be taken
/// answers 2011 and changes nothing.
class Port_impl : public boost::enable_shared_from_this<Port_impl> {
 public:
  Port_impl(const char* name, unsigned int port_id, unsigned int limit, unsigned int kind);
  Port_impl(const Port_impl&) = delete;
  Port_impl& operator=(const Port_impl&) = delete;
  virtual ~Port_impl() = default;

  // --- the contract of the port classes

  /// The port id disconnects the owner: 0, or 2005 when none was connected (its flags are reset all
  /// the same). Any other handle disconnects that client: 0, or 2007.
  virtual unsigned int disconnect(unsigned int handle);
  /// Appends events in order under one hold of the box's lock. Packet ports ignore it.
  virtual void push_events(const std::vector<Event_ptr>& events);
  /// Drops all events.
  virtual void clear_events() = 0;
  /// The number of events held; 0 on packet ports.
  virtual unsigned int event_count() = 0;
  /// Stores a free text about the owner's host; the owner's disconnection empties it. Proxies store
  /// none.
  virtual void set_connected_host(const char* host);
  virtual std::string connected_host();
  /// A client sends a packet; blocks until an owner takes, as far as its access mode says.
  virtual unsigned int forward(unsigned int handle, vrBuffer data, unsigned int timeout) = 0;
  /// Puts a packet at the head; only event boxes have one.
  virtual unsigned int forward_front(unsigned int handle, vrBuffer data, unsigned int timeout) = 0;
  /// Connects a client (`handle` is its fresh handle) or the owner (`handle` is the port id). 0; 4
  /// for any other mode; 2004 with the port id in `owner` when an owner is connected.
  virtual unsigned int connect(unsigned int handle, unsigned int mode, unsigned int access,
                               unsigned int& owner) = 0;
  virtual void push_event(const Event_ptr& event) = 0;
  virtual void push_event_front(const Event_ptr& event) = 0;
  /// Either of the two.
  void push_event(const Event_ptr& event, bool front) {
    front ? push_event_front(event) : push_event(event);
  }
  /// The owner takes the oldest packet or event. `source` and `data` are written on 0 only.
  virtual unsigned int receive(unsigned int& source, vrBuffer& data, unsigned int timeout) = 0;
  /// The owner takes up to `maximum` events (at least one). Packet ports answer 0 with none.
  virtual unsigned int receive_n(unsigned int& source, std::vector<Event_ptr>& events,
                                 unsigned int maximum, unsigned int timeout);
  /// The owner answers the client with `handle`.
  virtual unsigned int replay(unsigned int handle, vrBuffer data, unsigned int timeout) = 0;
  /// The client with `handle` takes its oldest reply.
  virtual unsigned int replay_wait(unsigned int handle, vrBuffer& data, unsigned int timeout) = 0;
  /// The blocking take behind receive.
  virtual unsigned int take_packet(vrPort_Buffer& out, unsigned int timeout) = 0;
  /// The admission of one packet behind forward.
  virtual unsigned int wait_receiver(unsigned int handle, unsigned int timeout) = 0;
  /// The blocking take behind replay_wait.
  virtual unsigned int take_reply(unsigned int handle, unsigned int timeout,
                                  vrPort_Buffer& out) = 0;
  /// For whoever reports them; but for the copies, which the port does not know of. Takes the locks
  /// of the port one after the other.
  virtual portsvc::Port_Figures figures();

  // --- what all ports share

  const char* name() const { return name_.c_str(); }
  unsigned int port_id() const { return port_id_.load(std::memory_order_relaxed); }
  unsigned int limit() const { return limit_; }
  unsigned int kind() const { return kind_; }

  /// Non-zero: the main role copies packets forwarded into this box to the sub servers.
  void set_copy_enable(int value) { copy_enable_.store(value, std::memory_order_relaxed); }
  int copy_enable() const { return copy_enable_.load(std::memory_order_relaxed); }

  /// True while a select_event_port watches the port.
  bool has_selectors() const { return selector_count_.load(std::memory_order_relaxed) != 0; }
  /// Begins (on) or ends one watch: 0, or 2008 unless the owner's access is ACCESS_SELECT. The
  /// count never falls below 0: the owner's disconnection resets it while watches may still run.
  unsigned int select(bool on);
  /// Readiness for a watching owner: 0 when a packet waits, 2002 when none does, 2005 when no owner
  /// is connected.
  unsigned int owner_signal();
  /// Readiness for a watching client: 0 when a reply for it waits, 2001 or 2002 when none does,
  /// 2005 when it is not connected.
  unsigned int reply_signal(unsigned int handle);
  /// 0 when the client table holds the handle, else 2001.
  unsigned int has_client(unsigned int handle);
  /// Whether the limit of clients allows another one.
  bool has_room();
  /// Copies owner access, kind, owner connected and the packet queue's limit.
  void info(unsigned int& access, unsigned int& kind, bool& connected, unsigned int& limit);
  /// Marks a client's selection: 0, or 2008 unless its access is ACCESS_SELECT. A handle that is
  /// not in the client table is entered with access 0.
  unsigned int select_replay(unsigned int handle, bool mark);
  /// The sub role's mark of ports whose owner it has reported to the main server.
  unsigned int notify();
  void set_notify(unsigned int value);

  /// What waits for packets (or events), for the owner to take, and for replies to one client.
  portsvc::Topic packets() const { return {this, 0}; }
  portsvc::Topic admission() const { return {this, 1}; }
  portsvc::Topic replies(unsigned int handle) const { return {this, (1ULL << 32) | handle}; }
  /// Wakes everybody who waits on the port, which has been deleted: whatever still stands in it is
  /// there to be taken. Takes the connection lock.
  void wake_everybody();

  /// From here on `index` knows this port's clients; it must outlive the stay.
  void join_index(portsvc::Client_Index* index);
  void leave_index();

 protected:
  // All callers hold connection_lock_. What throws std::bad_alloc has changed nothing.
  unsigned int client_access(unsigned int handle);  // enters a missing handle with access 0
  void enter_client(unsigned int handle, unsigned int access);  // an existing entry keeps its value
  void set_client(unsigned int handle, unsigned int access);    // overwrites
  bool remove_client(unsigned int handle);  // with its reply registration; false when missing

  /// Client connection as packet ports do it: 0, or 2011.
  unsigned int connect_client(unsigned int handle, unsigned int access, unsigned int& owner);
  /// Disconnection of a client: 0, 2007 or 2011.
  unsigned int disconnect_client(unsigned int handle);
  /// Owner connection as ports do it whose owner is served here: 0, 2004 or 2011.
  unsigned int connect_owner(unsigned int access, unsigned int& owner);
  /// The owner's access mode, 0 before any owner has connected.
  unsigned int owner_access();

  const ACE_CString name_;
  std::atomic<unsigned int> port_id_;
  unsigned int owner_access_ = 0;
  bool receiver_waiting_ = false;
  unsigned int takers_ = 0;  // takes under way on the packet queue
  std::atomic<unsigned int> selector_count_{0};
  const unsigned int kind_;
  bool owner_connected_ = false;

  // Guards owner_access_, receiver_waiting_, takers_, owner_connected_, connected_host_ and writes
  // of selector_count_. Nothing else is taken under it.
  ACE_Recursive_Thread_Mutex state_lock_;
  // Guards clients_, reply_registrations_, notify_ and index_. Only the index's own lock is taken
  // under it; never held together with state_lock_.
  ACE_Recursive_Thread_Mutex connection_lock_;

  std::string connected_host_;
  vrPort_Buffer_Queue packet_queue_;              // from clients, tagged with the sender's handle
  vrPort_Buffer_Queue reply_queue_;               // to clients, tagged with the receiver's handle
  std::map<unsigned int, unsigned int> clients_;  // handle to access mode
  std::map<unsigned int, bool> reply_registrations_;  // handle to selection mark
  const unsigned int limit_;
  std::atomic<bool> full_{false};  // has_room() said no last
  unsigned int notify_ = 0;
  std::atomic<int> copy_enable_{1};
  std::atomic<unsigned int> senders_waiting_{0};
  std::atomic<unsigned int> takers_waiting_{0};
  std::atomic<unsigned int> reply_takers_waiting_{0};
  portsvc::Client_Index* index_ = nullptr;  // not owned; null while not in a port table
};
