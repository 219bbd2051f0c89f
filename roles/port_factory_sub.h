// The servant of a sub server.
#pragma once

#include <ace/Recursive_Thread_Mutex.h>
#include <ace/SString.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <set>
#include <string>

#include "core/port_factory_i.h"
#include "roles/main_life.h"

/// Keeps copies of the ports of its main server (the peer): clones them all when it starts, and any
/// further one when a caller names it. What is forwarded into its event boxes goes to the main
/// server; what the main server distributes is stored here. A failed call to the main server drops
/// the reference that was used; local ports go on working.
///
/// Calls to the main server, other than those of proxies, are made under the sub lock, never under
/// the registry lock once the server serves: local ports and known names do not wait for the main
/// server. A lookup of an unknown name waits for at most one peer call time-out in all, and when
/// one has been lost on the main server the next second's lookups do without it.
///
/// A main server that leads back to this one, by whatever way round, counts as unreachable.
class Port_Factory_Sub : public Port_Factory_i {
 public:
  /// `main_server` is the name of the peer in the directory; `realm` may be null. Clones what the
  /// main server has; with none in reach the registry starts empty.
  Port_Factory_Sub(const char* main_server, const char* interface_name, const char* realm,
                   CORBA::ORB_var orb);
  ~Port_Factory_Sub() override;

  Varo::DT_PORT_SVC::Port_Factory_var get_remote_point() final;  // the constructor calls it
  void releaseRemotePoint() override;
  /// Reports to the main server that this server serves the owner of the named port, and marks the
  /// port so that it is reported again after every reconnection.
  void set_notify_port(const char* name) override;
  /// Sends the packet to the main server's box of the same name, always to its end. 0; 99 when the
  /// main server cannot be found. Nothing is stored here.
  int process_event_data(Port_impl* port, unsigned int handle, const vrBuffer& data,
                         bool front) override;

  // --- the lives of the main server (see Main_Life)
  std::uint64_t peer_life(Varo::DT_PORT_SVC::Port_Factory_ptr peer, bool certainly) override;
  void note_peer_handle(unsigned int handle, std::uint64_t life, portsvc::PeerHandle now) override;
  /// Marks the port at the main server as owned through this server, and lets the proxy follow an
  /// id that has changed there.
  void note_peer_owner(Port_impl* port, Varo::DT_PORT_SVC::Port_Factory_ptr peer) override;
  /// Remembers across a kill what is open at the main server; see Main_Life::keep_in.
  void keep_open_handles_in(const std::string& path) { life_.keep_in(path); }

  // --- for the connection manager
  /// True when calls to `peer` come back to this server; the main server counts as unreachable from
  /// then on, until this is asked again.
  bool leads_back(Varo::DT_PORT_SVC::Port_Factory_ptr peer);
  /// Brings this server in line with the main server: takes over its port ids, connects owners
  /// there that it does not know, disconnects owners and clients that nobody here has any more.
  /// With `all` every proxy is looked at, else only what is known to be unsettled. False when the
  /// main server went away meanwhile.
  bool settle(Varo::DT_PORT_SVC::Port_Factory_ptr peer, bool all);
  void main_server_reached_anew() { life_.reached_anew(); }
  /// What a beat has found: whether the main server counts as reached.
  void note_main_server(bool reached);

  /// The connection manager has reached the main server (anew): keeps the reference, announces this
  /// server and reports its ports. 0; 10; 0xFFFFFFFF when the announcement failed or `object` is no
  /// port service; the reference is nil then.
  unsigned int back_call_(CORBA::Object_var& object);

