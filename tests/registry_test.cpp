// Connections and registry of the servant core, and what the background tasks do to it.
#include <filesystem>
#include <random>
#include <set>

#include "persistence/background_tasks.h"
#include "tests/support/servers.h"
#include "tests/support/threads.h"

namespace portsvc {
namespace {

class Registry : public WithServer {
 protected:
  // The ports with a connected host, "port host".
  Texts connections() {
    Varo::DT_PORT_SVC::ConnectionSeq_var list;
    EXPECT_EQ(server.current_connection(list.out()), result::ok);
    Texts all;
    for (CORBA::ULong i = 0; i < list->length(); ++i) {
      all.push_back(std::string(list[i].port_name) + " " + list[i].host.in());
    }
    return all;
  }
};

TEST_F(Registry, HandsOutClientHandlesFrom758AndAgainFrom10000) {
  create(server, {"p"});
  create(server, {"box"}, PORT_EVENTBOX);
  EXPECT_EQ(connect(server, "p", CONNECT_CLIENT, ACCESS_WAIT), Connected(result::ok, 758, 0));
  EXPECT_EQ(connect(server, "box", CONNECT_CLIENT, ACCESS_WAIT), Connected(result::ok, 759, 0));
  EXPECT_FALSE(server.find_port(759)) << "a box keeps no clients";
  server.delete_port("p");
  create(server, {"p"});
  for (const unsigned int mode : {CONNECT_CLIENT, CONNECT_OWNER, PORT_MASTER}) {
    EXPECT_EQ(connect(server, "q", mode, ACCESS_WAIT),
              Connected(result::unknown_name, untouched, 0));
  }
  EXPECT_EQ(client(server, "p"), 760u) << "handles are not used again, and taken by success only";
  // Nor while somebody holds them, or they lead to a port, wherever the counter has been set.
  const unsigned int id = id_of(server, "p");
  for (const unsigned int next : {759u, id}) {
    server.next_handle_ = next;
    EXPECT_EQ(client(server, "p"), next == id ? id + 1 : 759);
    EXPECT_EQ(client(server, "p"), next == id ? id + 2 : 761) << "760 is held";
  }
  server.next_handle_ = client_handle_limit - 1;
  for (const unsigned int next : {4294967293u, 10000u, 10001u}) {
    EXPECT_EQ(client(server, "p"), next);
  }
}

TEST_F(Registry, ConnectsAndDisconnectsOwnersAndTellsWhatAPortIs) {
  create(server, {"p"});
  CORBA::ULong code = untouched;
  EXPECT_EQ(server.gen_evc_code(code), result::ok);
  Varo::DT_PORT_SVC::PORT_INFO info{};
  info.limit = untouched;
  EXPECT_EQ(server.get_port_info("q", info), result::no_such_port);
  EXPECT_EQ(info.limit, code);
  const unsigned int id = id_of(server, "p");
  EXPECT_EQ(connect(server, "p", PORT_MASTER, ACCESS_WAIT),
            Connected(result::bad_mode, untouched, 0));
  EXPECT_EQ(connect(server, "p", CONNECT_OWNER, ACCESS_SELECT), Connected(result::ok, id, 0));
  EXPECT_EQ(connect(server, "p", CONNECT_OWNER, ACCESS_WAIT),
            Connected(result::owner_exists, id, id));
  EXPECT_EQ(server.get_port(id)->select(true), result::ok);
  const unsigned int handle = client(server, "p");
  EXPECT_EQ(send(server, handle, "queued"), result::ok);
  for (const bool connected : {true, false}) {
    EXPECT_EQ(facts(server, "p"), (Facts{PORT_MASTER, id, connected, ACCESS_SELECT, 8}));
    EXPECT_EQ(server.disconnect_port(id), connected ? result::ok : result::not_connected);
    EXPECT_EQ(server.disconnect_port(handle), connected ? result::ok : result::unknown_handle);
  }
}

TEST_F(Registry, ListsNamesOfAnyLengthInTheOrderOfCreation) {
  const std::string huge = std::string(9999, 'n') + "1",
                    last_differs = std::string(9999, 'n') + "2";
  create(server, {"z", "", huge});
  create(server, {last_differs, "b"}, PORT_EVENTBOX);
  create(server, {"m"});
  EXPECT_EQ(names(server), Names({"z", "", huge, "m"}, {last_differs, "b"}));
  for (const char* gone : {"", huge.c_str(), "unknown"}) {
    EXPECT_EQ(server.delete_port(gone), result::ok);
    EXPECT_FALSE(exists(server, gone));
  }
  EXPECT_TRUE(exists(server, "b"));
  create(server, {""}, PORT_EVENTBOX);
  EXPECT_EQ(names(server), Names({"z", "m"}, {last_differs, "b", ""}));
}

TEST_F(Registry, ListsConnectedHostsInNameOrder) {
  EXPECT_EQ(server.set_connected_host("unknown", "h"), result::ok);
  // Bytes count as unsigned, and a prefix comes first.
  const Texts in_order{"A", "B", "a", "aa", "ab", "b", "c", "d", "\x7f", "\x80", "\xc3"};
  Texts shuffled = in_order, wanted;
  std::reverse(shuffled.begin() + 2, shuffled.end());
  create(server, shuffled);
  create(server, {"C"}, PORT_EVENTBOX);
  EXPECT_EQ(connections(), Texts());
  for (const std::string& name : in_order) {
    server.set_connected_host(name.c_str(), "host");
    wanted.push_back(name + " host");
  }
  EXPECT_EQ(connections(), wanted);
  server.set_connected_host("A", "");
  server.set_connected_host("C", "c");
  server.disconnect_port(owner(server, "a"));
  wanted[0] = "B host";
  wanted[1] = "C c";
  wanted.erase(wanted.begin() + 2);
  EXPECT_EQ(connections(), wanted);
}

TEST_F(Registry, ForgetsPortsAndSubscriptionsButNoIdsWhenCleared) {
  EXPECT_EQ(server.last_handle(), 758u);
  create(server, {"p", "q"});
  create(server, {"box"}, PORT_EVENTBOX);
  server.add_event("box", 7);
  const unsigned int old_id = id_of(server, "p");
  const unsigned int last = server.last_handle();
  EXPECT_EQ(last, std::max({old_id, id_of(server, "q"), id_of(server, "box")}));
  const unsigned int handle = client(server, "p");
  const auto held = server.get_port("p");

  server.clearAll();
  EXPECT_EQ(names(server), Names());
  EXPECT_EQ(server.declare_event(7, wire(""), 0), result::no_subscriptions);
  EXPECT_FALSE(server.get_port(old_id));
  EXPECT_EQ(send(server, handle, "x"), result::unknown_handle);
  EXPECT_EQ(held->has_client(handle), result::ok) << "the port itself is left alone";
  EXPECT_EQ(server.last_handle(), last);
  create(server, {"p"});
  EXPECT_EQ(client(server, "p"), handle + 1);
  EXPECT_EQ(server.get_port(old_id), server.get_port("p")) << "an old id leads to the new port";
}

TEST_F(Registry, LetsARunningOperationKeepItsPort) {
  create(server, {"p"});
  const unsigned int id = owner(server, "p");
  const boost::weak_ptr<Port_impl> port = server.get_port("p");
  auto taken = started([&] { return receive(server, id, 5); });
  ASSERT_TRUE(clock.await_poll());
  server.delete_port("p");
  EXPECT_FALSE(server.get_port(id));
  ASSERT_TRUE(clock.await_poll());
  EXPECT_FALSE(port.expired());
  clock.advance(5);
  EXPECT_EQ(taken.get(), Received(result::timed_out, untouched, ""));
  EXPECT_TRUE(port.expired());
}

TEST_F(Registry, StaysInStepUnderConcurrentUse) {
  // All threads create, use and delete the same few ports.
  in_parallel(4, [&](int i) {
    for (int n = 0; n < 5000; ++n) {
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

TEST_F(Registry, FindsAClientsPortLikeAWalkInNameOrder) {
  // Few names and handles, so that they collide.
  const std::string names[] = {"a", "ab", "b", "Z", "\xff", "\x7f", "", "a\x80"};
  std::set<std::string> present;
  std::mt19937 random(12345);  // NOLINT: repeatable on purpose
  const auto pick = [&](unsigned int below) { return static_cast<unsigned int>(random() % below); };

  for (int step = 0; step < 20000; ++step) {
    const std::string& name = names[pick(8)];
    const unsigned int handle = 700 + pick(5), action = pick(100);
    const auto port = server.get_port(name.c_str());
    unsigned int owner = 0;
    if (action == 0) {
      server.clearAll();
      present.clear();
    } else if (action == 1) {
      server.delete_port(name.c_str());
      present.erase(name);
      if (port) port->connect(handle, CONNECT_CLIENT, ACCESS_WAIT, owner);  // too late to count
    } else if (action < 5) {
      server.create_port(name.c_str(), pick(2) ? PORT_MASTER : PORT_SLAVE, 3);
      present.insert(name);
    } else if (port && action == 5) {
      port->select_replay(handle, true);  // enters the handle
    } else if (port && pick(2)) {
      port->connect(handle, CONNECT_CLIENT, ACCESS_WAIT, owner);
    } else if (port) {
      port->disconnect(handle);
    }
    for (unsigned int h = 700; h < 705; ++h) {
      const auto first = std::find_if(present.begin(), present.end(), [&](const auto& one) {
        return server.get_port(one.c_str())->has_client(h) == result::ok;
      });
      const auto found = server.find_port(h);
      ASSERT_EQ(found ? found->name() : "none", first == present.end() ? "none" : *first) << step;
    }
  }
}

class BackgroundTasks : public WithServer {
 protected:
  BackgroundTasks() {
    create(server, {"idle", "read", "kept"}, PORT_EVENTBOX);
    for (const char* name : {"idle", "read"}) server.setPersistent(name, 0);
    create(server, {"packets"});
    server.add_event("idle", 7);
  }
  bool exists(const char* name) { return portsvc::exists(server, name); }
};

TEST_F(BackgroundTasks, AnExpiryPassTakesWhatNobodyHasReadForMoreThan120Seconds) {
  clock.advance(120);
  server.checkNoTransition();
  EXPECT_EQ(names(server), Names({"packets"}, {"idle", "read", "kept"}));
  drain(server, "read");
  clock.advance(1);
  server.checkNoTransition();
  EXPECT_EQ(names(server), Names({"packets"}, {"read", "kept"}));
  EXPECT_EQ(server.declare_event(7, wire("x"), 0), result::not_subscribed);
  for (int minute = 0; minute < 10; ++minute) {
    receive(server, id_of(server, "read"));
    clock.advance(120);
    server.checkNoTransition();
    ASSERT_TRUE(exists("read"));
  }
  server.setPersistent("read", 1);
  clock.advance(10000);
  server.checkNoTransition();
  EXPECT_EQ(names(server), Names({"packets"}, {"read", "kept"}));
}

TEST_F(BackgroundTasks, AServantChecksByItself) {
  clock.advance(120);
  for (const char* name : {"idle", "late"}) {  // the next pass comes as long after this one
    ASSERT_TRUE(clock.await_round(3));
    EXPECT_TRUE(exists(name));
    clock.advance(1);
    EXPECT_TRUE(eventually([&] { return !exists(name); }));
    create(server, {"late"}, PORT_EVENTBOX);
    server.setPersistent("late", 0);
    clock.advance(120);
  }
  EXPECT_TRUE(exists("kept"));
  EXPECT_TRUE(exists("packets"));
}

TEST_F(BackgroundTasks, SavesInTheFirstRoundMoreThan60SecondsAfterTheLast) {
  SnapSaveTask saver(&server);
  std::vector<double> saved;
  clock.on_pause = [&](const ACE_Time_Value& length) {
    EXPECT_EQ(length, ACE_Time_Value(3, 0));
    if (std::filesystem::remove(server.get_snap_path())) saved.push_back(clock.elapsed() - 3);
    if (clock.elapsed() >= 200) saver.ShutDown();
  };
  EXPECT_EQ(saver.svc(), 0);
  EXPECT_EQ(saved, (std::vector<double>{63, 126, 189}));
  EXPECT_EQ(clock.elapsed(), 201) << "one round after it was told to end";
}

TEST_F(BackgroundTasks, AServantGoesOnlyWhenItsCheckHasEnded) {
  // A pass that is slow: the role's lookup is still needed while the servant is being destroyed.
  class Slow : public MainServer {
   public:
    explicit Slow(std::atomic<int>& lookups) : lookups_(lookups) {}
    ~Slow() override { stop_housekeeping(); }
    using MainServer::get_port;
    boost::shared_ptr<Port_impl> get_port(const char* name) override {
      ++lookups_;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      return MainServer::get_port(name);
    }

   private:
    std::atomic<int>& lookups_;
  };
  std::atomic<int> lookups{0};
  auto slow = std::make_unique<Slow>(lookups);
  for (const char* name : {"a", "b", "c"}) slow->create_port(name, PORT_EVENTBOX, 5);
  clock.advance(121);
  ASSERT_TRUE(eventually([&] { return lookups == 1; }));
  slow.reset();
  EXPECT_EQ(lookups, 3);
}

}  // namespace
}  // namespace portsvc
