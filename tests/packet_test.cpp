// Packets and replies: payloads, the queue that keeps them, the port whose owner is served here,
// the servant's operations, and watching several ports, or several replies, at once.
#include "ports/buffer_queue.h"
#include "ports/master_port.h"
#include "tests/support/servers.h"
#include "tests/support/threads.h"

namespace portsvc {
namespace {

vrPort_Buffer packet(unsigned int handle, std::string_view data) {
  return vrPort_Buffer(handle, buffer(data));
}

TEST(Buffer, OwnsItsBytesUntilItGivesThemAway) {
  std::string source = "hello";
  vrBuffer first = buffer(source), second(first), third = buffer("old");
  third = first;
  source[0] = 'J';
  first.assign("bye", 3);
  EXPECT_EQ(text(first) + text(second) + text(third), "byehellohello");

  const unsigned char* const bytes = second.data();
  vrBuffer moved(std::move(second));
  third = std::move(moved);
  EXPECT_EQ(third.data(), bytes);
  EXPECT_EQ(text(third), "hello");
  EXPECT_EQ(third.release().get(), bytes);
  first.assign("x", 0);
  for (const vrBuffer* emptied : {&first, &second, &moved, &third}) {
    EXPECT_EQ(emptied->size(), 0u);
    EXPECT_EQ(emptied->data(), nullptr);
  }
}

TEST(Buffer, ComparesLengthAndBytesAndPortBuffersTheirHandles) {
  const std::tuple<const char*, const char*, bool> cases[] = {
      {"abc", "abc", true}, {"", "", true},       {"abc", "abd", false},
      {"abc", "ab", false}, {"ab", "abc", false}, {"", "a", false}};
  for (const auto& [left, right, equal] : cases) {
    EXPECT_EQ(buffer(left) == buffer(right), equal) << left << " " << right;
  }
  EXPECT_TRUE(packet(1, "a") == packet(1, "b"));
  EXPECT_FALSE(packet(1, "a") == packet(2, "a"));
}

TEST(BufferQueue, TakesByHandleAndTellsEmptyFromNoneForThatHandle) {
  vrPort_Buffer_Queue queue;
  queue.set_limit(10);
  const auto pop = [&](unsigned int handle) {
    vrPort_Buffer out(9, {});
    const unsigned int code = queue.pop(handle, out);
    return Reply(code, std::to_string(out.handle()) + text(out));
  };
  EXPECT_EQ(pop(any_handle), Reply(result::nothing_arrived, "9"));
  EXPECT_EQ(pop(800), Reply(result::unknown_name, "9"));
  EXPECT_EQ(queue.find(800), result::queue_empty);
  // The empty payload in the middle must neither gain nor lose bytes when its neighbours leave.
  for (const auto& one : {packet(800, "a"), packet(801, ""), packet(800, "b"), packet(802, "c")}) {
    queue.push_back(one);
  }
  EXPECT_EQ(queue.find(803), result::unknown_name);
  EXPECT_EQ(queue.find(801), result::ok);
  EXPECT_EQ(pop(803), Reply(result::unknown_name, "9"));
  for (const char* taken : {"800a", "800b"}) EXPECT_EQ(pop(800), Reply(result::ok, taken));
  for (const char* taken : {"801", "802c"}) EXPECT_EQ(pop(any_handle), Reply(result::ok, taken));
  queue.push(801, buffer("a"));
  queue.clear();
  EXPECT_EQ(queue.find(801), result::queue_empty);
}

class MasterPort : public ::testing::Test {
 protected:
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
  Received receive(unsigned int timeout = 0) { return portsvc::receive(port, timeout); }
  Reply reply(unsigned int handle, unsigned int timeout = 0) {
    return portsvc::reply(port, handle, timeout);
  }
  // A take on another thread, which is waiting when this returns.
  std::future<Received> blocked_receive(unsigned int timeout = 0) {
    auto taken = started([=] { return receive(timeout); });
    EXPECT_TRUE(clock.await_poll(&port));
    return taken;
  }

