// The sub role: a sub server by itself, and the ports it copies from a main server.
#include <typeinfo>

#include "ports/event_box.h"
#include "ports/master_port.h"
#include "ports/slave_port.h"
#include "tests/support/peers.h"
#include "tests/support/threads.h"

namespace portsvc {
namespace {

class SubRole : public WithPeers {
 protected:
  // The main server is found from here on.
  void reach() { directory->enter("main", peer.object()); }
  unsigned int back_call(CORBA::Object_var object) { return sub.back_call_(object); }
  // A reference to something that is no port service.
  CORBA::Object_var file_handle() { return CORBA::Object_var(sub.openSnapShot()); }

  Active<FakePeer> peer;
  SubServer sub{"main", "plant/sub", nullptr, shared_orb()};
  const Keeper cannot_ask{result::failed, "DUMMY"};
};

TEST_F(SubRole, WorksOnItsOwnWithoutAPeer) {
  EXPECT_EQ(names(sub), Names());
  EXPECT_FALSE(exists(sub, "p"));
  EXPECT_EQ(std::get<0>(connect(sub, "p", CONNECT_OWNER, ACCESS_WAIT)), result::unknown_name);
  EXPECT_EQ(sub.update_port("p", 1, wire("x")), result::failed);
  EXPECT_EQ(sub.force_toslave("any", "p"), result::unknown_name);
  EXPECT_EQ(inquire(sub, "p"), cannot_ask);
  sub.set_notify_port("p");

  create(sub, {"box"}, PORT_EVENTBOX);
  create(sub, {"proxy"});
  EXPECT_EQ(names(sub), Names({"proxy"}, {"box"}));
  EXPECT_EQ(sub.get_port("box")->forward(1, buffer("x"), 0), result::no_peer);
  EXPECT_EQ(send(sub, client(sub, "proxy"), "x"), result::no_peer);
  // Where the role has no part nothing changes.
  EXPECT_EQ(sub.sendEvcDatatoSlave("box", 9), result::ok);
  EXPECT_EQ(sub.sendEvcDatatoSlave("nobody", 9), result::ok);
  EXPECT_EQ(sub.get_port("box")->copy_enable(), 1);
  EXPECT_EQ(sub.push_remote_consumer("consumer"), result::ok);
  Varo::STRING_LIST_var list;
  EXPECT_EQ(sub.get_remote_sub(list.out()), result::ok);
  EXPECT_EQ(list->length(), 0u);
}

TEST_F(SubRole, AnnouncesItselfAndItsPortsAtEveryConnection) {
  create(sub, {"b", "a", "c"}, PORT_SLAVE);
  EXPECT_EQ(back_call(peer.object()), result::ok);
  EXPECT_EQ(peer->calls(), (Texts{"push_remote_consumer plant/sub"}));
  for (const char* name : {"b", "a"}) {
    sub.set_notify_port(name);
    EXPECT_EQ(sub.get_port(name)->notify(), 1u);
  }
  EXPECT_EQ(peer->calls(), (Texts{"force_toslave plant/sub b", "force_toslave plant/sub a"}));
  EXPECT_EQ(back_call(peer.object()), result::ok);
  EXPECT_EQ(peer->calls(), (Texts{"push_remote_consumer plant/sub", "force_toslave plant/sub a",
                                  "force_toslave plant/sub b"}));
  peer->answer("inquire_master", {result::unknown_name});
  EXPECT_EQ(inquire(sub, "a"), Keeper(result::unknown_name, "keeper"));
}

TEST_F(SubRole, DropsAMasterReferenceThatFails) {
  create(sub, {"p"}, PORT_SLAVE);
  // Nil, and an object that is no port service.
  EXPECT_EQ(back_call(CORBA::Object::_nil()), result::failed);
  EXPECT_EQ(back_call(file_handle()), result::failed);
  EXPECT_EQ(inquire(sub, "p"), cannot_ask);

  peer->fail("push_remote_consumer");
  EXPECT_EQ(back_call(peer.object()), result::failed);
  EXPECT_EQ(inquire(sub, "p"), cannot_ask);
  peer->fail("push_remote_consumer", false);

  const auto reconnect = [&] {
    EXPECT_EQ(back_call(peer.object()), result::ok);
    peer->calls();
  };
  reconnect();
  peer->fail("force_toslave");
  sub.set_notify_port("p");
  EXPECT_EQ(sub.get_port("p")->notify(), 0u);
  EXPECT_EQ(inquire(sub, "p"), cannot_ask);
  sub.get_port("p")->set_notify(1);
  reconnect();  // answers 0 although the report fails
  EXPECT_EQ(inquire(sub, "p"), cannot_ask);
  peer->fail("force_toslave", false);

  reconnect();
  peer->fail("inquire_master");
  EXPECT_EQ(inquire(sub, "p"), cannot_ask);
  EXPECT_EQ(inquire(sub, "p"), cannot_ask);
  sub.set_notify_port("p");
  EXPECT_EQ(peer->calls(), (Texts{"inquire_master p"})) << "asked once, then dropped";
}

TEST_F(SubRole, SendsForwardedPacketsUp) {
  reach();
  create(sub, {"box"}, PORT_EVENTBOX);
  const auto box = sub.get_port("box");
  peer->answer("update_port", {result::unknown_handle});
  EXPECT_EQ(box->forward(11, buffer("a"), 0), result::ok);
  EXPECT_EQ(box->forward_front(22, buffer("b"), 0), result::ok);
  EXPECT_EQ(peer->calls(), (Texts{"update_port box 11 a", "update_port box 22 b"}));
  EXPECT_EQ(box->event_count(), 0u) << "it comes back from the main server";

  const int asked = directory->asked("main@");
  peer->fail("update_port");
  EXPECT_EQ(box->forward(33, buffer("c"), 0), result::ok);
  EXPECT_EQ(directory->asked("main@"), asked);
  EXPECT_EQ(box->forward(33, buffer("c"), 0), result::ok);
  EXPECT_EQ(directory->asked("main@"), asked + 1) << "the failed reference was forgotten";
}

TEST_F(SubRole, StoresWhatTheMainServerDistributes) {
  reach();
  peer->has("box", PORT_EVENTBOX, 3000);
  peer->has("packets", PORT_MASTER, 3001);
  EXPECT_EQ(sub.update_port("nobody", 1, wire("x")), result::failed);
  EXPECT_EQ(sub.update_port("box", 11, wire("a")), result::ok);
  EXPECT_EQ(sub.update_port_front("box", 22, wire("b")), result::ok);
  EXPECT_EQ(sub.update_port("packets", 1, wire("x")), result::ok);
  EXPECT_EQ(drain(sub, "box"), (Texts{"b", "a"}));
  EXPECT_EQ(id_of(sub, "box"), 3000u);
}

TEST_F(SubRole, AnswersTheClientsOfTheMainServerAndItsOwn) {
  reach();
  peer->has("proxy", PORT_MASTER, 3000);
  const unsigned int id = owner(sub, "proxy");
  const Received request = receive(sub, id);
  EXPECT_EQ(request, Received(result::ok, 300000042, "packet"));
  peer->calls();
  EXPECT_EQ(sub.packet_replay(300000042, wire("answer"), 5), result::ok);
  EXPECT_EQ(peer->calls(), (Texts{"packet_replay 42 answer 5"}));
  EXPECT_EQ(sub.packet_replay(300000043, wire("answer"), 5), result::unknown_handle);

  sub.create_port("local", PORT_SLAVE, 5);
  const unsigned int handle = client(sub, "local");
  EXPECT_EQ(sub.packet_replay(handle, wire("answer"), 5), result::ok);
  EXPECT_EQ(reply(sub, handle), Reply(result::ok, "answer"));
}

TEST_F(SubRole, TakesAPortOver) {
  reach();
  peer->has("p", PORT_MASTER, 3000, 7);
  EXPECT_EQ(sub.force_toslave("ignored", "nobody"), result::unknown_name);
  EXPECT_FALSE(exists(sub, "nobody"));
  EXPECT_EQ(sub.force_toslave("ignored", "p"), result::ok);
  EXPECT_EQ(facts(sub, "p"), (Facts{PORT_MASTER, 3001, 0, 0, 7})) << "served here";
  EXPECT_EQ(sub.get_port(3000u), nullptr);
}

TEST_F(SubRole, ForgetsWithALifeOfTheMainServerWhatItHadOpenInIt) {
  using Handles = std::vector<unsigned int>;
  Main_Life life("plant/sub");
  std::uint64_t now = 0;
  const std::uint64_t first = life.of(peer.reference(), true);
  life.note(1, first, PeerHandle::opened);
  life.note(1, first, PeerHandle::left_open);
  EXPECT_EQ(life.left_open(now), Handles{1});
  peer->keeper = "another";
  const std::uint64_t second = life.of(peer.reference(), true);
  EXPECT_NE(first, second);
  EXPECT_EQ(life.left_open(now), Handles());
  EXPECT_EQ(now, second);
  life.note(1, second, PeerHandle::opened);
  life.note(1, first, PeerHandle::left_open);  // too late
  EXPECT_EQ(life.left_open(now), Handles());
}

TEST_F(SubRole, ListsTheNamesOfTheMainServer) {
  sub.create_port("mine", PORT_SLAVE, 5);
  reach();
  peer->listed = {{"p", "q"}, {"e"}};
  EXPECT_EQ(names(sub), Names({"p", "q"}, {"e"}));
  Varo::STRING_LIST_var ports;
  Varo::STRING_LIST_var boxes;
  peer->answer("patch_object_name", {result::servant_lock});
  EXPECT_EQ(sub.patch_object_name(ports.out(), boxes.out()), result::servant_lock);
  EXPECT_EQ(texts(ports.in()), (Texts{"p", "q"}));

  const int asked = directory->asked("main@");
  peer->fail("patch_object_name");
  for (int i : {0, 1}) {
    EXPECT_EQ(names(sub), Names()) << "nothing, not even stale names";
    EXPECT_EQ(directory->asked("main@"), asked + i);
  }
  directory->enter("main", CORBA::Object::_nil());
  EXPECT_EQ(names(sub), Names({"mine"}, {}));
}

TEST_F(SubRole, NeverBlocksItselfWhateverComesAtOnce) {
  // A slow main server; cloning on demand, reconnections, reports and stores meet all the time.
  reach();
  for (int i = 0; i < 40; ++i) peer->has("p" + std::to_string(i), PORT_EVENTBOX, 3000 + i);
  peer->during = [](const auto&) { std::this_thread::sleep_for(std::chrono::milliseconds(1)); };
  const std::function<void(const char*)> works[] = {
      [&](const char*) { EXPECT_EQ(back_call(peer.object()), result::ok); },
      [&](const char* name) { sub.set_notify_port(name); },
      [&](const char* name) { sub.delete_port(name), sub.heart_bit(); },
      [&](const char* name) { EXPECT_EQ(sub.update_port(name, 1, wire("x")), result::ok); },
      [&](const char* name) {
        if (const auto port = sub.get_port(name)) port->forward(1, buffer("x"), 0);
        inquire(sub, name);
      },
      [&](const char* name) {
        EXPECT_TRUE(exists(sub, name));
        connect(sub, name, CONNECT_CLIENT, ACCESS_WAIT);
        names(sub);
      }};
  in_parallel(6, [&](int thread) {
    for (int n = 0; n < 40; ++n) works[thread](fmt::format("p{}", n).c_str());
  });
}

class Cloning : public WithPeers {
 protected:
  template <class Main>
  void reach(const Active<Main>& main) {
    directory->enter("main", main.object());
  }
  SubServer& start() {
    sub = std::make_unique<SubServer>("main", "plant/sub", "north", shared_orb());
    return *sub;
  }
  template <class Class>
  void expect_copy(const char* name, unsigned int kind, unsigned int id, unsigned int limit) {
    const auto port = sub->get_port(name);
    ASSERT_TRUE(port) << name;
    const Port_impl& object = *port;
    EXPECT_EQ(typeid(object), typeid(Class)) << name;
    EXPECT_EQ(facts(*sub, name), (Facts{kind, id, 0, 0, limit}));
    EXPECT_EQ(sub->get_port(id), port);
  }

