// Servers that are late, restarted, killed, frozen or told to stop, and what must neither be
// misdelivered nor left behind by that.
#include "tests/system/system_test.h"

namespace portsvc {
namespace {

class Failures : public SystemTest {
 protected:
  /// Work that concerns sub1 alone: a port of its own, its owner and its client.
  void expect_local_work(std::chrono::milliseconds limit) {
    const Port_Factory_var sub = server("sub1");
    sub->create_port("own", PORT_SLAVE, 8);
    const auto begin = steady_clock::now();
    expect_exchange("own", "sub1", "sub1");
    EXPECT_LT(since(begin), limit);
  }
};

TEST_F(Failures, ASubServerStartsAloneAndEveryStartOfItsMainServerIsNoticed) {
  constexpr int clients = 20;
  const Port_Factory_var sub = serving("sub1");
  EXPECT_EQ(portctl("sub1", {"exists", "p"}).status, 1);
  EXPECT_THAT(portctl("sub1", {"master", "p"}).err, HasSubstr("4294967295"));
  expect_local_work(2s);

  start("main");
  done("main", {"create", "p"});
  EXPECT_TRUE(eventually([&] { return portctl("sub1", {"exists", "p"}).status == 0; }));
  expect_exchange("p", "main", "sub1");
  EXPECT_TRUE(sub1_knows_main());
  std::vector<unsigned int> handles, waiting;
  for (int i = 0; i < clients; ++i) {
    handles.push_back(connected(sub, "p", CONNECT_CLIENT, ACCESS_SELECT));
    waiting.push_back(connected(sub, "p", CONNECT_CLIENT));
  }
  // Many at once leave many connections behind that are of no use to the next main server.
  const int sockets = process("main").sockets();
  in_parallel(clients, [&](int i) {
    EXPECT_EQ(send(sub, waiting[static_cast<std::size_t>(i)], "x", 1), result::send_timed_out);
  });
  EXPECT_GT(process("main").sockets(), sockets + 5);
  start("main");
  done("main", {"create", "p"});
  EXPECT_TRUE(sub1_knows_main());
  for (const unsigned int handle : handles) {
    EXPECT_EQ(send(sub, handle, "x", 1), result::unknown_handle)
        << "there is no owner, says the main server";
  }
}

TEST_F(Failures, AKilledMainServerEndsProxiedCallsAndTheProxiesComeBack) {
  NEEDS_OMNIORB();
  // Its broker tells of every call that arrives; not when, which it looks up with a data race.
  ::setenv("ORBtraceInvocations", "1", 1);
  ::setenv("ORBtraceTime", "0", 1);
  start("main");
  for (const char* name : {"ORBtraceInvocations", "ORBtraceTime"}) ::unsetenv(name);
  const Port_Factory_var main = server("main");
  const Texts ports{"to send", "to receive", "to ask"};
  create(main, ports);
  const Port_Factory_var sub = serving("sub1");

  const unsigned int sending = connected(sub, "to send", CONNECT_CLIENT);
  const unsigned int receiving = connected(sub, "to receive", CONNECT_OWNER);
  auto sender = started([&] { return send(sub, sending, "x", 0); });
  auto owner = started([&] { return receive(sub, receiving, 0); });
  auto client = started([&] { return ask(sub, connected(sub, "to ask", CONNECT_CLIENT), "x", 0); });
  EXPECT_EQ(std::get<0>(receive(main, connected(main, "to ask", CONNECT_OWNER), 10)), result::ok);
  const auto arrived = [&](const std::string& operation) {
    return times_said("main", "'" + operation + "'");
  };
  ASSERT_TRUE(eventually([&] {
    // Among them the test's own receive.
    return arrived("packet_foward") == 2 && arrived("packet_receive") == 2 &&
           arrived("packet_replay_wait") == 1;
  })) << process("main").err();

  const auto begin = steady_clock::now();
  kill("main");
  EXPECT_EQ(sender.get(), result::peer_forward);
  EXPECT_EQ(std::get<0>(owner.get()), result::peer_receive);
  EXPECT_EQ(client.get().first, result::failed);
  EXPECT_LT(since(begin), 7s);
  EXPECT_EQ(sub->disconnect_port(sending), result::ok);
  expect_local_work(7s);
  EXPECT_EQ(portctl("sub1", {"--call-timeout", "1", "refresh"}).status, 1)
      << "while there is nothing to clone from";
  for (const auto& name : ports) {
    EXPECT_EQ(sub->exist(name.c_str()), 0) << name << " is kept until it can be had anew";
  }

  start("main");
  create(server("main"), {"to ask"});
  EXPECT_TRUE(sub1_knows_main());
  expect_exchange("to ask", "main", "sub1");
}

TEST_F(Failures, AServerStopsWithCallsBlockedInItAndWithAFrozenPeer) {
  const Port_Factory_var main = serving("main");
  const Port_Factory_var sub = serving("sub1");
  create(main, {"p"});
  const auto block = [](Port_Factory_ptr server, unsigned int id) {
    return started([server, id] {
      try {
        return std::get<0>(receive(server, id, 0));
      } catch (const CORBA::SystemException&) {
        return 1U;
      }
    });
  };
  const unsigned int id = connected(sub, "p", CONNECT_OWNER);
  const int threads = process("main").threads();
  std::vector<std::future<unsigned int>> calls;
  for (int i = 0; i < 10; ++i) {
    for (const auto& server : {sub, main}) calls.push_back(block(server, id));
  }
  EXPECT_TRUE(eventually([&] { return process("main").threads() >= threads + 15; }));

  process("main").signal(SIGSTOP);
  EXPECT_EQ(stop("sub1", SIGTERM), 0);
  process("main").signal(SIGCONT);
  EXPECT_EQ(stop("main", SIGINT), 0);
  // Its server was gone, or had just noticed that it could not ask the other.
  for (auto& call : calls) EXPECT_THAT(call.get(), ::testing::AnyOf(1U, result::peer_receive));
}

class Restarts : public SystemTest {
 protected:
  /// Starts the main server and makes its ports.
  Port_Factory_var start_main(const Words& options = {}) {
    const Port_Factory_var main = serving("main", options);
    create(main, {"p", "q"}, PORT_MASTER, 100);
    return main;
  }
  /// A request from a client at one server to an owner at one, who has not answered yet.
  static Received pass(Port_Factory_ptr from, unsigned int client, Port_Factory_ptr to,
                       unsigned int owner, const std::string& data = "x") {
    auto sent = started([&] { return send(from, client, data, 10); });
    Received received = receive(to, owner, 10);
    EXPECT_EQ(sent.get(), result::ok);
    EXPECT_EQ(std::get<0>(received), result::ok);
    EXPECT_EQ(std::get<2>(received), data);
    return received;
  }
  /// How many of the numbers up to the next handle `main` gives are a client's. Changes nothing.
  static int clients_at(Port_Factory_ptr main) {
    const unsigned int last = connected(main, "p", CONNECT_CLIENT);
    EXPECT_EQ(main->disconnect_port(last), result::ok);
    std::atomic<int> count{0};
    in_parallel(static_cast<int>(last - first_client_handle), [&](int i) {
      const auto handle = first_client_handle + static_cast<unsigned int>(i);
      if (reply(main, handle, 1).first != result::unknown_handle) ++count;
    });
    return count;
  }
};

TEST_F(Restarts, NothingOfAnEarlierLifeReachesAStranger) {
  Port_Factory_var main = start_main();
  const Port_Factory_var sub = serving("sub1");
  for (const bool met : {false, true}) {  // by the first call, or by a beat before it
    ASSERT_TRUE(sub1_knows_main());
    main = server("main");
    // A client at sub1 waits for its answer, and an owner at sub1 owes one to a client there.
    const unsigned int id = connected(main, "p", CONNECT_OWNER);
    const unsigned int client = connected(sub, "p", CONNECT_CLIENT);
    const unsigned int first = std::get<1>(pass(sub, client, main, id));
    const unsigned int owner = connected(sub, "q", CONNECT_OWNER);
    const unsigned int second = connected(main, "q", CONNECT_CLIENT);
    const unsigned int source = std::get<1>(pass(main, second, sub, owner));

    main = start_main();
    if (met) {
      ASSERT_TRUE(sub1_knows_main());
    }
    const unsigned int new_id = connected(main, "p", CONNECT_OWNER);
    std::vector<unsigned int> strangers;
    while (strangers.empty() || strangers.back() < std::max(first, second)) {
      strangers.push_back(connected(main, "p", CONNECT_CLIENT));
      pass(main, strangers.back(), main, new_id);
    }
    ASSERT_EQ(strangers.front(), first_client_handle);
    EXPECT_NE(sub->packet_replay(source, wire("stale"), 0), result::ok);
    for (const unsigned int stranger : strangers) main->packet_replay(stranger, wire("mine"), 0);
    EXPECT_NE(reply(sub, client, 1).first, result::ok);
    EXPECT_EQ(sub->disconnect_port(client), result::ok);
    for (const unsigned int stranger : strangers) {
      EXPECT_EQ(reply(main, stranger, 5), Reply(result::ok, "mine"));
    }
    EXPECT_EQ(main->disconnect_port(new_id), result::ok);
    EXPECT_EQ(sub->disconnect_port(owner), result::ok);
  }
}

TEST_F(Restarts, AFailureIsItsOwnClientsAlone) {
  const Port_Factory_var main = start_main({"--max-message", "1000000"});
  const Port_Factory_var sub = serving("sub1");
  const unsigned int id = connected(main, "p", CONNECT_OWNER);
  const unsigned int good = connected(sub, "p", CONNECT_CLIENT);
  const unsigned int bad = connected(sub, "p", CONNECT_CLIENT);
  const unsigned int source = std::get<1>(pass(sub, good, main, id));
  EXPECT_EQ(send(sub, bad, std::string(2000000, 'x'), 10), result::peer_forward);
  EXPECT_EQ(main->packet_replay(source, wire("answer"), 0), result::ok);
  EXPECT_EQ(reply(sub, good, 10), Reply(result::ok, "answer"));
  EXPECT_TRUE(eventually([&] { return clients_at(main) == 0; }));
}

TEST_F(Restarts, AFrozenMainServerKeepsNoClientsAndGetsTheOwnerItWasPromised) {
  constexpr int clients = 10;
  const Port_Factory_var main = start_main();
  const Port_Factory_var sub = serving("sub1", {"--call-timeout", "1"});
  ASSERT_TRUE(sub1_knows_main());
  std::vector<unsigned int> handles;
  for (int i = 0; i < clients; ++i) handles.push_back(connected(sub, "p", CONNECT_CLIENT));
  // Half of them have asked already and wait; the others only begin.
  const unsigned int id = connected(main, "p", CONNECT_OWNER);
  for (int i = 0; i < clients / 2; ++i) pass(sub, handles[i], main, id);
  create(main, {"r"});
  process("main").signal(SIGSTOP);
  {  // one who has gone again before it is served gets nothing
    const RawConnection gone(port("main"));
    gone.send(request("connect_port", {2, 'r', CONNECT_OWNER, ACCESS_WAIT}));
  }
  in_parallel(clients + 1, [&](int i) {
    if (i == clients) {
      connected(sub, "q", CONNECT_OWNER);  // answers 0, although nobody there has heard of it
    } else if (i < clients / 2) {
      EXPECT_EQ(reply(sub, handles[i], 1).first, result::failed);
    } else {
      EXPECT_EQ(send(sub, handles[i], "x", 1), result::peer_forward);
    }
  });
  process("main").signal(SIGCONT);
  EXPECT_TRUE(eventually([&] { return clients_at(main) == 0; }));

  ASSERT_TRUE(eventually([&] { return info_of(main, "q").owner_connected == 1; }));
  const unsigned int owner = info_of(sub, "q").port_id;
  const unsigned int client = connected(main, "q", CONNECT_CLIENT);
  pass(main, client, sub, owner);

  // One that leaves while nobody there hears of it, and one that stays.
  EXPECT_EQ(info_of(main, "r").owner_connected, 0u);
  connected(sub, "r", CONNECT_OWNER);
  process("main").signal(SIGSTOP);
  EXPECT_EQ(sub->disconnect_port(owner), result::peer_disconnect);
  process("main").signal(SIGCONT);
  EXPECT_TRUE(eventually([&] { return info_of(main, "q").owner_connected == 0; }));
  EXPECT_EQ(main->disconnect_port(id), result::ok);
  EXPECT_EQ(info_of(main, "r").owner_connected, 1u);
}

TEST_F(Restarts, AKilledSubServerLeavesNobodyOnceItIsBackOrStaysAway) {
  const Port_Factory_var main = start_main({"--sub-timeout", "3"});
  const unsigned int id = connected(main, "p", CONNECT_OWNER);
  for (const char* then : {"back", "back without its file", "away"}) {
    const Port_Factory_var sub = serving("sub1");
    connected(sub, "q", CONNECT_OWNER);
    const unsigned int client = connected(sub, "p", CONNECT_CLIENT);
    pass(sub, client, main, id);
    EXPECT_EQ(clients_at(main), 1);
    EXPECT_EQ(info_of(main, "q").owner_connected, 1u);
    EXPECT_EQ(info_of(main, "p").owner_connected, 1u);
    if (then == std::string("away")) {
      // Frozen for too long it is as after a restart of the main server.
      process("sub1").signal(SIGSTOP);
      EXPECT_TRUE(eventually([&] { return info_of(main, "q").owner_connected == 0; }));
      EXPECT_EQ(clients_at(main), 0);
      process("sub1").signal(SIGCONT);
      EXPECT_TRUE(eventually([&] { return info_of(main, "q").owner_connected == 1; }));
      EXPECT_NE(reply(sub, client, 1).first, result::ok);
      pass(sub, client, main, id);
    }
    kill("sub1");
    if (then == std::string("back without its file")) {
      EXPECT_TRUE(std::filesystem::remove(folder.path("sub1/portopen.dat")));
    }
    if (then != std::string("away")) start("sub1");
    EXPECT_TRUE(eventually([&] { return info_of(main, "q").owner_connected == 0; })) << then;
    EXPECT_TRUE(eventually([&] { return clients_at(main) == 0; })) << then;
    EXPECT_EQ(info_of(main, "p").owner_connected, 1u) << "the main server's own";
  }
  EXPECT_GE(times_said("main", "the sub server sub1 has been silent for 3 s"), 2);
}

TEST_F(Restarts, ProxiesTakeOverNewIdsAndTheirOwnersGoOn) {
  Port_Factory_var main = start_main();
  const Port_Factory_var sub = serving("sub1");
  const unsigned int owner = connected(sub, "q", CONNECT_OWNER);
  main = start_main();
  ASSERT_NE(info_of(main, "q").port_id, owner);
  ASSERT_TRUE(eventually([&] { return info_of(main, "q").owner_connected == 1; }));
  EXPECT_EQ(info_of(sub, "q").port_id, info_of(main, "q").port_id);
  const unsigned int client = connected(main, "q", CONNECT_CLIENT);
  auto answer = started([&] { return ask(main, client, "hello", 10); });
  const Received taken = receive(sub, owner, 10);
  EXPECT_EQ(std::get<2>(taken), "hello") << "an owner goes on with the id it was given";
  EXPECT_EQ(sub->packet_replay(std::get<1>(taken), wire("answer"), 0), result::ok);
  EXPECT_EQ(answer.get(), Reply(result::ok, "answer"));
  EXPECT_EQ(sub->disconnect_port(owner), result::ok);
  EXPECT_EQ(info_of(main, "q").owner_connected, 0u);

  // A proxy with an id of its own learns the main server's when that refuses its owner.
  for (const auto& server : {sub, main}) create(server, {"r"});
  const unsigned int first = connected(main, "r", CONNECT_OWNER);
  const auto [code, handle, other] = connect(sub, "r", CONNECT_OWNER, ACCESS_WAIT);
  EXPECT_EQ(code, result::owner_exists);
  EXPECT_EQ(other, first);
  EXPECT_EQ(main->disconnect_port(first), result::ok);
  done("sub1", {"refresh", "--main", "main"});
  const unsigned int second = connected(sub, "r", CONNECT_OWNER);
  pass(main, connected(main, "r", CONNECT_CLIENT), sub, second);
}

TEST_F(Restarts, UnknownNamesHoldUpNobodyWhileTheMainServerIsFrozen) {
  const Port_Factory_var main = start_main();
  const Port_Factory_var sub = serving("sub1", {"--call-timeout", "1"});
  sub->create_port("own", PORT_SLAVE, 8);
  process("main").signal(SIGSTOP);
  std::atomic<bool> ended{false};
  std::atomic<std::int64_t> longest{0};
  auto asking = started([&] {
    in_parallel(4, [&](int i) {
      for (int n = 0; !ended; ++n) {
        const auto begin = steady_clock::now();
        EXPECT_EQ(sub->exist(fmt::format("unknown {} {}", i, n).c_str()),
                  static_cast<int>(result::unknown_name));
        longest = std::max<std::int64_t>(longest, since(begin).count());
      }
    });
  });
  const unsigned int id = connected(sub, "own", CONNECT_OWNER);
  const unsigned int client = connected(sub, "own", CONNECT_CLIENT);
  int exchanges = 0;
  std::int64_t slowest = 0;
  for (const auto begin = steady_clock::now(); since(begin) < 4s; ++exchanges) {
    const auto start = steady_clock::now();
    pass(sub, client, sub, id);
    EXPECT_EQ(sub->exist("p"), 0);
    slowest = std::max<std::int64_t>(slowest, since(start).count());
  }
  ended = true;
  asking.get();
  process("main").signal(SIGCONT);
  EXPECT_GT(exchanges, 20);
  EXPECT_LT(slowest, 700);
  EXPECT_LT(longest, 1700) << "one call time-out in all";
  main->create_port("late", PORT_MASTER, 8);
  EXPECT_TRUE(eventually([&] { return sub->exist("late") == 0; }));
}

TEST_F(Restarts, AServerThatIsItsOwnMainServerDoesWithout) {
  // A circle of two, which no server can see when it starts.
  point_main_at(corbaloc("sub2"));
  start("sub1", {"--call-timeout", "1"});
  point_main_at(corbaloc("sub1"));
  start("sub2", {"--call-timeout", "1"});
  point_main_at(corbaloc("sub2"));  // sub1 keeps to sub2
  for (const char* name : {"sub1", "sub2"}) {
    for (int i = 0; i < 3; ++i) {
      EXPECT_EQ(portctl(name, {"exists", fmt::format("unknown {}", i)}).status, 1);
    }
    EXPECT_EQ(server(name)->create_port("own", PORT_SLAVE, 8), result::ok);
    EXPECT_EQ(server(name)->exist("own"), 0);
  }
  // And one server that leads to itself, by an entry that was changed while it ran.
  point_main_at(corbaloc("sub1"));
  const auto begin = steady_clock::now();
  while (since(begin) < 3s) {
    EXPECT_NE(server("sub1")->exist("unknown"), 0);
    EXPECT_EQ(server("sub1")->exist("own"), 0);
  }
  point_main_at(corbaloc("main"));
  const Port_Factory_var main = start_main();
  for (const char* name : {"sub1", "sub2"}) {
    EXPECT_TRUE(eventually([&] { return server(name)->exist("p") == 0; })) << name;
  }
}

}  // namespace
}  // namespace portsvc