  TestClock clock;
  vrMaster_Port port{"p", 42, 3, nullptr};
  const Received nothing{result::nothing_arrived, untouched, "untouched"};
  unsigned int reported = untouched;
};

TEST_F(MasterPort, HasOneOwnerAndKnowsItsClients) {
  EXPECT_EQ(port.disconnect(758), result::unknown_handle);
  EXPECT_EQ(client(758, ACCESS_SELECT), result::ok);
  EXPECT_EQ(reported, 0u);
  EXPECT_EQ(client(758, ACCESS_WAIT), result::ok);
  EXPECT_EQ(port.select_replay(758, true), result::ok) << "the first access mode stays";
  EXPECT_EQ(port.has_client(758), result::ok);
  EXPECT_EQ(port.disconnect(758), result::ok);
  EXPECT_EQ(port.has_client(758), result::unknown_name);
  // A question about an unknown handle enters it, with no access.
  EXPECT_EQ(port.select_replay(759, true), result::access_refused);
  EXPECT_EQ(port.has_client(759), result::ok);
  EXPECT_EQ(port.reply_signal(759), result::not_connected);

  EXPECT_EQ(connect(42, PORT_MASTER, ACCESS_WAIT), result::bad_mode);
  EXPECT_EQ(owner(ACCESS_SELECT), result::ok);
  EXPECT_EQ(reported, untouched);
  EXPECT_EQ(owner(ACCESS_WAIT), result::owner_exists);
  EXPECT_EQ(reported, 42u);
  EXPECT_EQ(port.disconnect(42), result::ok);
  EXPECT_EQ(port.disconnect(42), result::not_connected);
  // The last owner's mode stays, so that the port can still be selected.
  EXPECT_EQ(port.select(true), result::ok);
  EXPECT_EQ(owner(ACCESS_WAIT), result::ok);
  EXPECT_EQ(port.select(false), result::access_refused);
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
  std::future<Received> taker;
  clock.on_pause = [&](const ACE_Time_Value&) { taker = blocked_receive(); };
  EXPECT_EQ(send(758, "too late"), result::not_connected);
  clock.on_pause = nullptr;
  EXPECT_EQ(send(758, "in time"), result::ok);
  EXPECT_EQ(taker.get(), Received(result::ok, 758, "in time"));
}

TEST_F(MasterPort, AdmitsOnePacketPerTakeForWhichASenderMayWait) {
  client(758, ACCESS_SELECT);
  client(759);
  owner(ACCESS_WAIT);
  EXPECT_EQ(send(759, "lost", 1), result::send_timed_out);
  EXPECT_EQ(clock.pauses(), 100);
  EXPECT_EQ(port.owner_signal(), result::queue_empty);
  auto sent = started([&] { return send(759, "awaited"); });
  ASSERT_TRUE(clock.await_poll(&port));
  clock.advance(86400);
  auto taken = started([&] { return receive(); });
  EXPECT_EQ(taken.get(), Received(result::ok, 759, "awaited"));
  EXPECT_EQ(sent.get(), result::ok);
  EXPECT_EQ(send(758, "second"), result::owner_not_taking);

  for (int i = 0; i < 20; ++i) {
    taken = blocked_receive();
    EXPECT_EQ(send(758, "its packet"), result::ok);
    EXPECT_EQ(send(758, "the next one's"), result::owner_not_taking);
    taken.wait();
  }
  // Neither a take that has timed out nor one that the owner has left admits anything.
  taken = blocked_receive(1);
  clock.advance(1);
  EXPECT_EQ(taken.get(), Received(result::timed_out, untouched, "untouched"));
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
  for (const bool on : {true, true, false}) ASSERT_EQ(port.select(on), result::ok);
  EXPECT_TRUE(port.has_selectors());
  for (const char* data : {"a", "b", "c", "d"}) EXPECT_EQ(send(758, data), result::ok);
  EXPECT_EQ(clock.pauses(), 0);
  EXPECT_EQ(port.owner_signal(), result::ok);
  port.select(false);
  EXPECT_EQ(send(758, "e"), result::owner_not_taking);
  EXPECT_EQ(receive(), Received(result::ok, 758, "b")) << "the oldest went over the limit";

  port.select(true);
  port.disconnect(42);
  EXPECT_FALSE(port.has_selectors());
  EXPECT_EQ(port.select(false), result::ok);
  EXPECT_FALSE(port.has_selectors()) << "the count never falls below 0";
  EXPECT_EQ(port.owner_signal(), result::not_connected) << "although packets are queued";
  port.select(true);
  EXPECT_EQ(send(758, "f"), result::unknown_handle) << "a watch without an owner admits nobody";
  owner(ACCESS_WAIT);
  EXPECT_EQ(receive(), Received(result::ok, 758, "c")) << "packets wait for the next owner";
}

TEST_F(MasterPort, TakesAsItsOwnersModeSaysAndHasNoHeadAndNoEvents) {
  EXPECT_EQ(receive(5), nothing);
  owner(ACCESS_SELECT);
  EXPECT_EQ(receive(5), nothing);
  EXPECT_EQ(clock.pauses(), 2);
  port.select(true);
  send(758, "");
  EXPECT_EQ(receive(), Received(result::ok, 758, "untouched"))
      << "an empty packet assigns no bytes";
  EXPECT_EQ(port.forward_front(758, buffer("front"), 0), result::ok);
  port.push_event(event("e"));
  port.push_event_front(event("e"));
  port.push_events({event("e")});
  EXPECT_EQ(port.event_count(), 0u);
  EXPECT_EQ(receive_n(port, 9, reported), Events(result::ok, {}));
  send(758, "a");
  port.clear_events();
  EXPECT_EQ(receive(), Received(result::ok, 758, "a"));
  EXPECT_EQ(receive(), nothing);
  port.disconnect(42);
  owner(ACCESS_WAIT);
  EXPECT_EQ(receive(5), Received(result::timed_out, untouched, "untouched"));
  EXPECT_NEAR(clock.elapsed(), 5.03, 0.02);
}

TEST_F(MasterPort, KeepsTheNewest32RepliesAndDeliversThemToTheirClientOnly) {
  client(758, ACCESS_SELECT);
  client(759, ACCESS_WAIT);
  EXPECT_EQ(port.reply_signal(758), result::queue_empty);
  for (unsigned int i = 0; i <= reply_limit; ++i) {
    port.replay(i < 16 ? 758 : 759, buffer(std::to_string(i)), 9);
  }
  EXPECT_EQ(port.reply_signal(758), result::ok);
  for (unsigned int i = 1; i < 16; ++i) EXPECT_EQ(reply(758), Reply(result::ok, std::to_string(i)));
  EXPECT_EQ(port.reply_signal(758), result::unknown_name);
  EXPECT_EQ(reply(758, 5), Reply(result::nothing_arrived, "untouched"));
  EXPECT_EQ(clock.pauses(), 1);
  for (unsigned int i = 16; i <= reply_limit; ++i) EXPECT_EQ(reply(759).second, std::to_string(i));
  EXPECT_EQ(reply(759, 5), Reply(result::reply_timed_out, "untouched"));
  EXPECT_NEAR(clock.elapsed(), 5.02, 0.02);
}

TEST(Packets, AreCopiesAndNeedTheRightKindOfHandle) {
  const TestClock clock;
  MainServer server;
  create(server, {"p"});
  create(server, {"box"}, PORT_EVENTBOX);
  const unsigned int id = owner(server, "p", ACCESS_SELECT);
  EXPECT_EQ(server.get_port(id)->select(true), result::ok);
  const unsigned int handle = client(server, "p");
  const unsigned int box_client = client(server, "box");
  for (const unsigned int wrong : {id, box_client, 1u}) {
    EXPECT_EQ(send(server, wrong, "x"), result::unknown_handle);
    EXPECT_EQ(server.packet_foward_front(wrong, wire("x"), 0), result::unknown_handle);
    EXPECT_EQ(server.packet_replay(wrong, wire("x"), 0), result::unknown_handle);
    EXPECT_EQ(reply(server, wrong), Reply(result::unknown_handle, ""));
  }
  for (const unsigned int wrong : {handle, box_client, 1u}) {
    EXPECT_EQ(receive(server, wrong), Received(result::unknown_handle, untouched, ""));
    EXPECT_EQ(receive_n(server, wrong, 5), Events(result::unknown_handle, {}));
  }
  std::string bytes(50 << 20, '\0');
  for (std::size_t i = 0; i < bytes.size(); i += 997) bytes[i] = static_cast<char>(i);
  const Varo::DATA_BUFFER large = wire(bytes);
  EXPECT_EQ(server.packet_foward(handle, large, 0), result::ok);
  EXPECT_EQ(server.packet_replay(handle, large, 0), result::ok);
  EXPECT_TRUE(text(large) == bytes) << "a caller in this process keeps its argument";
  EXPECT_TRUE(receive(server, id) == Received(result::ok, handle, bytes));
  EXPECT_TRUE(reply(server, handle) == Reply(result::ok, bytes));
}

class Selection : public WithServer {
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
