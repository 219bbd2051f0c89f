// Events through the servant's operations.
#include <gtest/gtest.h>

#include <atomic>
#include <set>

#include "ports/event_box.h"
#include "tests/support/servers.h"
#include "tests/support/threads.h"

namespace portsvc {
namespace {

class EventOperations : public ::testing::Test {
 protected:
  void boxes(std::initializer_list<const char*> names, unsigned int limit = 5) {
    for (const char* name : names) ASSERT_EQ(server.create_port(name, PORT_EVENTBOX, limit), 0u);
  }
  unsigned int declare(unsigned int code, const char* data) {
    return server.declare_event(code, wire(data), 77);
  }
  unsigned int declare_n(unsigned int code, const Texts& payloads) {
    Varo::DATA_BUFFER_SEQ list;
    list.length(static_cast<CORBA::ULong>(payloads.size()));
    for (CORBA::ULong i = 0; i < payloads.size(); ++i) list[i] = wire(payloads[i]);
    return server.declare_event_n(code, list, 77);
  }

  TestClock clock;
  MainServer server;
};

TEST_F(EventOperations, ReachEveryBoxSubscribedToTheCode) {
  EXPECT_EQ(declare(7, "x"), result::no_subscriptions);
  EXPECT_EQ(declare_n(7, {"x"}), result::no_subscriptions);
  boxes({"box1", "box2", "box3"});
  EXPECT_EQ(server.add_event("box1", 7), result::ok);
  EXPECT_EQ(server.add_event("box1", 7), result::already_subscribed);
  EXPECT_EQ(server.add_event("box2", 7), result::ok);
  EXPECT_EQ(server.add_event("Box1", 7), result::ok) << "names differ by case";
  EXPECT_EQ(server.add_event("box1", 8), result::ok);
  EXPECT_EQ(declare(9, "x"), result::not_subscribed);
  EXPECT_EQ(declare_n(9, {"x"}), result::not_subscribed);
  EXPECT_EQ(declare(7, "a"), result::ok);
  EXPECT_EQ(declare_n(7, {"b", "", "c"}), result::ok);
  EXPECT_EQ(declare(8, "d"), result::ok);
  EXPECT_EQ(drain(server, "box1"), (Texts{"a", "b", "", "c", "d"}));
  EXPECT_EQ(drain(server, "box2"), (Texts{"a", "b", "", "c"}));
  EXPECT_EQ(drain(server, "box3"), Texts());
}

TEST_F(EventOperations, TakeCodesFromBothEndsOfTheRange) {
  boxes({"box"});
  for (const unsigned int code : {0u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu}) {
    EXPECT_EQ(declare(code, "x"), code == 0 ? result::no_subscriptions : result::not_subscribed);
    EXPECT_EQ(server.add_event("box", code), result::ok);
    EXPECT_EQ(declare(code, std::to_string(code).c_str()), result::ok);
  }
  EXPECT_EQ(drain(server, "box"), (Texts{"0", "2147483647", "2147483648", "4294967295"}));
}

TEST_F(EventOperations, FollowTheDeletionOfBoxes) {
  boxes({"box1", "box2"});
  server.create_port("packets", PORT_MASTER, 5);
  for (const char* name : {"box1", "box2"}) server.add_event(name, 7);
  for (const char* name : {"packets", "nobody"}) server.add_event(name, 9);
  server.delete_port("box1");
  EXPECT_EQ(declare(7, "a"), result::ok);
  EXPECT_EQ(drain(server, "box2"), (Texts{"a"}));
  boxes({"box1"});
  EXPECT_EQ(declare(7, "b"), result::ok);
  EXPECT_EQ(event_count(server, "box1"), 0u) << "the new box has no subscription";
  EXPECT_EQ(server.add_event("box1", 7), result::ok);
  for (const char* name : {"box1", "box2"}) server.delete_port(name);
  EXPECT_EQ(declare(7, "c"), result::not_subscribed);
  // Subscriptions that no box ever stood behind are kept.
  server.delete_port("packets");
  EXPECT_EQ(server.add_event("packets", 9), result::already_subscribed);
  EXPECT_EQ(declare(9, "d"), result::ok);
  EXPECT_EQ(server.add_event("box2", 7), result::ok);
}

TEST_F(EventOperations, AnswerForTheNamedPort) {
  boxes({"box"});
  server.create_port("packets", PORT_MASTER, 5);
  CORBA::ULong count = untouched;
  EXPECT_EQ(server.event_count("nobody", count), result::unknown_handle);
  EXPECT_EQ(count, untouched);
  EXPECT_EQ(server.clear_event("nobody"), result::unknown_handle);
  EXPECT_EQ(server.send_event("nobody", wire("x")), result::unknown_name);
  EXPECT_EQ(server.copy_enable("nobody", 0), static_cast<int>(result::unknown_name));

  EXPECT_EQ(server.send_event("packets", wire("x")), result::ok);
  EXPECT_EQ(event_count(server, "packets"), 0u);
  EXPECT_EQ(server.clear_event("packets"), result::ok);

  for (const char* data : {"a", "b"}) EXPECT_EQ(server.send_event("box", wire(data)), result::ok);
  EXPECT_EQ(event_count(server, "box"), 2u);
  server.add_event("box", 7);
  EXPECT_EQ(server.clear_event("box"), result::ok);
  EXPECT_EQ(event_count(server, "box"), 0u);
  EXPECT_EQ(declare(7, "c"), result::ok) << "clearing leaves subscriptions alone";
  EXPECT_EQ(receive(server, id_of(server, "box")), Received(result::ok, 0, "c"));
  EXPECT_EQ(receive_n(server, id_of(server, "box"), 5), Events(result::timed_out, {}));
}

TEST_F(EventOperations, SwitchPersistenceOfBoxesAndCopyingOfAnyPort) {
  boxes({"box"});
  server.create_port("packets", PORT_MASTER, 5);
  const auto box = boost::dynamic_pointer_cast<vrEventBox>(server.get_port("box"));
  EXPECT_EQ(server.setPersistent("box", 0), result::ok);
  EXPECT_FALSE(box->persistent());
  EXPECT_EQ(server.setPersistent("box", 2), result::ok);
  EXPECT_TRUE(box->persistent());
  for (const char* name : {"packets", "nobody"}) {
    EXPECT_EQ(server.setPersistent(name, 1), result::unknown_name);
  }
  for (const char* name : {"box", "packets"}) {
    EXPECT_EQ(server.copy_enable(name, -5), 0);
    EXPECT_EQ(server.get_port(name)->copy_enable(), -5);
  }
}

TEST_F(EventOperations, StoreOneEventForAllBoxes) {
  constexpr unsigned int count = 1000;
  std::vector<boost::shared_ptr<Port_impl>> all;
  for (unsigned int i = 0; i < count; ++i) {
    const std::string name = "box" + std::to_string(i);
    boxes({name.c_str()});
    server.add_event(name.c_str(), 7);
    all.push_back(server.get_port(name.c_str()));
  }
  const std::string payload(1 << 20, 'p');
  ASSERT_EQ(declare(7, payload.c_str()), result::ok);
  ASSERT_EQ(declare_n(7, {payload}), result::ok);
  std::set<const vrPort_Buffer*> objects[2];
  boost::weak_ptr<vrPort_Buffer> last;
  for (const auto& box : all) {
    unsigned int source = untouched;
    std::vector<Event_ptr> events;
    ASSERT_EQ(box->receive_n(source, events, 2, 0), result::ok);
    EXPECT_EQ(source, 0u);
    for (int i : {0, 1}) objects[i].insert(events[i].get());
    last = events[0];
  }
  EXPECT_EQ(objects[0].size(), 1u);
  EXPECT_EQ(objects[1].size(), 1u);
  EXPECT_TRUE(last.expired()) << "nothing but the boxes holds it";
}

TEST_F(EventOperations, LeaveASharedEventWholeForTheOtherBoxes) {
  boxes({"a", "b", "c"});
  for (const char* name : {"a", "b", "c"}) server.add_event(name, 7);
  const unsigned int ids[] = {id_of(server, "a"), id_of(server, "b"), id_of(server, "c")};
  // Two readers at a time, in both ways of taking; the last takes the event's bytes over.
  for (int n = 0; n < 300; ++n) {
    const std::string payload = "payload " + std::to_string(n);
    declare(7, payload.c_str());
    in_parallel(3, [&](int i) {
      if (i == 0) {
        EXPECT_EQ(receive(server, ids[i]), Received(result::ok, 0, payload));
      } else {
        EXPECT_EQ(receive_n(server, ids[i], 5), Events(result::ok, {payload}));
      }
    });
  }
}

TEST_F(EventOperations, TakeEmptyAndHugeListsAndLimitZero) {
  boxes({"box"}, 100000);
  boxes({"none"}, 0);
  for (const char* name : {"box", "none"}) server.add_event(name, 7);
  EXPECT_EQ(declare_n(7, {}), result::ok);
  EXPECT_EQ(event_count(server, "box"), 0u);
  Texts payloads(100000);
  for (std::size_t i = 0; i < payloads.size(); ++i) payloads[i] = std::to_string(i);
  EXPECT_EQ(declare_n(7, payloads), result::ok);
  EXPECT_EQ(event_count(server, "none"), 0u);
  EXPECT_TRUE(drain(server, "box") == payloads);
}

TEST_F(EventOperations, LoseNothingBelowTheLimitAndKeepEachProducersOrder) {
  constexpr int producers = 3;
  constexpr int each = 1000;
  boxes({"box"}, producers * each);
  server.add_event("box", 7);
  const unsigned int id = owner(server, "box");
  in_parallel(producers + 1, [&](int i) {
    if (i < producers) {
      for (int n = 0; n < each; n += 2) {
        const std::string prefix = std::to_string(i) + ":";
        ASSERT_EQ(declare(7, (prefix + std::to_string(n)).c_str()), result::ok);
        ASSERT_EQ(declare_n(7, {prefix + std::to_string(n + 1)}), result::ok);
      }
      return;
    }
    int next[producers] = {};
    for (int taken = 0; taken < producers * each;) {
      const Events events = receive_n(server, id, 64, 60);
      ASSERT_EQ(events.first, result::ok);
      for (const std::string& event : events.second) {
        const int producer = event[0] - '0';
        ASSERT_EQ(event.substr(2), std::to_string(next[producer]++));
        ++taken;
      }
    }
  });
}

TEST_F(EventOperations, DeclareWhileSubscriptionsAndBoxesChange) {
  boxes({"stays"}, 100000);
  server.add_event("stays", 7);
  std::atomic<unsigned int> declared{0};
  in_parallel(4, [&](int i) {
    const std::string name = "box" + std::to_string(i);
    for (int n = 0; n < 200; ++n) {
      if (i < 2) {
        ASSERT_EQ(declare(7, "x"), result::ok);
        ++declared;
        continue;
      }
      boxes({name.c_str()});
      ASSERT_EQ(server.add_event(name.c_str(), 7), result::ok);
      server.delete_port(name.c_str());
    }
  });
  EXPECT_EQ(event_count(server, "stays"), declared);
}

}  // namespace
}  // namespace portsvc