  /// Creates a port of this server only. 0; 6 the name exists; 4 unknown kind; 10. PORT_SLAVE makes
  /// a port that is served here, PORT_MASTER a proxy.
  CORBA::ULong create_port(const char* name, CORBA::ULong kind, CORBA::ULong limit) override;
  /// The main server's lists when it can be found, else this server's. 0; 5; 10; the peer's code.
  CORBA::ULong patch_object_name(Varo::STRING_LIST_out ports, Varo::STRING_LIST_out boxes) override;
  /// An owner's answer. On a proxy the handle loses remote_client_offset on its way.
  CORBA::ULong packet_replay(CORBA::ULong handle, const Varo::DATA_BUFFER& data,
                             CORBA::ULong timeout) override;
  /// 0; changes nothing.
  CORBA::ULong sendEvcDatatoSlave(const char* name, CORBA::Long enable) override;
  /// Registers a consumer with the data sender. 0.
  CORBA::ULong push_remote_consumer(const char* name) override;
  /// Stores an event that the main server sends; a box that is missing is cloned first. 0;
  /// 0xFFFFFFFF when there is no such port.
  CORBA::ULong update_port(const char* name, CORBA::ULong handle,
                           const Varo::DATA_BUFFER& data) override;
  CORBA::ULong update_port_front(const char* name, CORBA::ULong handle,
                                 const Varo::DATA_BUFFER& data) override;
  /// Makes this server serve the port itself: it is made anew with a new port id and the old limit.
  /// 2001 when neither server knows it; else as create_port.
  CORBA::ULong force_toslave(const char* server, const char* name) override;
  /// Asks the main server. Its answer; 0xFFFFFFFF and "DUMMY" when it cannot be asked; 10.
  CORBA::ULong inquire_master(const char* name, CORBA::String_out master) override;
  /// 0 with an empty list.
  CORBA::ULong get_remote_sub(Varo::STRING_LIST_out list) override;
  /// Answers only while no exchange with the main server is in progress.
  void heart_bit() override;

  portsvc::Server_Figures figures() override;
  /// For the host, which calls set_notify_port for each while the main server is reached: the
  /// packet ports that were made here, so that this server serves their owners, and that have not
  /// been reported to the main server.
  std::vector<std::string> kept_but_unreported();

 protected:
  using Port_Factory_i::get_port;
  /// Clones a port that is missing here and that the main server has.
  boost::shared_ptr<Port_impl> get_port(const char* name) override;

  /// Clones all ports of the main server, and logs how many. 0; 10.
  int do_init_operation();
  /// Reports every marked port to the main server. 0; 10; 0xFFFFFFFF when a call failed or there is
  /// no reference. Takes the registry lock, and the sub lock per port.
  int notify_masters();

  // --- cloning
  /// Copies every port of the main server. The caller holds the registry lock.
  void clon_all_object();
  /// Registers one copy, empty when the name exists or the kind is unknown. The caller holds the
  /// registry lock.
  boost::shared_ptr<Port_impl> create_clon(const char* name,
                                           const Varo::DT_PORT_SVC::PORT_INFO& info);
  /// Copies one port if the main server has it, else empty; the port itself when somebody else was
  /// first. Takes the sub lock for the question, afterwards the registry lock.
  boost::shared_ptr<Port_impl> create_clon_port(const char* name);

 private:
  using Port_Factory_var = Varo::DT_PORT_SVC::Port_Factory_var;
  using Port_Factory_ptr = Varo::DT_PORT_SVC::Port_Factory_ptr;
  class Exchange;

  CORBA::ULong update(const char* name, unsigned int handle, const Varo::DATA_BUFFER& data,
                      bool front);
  bool ask_for(const char* name, Varo::DT_PORT_SVC::PORT_INFO& info);
  void close_left_open(Port_Factory_ptr peer);
  void disconnect_strays(Port_Factory_ptr peer);
  bool settle_proxy(Port_Factory_ptr peer, Port_impl& port);
  bool take_over_id(Port_Factory_ptr peer, Port_impl& port);

  const ACE_CString main_server_;
  const CORBA::ORB_var orb_;
  const std::string owner_note_;  // the host of ports owned through this server
  portsvc::Main_Life life_;
  std::atomic<bool> leads_back_{false};
  std::mutex unsettled_lock_;         // guards the two below; a leaf
  std::set<std::string> unsettled_;   // names of proxies
  std::set<std::string> unreported_;  // names of ports made here
  std::mutex round_lock_;             // guards the two below; a leaf
  std::string round_;                 // the name this server asks for to see whether it comes round
  bool came_round_ = false;
  // When a lookup has lost time on the main server last, in steady_clock's ticks.
  std::atomic<std::chrono::steady_clock::rep> time_lost_at_;
  std::mutex peer_lock_;  // guards peer_; a leaf
  portsvc::Peer_Figures peer_;
  Port_Factory_var master_;  // nil until back_call_, and after any failed call made through it
  // Serialises the exchanges with the main server and guards master_. Held across those calls.
  // Under it may be taken: the registry lock and what comes below that.
  ACE_Recursive_Thread_Mutex sub_lock_;
};
