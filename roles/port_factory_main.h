// The servant of a main server.
#pragma once

#include <ace/Thread_Mutex.h>

#include <list>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "core/port_factory_i.h"
#include "roles/event_forwarding.h"
#include "roles/sub_servers.h"

/// Creates ports with random ids, copies what is forwarded into its event boxes to the sub servers,
/// takes the changes that sub servers send, and knows which server keeps which port.
class Port_Factory_Main : public Port_Factory_i {
 public:
  /// Reads the list of sub servers from the directory, once.
  explicit Port_Factory_Main(const char* interface_name);
  /// Ends the sending tasks; each may still be in a call (peer call time-out) or its idle pause.
  ~Port_Factory_Main() override;

  /// Nil: there is no server above a main server.
  Varo::DT_PORT_SVC::Port_Factory_var get_remote_point() override;
  void releaseRemotePoint() override {}
  /// Enters the port under this server's own interface name, unless it is entered already.
  void set_notify_port(const char* name) override;
  /// Puts the packet into the port as an event and queues a copy to every sub server while the
  /// port's copy enable is set. Always 0; no sub server is waited for.
  int process_event_data(Port_impl* port, unsigned int handle, const vrBuffer& data,
                         bool front) override;

  /// Closes what sub servers have open here, clients and owners, that have given no sign of life
  /// during the last `rounds` calls of this; answers their names. They are as after a restart of
  /// this server when they are back.
  std::vector<std::string> end_silent_sub_servers(unsigned int rounds);

  CORBA::ULong connect_port(const char* name, CORBA::ULong_out handle, CORBA::ULong mode,
                            CORBA::ULong access, CORBA::ULong_out owner) override;
  CORBA::ULong disconnect_port(CORBA::ULong handle) override;
  /// 0, also for a name that exists, which stays as it is; 4 unknown kind; 10.
  CORBA::ULong create_port(const char* name, CORBA::ULong kind, CORBA::ULong limit) override;
  /// As copy_enable.
  CORBA::ULong sendEvcDatatoSlave(const char* name, CORBA::Long enable) override;
  /// 0; does nothing.
  CORBA::ULong push_remote_consumer(const char* name) override;
  /// Stores an event that a sub server sends. 0 or 2007. It is not copied on.
  CORBA::ULong update_port(const char* name, CORBA::ULong handle,
                           const Varo::DATA_BUFFER& data) override;
  CORBA::ULong update_port_front(const char* name, CORBA::ULong handle,
                                 const Varo::DATA_BUFFER& data) override;
  /// Records that `server` keeps the port; the first record of a name stays. 0; 5. The marks of sub
  /// servers are kept apart (Sub_Servers).
  CORBA::ULong force_toslave(const char* server, const char* name) override;
  /// The server that keeps the port. 0; 2001 with an empty text; 5.
  CORBA::ULong inquire_master(const char* name, CORBA::String_out master) override;
  /// The consumers that the data sender knows. 0; 3009 none; 5.
  CORBA::ULong get_remote_sub(Varo::STRING_LIST_out list) override;

  portsvc::Server_Figures figures() override;

  /// For the host: puts `data` into an event box as a client within the process would forward it,
  /// so that the sub servers get their copies. 0; 2001 no event box of that name; 5 it does not fit
  /// into the limit of queued bytes, or there is no memory. What did not answer 0 changed nothing.
  unsigned int forward_event(const char* box, std::string_view data);

  void RunTask() {}

  /// Entries of the master table beyond which the oldest of names that are no ports here go.
  static constexpr std::size_t most_masters = 100'000;

 protected:
  /// The sending task of a port name, made and started on first use; null when the task table lock
  /// cannot be taken.
  EventSendTask* task_for(const char* port_name);

 private:
  CORBA::ULong update(const char* name, unsigned int handle, const Varo::DATA_BUFFER& data,
                      bool front);
  void disconnect_all(const portsvc::Sub_Servers::Handles& handles);
  void enter_master(const char* name, const char* server);
  // Answers whether the table is too large now.
  bool add_master(const char* name, const char* server);

  std::vector<std::string> sub_servers_;  // never changed after construction
  ACE_Thread_Mutex task_table_lock_;      // guards tasks_; only a task's start happens under it
  std::map<std::string, std::unique_ptr<EventSendTask>> tasks_;  // by port name; only grows
  portsvc::Sub_Servers known_subs_;
  using Masters = std::map<std::string, std::string, std::less<>>;
  ACE_Thread_Mutex master_lock_;  // guards what follows; a leaf
  Masters masters_;               // port name to server
  std::list<Masters::iterator> masters_by_age_;
};
