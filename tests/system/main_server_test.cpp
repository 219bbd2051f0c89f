// One server and its clients.
#include <fmt/format.h>
#include <signal.h>

#include <future>
#include <nlohmann/json.hpp>
#include <random>

#include "tests/system/system_test.h"

namespace portsvc {
namespace {

using std::chrono::steady_clock;

class MainServer : public SystemTest {
 protected:
  MainServer() {
    start("main");
    main = server("main");
  }
  Port_Factory_var main;
};

std::string random_bytes(std::size_t size) {
  std::string bytes(size, '\0');
  std::independent_bits_engine<std::mt19937, 8, unsigned int> random;
  for (char& byte : bytes) byte = static_cast<char>(random());
  return bytes;
}

TEST_F(MainServer, ThreeHundredBlockedCallersOfOneProcessDelayNobody) {
  constexpr int callers = 300;
  std::vector<unsigned int> ids;
  for (int i = 0; i < callers; ++i) {
    const std::string name = fmt::format("p{}", i);
    create(main, {name});
    ids.push_back(connected(main, name, CONNECT_OWNER));
  }
  std::vector<std::future<Received>> blocked;
  for (const unsigned int id : ids) {
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
  const Outcome refused = portctl("main", {"ping"});
  EXPECT_EQ(refused.status, 3);
  EXPECT_THAT(refused.err, HasSubstr("the server is stopping"));
  EXPECT_EQ(stop("main", SIGCONT), 0);
  blocked.get();
}

TEST_F(MainServer, PortctlTellsRefusalMisuseAndSilenceApart) {
  EXPECT_EQ(portctl("main", {"create", "p"}).status, 0);
  const auto expect = [&](int status, const std::string& text, const Words& arguments,
                          const std::string& at = "main") {
    const Outcome ended = portctl(at, arguments);
    EXPECT_EQ(ended.status, status) << fmt::format("{}", fmt::join(arguments, " "));
    EXPECT_EQ(ended.out, "");
    EXPECT_THAT(ended.err, HasSubstr(text));
    EXPECT_EQ(std::count(ended.err.begin(), ended.err.end(), '\n'), 1) << ended.err;
  };
  expect(1, "2001 unknown_name", {"send", "nobody", "x"});
  expect(1, "2007 unknown_handle", {"send", "p", "x", "--no-block"});
  expect(1, "2017 send_timed_out", {"send", "p", "x", "--timeout", "1"});
  expect(2, "no command 'ask'", {"ask", "p"});
  expect(2, "NAME is required", {"send"});
  expect(2, "is no reference", {"ping"}, "corbaloc:nonsense");
}

TEST_F(MainServer, ABoxIsFilledCountedSwitchedAndEmptied) {
  done("main", {"create", "box", "--kind", "box", "--limit", "3"});
  EXPECT_EQ(portctl("main", {"event", "declare", "-5", "x"}).status, 1) << "nobody subscribed";
  done("main", {"event", "subscribe", "box", "-5"});
  const Outcome again = portctl("main", {"event", "subscribe", "box", "4294967291"});
  EXPECT_EQ(again.status, 1);
  EXPECT_THAT(again.err, HasSubstr("2014"));
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
    const auto shown = nlohmann::json::parse(
        done("main", {"--json", "snapshot", "show", folder.path("snapshot")}));
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
  Varo::PORT_HANDLE_SET unknown, not_selecting;
  for (auto* handles : {&unknown, &not_selecting}) handles->length(1);
  unknown[0] = 1;
  not_selecting[0] = id;
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

}  // namespace
}  // namespace portsvc
