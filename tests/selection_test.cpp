// Watching several ports, or several replies, at once.
#include <gtest/gtest.h>

#include <future>

#include "tests/support/servers.h"
#include "tests/support/threads.h"

namespace portsvc {
namespace {

class Selection : public ::testing::Test {
 protected:
  Selection() { create(server, {"a", "b", "c"}); }
  unsigned int watcher(const char* name) { return owner(server, name, ACCESS_SELECT); }
  unsigned int waiter(const char* name) { return client(server, name, ACCESS_SELECT); }

  Selected events(std::initializer_list<unsigned int> ids, unsigned int timeout = 0) {
    return select(server, &Port_Factory_i::select_event_port, ids, timeout);
  }
  Selected replies(std::initializer_list<unsigned int> handles, unsigned int timeout = 0) {
    return select(server, &Port_Factory_i::select_replay_port, handles, timeout);
  }
  bool watched(const char* name) { return server.get_port(name)->has_selectors(); }
  // Queues a packet in a watched port, or in one that is watched for this moment.
  void queue(const char* name) {
    const auto port = server.get_port(name);
    ASSERT_EQ(port->select(true), result::ok);
    ASSERT_EQ(send(server, client(server, name), "x"), result::ok);
    port->select(false);
  }
  void in_pause(int number, std::function<void()> action) {
    clock.on_pause = [this, number, action = std::move(action),
                      before = clock.pauses()](const ACE_Time_Value&) {
      if (clock.pauses() == before + number) action();
    };
  }

