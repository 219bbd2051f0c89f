// The main role, and the threads that forward its events to the sub servers.
#include <filesystem>

#include "core/port_id_generator.h"
#include "platform/caller.h"
#include "roles/event_forwarding.h"
#include "tests/support/allocation.h"
#include "tests/support/peers.h"
#include "tests/support/threads.h"

namespace portsvc {
namespace {

using Consumers = std::pair<unsigned int, Texts>;

Consumers remote_subs(Port_Factory_i& server) {
  Varo::STRING_LIST_var list;
  const unsigned int code = server.get_remote_sub(list.out());
  return {code, texts(list.in())};
}

using MainRole = WithServer;

TEST_F(MainRole, CreatesEachNameOnce) {
  for (const unsigned int kind : {PORT_MASTER, PORT_EVENTBOX, PORT_SLAVE}) {
    create(server, {std::to_string(kind)}, kind, 3);
  }
  create(server, {"30005"}, PORT_EVENTBOX, 9);
  EXPECT_EQ(names(server), Names({"30005", "30007"}, {"30006"}));
  for (const unsigned int kind : {PORT_MASTER, PORT_EVENTBOX, PORT_SLAVE}) {
    const std::string name = std::to_string(kind);
    EXPECT_EQ(facts(server, name), (Facts{kind, id_of(server, name.c_str()), 0, 0, 3}));
  }
  EXPECT_EQ(owner(server, "30006"), id_of(server, "30006"));
  for (const unsigned int kind : {0u, CONNECT_OWNER, 0xFFFFFFFFu}) {
    EXPECT_EQ(server.create_port("strange", kind, 3), result::bad_mode);
  }
  EXPECT_FALSE(exists(server, "strange"));
  EXPECT_FALSE(server.find_port(758)) << "a lookup walks over ports only";
}

TEST_F(MainRole, DrawsPortIdsFromTheGeneratorAndNoneTwice) {
  // The first and the ten thousandth number that MT19937 gives for its default seed.
  seed_port_ids(5489);
  EXPECT_EQ(next_port_id(), 3499211612u >> 1);
  for (int i = 2; i < 10000; ++i) next_port_id();
  EXPECT_EQ(next_port_id(), 4123659995u >> 1);

  seed_port_ids(5489);
  create(server, {"a"});
  EXPECT_EQ(id_of(server, "a"), 3499211612u >> 1);
  server.clearAll();
  seed_port_ids(5489);
  create(server, {"b"});
  EXPECT_EQ(id_of(server, "b"), 581869302u >> 1) << "the first is still in the id table";
}

TEST_F(MainRole, StoresWhatAPeerSends) {
  create(server, {"box"}, PORT_EVENTBOX);
  create(server, {"packets"});
  EXPECT_EQ(server.update_port("nobody", 1, wire("x")), result::unknown_handle);
  EXPECT_EQ(server.update_port_front("nobody", 1, wire("x")), result::unknown_handle);
  EXPECT_EQ(server.update_port("packets", 1, wire("x")), result::ok);
  EXPECT_EQ(server.update_port("box", 11, wire("a")), result::ok);
  EXPECT_EQ(server.update_port_front("box", 22, wire("b")), result::ok);
  unsigned int source = 0;
  for (const auto& [data, handle] : {std::pair("b", 22u), {"a", 11u}}) {
    EXPECT_EQ(receive_n(*server.get_port("box"), 1, source), Events(result::ok, {data}));
    EXPECT_EQ(source, handle);
  }
}

TEST_F(MainRole, RemembersWhoKeepsAPort) {
  EXPECT_EQ(inquire(server, "p"), Keeper(result::unknown_name, ""));
  EXPECT_EQ(server.force_toslave("A", "p"), result::ok);
  EXPECT_EQ(server.force_toslave("B", "p"), result::ok);
  server.set_notify_port("p");
  server.set_notify_port("q");
  EXPECT_EQ(server.force_toslave("B", "q"), result::ok);
  server.clearAll();
  EXPECT_EQ(inquire(server, "p"), Keeper(result::ok, "A")) << "the first record stays";
  EXPECT_EQ(inquire(server, "q"), Keeper(result::ok, "plant/main"));
}

TEST_F(MainRole, ForgetsTheOldestKeepersOfNamesThatAreNoPorts) {
  create(server, {"p"});
  server.force_toslave("A", "p");
  server.force_toslave("mark", "\x01life C");
  for (std::size_t i = 0; i <= MainServer::most_masters; ++i) {
    server.force_toslave("B", std::to_string(i).c_str());
  }
  EXPECT_EQ(inquire(server, "p"), Keeper(result::ok, "A"));
  EXPECT_EQ(inquire(server, "\x01life C"), Keeper(result::ok, "mark"));
  EXPECT_EQ(inquire(server, "1"), Keeper(result::unknown_name, ""));
  EXPECT_EQ(inquire(server, "2"), Keeper(result::ok, "B"));
}

TEST_F(MainRole, ClosesWhatASubServerHasOpenThatIsSilentOrBeginsAnew) {
  struct Sub final : Caller {
    explicit Sub(const char* its_name) : name(its_name), life(std::string("\x01life ") + name) {}
    bool gone() const override { return false; }
    std::string server() const override { return name; }
    const std::string name, life;
  } const a("a"), b("b");
  create(server, {"p", "q"});
  const auto opened = [&](const Sub& sub, const char* port, unsigned int mode) {
    const Caller::Scope scope(&sub);
    return connected(server, port, mode, ACCESS_WAIT);
  };
  const auto silent = [&] { return server.end_silent_sub_servers(2); };
  const unsigned int own = client(server, "p"), unheard = opened(a, "p", CONNECT_CLIENT);
  for (const Sub* sub : {&a, &b}) {
    EXPECT_EQ(inquire(server, sub->life.c_str()), Keeper(result::unknown_name, ""));
    for (const char* mark : {"first", "second"}) server.force_toslave(mark, sub->life.c_str());
    EXPECT_EQ(inquire(server, sub->life.c_str()), Keeper(result::ok, "first"));
  }
  const unsigned int of_a = opened(a, "p", CONNECT_CLIENT), of_b = opened(b, "p", CONNECT_CLIENT);
  const unsigned int p = opened(a, "p", CONNECT_OWNER), q = opened(a, "q", CONNECT_OWNER);
  server.disconnect_port(q);
  owner(server, "q");  // somebody else's
  for (int round = 0; round < 9; ++round) {
    EXPECT_EQ(silent(), Texts());
    if (round < 7) inquire(server, a.life.c_str());
    inquire(server, b.life.c_str());
  }
  EXPECT_EQ(silent(), Texts{"a"});
  EXPECT_EQ(inquire(server, a.life.c_str()).first, result::unknown_name);
  EXPECT_FALSE(server.find_port(of_a));
  EXPECT_EQ(server.disconnect_port(p), result::not_connected);
  for (const unsigned int handle : {own, unheard, of_b, q}) {
    EXPECT_EQ(server.disconnect_port(handle), result::ok) << handle;
  }

  opened(b, "p", CONNECT_CLIENT);
  server.force_toslave("anew", "\x01start b");
  for (int round = 0; round < 9; ++round) EXPECT_EQ(silent(), Texts()) << "it has nothing open";
  EXPECT_EQ(inquire(server, b.life.c_str()).first, result::ok);
}

TEST_F(MainRole, MakesNoEventsThatOverflowDropsAtOnce) {
  create(server, {"box"}, PORT_EVENTBOX, 2);
  create(server, {"larger"}, PORT_EVENTBOX, 4);
  for (const char* box : {"larger", "box"}) server.add_event(box, 7);
  server.get_port("box")->push_event_front(event("front"));
  EXPECT_EQ(server.declare_event_n(7, wires({"3", "4", "5", "6", "7", "8"}), 0), result::ok);
  EXPECT_EQ(drain(server, "box"), (Texts{"7", "8"}));
  EXPECT_EQ(drain(server, "larger"), (Texts{"5", "6", "7", "8"}));

  // Every event made is an allocation: far fewer than elements.
  Varo::DATA_BUFFER_SEQ many;
  many.length(100000);
  const FailingAllocation scope(1000);
  EXPECT_EQ(server.declare_event_n(7, many, 0), result::ok);
  EXPECT_FALSE(scope.failed());
}

TEST_F(MainRole, SwitchesCopyingAndHasNoPeerAbove) {
  create(server, {"p"});
  EXPECT_EQ(server.sendEvcDatatoSlave("p", -3), result::ok);
  EXPECT_EQ(server.get_port("p")->copy_enable(), -3);
  EXPECT_EQ(server.sendEvcDatatoSlave("q", 1), result::unknown_name);
  EXPECT_TRUE(CORBA::is_nil(Varo::DT_PORT_SVC::Port_Factory_var(server.get_remote_point())));
  create(server, {"proxy"}, PORT_SLAVE);
  EXPECT_EQ(send(server, client(server, "proxy"), "x"), result::no_peer);
  EXPECT_EQ(std::get<0>(connect(server, "proxy", CONNECT_OWNER, ACCESS_WAIT)), result::no_peer);
}

class MainRoleWithPeers : public WithPeers {
 protected:
  // A main server with three sub servers, the second of which is not in reach.
  MainRoleWithPeers() {
    directory->subs = {"sub1", "sub2", "sub3"};
    directory->enter("sub1", peers[0].object());
    directory->enter("sub3", peers[2].object());
  }
  static auto threads() {
    using std::filesystem::directory_iterator;
    return std::distance(directory_iterator("/proc/self/task"), directory_iterator());
  }
  static void expect_calls(FakePeer& peer, const Texts& expected) {
    Texts calls;
    eventually([&] {
      for (std::string& call : peer.calls()) calls.push_back(std::move(call));
      return calls.size() >= expected.size();
    });
    EXPECT_EQ(calls, expected);
  }

