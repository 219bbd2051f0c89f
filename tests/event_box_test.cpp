// Event boxes, by themselves and through the servant's operations.
#include "ports/event_box.h"

#include <fmt/format.h>

#include <set>

#include "tests/support/servers.h"
#include "tests/support/threads.h"

namespace portsvc {
namespace {

class EventBox : public WithServer {
 protected:
  void boxes(const Texts& names, unsigned int limit = 5) {
    create(server, names, PORT_EVENTBOX, limit);
  }
  void subscribe(const Texts& names, unsigned int code) {
    for (const auto& name : names) EXPECT_EQ(server.add_event(name.c_str(), code), result::ok);
  }
  unsigned int declare(unsigned int code, const std::string& data) {
    return server.declare_event(code, wire(data), 77);
  }
  unsigned int declare_n(unsigned int code, const Texts& payloads) {
    return server.declare_event_n(code, wires(payloads), 77);
  }
  Received receive(unsigned int timeout = 0) { return portsvc::receive(box, timeout); }

  vrEventBox box{"b", 7, 9, nullptr};
};

TEST_F(EventBox, LetsGoOfNothingUnderALock) {
  // An event that asks the server something from another thread when it goes.
  struct Last final : vrPort_Buffer {
    explicit Last(std::function<void()> its_end) : end(std::move(its_end)) {}
    ~Last() override { end(); }
    using vrPort_Buffer::operator=;
    const std::function<void()> end;
  };
  std::vector<std::future<unsigned int>> answers;
  const auto ask = [&] {
    answers.push_back(started([&] {
      CORBA::ULong count = 0;
      return server.event_count("one", count);
    }));
    EXPECT_EQ(answers.back().wait_for(std::chrono::seconds(5)), std::future_status::ready);
  };
  const std::function<void()> drops[] = {
      [&] { server.send_event("one", wire("x")); }, [&] { server.clear_event("one"); },
      [&] { server.delete_port("one"); }, [&] { server.clearAll(); }};
  for (const auto& drop : drops) {
    server.create_port("one", PORT_EVENTBOX, 1);
    server.get_port("one")->push_event(boost::make_shared<Last>(ask));
    drop();
  }
  EXPECT_EQ(answers.size(), std::size(drops));
}

TEST_F(EventBox, KeepsItsLimitAndOneMoreAtTheFront) {
  // Letters are appended one after the other, those in brackets at once; those after a ^ go to the
  // front, and a ! empties the box.
  const struct {
    unsigned int limit;
    const char* pushes;
    const char* held;
  } cases[] = {{3, "ABCD", "BCD"},    {3, "BCD^E", "EBCD"},  {3, "BCD^E^F", "FBCD"},
               {3, "BCD^EG", "BCDG"}, {3, "AB^C^D", "DCAB"}, {1, "AB", "B"},
               {1, "^A^B^C", "CA"},   {0, "AB", ""},         {0, "^A^B", "B"},
               {0, "^AB", "B"},       {3, "A(BCDE)", "CDE"}, {3, "AB()", "AB"},
               {3, "(AB)C!", ""},     {3, "A!B", "B"}};
  for (const auto& c : cases) {
    vrEventBox limited("b", 7, c.limit, nullptr);
    for (const char* push = c.pushes; *push; ++push) {
      if (*push == '^') {
        limited.push_event_front(event(std::string_view(++push, 1)));
      } else if (*push == '!') {
        limited.clear_events();
      } else if (*push == '(') {
        std::vector<Event_ptr> events;
        while (*++push != ')') events.push_back(event(std::string_view(push, 1)));
        limited.push_events(events);
      } else {
        limited.push_event(event(std::string_view(push, 1)));
      }
    }
    EXPECT_EQ(limited.event_count(), std::string_view(c.held).size()) << c.pushes;
    unsigned int source = 0;
    EXPECT_EQ(fmt::format("{}", fmt::join(receive_n(limited, 99, source).second, "")), c.held)
        << c.limit << " " << c.pushes;
  }
}

TEST_F(EventBox, GivesOutEventsInOrderAndTheirHandles) {
  for (const char* data : {"A", "B", "C", "D", "E"}) box.push_event(event(data, 60));
  EXPECT_EQ(receive(), Received(result::ok, 0, "A")) << "a single take hides the handle";
  unsigned int source = 0;
  for (const auto& [maximum, taken] : {std::pair(0u, Texts{"B"}), {2u, {"C", "D"}}, {9u, {"E"}}}) {
    EXPECT_EQ(receive_n(box, maximum, source), Events(result::ok, taken));
    EXPECT_EQ(source, 60u);
  }
  EXPECT_EQ(receive_n(box, 2, source), Events(result::timed_out, {}));
  EXPECT_EQ(source, untouched);
  box.push_event(event("", 60));
  EXPECT_EQ(receive(), Received(result::ok, 0, "untouched"));
}

TEST_F(EventBox, WaitsAsItsOwnersModeAndTheTimeoutSay) {
  const Received nothing(result::timed_out, untouched, "untouched");
  EXPECT_EQ(receive(0), nothing);
  EXPECT_EQ(clock.pauses(), 0);
  EXPECT_EQ(std::get<0>(receive(5)), result::nothing_arrived) << "without an owner";
  EXPECT_EQ(clock.pauses(), 1);
  unsigned int owner = 0;
  box.connect(7, CONNECT_OWNER, ACCESS_WAIT, owner);
  EXPECT_EQ(receive(0), nothing);
  EXPECT_EQ(clock.pauses(), 1);
  EXPECT_EQ(receive(5), nothing);
  EXPECT_NEAR(clock.elapsed(), 5.01, 0.02);

  auto taken = started([&] { return receive(5); });
  ASSERT_TRUE(clock.await_poll(&box));
  box.push_event(event("late"));
  EXPECT_EQ(taken.get(), Received(result::ok, 0, "late"));
}

TEST_F(EventBox, ConnectsAnOwnerThatBlocksAndForgetsClientsAndReplies) {
  const struct {
    unsigned int mode, access, code, owner;
  } cases[] = {{CONNECT_CLIENT, ACCESS_WAIT, result::ok, 0},
               {PORT_EVENTBOX, ACCESS_WAIT, result::bad_mode, untouched},
               {CONNECT_OWNER, ACCESS_SELECT, result::access_refused, untouched},
               {CONNECT_OWNER, ACCESS_WAIT, result::ok, untouched},
               {CONNECT_OWNER, ACCESS_WAIT, result::owner_exists, 7},
               {CONNECT_OWNER, ACCESS_SELECT, result::owner_exists, 7}};
  for (const auto& c : cases) {
    unsigned int owner = untouched;
    EXPECT_EQ(box.connect(7, c.mode, c.access, owner), c.code);
    EXPECT_EQ(owner, c.owner);
    EXPECT_EQ(box.has_client(7), result::unknown_name);
  }
  EXPECT_EQ(box.select(true), result::access_refused);
  vrBuffer data = buffer("untouched");
  vrPort_Buffer packet(9, buffer("untouched"));
  EXPECT_EQ(box.replay(800, buffer("A"), 5), result::ok);
  EXPECT_EQ(box.replay_wait(800, data, 5), result::ok);
  EXPECT_EQ(box.take_reply(800, 5, packet), result::ok);
  EXPECT_EQ(box.wait_receiver(800, 5), result::ok);
  EXPECT_EQ(text(data) + text(packet), "untoucheduntouched");
  EXPECT_EQ(clock.pauses(), 0);
}

TEST_F(EventBox, GetsWhatIsDeclaredUnderItsCodesWhileItExists) {
  EXPECT_EQ(declare(7, "x"), result::no_subscriptions);
  EXPECT_EQ(declare_n(7, {"x"}), result::no_subscriptions);
  boxes({"box1", "box2", "box3"});
  subscribe({"box1", "box2", "Box1"}, 7);  // names differ by case
  EXPECT_EQ(server.add_event("box1", 7), result::already_subscribed);
  for (const unsigned int code : {0u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu}) {
    EXPECT_EQ(declare(code, "x"), result::not_subscribed);
    EXPECT_EQ(declare_n(code, {"x"}), result::not_subscribed);
    subscribe({"box3"}, code);
    EXPECT_EQ(declare(code, std::to_string(code)), result::ok);
  }
  EXPECT_EQ(drain(server, "box3"), (Texts{"0", "2147483647", "2147483648", "4294967295"}));
  EXPECT_EQ(declare(7, "a"), result::ok);
  EXPECT_EQ(declare_n(7, {}), result::ok);
  EXPECT_EQ(declare_n(7, {"b", "", "c"}), result::ok);
  for (const char* name : {"box1", "box2"}) {
    EXPECT_EQ(drain(server, name), (Texts{"a", "b", "", "c"}));
  }
  EXPECT_EQ(drain(server, "box3"), Texts());

  server.delete_port("box1");
  boxes({"box1"});
  EXPECT_EQ(declare(7, "d"), result::ok);
  EXPECT_EQ(event_count(server, "box1"), 0u) << "the new box has no subscription";
  EXPECT_EQ(drain(server, "box2"), (Texts{"d"}));
  subscribe({"box1"}, 7);
  for (const char* name : {"box1", "box2"}) server.delete_port(name);
  // A subscription that no box ever stood behind is kept.
  EXPECT_EQ(server.add_event("Box1", 7), result::already_subscribed);
  server.create_port("packets", PORT_MASTER, 5);
  subscribe({"packets"}, 9);
  server.delete_port("packets");
  EXPECT_EQ(server.add_event("packets", 9), result::already_subscribed);
  EXPECT_EQ(declare(9, "e"), result::ok);
  boxes({"last"});
  subscribe({"last"}, 10);
  server.delete_port("last");
  EXPECT_EQ(declare(10, "f"), result::not_subscribed);
}

TEST_F(EventBox, GetsABatchInOneHoldOfItsLock) {
  boxes({"box"}, 2);
  subscribe({"box"}, 7);
  // What the overflow drops is let go once the lock is free again: here another reader comes.
  Texts seen;
  const auto look = [&](vrPort_Buffer* dropped) {
    seen = drain(server, "box");
    delete dropped;
  };
  server.get_port("box")->push_event(Event_ptr(new vrPort_Buffer, look));
  EXPECT_EQ(declare_n(7, {"a", "b", "c"}), result::ok);
  EXPECT_EQ(seen, (Texts{"b", "c"}));
}

TEST_F(EventBox, IsCountedClearedAndSwitchedByName) {
  boxes({"box"});
  server.create_port("packets", PORT_MASTER, 5);
  CORBA::ULong count = untouched;
  EXPECT_EQ(server.event_count("nobody", count), result::unknown_handle);
  EXPECT_EQ(count, untouched);
  EXPECT_EQ(server.clear_event("nobody"), result::unknown_handle);
  EXPECT_EQ(server.send_event("nobody", wire("x")), result::unknown_name);
  EXPECT_EQ(server.copy_enable("nobody", 0), static_cast<int>(result::unknown_name));
  subscribe({"box"}, 7);
  for (const char* name : {"box", "packets"}) {
    const bool keeps = name[0] == 'b';
    for (const char* data : {"a", "b"}) EXPECT_EQ(server.send_event(name, wire(data)), result::ok);
    EXPECT_EQ(event_count(server, name), keeps ? 2u : 0u);
    EXPECT_EQ(server.clear_event(name), result::ok);
    EXPECT_EQ(event_count(server, name), 0u);
    EXPECT_EQ(server.copy_enable(name, -5), 0);
    EXPECT_EQ(server.get_port(name)->copy_enable(), -5);
  }
  EXPECT_EQ(declare(7, "c"), result::ok) << "clearing leaves subscriptions alone";
  const unsigned int id = id_of(server, "box");
  EXPECT_EQ(portsvc::receive(server, id), Received(result::ok, 0, "c"));
  EXPECT_EQ(receive_n(server, id, 5), Events(result::timed_out, {}));

  const auto named = boost::dynamic_pointer_cast<vrEventBox>(server.get_port("box"));
  for (const int flag : {0, 2}) {
    EXPECT_EQ(server.setPersistent("box", flag), result::ok);
    EXPECT_EQ(named->persistent(), flag != 0);
    for (const char* name : {"packets", "nobody"}) {
      EXPECT_EQ(server.setPersistent(name, flag), result::unknown_name);
    }
  }
}

TEST_F(EventBox, SharesOneStoredEventWithAllOthersAndLeavesItWhole) {
  boxes({"a", "b", "c"});
  subscribe({"a", "b", "c"}, 7);
  unsigned int ids[3];
  std::set<const vrPort_Buffer*> objects;
  boost::weak_ptr<vrPort_Buffer> last;
  declare(7, "one");
  declare_n(7, {"two"});
  for (const char* name : {"a", "b", "c"}) {
    ids[name[0] - 'a'] = id_of(server, name);
    unsigned int source = untouched;
    std::vector<Event_ptr> events;
    ASSERT_EQ(server.get_port(name)->receive_n(source, events, 2, 0), result::ok);
    for (const Event_ptr& event : events) objects.insert(event.get());
    last = events.at(1);
  }
  EXPECT_EQ(objects.size(), 2u);
  EXPECT_TRUE(last.expired()) << "nothing but the boxes holds it";
  // Readers at the same time, in both ways of taking; the last takes the event's bytes over.
  for (int n = 0; n < 300; ++n) {
    const std::string payload = "payload " + std::to_string(n);
    declare(7, payload);
    in_parallel(3, [&](int i) {
      if (i == 0) {
        EXPECT_EQ(portsvc::receive(server, ids[i]), Received(result::ok, 0, payload));
      } else {
        EXPECT_EQ(receive_n(server, ids[i], 5), Events(result::ok, {payload}));
      }
    });
  }
}

}  // namespace
}  // namespace portsvc
