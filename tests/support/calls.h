// Short forms of the calls that tests make most, to a servant in this process or to a server.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <string>
#include <tuple>
#include <utility>

#include "core/port_factory_i.h"
#include "idl/port_codes.h"
#include "tests/support/payload.h"

namespace portsvc {

/// What an out number holds that no operation has written.
constexpr unsigned int untouched = 0xABCD1234;

// Whom a call is made to.
inline Port_Factory_i& at(Port_Factory_i& servant) { return servant; }
inline auto& at(Varo::DT_PORT_SVC::Port_Factory_ptr server) { return *server; }
inline auto& at(const Varo::DT_PORT_SVC::Port_Factory_var& server) { return *server.in(); }
template <class Server>
using Answering = decltype(at(std::declval<Server&>()));

/// Creates ports, which must work.
template <class Server, class = Answering<Server>>
void create(Server&& server, const Texts& names, unsigned int kind = PORT_MASTER,
            unsigned int limit = 8) {
  for (const std::string& name : names) {
    EXPECT_EQ(at(server).create_port(name.c_str(), kind, limit), result::ok) << name;
  }
}

/// Result code, handle, owner.
using Connected = std::tuple<unsigned int, unsigned int, unsigned int>;
template <class Server, class = Answering<Server>>
Connected connect(Server&& server, const std::string& name, unsigned int mode,
                  unsigned int access) {
  CORBA::ULong handle = untouched;
  CORBA::ULong owner = untouched;
  const unsigned int code = at(server).connect_port(name.c_str(), handle, mode, access, owner);
  return {code, handle, owner};
}

/// Connects, which must work, and answers the handle.
template <class Server, class = Answering<Server>>
unsigned int connected(Server&& server, const std::string& name, unsigned int mode,
                       unsigned int access = ACCESS_WAIT) {
  const auto [code, handle, owner] = connect(server, name, mode, access);
  EXPECT_EQ(code, result::ok) << name;
  EXPECT_EQ(owner, 0u) << name;
  return handle;
}

template <class Server, class = Answering<Server>>
unsigned int send(Server&& server, unsigned int handle, const std::string& data,
                  unsigned int timeout = 0) {
  return at(server).packet_foward(handle, wire(data), timeout);
}

/// Result code, source, payload.
using Received = std::tuple<unsigned int, unsigned int, std::string>;
template <class Server, class = Answering<Server>>
Received receive(Server&& server, unsigned int id, unsigned int timeout = 0) {
  CORBA::ULong source = untouched;
  Varo::DATA_BUFFER_var data;
  const unsigned int code = at(server).packet_receive(id, source, data.out(), timeout);
  return {code, source, text(data.in())};
}

/// Result code, payload.
using Reply = std::pair<unsigned int, std::string>;
template <class Server, class = Answering<Server>>
Reply reply(Server&& server, unsigned int handle, unsigned int timeout = 0) {
  Varo::DATA_BUFFER_var data;
  const unsigned int code = at(server).packet_replay_wait(handle, data.out(), timeout);
  return {code, text(data.in())};
}

template <class Server, class = Answering<Server>>
Varo::DT_PORT_SVC::PORT_INFO info_of(Server&& server, const std::string& name) {
  Varo::DT_PORT_SVC::PORT_INFO info{};
  EXPECT_EQ(at(server).get_port_info(name.c_str(), info), result::ok) << name;
  return info;
}

/// Kind, id, owner connected, owner's access, limit.
using Facts = std::array<unsigned int, 5>;
template <class Server, class = Answering<Server>>
Facts facts(Server&& server, const std::string& name) {
  const auto info = info_of(server, name);
  return {info.kind, info.port_id, info.owner_connected, info.owner_access, info.limit};
}

template <class Server, class = Answering<Server>>
unsigned int event_count(Server&& server, const std::string& box) {
  CORBA::ULong count = untouched;
  EXPECT_EQ(at(server).event_count(box.c_str(), count), result::ok) << box;
  return count;
}

}  // namespace portsvc