  std::unique_ptr<SubServer> sub;
};

TEST_F(Cloning, CopiesAllPortsOfTheMainServerAtStart) {
  Active<MainServer> main;
  reach(main);
  create(*main, {"E"}, PORT_EVENTBOX, 6);
  create(*main, {"B"}, PORT_SLAVE, 5);
  create(*main, {"A"}, PORT_MASTER, 4);
  main->send_event("E", wire("not copied"));
  main->setPersistent("E", 0);
  main->add_event("E", 7);
  owner(*main, "A");
  start();
  EXPECT_EQ(directory->asked("main@north"), 1);
  const unsigned int ids[] = {id_of(*main, "A"), id_of(*main, "B"), id_of(*main, "E")};
  EXPECT_EQ(sub->next_handle_, *std::max_element(ids, ids + 3) + 1);
  for (const unsigned int id : ids) EXPECT_TRUE(sub->get_port(id)) << "before anybody names it";
  expect_copy<vrSlave_Port>("A", PORT_SLAVE, ids[0], 4);
  expect_copy<vrMaster_Port>("B", PORT_MASTER, ids[1], 5);
  expect_copy<vrEventBox>("E", PORT_EVENTBOX, ids[2], 6);
  EXPECT_EQ(event_count(*sub, "E"), 0u);
  EXPECT_TRUE(dynamic_cast<vrEventBox&>(*sub->get_port("E")).persistent());
  EXPECT_EQ(sub->declare_event(7, wire("x"), 0), result::no_subscriptions);
  main.stop();
  directory->enter("main", CORBA::Object::_nil());
  use_directory(directory, "");
  EXPECT_EQ(names(*sub), Names({"B", "A"}, {"E"})) << "in the main server's order of creation";
}

TEST_F(Cloning, CopiesAPortWhenItIsNamed) {
  Active<MainServer> main;
  reach(main);
  start();
  main->create_port("p", PORT_MASTER, 4);
  const unsigned int id = id_of(*main, "p");
  EXPECT_EQ(sub->get_port(id), nullptr);
  EXPECT_TRUE(exists(*sub, "p"));
  EXPECT_EQ(sub->get_port(id), sub->get_port("p"));
  EXPECT_FALSE(exists(*sub, "nobody"));
  const auto first = sub->get_port("p");
  EXPECT_EQ(sub->delete_port("p"), result::ok);
  EXPECT_EQ(std::get<0>(connect(*sub, "p", CONNECT_CLIENT, ACCESS_WAIT)), result::ok);
  EXPECT_NE(sub->get_port("p"), first);
  in_parallel(4, [&](int) { EXPECT_TRUE(exists(*sub, "p")); });
}

TEST_F(Cloning, NumbersItsOwnPortsAboveTheCopies) {
  start();
  create(*sub, {"x"}, PORT_SLAVE);
  create(*sub, {"y"}, PORT_EVENTBOX);
  EXPECT_EQ(sub->create_port("x", PORT_EVENTBOX, 9), result::already_exists);
  EXPECT_EQ(sub->create_port("z", 30008, 5), result::bad_mode);
  EXPECT_EQ(id_of(*sub, "x"), 758u);
  EXPECT_EQ(id_of(*sub, "y"), 759u);
  EXPECT_EQ(client(*sub, "x"), 760u) << "neither refusal took a number";

  Active<FakePeer> peer;
  reach(peer);
  for (const unsigned int id : {5000u, 4000u}) {
    peer->has(std::to_string(id), PORT_MASTER, id);
    sub->exist(std::to_string(id).c_str());
    EXPECT_EQ(sub->next_handle_, 5001u);
  }
  sub->next_handle_ = 9000;
  peer->has("later", PORT_MASTER, 4500);
  sub->exist("later");
  EXPECT_EQ(sub->next_handle_, 5001u) << "also when that is lower than before";
  sub->next_handle_ = 758;
  sub->create_port("w", PORT_SLAVE, 5);
  EXPECT_EQ(id_of(*sub, "w"), 761u) << "what ports and clients have is nobody else's";
}

TEST_F(Cloning, SkipsWhatItCannotCopy) {
  Active<FakePeer> peer;
  reach(peer);
  for (const unsigned int kind : {0u, 30008u, PORT_MASTER}) {
    peer->has(std::to_string(kind), kind, 3000);
  }
  // "missing" has been deleted meanwhile; a name may come twice.
  peer->listed = {{"0", "missing", "30005", "30008", "30005"}, {"30005"}};
  start();
  EXPECT_EQ(sub->next_handle_, 3001u);
  EXPECT_TRUE(exists(*sub, "30005"));
  for (const char* name : {"0", "30008", "missing"}) {
    EXPECT_FALSE(exists(*sub, name)) << name;
    EXPECT_EQ(sub->update_port(name, 1, wire("x")), result::failed) << name;
  }
  EXPECT_FALSE(sub->find_port(758));
  use_directory(nullptr, "");
  EXPECT_EQ(names(*sub), Names({"30005"}, {}));
  use_directory(directory, "");
  peer->answer("patch_object_name", {result::servant_lock});
  start();
  EXPECT_FALSE(sub->get_port(3000u));
}

TEST_F(Cloning, KeepsTheCopiesMadeBeforeAFailure) {
  class Failing : public FakePeer {
   public:
    CORBA::ULong get_port_info(const char* name, Varo::DT_PORT_SVC::PORT_INFO& out) override {
      if (name == std::string("b")) throw CORBA::COMM_FAILURE();
      return FakePeer::get_port_info(name, out);
    }
  };
  Active<Failing> peer;
  reach(peer);
  peer->has("a", PORT_MASTER, 3000);
  peer->has("c", PORT_MASTER, 4000);
  peer->listed.first = {"a", "b", "c"};
  start();
  EXPECT_TRUE(sub->get_port(3000u));
  EXPECT_FALSE(sub->get_port(4000u));
  const int asked = directory->asked("main@north");
  EXPECT_FALSE(exists(*sub, "b"));
  EXPECT_TRUE(exists(*sub, "c")) << "later lookups fill the gaps";
  EXPECT_EQ(directory->asked("main@north"), asked + 2) << "failed references are looked up again";
}

}  // namespace
}  // namespace portsvc
