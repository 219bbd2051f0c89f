#include "ports/master_port.h"

#include <gtest/gtest.h>

#include <future>
#include <optional>

#include "tests/support/payload.h"
#include "tests/support/test_clock.h"

namespace portsvc {
namespace {

constexpr unsigned int untouched = 0xABCD1234;

class MasterPort : public ::testing::Test {
 protected:
  using Taken = std::tuple<unsigned int, unsigned int, std::string>;  // code, source, payload

  unsigned int connect(unsigned int handle, unsigned int mode, unsigned int access) {
    reported = untouched;
    return port.connect(handle, mode, access, reported);
  }
  unsigned int owner(unsigned int access) { return connect(42, CONNECT_OWNER, access); }
  unsigned int client(unsigned int handle, unsigned int access = ACCESS_WAIT) {
    return connect(handle, CONNECT_CLIENT, access);
  }
  unsigned int send(unsigned int handle, const char* data, unsigned int timeout = 0) {
    return port.forward(handle, buffer(data), timeout);
  }
  Taken receive(unsigned int timeout = 0) {
    unsigned int source = untouched;
    vrBuffer data = buffer("untouched");
    const unsigned int code = port.receive(source, data, timeout);
    return {code, source, text(data)};
  }
  std::pair<unsigned int, std::string> reply(unsigned int handle, unsigned int timeout = 0) {
    vrBuffer data = buffer("untouched");
    const unsigned int code = port.replay_wait(handle, data, timeout);
    return {code, text(data)};
  }
  // A take on another thread, which is waiting when this returns.
  std::future<Taken> blocked_receive(unsigned int timeout = 0) {
    auto taken = std::async(std::launch::async, [=] { return receive(timeout); });
    EXPECT_TRUE(clock.await_poll(&port));
    return taken;
  }
  // Queues packets with the help of a watching owner.
  void queue(unsigned int handle, std::initializer_list<const char*> packets) {
    ASSERT_EQ(owner(ACCESS_SELECT), result::ok);
    ASSERT_EQ(port.select(true), result::ok);
    for (const char* packet : packets) ASSERT_EQ(send(handle, packet), result::ok);
    ASSERT_EQ(port.disconnect(42), result::ok);
  }

