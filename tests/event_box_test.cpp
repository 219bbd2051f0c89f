#include "ports/event_box.h"

#include <gtest/gtest.h>

#include <future>

#include "tests/support/servers.h"

namespace portsvc {
namespace {

constexpr unsigned int all = 0xFFFFFFFF;

class EventBox : public ::testing::Test {
 protected:
  unsigned int connect(vrEventBox& box, unsigned int mode, unsigned int access) {
    reported = untouched;
    return box.connect(7, mode, access, reported);
  }
  Received receive(vrEventBox& box, unsigned int timeout = 0) {
    unsigned int source = untouched;
    vrBuffer data = buffer("untouched");
    const unsigned int code = box.receive(source, data, timeout);
    return {code, source, text(data)};
  }
  Texts take(vrEventBox& box, unsigned int maximum = all) {
    std::vector<Event_ptr> events;
    box.take_events(events, maximum, 0);
    Texts taken;
    for (const Event_ptr& event : events) taken.push_back(text(*event));
    return taken;
  }

  TestClock clock;
  unsigned int reported = untouched;
};

TEST_F(EventBox, KeepsItsLimitAndOneMoreAtTheFront) {
  // Letters are appended one after the other; those after a ^ go to the front.
  const struct {
    unsigned int limit;
    const char* pushes;
    const char* held;
  } cases[] = {
      {3, "ABCD", "BCD"},    {3, "BCD^E", "EBCD"}, {3, "BCD^E^F", "FBCD"}, {3, "BCD^EG", "BCDG"},
      {3, "AB^C^D", "DCAB"}, {1, "AB", "B"},       {1, "^A^B^C", "CA"},    {0, "AB", ""},
      {0, "^A^B", "B"},      {0, "^AB", "B"},
  };
  for (const auto& c : cases) {
    vrEventBox box("b", 7, c.limit, nullptr);
    for (const char* push = c.pushes; *push; ++push) {
      if (*push == '^') {
        box.push_event_front(event(std::string_view(++push, 1)));
      } else {
        box.push_event(event(std::string_view(push, 1)));
      }
    }
    EXPECT_EQ(box.event_count(), std::string_view(c.held).size()) << c.pushes;
    std::string held;
    for (const std::string& one : take(box)) held += one;
    EXPECT_EQ(held, c.held) << c.limit << " " << c.pushes;
  }
}

TEST_F(EventBox, AppliesTheLimitToSeveralEventsAsToOne) {
  vrEventBox box("b", 7, 3, nullptr);
  box.push_event(event("A"));
  box.push_events({event("B"), event("C"), event("D"), event("E")});
  box.push_events({});
  EXPECT_EQ(take(box), (Texts{"C", "D", "E"}));
  box.push_events({event("F")});
  box.clear_events();
  EXPECT_EQ(box.event_count(), 0u);
}

TEST_F(EventBox, ConnectsAnOwnerThatBlocksAndForgetsClients) {
  vrEventBox box("b", 7, 3, nullptr);
  EXPECT_EQ(connect(box, CONNECT_CLIENT, ACCESS_WAIT), result::ok);
  EXPECT_EQ(reported, 0u);
  EXPECT_EQ(box.has_client(7), result::unknown_name);
  EXPECT_EQ(connect(box, PORT_EVENTBOX, ACCESS_WAIT), result::bad_mode);
  EXPECT_EQ(connect(box, CONNECT_OWNER, ACCESS_SELECT), result::access_refused);
  EXPECT_EQ(connect(box, CONNECT_OWNER, ACCESS_WAIT), result::ok);
  EXPECT_EQ(reported, untouched);
  for (const unsigned int access : {ACCESS_WAIT, ACCESS_SELECT}) {
    EXPECT_EQ(connect(box, CONNECT_OWNER, access), result::owner_exists);
    EXPECT_EQ(reported, 7u);
  }
  EXPECT_EQ(box.select(true), result::access_refused);
  box.set_connected_host("host");
  EXPECT_EQ(box.connected_host(), "host");
  EXPECT_EQ(box.disconnect(7), result::ok);
  EXPECT_EQ(box.connected_host(), "");
}

TEST_F(EventBox, GivesOutEventsInOrderAndTheirHandles) {
  vrEventBox box("b", 7, 9, nullptr);
  for (const char* data : {"A", "B", "C", "D", "E"}) box.push_event(event(data, 60));
  EXPECT_EQ(receive(box), Received(result::ok, 0, "A")) << "a single take hides the handle";
  EXPECT_EQ(take(box, 0), (Texts{"B"}));
  EXPECT_EQ(take(box, 2), (Texts{"C", "D"}));
  std::vector<Event_ptr> events;
  EXPECT_EQ(box.receive_n(reported, events, 2, 0), result::ok);
  EXPECT_EQ(reported, 60u);
  EXPECT_EQ(events.size(), 1u);
  EXPECT_EQ(box.receive_n(reported = untouched, events, 2, 0), result::timed_out);
  EXPECT_EQ(reported, untouched);
  box.push_event(event("", 60));
  EXPECT_EQ(receive(box), Received(result::ok, 0, "untouched"));
}

TEST_F(EventBox, WaitsAsItsOwnersModeAndTheTimeoutSay) {
  vrEventBox box("b", 7, 9, nullptr);
  const Received nothing(result::timed_out, untouched, "untouched");
  EXPECT_EQ(receive(box, 0), nothing);
  EXPECT_EQ(clock.pauses(), 0);
  EXPECT_EQ(std::get<0>(receive(box, 5)), result::nothing_arrived) << "without an owner";
  EXPECT_EQ(clock.pauses(), 1);
  connect(box, CONNECT_OWNER, ACCESS_WAIT);
  EXPECT_EQ(receive(box, 0), nothing);
  EXPECT_EQ(clock.pauses(), 1);
  EXPECT_EQ(receive(box, 5), nothing);
  EXPECT_NEAR(clock.elapsed(), 5.01, 0.02);

  auto taken = std::async(std::launch::async, [&] { return receive(box, 5); });
  ASSERT_TRUE(clock.await_poll(&box));
  box.push_event(event("late"));
  EXPECT_EQ(taken.get(), Received(result::ok, 0, "late"));
}

TEST_F(EventBox, ExpiresMoreThan120SecondsAfterTheLastRead) {
  vrEventBox box("b", 7, 9, nullptr);
  clock.advance(1000);
  EXPECT_TRUE(box.persistent());
  EXPECT_FALSE(box.expired());
  box.set_persistent(false);
  EXPECT_TRUE(box.expired());
  std::vector<Event_ptr> events;
  const std::function<void()> reads[] = {[&] { receive(box); },
                                         [&] { box.receive_n(reported, events, 1, 0); }};
  for (const auto& read : reads) {  // also in vain
    read();
    clock.advance(120);
    box.push_event(event("pushes do not count"));
    EXPECT_FALSE(box.expired());
    clock.advance(1);
    EXPECT_TRUE(box.expired());
    box.clear_events();
  }
}

TEST_F(EventBox, HandsForwardedPacketsToTheRoleAndIgnoresReplies) {
  struct Recorder : MainServer {
    int process_event_data(Port_impl* port, unsigned int handle, const vrBuffer& data,
                           bool front) override {
      seen.emplace_back(port, handle, text(data), front);
      return 99;
    }
    std::vector<std::tuple<Port_impl*, unsigned int, std::string, bool>> seen;
  } host;
  vrEventBox box("b", 7, 9, &host);
  EXPECT_EQ(box.forward(800, buffer("A"), 0), 99u);
  EXPECT_EQ(box.forward_front(801, buffer("B"), 0), 99u);
  ASSERT_EQ(host.seen.size(), 2u);
  EXPECT_EQ(host.seen[0], std::make_tuple(&box, 800u, std::string("A"), false));
  EXPECT_EQ(host.seen[1], std::make_tuple(&box, 801u, std::string("B"), true));
  EXPECT_EQ(box.event_count(), 0u);

  vrBuffer data = buffer("untouched");
  vrPort_Buffer packet(9, buffer("untouched"));
  EXPECT_EQ(box.replay(800, buffer("A"), 5), result::ok);
  EXPECT_EQ(box.replay_wait(800, data, 5), result::ok);
  EXPECT_EQ(box.take_reply(800, 5, packet), result::ok);
  EXPECT_EQ(box.wait_receiver(800, 5), result::ok);
  EXPECT_EQ(text(data), "untouched");
  EXPECT_EQ(text(packet), "untouched");
  EXPECT_EQ(clock.pauses(), 0);
}

}  // namespace
}  // namespace portsvc
