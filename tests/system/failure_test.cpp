// Servers that are late, killed, frozen or told to stop.
#include <fmt/format.h>
#include <signal.h>

#include <future>

#include "tests/system/system_test.h"

namespace portsvc {
namespace {

using std::chrono::steady_clock;

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

TEST_F(Failures, ASubServerStartsAloneAndFindsItsMainServerWhenThatComes) {
  start("sub1");
  EXPECT_EQ(portctl("sub1", {"exists", "p"}).status, 1);
  const Outcome master = portctl("sub1", {"master", "p"});
  EXPECT_THAT(master.err, HasSubstr("4294967295"));
  expect_local_work(2s);

  start("main");
  done("main", {"create", "p"});
  EXPECT_TRUE(eventually([&] { return portctl("sub1", {"exists", "p"}).status == 0; }));
  expect_exchange("p", "main", "sub1");
  EXPECT_TRUE(sub1_knows_main());
}

TEST_F(Failures, ARestartedMainServerServesEveryCallThatComesAfterIt) {
  constexpr int clients = 20;
  start("main");
  done("main", {"create", "p"});
  start("sub1");
  const Port_Factory_var sub = server("sub1");
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
  start("sub1");
  const Port_Factory_var sub = server("sub1");

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
  start("main");
  start("sub1");
  const Port_Factory_var main = server("main");
  const Port_Factory_var sub = server("sub1");
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

}  // namespace
}  // namespace portsvc
