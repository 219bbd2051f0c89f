// One server and its clients: what they ask of it, what it refuses at its limits, and how it waits
// with them.
#include <random>
#include <set>

#include "tests/system/system_test.h"

namespace portsvc {
namespace {

class MainServer : public SystemTest {
 protected:
  const Port_Factory_var main = serving("main");
};

std::string random_bytes(std::size_t size) {
  std::string bytes(size, '\0');
  std::independent_bits_engine<std::mt19937, 8, unsigned int> random;
  for (char& byte : bytes) byte = static_cast<char>(random());
  return bytes;
}

TEST_F(MainServer, ThreeHundredBlockedCallersOfOneProcessDelayNobody) {
  constexpr int callers = 300;
  std::vector<std::future<Received>> blocked;
  for (int i = 0; i < callers; ++i) {
    const std::string name = fmt::format("p{}", i);
    create(main, {name});
    const unsigned int id = connected(main, name, CONNECT_OWNER);
    blocked.push_back(started([&, id] { return receive(main, id, 0); }));
  }
  ASSERT_TRUE(eventually([&] { return process("main").threads() >= callers; }));

  const auto start = steady_clock::now();
  done("main", {"ping", "--count", "50"});
  EXPECT_LT(since(start), 2s) << "fifty calls of another process";
  for (int i = 0; i < callers; ++i) {
    const unsigned int client = connected(main, fmt::format("p{}", i), CONNECT_CLIENT);
    EXPECT_EQ(send(main, client, std::to_string(i), 5), result::ok);
    EXPECT_EQ(blocked[static_cast<std::size_t>(i)].get(),
              Received(result::ok, client, std::to_string(i)));
  }
}

// A foreign client may put all its calls on one connection, where a blocked one must not hold up
// those behind it.
TEST_F(MainServer, OneConnectionCarriesManyBlockedCallsAndStillAnswersOthers) {
  constexpr int callers = 150;
  create(main, {"p"});
  const unsigned int id = connected(main, "p", CONNECT_OWNER);
  const RawConnection one(port("main"));
  for (int i = 0; i < callers; ++i) one.send(request("packet_receive", {id, 0}));
  ASSERT_TRUE(eventually([&] { return process("main").threads() >= callers; }));
  one.send(request("create_port", {2, 'q', PORT_MASTER, 8}));
  EXPECT_TRUE(eventually([&] { return main->exist("q") == 0; }));
}

TEST_F(MainServer, TakesA50MiBPayloadAndRefusesOnlyTheCallThatIsTooLarge) {
  create(main, {"box"}, PORT_EVENTBOX);
  const std::string payload = random_bytes(50U << 20);
  EXPECT_EQ(main->send_event("box", wire(payload)), result::ok);
  auto waiting = started([&] {
    create(main, {"p"});
    return receive(main, connected(main, "p", CONNECT_OWNER), 2);
  });
  EXPECT_THROW(main->send_event("box", wire(std::string(70U << 20, 'x'))), CORBA::SystemException);
  EXPECT_EQ(std::get<0>(waiting.get()), result::timed_out) << "somebody else's blocked call";

  EXPECT_EQ(event_count(main, "box"), 1u);
  done("main", {"event", "watch", "box", "--count", "1", "--file", folder.path("event")});
  EXPECT_TRUE(read_all(folder.path("event")) == payload);
  EXPECT_EQ(
      portctl("main", {"send", "p", "--file", folder.path("event"), "--max-message", "1000000"})
          .status,
      2)
      << "portctl knows its own limit";
}

TEST_F(MainServer, CtrlCOnAReceiverServerOrWatcherFreesItsPort) {
  create(main, {"p"});
  create(main, {"box"}, PORT_EVENTBOX);
  const auto interrupt = [&](const std::string& port, const Words& command) {
    const auto owner = in_background("main", command);
    EXPECT_TRUE(eventually([&] { return info_of(main, port).owner_connected == 1; }));
    owner->signal(SIGINT);
    const int status = outcome(*owner, 5s).status;
    EXPECT_EQ(info_of(main, port).owner_connected, 0u) << port;
    return status;
  };
  EXPECT_EQ(interrupt("p", {"receive", "p", "--count", "0"}), 0) << "its regular end";
  EXPECT_EQ(interrupt("p", {"receive", "p", "--count", "5"}), 128 + SIGINT) << "too early";
  EXPECT_EQ(interrupt("p", {"serve", "p", "--exec", "cat"}), 0);
  EXPECT_EQ(interrupt("box", {"event", "watch", "box"}), 0);
}

TEST_F(MainServer, SaysThatItIsStoppingToWhoCallsMeanwhile) {
  create(main, {"p"});
  const unsigned int id = connected(main, "p", CONNECT_OWNER);
  const int threads = process("main").threads();
  auto blocked = started([&] {  // holds up the stop for a while
    EXPECT_THROW(receive(main, id, 0), CORBA::COMM_FAILURE);
  });
  ASSERT_TRUE(eventually([&] { return process("main").threads() > threads; }));
  process("main").signal(SIGTERM);
  EXPECT_TRUE(eventually([&] {
    try {
      return main->exist("p") != 0;
    } catch (const CORBA::TRANSIENT&) {
      return true;
    }
  }));
  expect_failure(portctl("main", {"ping"}), 3, "the server is stopping");
  EXPECT_EQ(stop("main", SIGCONT), 0);
  blocked.get();
}

TEST_F(MainServer, ABoxIsFilledCountedSwitchedAndEmptied) {
  done("main", {"create", "box", "--kind", "box", "--limit", "3"});
  EXPECT_EQ(portctl("main", {"event", "declare", "-5", "x"}).status, 1) << "nobody subscribed";
  done("main", {"event", "subscribe", "box", "-5"});
  expect_failure(portctl("main", {"event", "subscribe", "box", "4294967291"}), 1, "2014");
  done("main", {"event", "declare", "-5", "a", "b", "c", "d"});
  done("main", {"event", "put", "box", "e"});
  EXPECT_EQ(done("main", {"event", "count", "box"}), "3\n");
  EXPECT_THAT(done("main", {"ls"}), HasSubstr("3       -")) << "events of the box";
  EXPECT_EQ(done("main", {"event", "watch", "box", "--drain"}), "c\nd\ne\n") << "oldest dropped";
  done("main", {"event", "put", "box", "f"});
  done("main", {"event", "clear", "box"});
  EXPECT_EQ(done("main", {"event", "watch", "box", "--drain"}), "");

  for (const char* state : {"on", "off"}) {
    done("main", {"event", "copy", "box", state});
    done("main", {"event", "persistent", "box", state});
    done("main", {"snapshot", "download", folder.path("snapshot")});
    const json shown = told("main", {"snapshot", "show", folder.path("snapshot")});
    EXPECT_EQ(shown["ports"][0]["persistent"], state == std::string("on"));
  }
  EXPECT_EQ(portctl("main", {"event", "copy", "nobox", "on"}).status, 1);
  EXPECT_EQ(portctl("main", {"event", "count", "nobox"}).status, 1);
}

// What a client finds in the numbers of an answer that the operation had nothing to say about.
TEST_F(MainServer, NumbersThatAnOperationDoesNotWriteArriveAsZero) {
  NEEDS_OMNIORB();
  create(main, {"p"});
  create(main, {"box"}, PORT_EVENTBOX);
  const unsigned int id = connected(main, "p", CONNECT_OWNER), box = info_of(main, "box").port_id;
  Varo::DATA_BUFFER_var data;
  const Varo::PORT_HANDLE_SET unknown = handle_set({1}), not_selecting = handle_set({id});
  CORBA::ULong a, b;
  Varo::DT_PORT_SVC::PORT_INFO info{1, 1, 1, 1, 1};
  const std::pair<CORBA::ULong, std::function<CORBA::ULong()>> calls[] = {
      {0, [&] { return main->gen_evc_code(a); }},
      {result::unknown_name,
       [&] { return main->connect_port("none", a, CONNECT_CLIENT, ACCESS_WAIT, b); }},
      {result::bad_mode, [&] { return main->connect_port("p", a, PORT_MASTER, ACCESS_WAIT, b); }},
      {result::unknown_handle, [&] { return main->packet_receive(1, a, data.out(), 0); }},
      {result::timed_out, [&] { return main->packet_receive(box, a, data.out(), 0); }},
      {result::timed_out, [&] { return main->packet_receive(id, a, data.out(), 1); }},
      {result::unknown_handle, [&] { return main->select_event_port(unknown, a, 0); }},
      {result::access_refused, [&] { return main->select_event_port(not_selecting, a, 0); }},
      {result::nothing_selected, [&] { return main->select_event_port({}, a, 0); }},
      {result::unknown_handle, [&] { return main->select_replay_port(unknown, a, 0); }},
      {result::nothing_selected, [&] { return main->select_replay_port({}, a, 0); }},
      {result::unknown_handle, [&] { return main->event_count("none", a); }},
      {result::no_such_port, [&] { return a = 0, main->get_port_info("none", info); }}};
  for (int round = 0; round < 3; ++round) {  // what lies on the server's stack changes
    for (std::size_t i = 0; i < std::size(calls); ++i) {
      a = 1;
      b = i == 1 || i == 2 ? 1 : 0;  // only those write it
      EXPECT_EQ(calls[i].second(), calls[i].first) << i;
      EXPECT_EQ(a + b, 0u) << i;
    }
    EXPECT_EQ(info.kind + info.port_id + info.owner_connected + info.owner_access + info.limit, 0u);
  }
}

class Limits : public SystemTest {
 protected:
  /// The minor code with which a call was refused, 0 when it was carried out.
  template <class Call>
  static unsigned int refused(Call call) {
    try {
      call();
      return 0;
    } catch (const CORBA::IMP_LIMIT& exception) {
      return exception.minor();
    }
  }
};

TEST_F(Limits, OfPortsClientsAndQueuedBytesRefuseWhatIsAboveThem) {
  const Port_Factory_var main = serving(
      "main", {"--max-ports", "3", "--max-clients-per-port", "2", "--max-queued-bytes", "16000"});
  create(main, {"p"});
  create(main, {"box", "second"}, PORT_EVENTBOX, 1000);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(refused([&] { main->create_port("another", PORT_MASTER, 8); }), refusal::ports);
  }
  create(main, {"p"});  // which exists
  EXPECT_EQ(times_said("main", "the limit of 3 ports is reached"), 1);
  EXPECT_THAT(portctl("main", {"create", "another"}).err, HasSubstr("limit of ports"));