  Active<FakePeer> peers[3];
};

TEST_F(MainRoleWithPeers, CopiesForwardedPacketsToEverySubServer) {
  directory->enter("sub2", peers[1].object());
  MainServer server;
  create(server, {"box"}, PORT_EVENTBOX);
  const auto box = server.get_port("box");
  EXPECT_EQ(box->forward(11, buffer("a"), 0), result::ok);
  EXPECT_EQ(box->forward_front(22, buffer("b"), 0), result::ok);
  EXPECT_EQ(box->forward(33, buffer(""), 0), result::ok);
  server.update_port("box", 44, wire("from a peer"));
  server.send_event("box", wire("sent"));
  server.copy_enable("box", 0);
  EXPECT_EQ(box->forward(55, buffer("kept here"), 0), result::ok);
  server.copy_enable("box", 1);
  EXPECT_EQ(box->forward(66, buffer("z"), 0), result::ok);

  EXPECT_EQ(drain(server, "box"), (Texts{"b", "a", "", "from a peer", "sent", "kept here", "z"}));
  for (auto& peer : peers) {
    expect_calls(*peer, {"update_port box 11 a", "update_port_front box 22 b",
                         "update_port box 33 ", "update_port box 66 z"});
  }
}

TEST_F(MainRoleWithPeers, AFrozenSubServerHoldsBackTheCopiesBehindItsOwnAndNothingElse) {
  directory->subs = {"sub1", "sub3"};
  std::promise<void> thaw;
  peers[2]->during = [thawed = thaw.get_future().share()](const std::string&) { thawed.wait(); };
  MainServer server;
  create(server, {"a", "b"}, PORT_EVENTBOX, 3000);
  EXPECT_EQ(server.task_for("a"), server.task_for("a"));
  Texts rest;
  for (unsigned int i = 0; i < 1000; ++i) {  // none waits for a sub server
    EXPECT_EQ(server.get_port("a")->forward(i, buffer("x"), 0), result::ok);
    if (i > 0) rest.push_back(fmt::format("update_port a {} x", i));
    if (i == 0) expect_calls(*peers[0], {"update_port a 0 x"});
  }
  server.get_port("b")->forward(7, buffer("y"), 0);
  expect_calls(*peers[0], {"update_port b 7 y"});  // which its own thread sends
  EXPECT_EQ(event_count(server, "a"), 1000u);
  thaw.set_value();
  expect_calls(*peers[0], rest);  // those of one box do not overtake one another
  EXPECT_TRUE(eventually([&] { return peers[2]->calls().empty(); }));
}

TEST_F(MainRoleWithPeers, StartsNoThreadWithoutSubServersOrCopies) {
  MainServer with_subs;
  directory->subs.clear();
  MainServer without;
  for (MainServer* server : {&with_subs, &without}) create(*server, {"box"}, PORT_EVENTBOX);
  for (const int copies : {0, 1}) {
    with_subs.copy_enable("box", copies);
    const auto before = threads();
    for (MainServer* server : {&with_subs, &without}) {
      server->get_port("box")->forward(1, buffer("x"), 0);
    }
    EXPECT_EQ(threads(), before + copies);
  }
}

TEST_F(MainRoleWithPeers, ListsItsConsumers) {
  MainServer server;
  EXPECT_EQ(remote_subs(server), Consumers(result::ok, {"sub1", "sub2", "sub3"}));
  EXPECT_EQ(server.push_remote_consumer("another"), result::ok);
  EXPECT_EQ(remote_subs(server).second.size(), 3u);
  use_directory(nullptr, "");
  EXPECT_EQ(remote_subs(server), Consumers(result::no_consumers, {}));
}

// The requests that are alive, and those that were executed, by number.
int alive = 0;
std::vector<int> executed;

class FakeRequest : public SendEventRequest {
 public:
  FakeRequest(int number, unsigned int answer, std::function<void()> action)
      : SendEventRequest("box", "sub", nullptr, vrBuffer(), 0, false),
        execute_([=] { return executed.push_back(number), action ? action() : void(), answer; }) {
    ++alive;
  }
  ~FakeRequest() override { --alive; }
  unsigned int execute() override { return execute_(); }

