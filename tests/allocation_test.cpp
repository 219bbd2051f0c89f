// Whatever allocation fails, the answer is a code, and everything is as it was.
#include "tests/support/allocation.h"

#include <cerrno>
#include <functional>

#include "platform/limits.h"
#include "tests/support/peers.h"

namespace portsvc {
namespace {

constexpr unsigned int no_memory = result::out_of_memory, failed = result::failed,
                       unknown = result::unknown_handle;

struct Call {
  unsigned int answer;   ///< with all the memory it needs
  unsigned int without;  ///< when that is lacking
  std::function<unsigned int()> make;
  bool may_lose = false;                ///< a payload, in silence, as by overflow
  const CORBA::ULong* given = nullptr;  ///< a handle that nobody has when the call has failed
};

class LackOfMemory : public WithPeers {
 protected:
  template <class Server>
  void expect_codes(Server& server, const std::vector<Call>& calls) {
    for (std::size_t i = 0; i < calls.size(); ++i) {
      const Call& call = calls[i];
      const Names before = names(server);
      const auto check = [&](unsigned int code) {
        if (call.may_lose && code == call.answer) return;
        EXPECT_EQ(code, call.without);
        EXPECT_EQ(errno, ENOMEM);
        EXPECT_EQ(names(server), before);
        EXPECT_FALSE(server.get_port("p")->has_selectors());
        EXPECT_FALSE(call.given && server.find_port(*call.given));
        errno = 0;
      };
      errno = 0;
      SCOPED_TRACE(i);
      EXPECT_EQ(fail_each_allocation(call.make, check), call.answer);
    }
  }

  const std::string name = std::string(40, 'n'), other = std::string(40, 'o');
  const Varo::DATA_BUFFER data = wire("payload");
  CORBA::ULong out = 0;
  CORBA::String_var keeper;
  Varo::STRING_LIST_var ports, boxes;
};

TEST_F(LackOfMemory, IsAnsweredByTheMainRoleAndItsPortsAndNothingIsCountedForEver) {
  const auto counted = limits().queued_bytes.used();
  directory->subs = {"sub"};
  {
    MainServer server;
    create(server, {"box"}, PORT_EVENTBOX, 1000);
    create(server, {"p"}, PORT_MASTER, 100);
    server.add_event("box", 7);
    server.force_toslave(name.c_str(), "p");
    server.set_connected_host("p", "host");
    const unsigned int handle = client(server, "p", ACCESS_SELECT), box = id_of(server, "box");
    const unsigned int id = owner(server, "p", ACCESS_SELECT);
    server.get_port("p")->select(true);
    for (int i = 0; i < 20; ++i) {  // enough for every attempt
      send(server, handle, "packet");
      server.packet_replay(handle, data, 0);
      for (int n = 0; n < 10; ++n) server.send_event("box", data);
    }
    server.get_port("p")->select(false);
    const vrPort_Buffer source(5, buffer("hello"));
    vrBuffer assigned = buffer("old");
    vrPort_Buffer copied(1, buffer("old"));
    const Varo::DATA_BUFFER_SEQ three = wires({"", "", ""});
    CORBA::ULong given = 0, owner = 0;
    Varo::DATA_BUFFER_var taken;
    Varo::DATA_BUFFER_SEQ_var list;
    Varo::DT_PORT_SVC::ConnectionSeq_var connections;
    const Varo::PORT_HANDLE_SET ids = handle_set({id}), handles = handle_set({handle});
    const std::vector<Call> calls{
        {5, 0, [&] { return vrBuffer(5, "hello").size(); }},
        {5, 0, [&] { return vrPort_Buffer(source).size(); }},
        {3, 0, [&] { return assigned.assign("new", 3), assigned.size(); }},
        {10, 5, [&] { return (copied = source).size() + copied.handle(); }},
        {0, no_memory, [&] { return server.inquire_master("p", keeper.out()); }},
        {0, no_memory, [&] { return server.select_event_port(ids, out, 1); }},
        {0, no_memory, [&] { return server.select_replay_port(handles, out, 1); }},
        {0, no_memory, [&] { return server.create_port(name.c_str(), PORT_MASTER, 3); }},
        {0, no_memory, [&] { return server.create_port(other.c_str(), PORT_EVENTBOX, 3); }},
        {0, no_memory, [&] { return server.force_toslave(other.c_str(), name.c_str()); }},
        {0, no_memory, [&] { return server.set_connected_host(name.c_str(), other.c_str()); }},
        {0, no_memory,
         [&] { return server.connect_port("p", given, CONNECT_CLIENT, ACCESS_WAIT, owner); }, false,
         &given},
        {0, no_memory, [&] { return server.add_event(other.c_str(), 7); }},
        {0, no_memory, [&] { return server.get_remote_sub(ports.out()); }, true},
        {0, no_memory, [&] { return server.patch_object_name(ports.out(), boxes.out()); }},
        {0, failed, [&] { return server.current_connection(connections.out()); }},
        {unknown, failed, [&] { return server.packet_receive(1, out, taken.out(), 0); }},
        {unknown, failed, [&] { return server.packet_replay_wait(1, taken.out(), 0); }},
        {unknown, failed, [&] { return server.packet_receive_n(1, list.out(), 2, 0); }},
        {0, no_memory, [&] { return server.packet_receive(id, out, taken.out(), 0); }},
        {0, no_memory, [&] { return server.packet_replay_wait(handle, taken.out(), 0); }},
        {0, failed, [&] { return server.packet_receive_n(box, list.out(), 2, 0); }},
        {0, no_memory, [&] { return server.declare_event_n(7, three, 0); }, true},
        {0, no_memory, [&] { return server.declare_event(7, data, 0); }, true},
        {0, no_memory, [&] { return server.send_event("box", data); }, true},
        {0, no_memory, [&] { return server.packet_replay(handle, data, 0); }, true},
        {0, no_memory, [&] { return server.update_port("box", 1, data); }, true},
        {0, no_memory, [&] { return server.packet_receive(box, out, taken.out(), 0); }, true},
        {0, no_memory, [&] { return server.delete_port(other.c_str()); }, true},
        {0, no_memory, [&] { return server.delete_port("p"); }, true},
    };
    expect_codes(server, calls);
  }
  EXPECT_EQ(limits().queued_bytes.used(), counted);
}

TEST_F(LackOfMemory, IsAnsweredByTheSubRole) {
  SubServer server("main", "plant/sub", nullptr, shared_orb());
  create(server, {"p"}, PORT_SLAVE);
  create(server, {"box"}, PORT_EVENTBOX);
  const unsigned int handle = client(server, "p");
  expect_codes(
      server,
      {
          {0, no_memory, [&] { return server.create_port(name.c_str(), PORT_SLAVE, 3); }},
          {0, no_memory, [&] { return server.patch_object_name(ports.out(), boxes.out()); }},
          {failed, no_memory, [&] { return server.inquire_master("p", keeper.out()); }},
          {0, no_memory, [&] { return server.packet_replay(handle, data, 0); }, true},
          {0, no_memory, [&] { return server.update_port("box", 1, data); }, true},
      });
}

}  // namespace
}  // namespace portsvc
