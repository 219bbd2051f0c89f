// The servant core: everything that the main and the sub role have in common.
#pragma once

#include <ace/RW_Thread_Mutex.h>
#include <ace/Recursive_Thread_Mutex.h>
#include <ace/SString.h>
#include <ace/Thread_Mutex.h>
#include <loki/AssocVector.h>

#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "core/event_table.h"
#include "core/figures.h"
#include "core/port_registry.h"
#include "middleware/data_sender.h"
#include "middleware/orb/orb.h"
#include "middleware/orb/wire_bytes.h"
#include "persistence/background_tasks.h"
#include "ports/port_impl.h"
#include "ports/servant_hooks.h"

/// Servant of Varo::DT_PORT_SVC::Port_Factory without its role: registry of ports, client handles,
/// lookups, packet operations, selection, event operations, snapshots and the expiry of event
/// boxes. The two roles derive from it.
///
/// Operations come from any number of broker threads at once. Each finds its port under the
/// registry lock, keeps a shared pointer to it, and calls it without any lock of the servant. None
/// raises an exception; each answers a result code of port_codes.h. Out sequences and strings
/// always get a fresh value; out numbers are written only where an operation's comment says so.
class Port_Factory_i : public virtual portsvc::orb::Port_Factory_Skeleton,
                       public virtual PortableServer::RefCountServantBase {
 public:
  using Owner_Set = std::deque<boost::shared_ptr<Port_impl>>;
  using Client_Set = Loki::AssocVector<unsigned int, boost::shared_ptr<Port_impl>>;

  /// Deletes the snapshot file of an earlier run, seeds the port ids, and starts the housekeeping
  /// thread.
  explicit Port_Factory_i(const char* interface_name);
  /// Waits for the housekeeping thread (up to about 2 seconds) and lets the ports go.
  ~Port_Factory_i() override;

  // --- the role's part

  /// Reference to the peer server's port service; nil when there is none.
  virtual Varo::DT_PORT_SVC::Port_Factory_var get_remote_point() = 0;
  /// Forgets a reference of get_remote_point() that failed.
  virtual void releaseRemotePoint() = 0;
  /// Notes that this server serves the owner of the named port.
  virtual void set_notify_port(const char* name) = 0;
  /// An event box was handed a packet through its forward (front: forward_front).
  virtual int process_event_data(Port_impl* port, unsigned int handle, const vrBuffer& data,
                                 bool front) = 0;
  /// The number of the life of the peer that `peer` leads to: it grows when the peer has been
  /// restarted, and what a proxy was given in an earlier life is worth nothing then. Asks the peer
  /// when that may have changed, or in any case if `certainly`; throws what that call throws.
  virtual std::uint64_t peer_life(Varo::DT_PORT_SVC::Port_Factory_ptr, bool /*certainly*/) {
    return 0;
  }
  /// A proxy tells what became of a client handle that it was given in a life of the peer, so that
  /// what is left open is closed one day. Never fails.
  virtual void note_peer_handle(unsigned int, std::uint64_t /*life*/, portsvc::PeerHandle) {}
  /// A proxy has connected its owner at `peer`, or, with nil, has something to settle there.
  virtual void note_peer_owner(Port_impl*, Varo::DT_PORT_SVC::Port_Factory_ptr) {}

 protected:
  // --- lookups and waits, which a role may replace

  /// Lookups take the registry lock; an empty pointer when nothing is found or the lock cannot be
  /// taken. By port name, by port id (the owner's side), by client handle (the clients' side).
  virtual boost::shared_ptr<Port_impl> get_port(const char* name);
  virtual boost::shared_ptr<Port_impl> get_port(unsigned int id);
  virtual boost::shared_ptr<Port_impl> find_port(unsigned int handle);

  /// Waits until one of the watched ports has a packet, or one of the watched clients a reply. 0
  /// and its port id, or client handle, in `ready`, the first in the set's order; 2000 and 0 in
  /// `ready`; 2010 when nothing is left to watch. Ports that have lost their owner, and clients
  /// that have disconnected, are dropped from the set.
  virtual unsigned int wait_for_signal(Owner_Set& set, unsigned int& ready, unsigned int timeout);
  virtual unsigned int wait_for_replay_signal(Client_Set& set, unsigned int& ready,
                                              unsigned int timeout);
  /// Ends a selection.
  virtual void signal_off(Owner_Set& set);
  virtual void signal_off_replay(Client_Set& set);

 public:
  // --- connections and registry

  /// 0; 2001 no such port; 4 unknown mode; 10; otherwise what the port answers. `owner` is always
  /// written, `handle` from the point where the port is found and the mode is known.
  CORBA::ULong connect_port(const char* name, CORBA::ULong_out handle, CORBA::ULong mode,
                            CORBA::ULong access, CORBA::ULong_out owner) override;
  /// Always 0.
  CORBA::ULong set_connected_host(const char* name, const char* host) override;
  /// The owner when the handle is a port id, else the client. 0; 2007; what the port answers.
  CORBA::ULong disconnect_port(CORBA::ULong handle) override;
  /// 0 or 2001.
  CORBA::Long exist(const char* name) override;
  /// 0, also when there is no such port; 10.
  CORBA::ULong delete_port(const char* name) override;
  /// 0; 3 with `info` as it was.
  CORBA::ULong get_port_info(const char* name, Varo::DT_PORT_SVC::PORT_INFO_out info) override;
  /// The ports with a connected host, in name order. 0; 10; 0xFFFFFFFF out of memory.
  CORBA::ULong current_connection(Varo::DT_PORT_SVC::ConnectionSeq_out list) override;
  /// Drops all ports and subscriptions. The id table and the handle counter go on.
  void clearAll() override;
  /// All names in creation order: ports, event boxes. 0; 5; 10.
  CORBA::ULong patch_object_name(Varo::STRING_LIST_out ports, Varo::STRING_LIST_out boxes) override;
  void heart_bit() override;
  /// 0; `code` is not written.
  CORBA::ULong gen_evc_code(CORBA::ULong_out code) override;

  // --- packets: 2007 for an unknown handle, else what the port answers; 5 or 0xFFFFFFFF when an
  // --- out value cannot be allocated. Time-outs as in port_impl.h.

  CORBA::ULong packet_foward(CORBA::ULong handle, const Varo::DATA_BUFFER& data,
                             CORBA::ULong timeout) override;
  CORBA::ULong packet_foward_front(CORBA::ULong handle, const Varo::DATA_BUFFER& data,
                                   CORBA::ULong timeout) override;
  CORBA::ULong packet_receive(CORBA::ULong id, CORBA::ULong_out source, Varo::DATA_BUFFER_out data,
                              CORBA::ULong timeout) override;
  CORBA::ULong packet_receive_n(CORBA::ULong id, Varo::DATA_BUFFER_SEQ_out list, CORBA::ULong count,
                                CORBA::ULong timeout) override;
  CORBA::ULong packet_replay(CORBA::ULong handle, const Varo::DATA_BUFFER& data,
                             CORBA::ULong timeout) override;
  CORBA::ULong packet_replay_wait(CORBA::ULong handle, Varo::DATA_BUFFER_out data,
                                  CORBA::ULong timeout) override;

  // --- selection: 2007 for an unknown handle, 2008 for one that may not select, before any wait

  CORBA::ULong select_event_port(const Varo::PORT_HANDLE_SET& handles, CORBA::ULong_out ready,
                                 CORBA::ULong timeout) override;
  CORBA::ULong select_replay_port(const Varo::PORT_HANDLE_SET& handles, CORBA::ULong_out ready,
                                  CORBA::ULong timeout) override;

  // --- events

  /// 0; 2014; 10.
  CORBA::ULong add_event(const char* name, CORBA::ULong code) override;
  /// 0 or 2007.
  CORBA::ULong clear_event(const char* name) override;
  /// 0 or 2001.
  CORBA::Long copy_enable(const char* name, CORBA::Long flag) override;
  /// 0; 3011 no subscriptions at all; 3012 none under the code; 10.
  CORBA::ULong declare_event(CORBA::ULong code, const Varo::DATA_BUFFER& data,
                             CORBA::ULong option) override;
  CORBA::ULong declare_event_n(CORBA::ULong code, const Varo::DATA_BUFFER_SEQ& list,
                               CORBA::ULong option) override;
  /// 0; 2007 with `count` as it was.
  CORBA::ULong event_count(const char* name, CORBA::ULong_out count) override;
  /// 0 or 2001.
  CORBA::ULong send_event(const char* name, const Varo::DATA_BUFFER& data) override;
  /// 0; 2001, also for a port that is no event box; 10.
  CORBA::ULong setPersistent(const char* name, CORBA::Long flag) override;

  // --- snapshot and housekeeping

  /// Writes the snapshot file; a failure leaves the old one whole. 0; 2 not writable; 10.
  CORBA::ULong make_snapshot() override;
  /// load_refsnapshot(get_snap_path()).
  CORBA::ULong load_snapshot() override;
  /// Makes a snapshot and opens it for remote reading; nil when it cannot be opened.
  Varo::FileHandle_ptr openSnapShot() override;
  /// Creates the ports and subscriptions of the snapshot file at `path`; what exists already stays.
  /// 0; 0xFFFFFFFF when the file cannot be opened; 10.
  unsigned int load_refsnapshot(const char* path);
  /// The snapshot file's path, composed at the first call; good while the servant lives.
  const char* get_snap_path();
  portsvc::Snapshot_State snapshot_state();
  /// For the host, which shows them to those who run the server. Everything is counted from the
  /// servant's, or the process's, start. Takes the registry lock while it lists the ports, then the
  /// locks of one port after the other.
  virtual portsvc::Server_Figures figures();
  /// Deletes the event boxes that have expired.
  void checkNoTransition();

  /// Sets the realm name. Call it before the servant serves.
  void SetReleam(const char* realm);

 protected:
  /// The largest port id in the id table, or 758. Takes the registry lock.
  unsigned int last_handle();
  /// Ends the housekeeping thread. A role's destructor calls it first: a pass under way uses the
  /// role's lookup.
  void stop_housekeeping();
  /// A snapshot of the ports whose `wanted(port)` is true, in name order. Takes the registry lock.
  template <class Wanted>
  std::vector<boost::shared_ptr<Port_impl>> ports_in_name_order(Wanted&& wanted);

  portsvc::Event_Table events_;
  portsvc::Port_Registry registry_;
  unsigned int next_handle_ = 0;
  // Guards events_. Taken after registry_lock_ where both are held; nothing is taken under it.
  ACE_RW_Thread_Mutex event_lock_;
  // Guards registry_ and next_handle_. Under it may be taken: event_lock_, the locks of ports, the
  // client index's lock, and in the sub role the sub lock.
  ACE_Recursive_Thread_Mutex registry_lock_;
  unsigned int handle_limit_ = 0;
  ACE_CString first_part_;  // of the interface name
  ACE_CString second_part_;
  const ACE_CString interface_name_;  // this server's own name towards the others
  std::unique_ptr<vrData_Sender> data_sender_;
  std::string snapshot_path_;
  std::string realm_;

 private:
  unsigned int write_snapshot();
  unsigned int snapshot_of_all(std::string& bytes);

  /// An event for the boxes, with handle 0 and the payload's bytes.
  static Event_ptr make_event(const Varo::DATA_BUFFER& data, bool may_take);
  unsigned int subscribers(int code, boost::shared_ptr<const portsvc::Event_Table::Names>& names);

  ACE_Thread_Mutex snapshot_state_lock_;  // guards snapshot_state_; a leaf
  portsvc::Snapshot_State snapshot_state_;
  TransitionCheckTask housekeeping_;
};

template <class Wanted>
std::vector<boost::shared_ptr<Port_impl>> Port_Factory_i::ports_in_name_order(Wanted&& wanted) {
  std::vector<boost::shared_ptr<Port_impl>> ports;
  ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, registry_lock_, ports);
  registry_.for_each([&](const boost::shared_ptr<Port_impl>& port) {
    if (wanted(*port)) ports.push_back(port);
  });
  std::sort(ports.begin(), ports.end(), [](const auto& a, const auto& b) {
    return std::string_view(a->name()) < std::string_view(b->name());
  });
  return ports;
}
