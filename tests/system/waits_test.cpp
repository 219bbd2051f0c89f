// Callers that wait, and callers that die while they do.
#include <fmt/format.h>
#include <signal.h>

#include <future>

#include "tests/system/system_test.h"

namespace portsvc {
namespace {

class Waits : public SystemTest, public ::testing::WithParamInterface<const char*> {
 protected:
  Waits() {
    start("main", {"--waits", GetParam()});
    main = server("main");
  }
  Port_Factory_var main;
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
