// A server at its limits: each call gets a definite answer, and below the limit all goes on.
#include <fmt/format.h>

#include <algorithm>
#include <future>
#include <set>

#include "tests/system/system_test.h"

namespace portsvc {
namespace {

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
  start("main", {"--max-ports", "3", "--max-clients-per-port", "2", "--max-queued-bytes", "16000"});
  const Port_Factory_var main = server("main");
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
  start("main", {"--max-connections", "12", "--max-blocked-calls", "3"});
  const Port_Factory_var main = server("main");
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

}  // namespace
}  // namespace portsvc
