// Servants in this process, called directly.
#pragma once

#include <vector>

#include "roles/port_factory_main.h"
#include "roles/port_factory_sub.h"
#include "tests/support/calls.h"
#include "tests/support/test_clock.h"

namespace portsvc {

/// A role's servant with its protected hooks open.
template <class Role>
class Opened : public Role {
 public:
  using Role::find_port;
  using Role::get_port;
  using Role::last_handle;
  using Role::next_handle_;
  using Role::Role;
};

class MainServer : public Opened<Port_Factory_Main> {
 public:
  explicit MainServer(const char* interface_name = "plant/main") : Opened(interface_name) {}
  using Port_Factory_Main::task_for;
};

using SubServer = Opened<Port_Factory_Sub>;

/// A test of a main server.
class WithServer : public ::testing::Test {
 protected:
  TestClock clock;
  MainServer server;
};

inline unsigned int client(Port_Factory_i& server, const char* name,
                           unsigned int access = ACCESS_WAIT) {
  return connected(server, name, CONNECT_CLIENT, access);
}

inline unsigned int owner(Port_Factory_i& server, const char* name,
                          unsigned int access = ACCESS_WAIT) {
  return connected(server, name, CONNECT_OWNER, access);
}

inline bool exists(Port_Factory_i& server, const char* name) { return server.exist(name) == 0; }

// Calls of a port itself; data that it does not write stays "untouched".
inline Received receive(Port_impl& port, unsigned int timeout) {
  unsigned int source = untouched;
  vrBuffer data = buffer("untouched");
  const unsigned int code = port.receive(source, data, timeout);
  return {code, source, text(data)};
}
inline Reply reply(Port_impl& port, unsigned int handle, unsigned int timeout) {
  vrBuffer data = buffer("untouched");
  const unsigned int code = port.replay_wait(handle, data, timeout);
  return {code, text(data)};
}

/// Result code, payloads.
using Events = std::pair<unsigned int, Texts>;

inline Events receive_n(Port_Factory_i& server, unsigned int id, unsigned int count,
                        unsigned int timeout = 0) {
  Varo::DATA_BUFFER_SEQ_var list;
  const unsigned int code = server.packet_receive_n(id, list.out(), count, timeout);
  return {code, texts(list.in())};
}

/// The same of a box itself, and the source.
inline Events receive_n(Port_impl& box, unsigned int count, unsigned int& source) {
  std::vector<Event_ptr> events;
  const unsigned int code = box.receive_n(source = untouched, events, count, 0);
  Texts all;
  for (const Event_ptr& event : events) all.push_back(text(*event));
  return {code, all};
}

/// Result code, ready handle.
using Selected = std::pair<unsigned int, unsigned int>;

template <class Select>
Selected select(Port_Factory_i& server, Select operation, const std::vector<unsigned int>& handles,
                unsigned int timeout = 0) {
  CORBA::ULong ready = untouched;
  const unsigned int code = (server.*operation)(handle_set(handles), ready, timeout);
  return {code, ready};
}

inline unsigned int id_of(Port_Factory_i& server, const char* name) {
  return info_of(server, name).port_id;
}

/// Result code, the server that keeps the port.
using Keeper = std::pair<unsigned int, std::string>;

inline Keeper inquire(Port_Factory_i& server, const char* name) {
  CORBA::String_var keeper;
  const unsigned int code = server.inquire_master(name, keeper.out());
  return {code, keeper.in()};
}

/// All events of a box, which leave it.
inline Texts drain(Port_Factory_i& server, const char* box) {
  return receive_n(server, id_of(server, box), 0xFFFFFFFF).second;
}

/// Names of ports and of event boxes.
using Names = std::pair<Texts, Texts>;

inline Names names(Port_Factory_i& server) {
  Varo::STRING_LIST_var ports;
  Varo::STRING_LIST_var boxes;
  EXPECT_EQ(server.patch_object_name(ports.out(), boxes.out()), result::ok);
  return {texts(ports.in()), texts(boxes.in())};
}

}  // namespace portsvc