  const unsigned int client = connected(main, "p", CONNECT_CLIENT);
  connected(main, "p", CONNECT_CLIENT);
  EXPECT_EQ(refused([&] { connected(main, "p", CONNECT_CLIENT); }), refusal::clients);
  const unsigned int owner = connected(main, "p", CONNECT_OWNER);
  EXPECT_EQ(main->disconnect_port(client), result::ok);
  EXPECT_NE(connected(main, "p", CONNECT_CLIENT), 0u);
  EXPECT_EQ(times_said("main", "port p: the limit of 2 clients is reached"), 1);

  // An event counts once, in however many boxes it stands, and until the last has let it go.
  for (const char* box : {"box", "second"}) main->add_event(box, 1);
  const Varo::DATA_BUFFER data = wire(std::string(5000, 'x'));
  unsigned int events = 0;
  while (events < 100 && refused([&] { main->declare_event(1, data, 0); }) == 0) ++events;
  EXPECT_EQ(events, 3u);
  EXPECT_EQ(refused([&] { main->packet_replay(client, data, 0); }), 0u) << "no client, no payload";
  const unsigned int other = client + 1;
  EXPECT_EQ(refused([&] { main->packet_replay(other, data, 0); }), refusal::queued_bytes);
  EXPECT_EQ(main->packet_replay(other, wire("small"), 0), result::ok) << "what fits still goes in";
  EXPECT_EQ(main->clear_event("box"), result::ok);
  EXPECT_EQ(refused([&] { main->send_event("box", data); }), refusal::queued_bytes);
  EXPECT_EQ(main->clear_event("second"), result::ok);
  EXPECT_EQ(times_said("main", "queued bytes is reached"), 1);
  // All of it has come back, that of packets and replies too.
  for (int i = 0; i < 20; ++i) {
    auto taken = started([&] { return receive(main, owner, 10); });
    EXPECT_EQ(send(main, other, std::string(5000, 'y'), 10), result::ok);
    EXPECT_EQ(std::get<0>(taken.get()), result::ok);
    EXPECT_EQ(main->packet_replay(other, data, 0), result::ok);
    EXPECT_EQ(reply(main, other, 10).first, result::ok);
  }
  EXPECT_EQ(times_said("main", "queued bytes again"), 1);
}

TEST_F(Limits, OfBlockedCallsAndConnectionsLeaveTheOthersAlone) {
  const Port_Factory_var main =
      serving("main", {"--max-connections", "12", "--max-blocked-calls", "3"});
  create(main, {"p"});
  const unsigned int id = connected(main, "p", CONNECT_OWNER);
  const unsigned int client = connected(main, "p", CONNECT_CLIENT);
  std::vector<std::future<unsigned int>> calls;
  for (int i = 0; i < 4; ++i) {
    calls.push_back(started([&] {
      unsigned int code = 0;
      const unsigned int minor = refused([&] { code = std::get<0>(receive(main, id, 2)); });
      return minor != 0 ? minor : code;
    }));
  }
  EXPECT_EQ(main->exist("p"), 0) << "what does not wait is not counted";
  std::multiset<unsigned int> answers;
  for (auto& call : calls) answers.insert(call.get());
  EXPECT_EQ(answers, std::multiset<unsigned int>({result::timed_out, result::timed_out,
                                                  result::timed_out, refusal::blocked_calls}));
  EXPECT_EQ(std::get<0>(receive(main, id, 1)), result::timed_out);
  EXPECT_EQ(times_said("main", "the limit of 3 blocked calls is reached"), 1);

  std::vector<std::unique_ptr<RawConnection>> connections;
  bool full = false;
  // One after the other: of several that come at once, more may be refused than are above the
  // limit.
  for (int i = 0; i < 12 && !full; ++i) {
    connections.push_back(std::make_unique<RawConnection>(port("main")));
    full = connections.back()->closed_by_peer(200ms);
  }
  EXPECT_TRUE(full);
  EXPECT_GT(connections.size(), 1U);
  EXPECT_EQ(portctl("main", {"--timeout-call", "2", "ping"}).status, 3);
  EXPECT_EQ(main->exist("p"), 0) << "who is in stays in";
  EXPECT_EQ(times_said("main", "the limit of 12 connections is reached"), 1);
  connections.clear();
  EXPECT_TRUE(eventually([&] { return portctl("main", {"ping"}).status == 0; }));
  EXPECT_EQ(main->disconnect_port(client), result::ok);
}

class Waits : public SystemTest, public ::testing::WithParamInterface<const char*> {
 protected:
  const Port_Factory_var main = serving("main", {"--waits", GetParam()});
};

INSTANTIATE_TEST_SUITE_P(, Waits, ::testing::Values("early", "paused"),
                         [](const auto& mode) { return mode.param; });

// A caller that is killed while it waits takes nothing with it: what comes next goes to whoever is
// there, and the server keeps nothing for it.
TEST_P(Waits, ADeadCallerSwallowsNothing) {
  NEEDS_OMNIORB();
  create(main, {"p"});
  create(main, {"box"}, PORT_EVENTBOX);

  for (const char* name : {"p", "box"}) {
    const bool box = std::string(name) == "box";
    const auto dead = in_background(
        "main", box ? Words{"event", "watch", "box"} : Words{"receive", "p", "--count", "0"});
    ASSERT_TRUE(eventually([&] { return info_of(main, name).owner_connected != 0; }));
    const unsigned int sender = box ? 0 : connected(main, "p", CONNECT_CLIENT);
    const auto put = [&](const char* data) {
      EXPECT_EQ(box ? main->send_event("box", wire(data)) : send(main, sender, data, 10),
                result::ok);
    };
    put("taken");
    ASSERT_TRUE(eventually([&] { return dead->out() == "taken\n"; }));
    done("main", {"ping"});  // meanwhile it waits for the next one
    dead->kill();

    // The owner's connection outlives its process: the next one takes over where it stood.
    const unsigned int id = info_of(main, name).port_id;
    for (const char* data : {"first", "second"}) {
      auto alive = started([&] { return receive(main, id, 20); });
      put(data);
      EXPECT_EQ(alive.get(), Received(result::ok, sender, data));
    }
  }
}

// Nothing comes for them, so the server has to find out by itself.
TEST_P(Waits, DeadCallersGiveTheirConnectionsBack) {
  NEEDS_OMNIORB();
  create(main, {"p"});
  const unsigned int id = connected(main, "p", CONNECT_OWNER);
  const unsigned int sender = connected(main, "p", CONNECT_CLIENT, ACCESS_SELECT);
  const int sockets = process("main").sockets();
  std::vector<std::unique_ptr<RawConnection>> callers;
  for (int i = 0; i < 20; ++i) {
    callers.push_back(std::make_unique<RawConnection>(port("main")));
    callers.back()->send(i % 2 ? request("packet_receive", {id, 0})
                               : request("packet_replay_wait", {sender, 0}));
  }
  EXPECT_FALSE(callers.back()->closed_by_peer(1500ms)) << "while they are there they wait";
  callers.clear();
  EXPECT_TRUE(eventually([&] { return process("main").sockets() <= sockets; }));
  EXPECT_EQ(send(main, sender, "x", 0), result::owner_not_taking) << "a take of the dead";
}

}  // namespace
}  // namespace portsvc
