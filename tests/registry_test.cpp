// Connections and registry of the servant core.
#include <gtest/gtest.h>

#include <cerrno>
#include <future>

#include "tests/support/allocation.h"
#include "tests/support/servers.h"
#include "tests/support/threads.h"

namespace portsvc {
namespace {

using Connections = std::vector<std::pair<std::string, std::string>>;

class Registry : public ::testing::Test {
 protected:
  void create(std::initializer_list<const char*> names, unsigned int kind = PORT_MASTER) {
    for (const char* name : names) ASSERT_EQ(server.create_port(name, kind, 3), result::ok);
  }
  Connections connections() {
    Varo::DT_PORT_SVC::ConnectionSeq_var list;
    EXPECT_EQ(server.current_connection(list.out()), result::ok);
    Connections all;
    for (CORBA::ULong i = 0; i < list->length(); ++i) {
      all.emplace_back(list[i].port_name.in(), list[i].host.in());
    }
    return all;
  }

  TestClock clock;
  MainServer server;
};

TEST_F(Registry, HandsOutClientHandlesFrom758) {
  create({"p"});
  create({"box"}, PORT_EVENTBOX);
  EXPECT_EQ(connect(server, "p", CONNECT_CLIENT, ACCESS_WAIT), Connected(result::ok, 758, 0));
  EXPECT_EQ(connect(server, "box", CONNECT_CLIENT, ACCESS_WAIT), Connected(result::ok, 759, 0));
  EXPECT_FALSE(server.find_port(759)) << "a box keeps no clients";
  server.delete_port("p");
  create({"p"});
  EXPECT_EQ(client(server, "p"), 760u) << "handles are not used again";
}

TEST_F(Registry, RestartsClientHandlesAt10000) {
  create({"p"});
  server.next_handle_ = client_handle_limit - 1;
  EXPECT_EQ(client(server, "p"), 4294967293u);
  EXPECT_EQ(client(server, "p"), 10000u);
  EXPECT_EQ(client(server, "p"), 10001u);
}

TEST_F(Registry, ConnectsOwnersAndRefusesTheRest) {
  create({"p"});
  const unsigned int id = id_of(server, "p");
  EXPECT_EQ(connect(server, "p", CONNECT_OWNER, ACCESS_WAIT), Connected(result::ok, id, 0));
  EXPECT_EQ(connect(server, "p", CONNECT_OWNER, ACCESS_WAIT),
            Connected(result::owner_exists, id, id));
  EXPECT_EQ(connect(server, "p", PORT_MASTER, ACCESS_WAIT),
            Connected(result::bad_mode, untouched, 0));
  for (const unsigned int mode : {CONNECT_CLIENT, CONNECT_OWNER, PORT_MASTER}) {
    EXPECT_EQ(connect(server, "q", mode, ACCESS_WAIT),
              Connected(result::unknown_name, untouched, 0));
  }
  EXPECT_EQ(client(server, "p"), 758u) << "none of these took a handle";
}

TEST_F(Registry, DisconnectsOwnersAndClientsByTheirNumber) {
  create({"p", "q"});
  const unsigned int id = owner(server, "p");
  const unsigned int handle = client(server, "q");
  EXPECT_EQ(server.disconnect_port(757), result::unknown_handle);
  EXPECT_EQ(server.disconnect_port(id), result::ok);
  EXPECT_EQ(server.disconnect_port(id), result::not_connected);
  EXPECT_EQ(server.disconnect_port(handle), result::ok);
  EXPECT_EQ(server.disconnect_port(handle), result::unknown_handle);
}

TEST_F(Registry, TellsWhatAPortIs) {
  create({"p"});
  Varo::DT_PORT_SVC::PORT_INFO info{};
  info.limit = untouched;
  EXPECT_EQ(server.get_port_info("q", info), result::no_such_port);
  EXPECT_EQ(info.limit, untouched);
  const unsigned int id = owner(server, "p", ACCESS_SELECT);
  EXPECT_EQ(server.get_port(id)->select(true), result::ok);
  EXPECT_EQ(send(server, client(server, "p"), "queued"), result::ok);
  for (const unsigned int connected : {1u, 0u}) {
    EXPECT_EQ(server.get_port_info("p", info), result::ok);
    EXPECT_EQ(info.kind, PORT_MASTER);
    EXPECT_EQ(info.port_id, id);
    EXPECT_EQ(info.owner_connected, connected);
    EXPECT_EQ(info.owner_access, ACCESS_SELECT);
    EXPECT_EQ(info.limit, 3u);
    server.disconnect_port(id);
  }
}

TEST_F(Registry, ListsNamesInTheOrderOfCreation) {
  create({"z", "a"});
  create({"y", "b"}, PORT_EVENTBOX);
  create({"m"});
  EXPECT_EQ(names(server), Names({"z", "a", "m"}, {"y", "b"}));
  for (const char* gone : {"a", "y", "unknown"}) EXPECT_EQ(server.delete_port(gone), result::ok);
  EXPECT_EQ(server.exist("a"), static_cast<int>(result::unknown_name));
  EXPECT_EQ(server.exist("b"), static_cast<int>(result::ok));
  create({"a"}, PORT_EVENTBOX);
  EXPECT_EQ(names(server), Names({"z", "m"}, {"b", "a"}));
}

TEST_F(Registry, ListsConnectedHostsInNameOrder) {
  EXPECT_EQ(server.set_connected_host("unknown", "h"), result::ok);
  EXPECT_EQ(connections(), Connections());
  // Bytes count as unsigned, and a prefix comes first.
  create({"\xc3", "ab", "a", "b"});
  create({"B"}, PORT_EVENTBOX);
  for (const char* name : {"\xc3", "ab", "a", "B"}) server.set_connected_host(name, name);
  server.set_connected_host("ab", "");
  EXPECT_EQ(connections(), (Connections{{"B", "B"}, {"a", "a"}, {"\xc3", "\xc3"}}));
  server.disconnect_port(owner(server, "a"));
  EXPECT_EQ(connections(), (Connections{{"B", "B"}, {"\xc3", "\xc3"}}));
}

TEST_F(Registry, ForgetsPortsAndSubscriptionsButNoIdsWhenCleared) {
  EXPECT_EQ(server.last_handle(), 758u);
  create({"p", "q"});
  create({"box"}, PORT_EVENTBOX);
  server.add_event("box", 7);
  const unsigned int old_id = id_of(server, "p");
  const unsigned int last = server.last_handle();
  EXPECT_EQ(last, std::max({old_id, id_of(server, "q"), id_of(server, "box"), 0u}));
  const unsigned int handle = client(server, "p");
  const auto held = server.get_port("p");

  server.clearAll();
  EXPECT_EQ(names(server), Names());
  EXPECT_EQ(server.exist("p"), static_cast<int>(result::unknown_name));
  EXPECT_EQ(server.declare_event(7, wire(""), 0), result::no_subscriptions);
  EXPECT_FALSE(server.get_port(old_id));
  EXPECT_EQ(send(server, handle, "x"), result::unknown_handle);
  EXPECT_EQ(held->has_client(handle), result::ok) << "the port itself is left alone";
  EXPECT_EQ(server.last_handle(), last);
  create({"p"});
  EXPECT_EQ(client(server, "p"), handle + 1);
  // An old id leads to the new port of that name.
  EXPECT_EQ(server.get_port(old_id), server.get_port("p"));
}

TEST_F(Registry, TakesNamesOfAnyLength) {
  const std::string last_differs = std::string(9999, 'n') + "1";
  const std::string huge = std::string(9999, 'n') + "2";
  create({"", huge.c_str()});
  create({last_differs.c_str()}, PORT_EVENTBOX);
  EXPECT_EQ(names(server), Names({"", huge}, {last_differs}));
  EXPECT_EQ(connect(server, "", CONNECT_CLIENT, ACCESS_WAIT), Connected(result::ok, 758, 0));
  server.set_connected_host(huge.c_str(), huge.c_str());
  EXPECT_EQ(connections(), (Connections{{huge, huge}}));
  EXPECT_EQ(server.add_event(last_differs.c_str(), 1), result::ok);
  EXPECT_EQ(server.declare_event(1, wire("e"), 0), result::ok);
  EXPECT_EQ(event_count(server, last_differs.c_str()), 1u);
  server.delete_port("");
  EXPECT_EQ(names(server).first, (Texts{huge}));
}

TEST_F(Registry, MakesNoEventCodes) {
  CORBA::ULong code = untouched;
  EXPECT_EQ(server.gen_evc_code(code), result::ok);
  EXPECT_EQ(code, untouched);
}

TEST_F(Registry, SaysWhenAnAnswerCannotBeAllocated) {
  create({"p"});
  Varo::DT_PORT_SVC::ConnectionSeq_var list;
  Varo::STRING_LIST_var ports;
  Varo::STRING_LIST_var boxes;
  const NoMemory scope;
  errno = 0;
  EXPECT_EQ(server.current_connection(list.out()), result::failed);
  EXPECT_EQ(errno, ENOMEM);
  errno = 0;
  EXPECT_EQ(server.patch_object_name(ports.out(), boxes.out()), result::out_of_memory);
  EXPECT_EQ(errno, ENOMEM);
}

TEST_F(Registry, LetsARunningOperationKeepItsPort) {
  create({"p"});
  const unsigned int id = owner(server, "p");
  const boost::weak_ptr<Port_impl> port = server.get_port("p");
  auto taken = std::async(std::launch::async, [&] { return receive(server, id, 5); });
  ASSERT_TRUE(clock.await_poll(port.lock().get()));
  server.delete_port("p");
  create({"p"});
  EXPECT_NE(id_of(server, "p"), id);
  ASSERT_TRUE(clock.await_poll());
  EXPECT_FALSE(port.expired());
  clock.advance(5);
  EXPECT_EQ(taken.get(), Received(result::timed_out, untouched, ""));
  EXPECT_TRUE(port.expired());
  EXPECT_EQ(std::get<0>(receive(server, id)), result::unknown_handle);
}

TEST_F(Registry, StaysInStepUnderConcurrentUse) {
  // All threads create, use and delete the same few ports.
  in_parallel(4, [&](int i) {
    for (int n = 0; n < 200; ++n) {
      const std::string name(1, static_cast<char>('a' + (n + i) % 3));
      server.create_port(name.c_str(), n % 2 ? PORT_MASTER : PORT_EVENTBOX, 3);
      const Connected joined = connect(server, name.c_str(), CONNECT_CLIENT, ACCESS_SELECT);
      server.set_connected_host(name.c_str(), "host");
      connections();
      names(server);
      server.add_event(name.c_str(), 1);
      server.declare_event(1, wire("e"), 0);
      server.disconnect_port(std::get<1>(joined));
      if (n % 50 == 49) server.clearAll();
      server.delete_port(name.c_str());
    }
  });
  for (const char* name : {"a", "b", "c"}) server.delete_port(name);
  EXPECT_EQ(names(server), Names());
}

}  // namespace
}  // namespace portsvc