  TestClock clock;
  vrMaster_Port port{"p", 42, 3, nullptr};
  unsigned int reported = untouched;
};

TEST_F(MasterPort, IsBornUnconnected) {
  unsigned int access = untouched, kind = untouched, limit = untouched;
  bool connected = true;
  port.info(access, kind, connected, limit);
  EXPECT_EQ(access, 0u);
  EXPECT_EQ(kind, PORT_MASTER);
  EXPECT_FALSE(connected);
  EXPECT_EQ(limit, 3u);
  EXPECT_STREQ(port.name(), "p");
  EXPECT_EQ(port.port_id(), 42u);
  EXPECT_EQ(port.copy_enable(), 1);
  EXPECT_EQ(port.notify(), 0u);
  EXPECT_FALSE(port.has_selectors());
  EXPECT_EQ(port.connected_host(), "");
  EXPECT_EQ(port.owner_signal(), result::not_connected);
}

TEST_F(MasterPort, HasOneOwnerAtATime) {
  EXPECT_EQ(owner(ACCESS_SELECT), result::ok);
  EXPECT_EQ(reported, untouched);
  EXPECT_EQ(owner(ACCESS_WAIT), result::owner_exists);
  EXPECT_EQ(reported, 42u);
  EXPECT_EQ(connect(42, PORT_MASTER, ACCESS_WAIT), result::bad_mode);

  port.set_connected_host("host");
  EXPECT_EQ(port.disconnect(42), result::ok);
  EXPECT_EQ(port.connected_host(), "");
  EXPECT_EQ(port.disconnect(42), result::not_connected);
  // The last owner's mode stays, so that the port can still be selected.
  EXPECT_EQ(port.select(true), result::ok);
  EXPECT_EQ(owner(ACCESS_WAIT), result::ok);
  EXPECT_EQ(port.select(false), result::access_refused);
}

TEST_F(MasterPort, KnowsItsClients) {
  EXPECT_EQ(port.has_client(758), result::unknown_name);
  EXPECT_EQ(port.disconnect(758), result::unknown_handle);
  EXPECT_EQ(client(758, ACCESS_SELECT), result::ok);
  EXPECT_EQ(reported, 0u);
  EXPECT_EQ(client(758, ACCESS_WAIT), result::ok);
  EXPECT_EQ(port.select_replay(758, true), result::ok) << "the first access mode stays";
  EXPECT_EQ(port.has_client(758), result::ok);
  EXPECT_EQ(port.disconnect(758), result::ok);
  EXPECT_EQ(port.disconnect(758), result::unknown_handle);
  // A question about an unknown handle enters it, with no access.
  EXPECT_EQ(port.select_replay(759, true), result::access_refused);
  EXPECT_EQ(port.has_client(759), result::ok);
  EXPECT_EQ(port.reply_signal(759), result::not_connected);
}

TEST_F(MasterPort, RefusesSendersThatDoNotBlockAfterOnePause) {
  client(758, ACCESS_SELECT);
  EXPECT_EQ(send(758, "nobody there", 9), result::unknown_handle);
  EXPECT_EQ(send(999, "unknown sender", 9), result::unknown_handle);
  EXPECT_EQ(port.has_client(999), result::ok);
  owner(ACCESS_WAIT);
  EXPECT_EQ(send(758, "not taking", 9), result::owner_not_taking);
  EXPECT_EQ(clock.pauses(), 3);
  port.disconnect(42);

  // Somebody without a connection begins to take while the sender pauses.
  std::future<Taken> taker;
  clock.on_pause = [&](const ACE_Time_Value&) { taker = blocked_receive(); };
  EXPECT_EQ(send(758, "too late"), result::not_connected);
  clock.on_pause = nullptr;
  EXPECT_EQ(send(758, "in time"), result::ok);
  EXPECT_EQ(taker.get(), Taken(result::ok, 758, "in time"));
}

TEST_F(MasterPort, LetsASenderWaitForATake) {
  client(758);
  owner(ACCESS_WAIT);
  EXPECT_EQ(send(758, "lost", 1), result::send_timed_out);
  EXPECT_EQ(clock.pauses(), 100);
  EXPECT_EQ(port.owner_signal(), result::queue_empty);

  auto sent = std::async(std::launch::async, [&] { return send(758, "awaited"); });
  ASSERT_TRUE(clock.await_poll(&port));
  clock.advance(86400);
  EXPECT_EQ(std::async(std::launch::async, [&] { return receive(); }).get(),
            Taken(result::ok, 758, "awaited"));
  EXPECT_EQ(sent.get(), result::ok);
}

TEST_F(MasterPort, AdmitsOnePacketPerTake) {
  client(758, ACCESS_SELECT);
  client(759, ACCESS_SELECT);
  owner(ACCESS_WAIT);
  auto taken = blocked_receive();
  EXPECT_EQ(send(759, "first"), result::ok);
  EXPECT_EQ(taken.get(), Taken(result::ok, 759, "first"));
  EXPECT_EQ(send(758, "second"), result::owner_not_taking);

  // Neither a take that has timed out nor one that the owner has left admits anything.
  taken = blocked_receive(1);
  clock.advance(1);
  EXPECT_EQ(taken.get(), Taken(result::timed_out, untouched, "untouched"));
  EXPECT_EQ(send(758, "third"), result::owner_not_taking);
  taken = blocked_receive(1);
  port.disconnect(42);
  EXPECT_EQ(send(758, "fourth"), result::unknown_handle);
  clock.advance(1);
  taken.wait();
}

TEST_F(MasterPort, AdmitsAllSendersWhileItsOwnerWatches) {
  client(758, ACCESS_SELECT);
  EXPECT_EQ(port.select(true), result::access_refused);
  owner(ACCESS_SELECT);
  ASSERT_EQ(port.select(true), result::ok);
  ASSERT_EQ(port.select(true), result::ok);
  ASSERT_EQ(port.select(false), result::ok);
  EXPECT_TRUE(port.has_selectors());
  for (const char* data : {"a", "b", "c", "d"}) EXPECT_EQ(send(758, data), result::ok);
  EXPECT_EQ(clock.pauses(), 0);
  EXPECT_EQ(port.owner_signal(), result::ok);
  port.select(false);
  EXPECT_EQ(send(758, "e"), result::owner_not_taking);
  EXPECT_EQ(receive(), Taken(result::ok, 758, "b")) << "the oldest went over the limit";

  port.select(true);
  port.disconnect(42);
  EXPECT_FALSE(port.has_selectors());
  EXPECT_EQ(port.select(false), result::ok);
  EXPECT_FALSE(port.has_selectors()) << "the count never falls below 0";
  EXPECT_EQ(port.owner_signal(), result::not_connected) << "although packets are queued";
  port.select(true);
  EXPECT_EQ(send(758, "f"), result::unknown_handle) << "a watch without an owner admits nobody";
  owner(ACCESS_WAIT);
  EXPECT_EQ(receive(), Taken(result::ok, 758, "c")) << "packets wait for the next owner";
}

TEST_F(MasterPort, TakesAsItsOwnersModeSays) {
  EXPECT_EQ(receive(5), Taken(result::nothing_arrived, untouched, "untouched"));
  owner(ACCESS_SELECT);
  EXPECT_EQ(receive(5), Taken(result::nothing_arrived, untouched, "untouched"));
  EXPECT_EQ(clock.pauses(), 2);
  port.disconnect(42);
  owner(ACCESS_WAIT);
  EXPECT_EQ(receive(5), Taken(result::timed_out, untouched, "untouched"));
  EXPECT_NEAR(clock.elapsed(), 5.02, 0.02);
  port.disconnect(42);
  queue(758, {""});
  EXPECT_EQ(receive(), Taken(result::ok, 758, "untouched")) << "an empty packet assigns no bytes";
}

TEST_F(MasterPort, HasNoHeadAndNoEvents) {
  client(758, ACCESS_SELECT);
  queue(758, {"a"});
  EXPECT_EQ(port.forward_front(758, buffer("front"), 0), result::ok);
  port.push_event(event("e"));
  port.push_event_front(event("e"));
  port.push_events({event("e")});
  EXPECT_EQ(port.event_count(), 0u);
  std::vector<Event_ptr> events;
  EXPECT_EQ(port.receive_n(reported, events, 9, 0), result::ok);
  EXPECT_TRUE(events.empty());
  port.clear_events();
  EXPECT_EQ(receive(), Taken(result::ok, 758, "a"));
  EXPECT_EQ(receive(), Taken(result::nothing_arrived, untouched, "untouched"));
}

TEST_F(MasterPort, DeliversRepliesToTheirClientOnly) {
  using Reply = std::pair<unsigned int, std::string>;
  client(758, ACCESS_SELECT);
  client(759, ACCESS_WAIT);
  EXPECT_EQ(port.reply_signal(758), result::queue_empty);
  port.replay(759, buffer("x1"), 9);
  port.replay(759, buffer("x2"), 9);
  EXPECT_EQ(port.reply_signal(758), result::unknown_name);
  EXPECT_EQ(reply(758, 5), Reply(result::nothing_arrived, "untouched"));
  EXPECT_EQ(clock.pauses(), 1);
  port.replay(758, buffer("y"), 9);
  EXPECT_EQ(port.reply_signal(758), result::ok);
  EXPECT_EQ(reply(759), Reply(result::ok, "x1"));
  EXPECT_EQ(reply(758), Reply(result::ok, "y"));
  EXPECT_EQ(reply(759), Reply(result::ok, "x2"));
  EXPECT_EQ(reply(759, 5), Reply(result::reply_timed_out, "untouched"));
  EXPECT_NEAR(clock.elapsed(), 5.02, 0.02);
}

TEST_F(MasterPort, KeepsTheNewest32Replies) {
  client(758, ACCESS_SELECT);
  for (unsigned int i = 1; i <= reply_limit + 1; ++i)
    port.replay(758, buffer(std::to_string(i)), 0);
  for (unsigned int i = 2; i <= reply_limit + 1; ++i) {
    EXPECT_EQ(reply(758).second, std::to_string(i));
  }
  EXPECT_EQ(reply(758).first, result::nothing_arrived);
}

}  // namespace
}  // namespace portsvc