 private:
  const std::function<unsigned int()> execute_;
};

class EventForwarding : public ::testing::Test {
 protected:
  EventForwarding() { alive = 0; }
  ~EventForwarding() override {
    task.reset();
    EXPECT_EQ(alive, 0);
  }
  void push(int from, int to, unsigned int answer = result::ok, std::function<void()> action = {}) {
    for (int i = from; i <= to; ++i) task->push_request(new FakeRequest(i, answer, action));
  }
  // The thread's work, done by this thread until nothing is left.
  void expect_run(const std::vector<int>& numbers) {
    executed.clear();
    clock.on_pause = [&](const ACE_Time_Value& length) {
      if (length == ACE_Time_Value(4, 0)) task->stop();
    };
    const double start = clock.elapsed();
    EXPECT_EQ(task->svc(), 0);
    EXPECT_EQ(executed, numbers);
    EXPECT_EQ(clock.elapsed(), start + 4) << "one idle pause, at the end";
    EXPECT_EQ(alive, 0);
    task = std::make_unique<EventSendTask>();
  }

  TestClock clock;
  std::unique_ptr<EventSendTask> task = std::make_unique<EventSendTask>();
};

TEST_F(EventForwarding, StartsAgainFromEmptyBeyond3001Pending) {
  push(1, 3001);
  EXPECT_EQ(alive, 3001);
  push(3002, 3002);
  EXPECT_EQ(alive, 0);
  task->push_request(nullptr);
  push(3003, 3004);
  expect_run({3003, 3004});
}

TEST_F(EventForwarding, DropsTheRestOfABatchAfterAFailedDelivery) {
  const std::vector<int> all{1, 2, 3, 4, 5, 6}, without_the_rest{1, 2, 6};
  const auto expect = [&](unsigned int answer, const std::vector<int>& numbers) {
    push(1, 1);
    // What arrives while the batch is worked off belongs to the next one.
    push(2, 2, answer, [&] { push(6, 6); });
    push(3, 5);
    expect_run(numbers);
  };
  for (const unsigned int goes_on : {0u, 98u, 200u, 2000u, 2007u, result::failed}) {
    expect(goes_on, all);
  }
  for (const unsigned int fails : {99u, 112u, 199u, 2001u}) expect(fails, without_the_rest);
}

TEST_F(EventForwarding, EndsItsThreadWithRequestsPending) {
  executed.clear();
  push(1, 5, result::ok, [&] { task->stop(); });
  task->activate(0, 1, 0, 0, -1);
  task->wait();
  EXPECT_EQ(executed, (std::vector<int>{1}));
  push(7, 7);
}

using EventRequest = WithPeers;

unsigned int execute(bool front, const char* realm = nullptr) {
  return SendEventRequest("box", "sub", realm, buffer("data"), 0xFFFFFFFF, front).execute();
}

TEST_F(EventRequest, CallsTheSubServerAndLooksItUpAfreshAfterAnException) {
  EXPECT_EQ(execute(false), result::no_peer);
  Active<FakePeer> sub;
  directory->enter("sub", sub.object());
  sub->answer("update_port", {result::failed, result::ok});
  EXPECT_EQ(execute(false), result::failed);
  EXPECT_EQ(execute(true), result::ok);
  EXPECT_EQ(sub->calls(),
            (Texts{"update_port box 4294967295 data", "update_port_front box 4294967295 data"}));
  EXPECT_EQ(directory->asked("sub@"), 2) << "once in vain, then the reference is kept";
  sub->fail("update_port");
  EXPECT_EQ(execute(false, "north"), result::peer_forward);
  EXPECT_EQ(execute(true, "north"), result::ok);
  EXPECT_EQ(directory->asked("sub@north"), 2);
  sub.stop();
  for (const int asked : {2, 3}) {
    EXPECT_EQ(execute(true, "north"), result::peer_forward);
    EXPECT_EQ(directory->asked("sub@north"), asked);
  }
}

}  // namespace
}  // namespace portsvc