  TestClock clock;
  MainServer server;
};

TEST_F(Selection, RefusesWhatCannotBeWatched) {
  const unsigned int a = watcher("a");
  const unsigned int blocking = owner(server, "b");
  EXPECT_EQ(events({a, 1}), Selected(result::unknown_handle, untouched));
  EXPECT_TRUE(watched("a")) << "what was counted before stays counted";
  server.get_port("a")->select(false);
  EXPECT_EQ(events({blocking}), Selected(result::access_refused, untouched));
  EXPECT_EQ(events({a, id_of(server, "c")}), Selected(result::access_refused, untouched))
      << "c never had an owner";

  const unsigned int handle = waiter("a");
  EXPECT_EQ(replies({handle, a}), Selected(result::unknown_handle, untouched)) << "an owner's id";
  EXPECT_EQ(replies({handle, client(server, "a")}), Selected(result::access_refused, untouched));
  EXPECT_EQ(events({}, 5), Selected(result::nothing_selected, untouched)) << "at once";
  EXPECT_EQ(replies({}), Selected(result::nothing_selected, untouched));
  EXPECT_EQ(clock.pauses(), 0);
}

TEST_F(Selection, PrefersTheFirstInRequestOrderAndTheLowestClient) {
  const unsigned int a = watcher("a"), b = watcher("b"), c = watcher("c");
  queue("b");
  queue("c");
  EXPECT_EQ(events({a, c, b}), Selected(result::ok, c));
  EXPECT_EQ(events({a, b, c}, 5), Selected(result::ok, b));

  const unsigned int low = waiter("c"), middle = waiter("a"), high = waiter("b");
  for (const unsigned int handle : {high, middle}) server.packet_replay(handle, wire("r"), 0);
  EXPECT_EQ(replies({high, low, middle, high}), Selected(result::ok, middle));
  EXPECT_EQ(clock.pauses(), 0);
  EXPECT_EQ(reply(server, middle), Reply(result::ok, "r")) << "selecting takes nothing";
  EXPECT_EQ(replies({high, low, middle}), Selected(result::ok, high));
}

TEST_F(Selection, ReportsWhatArrivesWithinOnePause) {
  const unsigned int a = watcher("a"), b = watcher("b");
  const unsigned int sender = client(server, "b");
  in_pause(7, [&] { EXPECT_EQ(send(server, sender, "x"), result::ok); });
  EXPECT_EQ(events({a, b}), Selected(result::ok, b));
  EXPECT_EQ(clock.pauses(), 7) << "a watched port admits packets without a take";
  EXPECT_EQ(receive(server, b), Received(result::ok, sender, "x"));

  const unsigned int mine = waiter("a"), other = waiter("a");
  in_pause(3, [&] { server.packet_replay(other, wire("r"), 0); });
  EXPECT_EQ(replies({mine}, 1), Selected(result::timed_out, 0)) << "somebody else's reply";
  in_pause(3, [&] { server.packet_replay(mine, wire("r"), 0); });
  EXPECT_EQ(replies({mine}), Selected(result::ok, mine));
}

TEST_F(Selection, TimesOutWithNothingReady) {
  const unsigned int a = watcher("a");
  EXPECT_EQ(events({a, a}, 1), Selected(result::timed_out, 0));
  EXPECT_NEAR(clock.elapsed(), 1, 0.02);
  // A packet that is there at the last look still counts.
  in_pause(100, [&] { queue("a"); });
  EXPECT_EQ(events({a}, 1), Selected(result::ok, a));
  EXPECT_EQ(replies({waiter("a")}, 1), Selected(result::timed_out, 0));
  EXPECT_NEAR(clock.elapsed(), 3, 0.05);
}

TEST_F(Selection, DropsWhoHasGone) {
  const unsigned int a = watcher("a"), b = watcher("b");
  in_pause(2, [&] { server.disconnect_port(a); });
  EXPECT_EQ(events({a, b, a}, 1), Selected(result::timed_out, 0)) << "b is still watched";
  watcher("a");
  in_pause(2, [&] {
    server.disconnect_port(a);
    server.disconnect_port(b);
  });
  EXPECT_EQ(events({a, b}), Selected(result::nothing_selected, untouched));

  const unsigned int x = waiter("a"), y = waiter("b"), z = waiter("c");
  in_pause(2, [&] {
    for (const unsigned int handle : {x, y}) server.disconnect_port(handle);
  });
  EXPECT_EQ(replies({x, y, z}, 1), Selected(result::timed_out, 0));
  in_pause(2, [&] { server.disconnect_port(z); });
  EXPECT_EQ(replies({z}), Selected(result::nothing_selected, untouched));
}

TEST_F(Selection, LeavesTheCountsAsTheyWereOnEveryWayOut) {
  const unsigned int a = watcher("a");
  const unsigned int b = watcher("b");
  for (const bool queued : {false, true}) {
    if (queued) queue("b");
    EXPECT_EQ(events({a, b, a}, 1).first, queued ? result::ok : result::timed_out);
    EXPECT_FALSE(watched("a"));
    EXPECT_FALSE(watched("b"));
  }
  EXPECT_EQ(std::get<0>(receive(server, b)), result::ok);
  // An owner that disconnects ends all watches; the one that still runs then takes nothing off.
  in_pause(1, [&] {
    server.disconnect_port(b);
    watcher("b");
  });
  EXPECT_EQ(events({a, b}, 1), Selected(result::timed_out, 0));
  EXPECT_FALSE(watched("a"));
  EXPECT_FALSE(watched("b"));
}

TEST_F(Selection, TellsEveryWatcherOfAPort) {
  const unsigned int a = watcher("a");
  const auto watch = [&] { return events({a}); };
  auto first = started(watch);
  auto second = started(watch);
  ASSERT_TRUE(clock.await_poll(nullptr, 4));
  EXPECT_EQ(send(server, client(server, "a"), "x"), result::ok);
  EXPECT_EQ(first.get(), Selected(result::ok, a));
  EXPECT_EQ(second.get(), Selected(result::ok, a));
  EXPECT_FALSE(watched("a"));
  EXPECT_EQ(std::get<2>(receive(server, a)), "x");
  EXPECT_EQ(std::get<0>(receive(server, a)), result::nothing_arrived);
}

}  // namespace
}  // namespace portsvc
