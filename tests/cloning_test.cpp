// A main server and a sub server in one process: copies of ports.
#include <gtest/gtest.h>

#include <typeinfo>

#include "ports/event_box.h"
#include "ports/master_port.h"
#include "ports/slave_port.h"
#include "tests/support/peers.h"
#include "tests/support/threads.h"

namespace portsvc {
namespace {

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
