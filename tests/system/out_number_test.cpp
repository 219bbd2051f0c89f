// What a client finds in the numbers of an answer that the operation had nothing to say about.
#include "tests/system/system_test.h"

namespace portsvc {
namespace {

TEST_F(SystemTest, NumbersThatAnOperationDoesNotWriteArriveAsZero) {
  NEEDS_OMNIORB();
  start("main");
  const Port_Factory_var main = server("main");
  main->create_port("p", PORT_MASTER, 3);
  main->create_port("box", PORT_EVENTBOX, 3);
  const unsigned int id = connected(main, "p", CONNECT_OWNER);
  const unsigned int handle = connected(main, "p", CONNECT_CLIENT, ACCESS_SELECT);
  const unsigned int box = info_of(main, "box").port_id;
  Varo::DATA_BUFFER_var data;
  Varo::PORT_HANDLE_SET unknown, not_selecting;
  unknown.length(1);
  unknown[0] = 1;
  not_selecting.length(1);
  not_selecting[0] = id;

  using Numbers = std::vector<CORBA::ULong>;
  CORBA::ULong a = 1, b = 1;
  const auto connect = [&](const char* name, unsigned int mode, unsigned int access) {
    const CORBA::ULong code = main->connect_port(name, a, mode, access, b);
    return Numbers{code, a, b};
  };
  const auto one = [&](CORBA::ULong code) { return Numbers{code, a}; };
  for (int round = 0; round < 3; ++round) {  // what lies on the server's stack changes
    EXPECT_EQ(one(main->gen_evc_code(a)), (Numbers{result::ok, 0}));
    EXPECT_EQ(connect("none", CONNECT_CLIENT, ACCESS_WAIT), (Numbers{result::unknown_name, 0, 0}));
    EXPECT_EQ(connect("p", PORT_MASTER, ACCESS_WAIT), (Numbers{result::bad_mode, 0, 0}));
    EXPECT_EQ(connect("box", CONNECT_OWNER, ACCESS_SELECT),
              (Numbers{result::access_refused, box, 0}));
    EXPECT_EQ(one(main->packet_receive(1, a, data.out(), 0)), (Numbers{result::unknown_handle, 0}));
    EXPECT_EQ(one(main->packet_receive(box, a, data.out(), 0)), (Numbers{result::timed_out, 0}));
    EXPECT_EQ(one(main->packet_receive(id, a, data.out(), 1)), (Numbers{result::timed_out, 0}));
    EXPECT_EQ(one(main->select_event_port(unknown, a, 0)), (Numbers{result::unknown_handle, 0}));
    EXPECT_EQ(one(main->select_event_port(not_selecting, a, 0)),
              (Numbers{result::access_refused, 0}));
    EXPECT_EQ(one(main->select_event_port({}, a, 0)), (Numbers{result::nothing_selected, 0}));
    EXPECT_EQ(one(main->select_replay_port(unknown, a, 0)), (Numbers{result::unknown_handle, 0}));
    EXPECT_EQ(one(main->select_replay_port({}, a, 0)), (Numbers{result::nothing_selected, 0}));
    EXPECT_EQ(one(main->event_count("none", a)), (Numbers{result::unknown_handle, 0}));
    Varo::DT_PORT_SVC::PORT_INFO info{1, 1, 1, 1, 1};
    EXPECT_EQ(main->get_port_info("none", info), result::no_such_port);
    EXPECT_EQ(
        (Numbers{info.kind, info.port_id, info.owner_connected, info.owner_access, info.limit}),
        Numbers(5, 0));
  }
  EXPECT_EQ(main->disconnect_port(handle), result::ok);
}

}  // namespace
}  // namespace portsvc
