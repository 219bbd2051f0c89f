// What a client finds in the numbers of an answer that the operation had nothing to say about.
#include "tests/system/system_test.h"

namespace portsvc {
namespace {

TEST_F(SystemTest, NumbersThatAnOperationDoesNotWriteArriveAsZero) {
  NEEDS_OMNIORB();
  start("main");
  const Port_Factory_var main = server("main");
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
