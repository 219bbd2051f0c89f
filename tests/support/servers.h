// Servants in this process, called directly, and short forms of the calls tests make most.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "roles/port_factory_main.h"
#include "roles/port_factory_sub.h"
#include "tests/support/payload.h"
#include "tests/support/test_clock.h"

namespace portsvc {

/// What an out number holds that no operation has written.
constexpr unsigned int untouched = 0xABCD1234;

/// A role's servant with its protected hooks open.
template <class Role>
class Opened : public Role {
 public:
  using Role::find_port;
  using Role::get_port;
  using Role::last_handle;
  using Role::next_handle_;
  using Role::Role;
  using Role::wait_for_replay_signal;
  using Role::wait_for_signal;
};

class MainServer : public Opened<Port_Factory_Main> {
 public:
  explicit MainServer(const char* interface_name = "plant/main") : Opened(interface_name) {}
  using Port_Factory_Main::task_for;
};

using SubServer = Opened<Port_Factory_Sub>;

/// Result code, handle, owner.
using Connected = std::tuple<unsigned int, unsigned int, unsigned int>;

inline Connected connect(Port_Factory_i& server, const char* name, unsigned int mode,
                         unsigned int access) {
  CORBA::ULong handle = untouched;
  CORBA::ULong owner = untouched;
  const unsigned int code = server.connect_port(name, handle, mode, access, owner);
  return {code, handle, owner};
}

/// Connects, which must work, and answers the handle.
inline unsigned int connected(Port_Factory_i& server, const char* name, unsigned int mode,
                              unsigned int access) {
  const auto [code, handle, owner] = connect(server, name, mode, access);
  EXPECT_EQ(code, result::ok) << name;
  EXPECT_EQ(owner, 0u) << name;
  return handle;
}

inline unsigned int client(Port_Factory_i& server, const char* name,
                           unsigned int access = ACCESS_WAIT) {
  return connected(server, name, CONNECT_CLIENT, access);
}

inline unsigned int owner(Port_Factory_i& server, const char* name,
                          unsigned int access = ACCESS_WAIT) {
  return connected(server, name, CONNECT_OWNER, access);
}

inline unsigned int send(Port_Factory_i& server, unsigned int handle, const char* data,
                         unsigned int timeout = 0) {
  return server.packet_foward(handle, wire(data), timeout);
}

/// Result code, source, payload.
using Received = std::tuple<unsigned int, unsigned int, std::string>;

inline Received receive(Port_Factory_i& server, unsigned int id, unsigned int timeout = 0) {
  CORBA::ULong source = untouched;
  Varo::DATA_BUFFER_var data;
  const unsigned int code = server.packet_receive(id, source, data.out(), timeout);
  return {code, source, text(data.in())};
}

/// Result code, payload.
using Reply = std::pair<unsigned int, std::string>;

inline Reply reply(Port_Factory_i& server, unsigned int handle, unsigned int timeout = 0) {
  Varo::DATA_BUFFER_var data;
  const unsigned int code = server.packet_replay_wait(handle, data.out(), timeout);
  return {code, text(data.in())};
}

// The same of a port itself; data that it does not write stays "untouched".
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

using Texts = std::vector<std::string>;

/// Result code, payloads.
using Events = std::pair<unsigned int, Texts>;

inline Events receive_n(Port_Factory_i& server, unsigned int id, unsigned int count,
                        unsigned int timeout = 0) {
  Varo::DATA_BUFFER_SEQ_var list;
  Events events;
  events.first = server.packet_receive_n(id, list.out(), count, timeout);
  for (CORBA::ULong i = 0; i < list->length(); ++i) events.second.push_back(text(list[i]));
  return events;
}

/// Result code, ready handle.
using Selected = std::pair<unsigned int, unsigned int>;

template <class Select>
Selected select(Port_Factory_i& server, Select operation, const std::vector<unsigned int>& handles,
                unsigned int timeout = 0) {
  Varo::PORT_HANDLE_SET set;
  set.length(static_cast<CORBA::ULong>(handles.size()));
  std::copy(handles.begin(), handles.end(), set.get_buffer());
  CORBA::ULong ready = untouched;
  const unsigned int code = (server.*operation)(set, ready, timeout);
  return {code, ready};
}

inline Varo::DT_PORT_SVC::PORT_INFO info_of(Port_Factory_i& server, const char* name) {
  Varo::DT_PORT_SVC::PORT_INFO info{};
  EXPECT_EQ(server.get_port_info(name, info), result::ok) << name;
  return info;
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

inline unsigned int event_count(Port_Factory_i& server, const char* box) {
  CORBA::ULong count = untouched;
  EXPECT_EQ(server.event_count(box, count), result::ok) << box;
  return count;
}

inline Texts texts(const Varo::STRING_LIST& list) {
  Texts all;
  for (CORBA::ULong i = 0; i < list.length(); ++i) all.emplace_back(list[i]);
  return all;
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
