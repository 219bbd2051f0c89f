// Waits, the thread that tests for them, and their end when there is something to take.
#include "platform/wait.h"

#include <fmt/format.h>

#include <atomic>
#include <mutex>
#include <set>

#include "platform/poller.h"
#include "tests/support/servers.h"
#include "tests/support/threads.h"

namespace portsvc {
namespace {

using namespace std::chrono_literals;
using Steady = std::chrono::steady_clock;

using Answer = std::optional<unsigned int>;

constexpr unsigned int done = 1;
constexpr unsigned int given_up = 2;

Answer no() { return std::nullopt; }
Answer not_yet(const Caller*) { return std::nullopt; }

TEST(Wait, HeedsAClockThatIsSet) {
  TestClock clock;
  // A step back of an hour after half the time: the other half is still waited for, not more.
  clock.on_pause = [&](const ACE_Time_Value&) {
    if (clock.pauses() == 50) clock.advance(-3600);
  };
  EXPECT_EQ(wait(1, given_up, {}, not_yet, no), given_up);
  EXPECT_GE(clock.pauses(), 100);
  EXPECT_LE(clock.pauses(), 102);

  const int before = clock.pauses();
  clock.on_pause = [&](const ACE_Time_Value&) { clock.advance(3600); };
  EXPECT_EQ(wait(1, given_up, {}, not_yet, no), given_up);
  EXPECT_EQ(clock.pauses(), before + 1);
  // Without a limit it goes on for ever.
  const auto next_day = [&](const Caller*) {
    return clock.elapsed() > 86400 ? Answer(done) : no();
  };
  EXPECT_EQ(wait(0, given_up, {}, next_day, no), done);
}

TEST(Poller, EndsEachWaitWhenItsOwnTestSaysSoAndNoOther) {
  constexpr int waits = 100;
  std::atomic<int> ended{0};
  in_parallel(waits, [&](int own) {
    // Every second one at once; the others are still tested until those have ended.
    Poller::instance().wait({}, [&](Turn) { return own % 2 == 0 || ended >= waits / 2; });
    EXPECT_TRUE(own % 2 == 0 || ended >= waits / 2);
    ++ended;
  });
}

TEST(Poller, PausesBetweenTestsAndPassesAnExceptionToItsWait) {
  EXPECT_THROW(Poller::instance().wait({}, [](Turn) -> bool { throw std::bad_alloc(); }),
               std::bad_alloc);
  const auto start = std::chrono::steady_clock::now();
  int tests = 0;
  Poller::instance().wait({}, [&](Turn) { return ++tests == 5; });
  const auto took = std::chrono::steady_clock::now() - start;
  EXPECT_GE(took, std::chrono::milliseconds(45));
  EXPECT_LT(took, std::chrono::milliseconds(500));
}

class EarlyWaits : public ::testing::Test {
 protected:
  EarlyWaits() { wake_waits_early(true); }
  ~EarlyWaits() override { wake_waits_early(false); }

  const int object = 0;
  const Topic topic{&object, 1};
  const Waited_On what{&object, &topic, 1};
};

TEST_F(EarlyWaits, EndByAWakeUpAtAnyTimeAndByThePauseWithoutOne) {
  const auto own = std::this_thread::get_id();
  std::atomic<bool> there{false};
  std::atomic<int> pauses{0}, woken{0};
  const auto end_by = [&](bool wanted_woken) {
    return [&, wanted_woken](Turn turn) {
      ++(turn == Turn::pause_over ? pauses : woken);
      return there && (turn == Turn::woken) == wanted_woken;
    };
  };
  for (const int pauses_before : {0, 1, 5}) {
    there = false;
    pauses = 0;
    std::thread changer([&] {
      EXPECT_TRUE(eventually([&] { return pauses >= pauses_before; }));
      // In vain at first: it keeps its place.
      EXPECT_TRUE(eventually([&, before = woken.load()] {
        something_changed(topic);
        return woken >= before + 3;
      }));
      there = true;
      while (there) {
        something_changed(topic);
        std::this_thread::yield();
      }
    });
    std::thread::id tester;
    Poller::instance().wait(what, [&](Turn turn) {
      tester = std::this_thread::get_id();
      return end_by(true)(turn);
    });
    there = false;
    changer.join();
    EXPECT_EQ(tester, own);
  }
  Turn first = Turn::pause_over;
  Poller::instance().wait(what, [&](Turn turn) {
    first = turn;
    return true;
  });
  EXPECT_EQ(first, Turn::woken) << "what came before it stood in its queues";
  there = true;  // and nobody says so
  for (const bool long_test : {false, true}) {
    Steady::duration fastest = 1h;
    for (int i = 0; i < 10; ++i) {
      const auto start = Steady::now();
      Poller::instance().wait({&object, &topic, 1, long_test}, end_by(false));
      fastest = std::min(fastest, Steady::now() - start);
    }
    EXPECT_LT(fastest, 100ms);
  }

  // On the thread of who needs it done; what it throws comes back to its own.
  for (const bool throws : {false, true}) {
    std::atomic<bool> give_up{false};
    auto tested_here = started([&] {
      Poller::instance().wait(what, [&](Turn) {
        if (std::this_thread::get_id() != own) return give_up.load();
        if (throws) throw std::bad_alloc();
        return true;
      });
    });
    const auto ended = [&] { return tested_here.wait_for(0s) == std::future_status::ready; };
    EXPECT_TRUE(eventually([&] {
      something_changed_for_me(topic);
      return ended();
    }));
    give_up = true;
    if (throws) {
      EXPECT_THROW(tested_here.get(), std::bad_alloc);
    } else {
      tested_here.get();
    }
  }

  // One that gives up after its pause, and every one where waits are paused, is not woken.
  const auto never_woken = [&](const Waited_On& on) {
    int turns = 0;
    Poller::instance().wait(on, [&](Turn turn) {
      EXPECT_EQ(turn, Turn::pause_over);
      something_changed(topic);
      return ++turns == 3;
    });
  };
  never_woken({&object, nullptr, 0});
  wake_waits_early(false);
  never_woken(what);
}

/// A clock whose pauses never end: what ends a blocking wait was woken.
class Endless_Pauses final : public Clock {
 public:
  Endless_Pauses() { replace_clock(this); }
  ~Endless_Pauses() override { replace_clock(nullptr); }

  ACE_Time_Value now() const override { return ACE_Time_Value(1700000000); }
  void pause(const ACE_Time_Value&, const void*) override { std::this_thread::sleep_for(1ms); }
  void rest(const ACE_Time_Value&, const Waited_On& what,
            const std::function<bool()>& ready) override {
    poll(what, [&](Turn) { return ready(); });
  }
  void poll(const Waited_On& what, const std::function<bool(Turn)>& step) override {
    Places places(what.topics, what.topic_count);
    if (++tests, step(Turn::woken)) return;
    ++waiting;
    do {
      if (!Sleeper::of_this_thread()->sleep_until(Steady::now() + 10s)) {
        ADD_FAILURE() << "nobody woke the wait";
        while (!step(Turn::pause_over)) {
        }
        break;
      }
      places.take_again();
    } while (++tests, !step(Turn::woken));
    --waiting;
  }
  void await(int waits) {
    EXPECT_TRUE(eventually([&] { return waiting == waits; }));
  }

  std::atomic<int> waiting{0};
  std::atomic<int> tests{0};
};

class WokenWaits : public EarlyWaits {
 protected:
  WokenWaits() {
    create(server, {"p", "q"});
    create(server, {"box"}, PORT_EVENTBOX);
    owner(server, "box");
  }
  template <class Wait>
  auto begun(Wait wait, int waits = 1) {
    auto result = started(wait);
    clock.await(waits);
    return result;
  }
  unsigned int q_again() {
    server.create_port("q", PORT_MASTER, 5);
    return owner(server, "q", ACCESS_SELECT);
  }

  Endless_Pauses clock;
  MainServer server;
  const std::function<std::string()> take_event = [this] {
    return std::get<2>(receive(server, id_of(server, "box"), 5));
  };
};

TEST_F(WokenWaits, OfPacketsRepliesAndAdmission) {
  const unsigned int p = owner(server, "p");
  const unsigned int sender = client(server, "p");
  auto take = begun([&] { return receive(server, p, 5); });
  EXPECT_EQ(send(server, sender, "x", 5), result::ok);
  EXPECT_EQ(take.get(), Received(result::ok, sender, "x"));

  auto admission = begun([&] { return send(server, sender, "y", 5); });
  EXPECT_EQ(receive(server, p, 5), Received(result::ok, sender, "y"));
  EXPECT_EQ(admission.get(), result::ok);

  auto answer = begun([&] { return reply(server, sender, 5); });
  server.packet_replay(client(server, "p"), wire("somebody else's"), 0);
  server.packet_replay(sender, wire("z"), 0);
  EXPECT_EQ(answer.get(), Reply(result::ok, "z"));
}

TEST_F(WokenWaits, OnePerThingTheLongestFirst) {
  const Topic packets{server.get_port("box").get(), 0};
  std::vector<std::future<std::string>> takes;
  for (int i = 1; i <= 4; ++i) takes.push_back(begun(take_event, i));
  const int before = clock.tests;
  something_changed({&packets, 0});
  something_changed(packets);  // in vain: the first keeps its place
  EXPECT_TRUE(eventually([&] { return clock.tests > before; }));
  server.send_event("box", wire("a"));
  EXPECT_EQ(takes[0].get(), "a");
  server.update_port_front("box", 0, wire("b"));
  EXPECT_EQ(takes[1].get(), "b");
  server.add_event("box", 7);
  server.declare_event_n(7, wires({"c", "d"}), 0);
  EXPECT_EQ(std::set<std::string>({takes[2].get(), takes[3].get()}),
            std::set<std::string>({"c", "d"}));
  EXPECT_EQ(clock.tests, before + 5) << "somebody was woken for nothing";
}

TEST_F(WokenWaits, PassOnAWakeUpThatTheyDoNotUse) {
  const Topic packets{server.get_port("box").get(), 0};
  auto oldest = std::make_unique<Places>(&packets, 1);
  auto younger = begun(take_event);
  server.send_event("box", wire("x"));
  oldest.reset();
  EXPECT_EQ(younger.get(), "x");
}

TEST_F(WokenWaits, OfAnIdleSendingTask) {
  static std::atomic<int> sent{0};
  struct Request : SendEventRequest {
    Request() : SendEventRequest("box", "sub", nullptr, vrBuffer(), 0, false) {}
    unsigned int execute() override {
      ++sent;
      return result::ok;
    }
  };
  EventSendTask task;
  task.activate(0, 1, 0, 0, -1);
  clock.await(1);
  task.push_request(new Request);
  EXPECT_TRUE(eventually([&] { return sent == 1; }));
  clock.await(1);  // its end is a wake-up too
}

TEST_F(WokenWaits, OfSelections) {
  const unsigned int p = owner(server, "p", ACCESS_SELECT), q = owner(server, "q", ACCESS_SELECT);
  auto packets = begun([&] { return select(server, &MainServer::select_event_port, {p, q, p}); });
  EXPECT_EQ(send(server, client(server, "q"), "x", 5), result::ok);
  EXPECT_EQ(packets.get(), std::pair(result::ok, q));
  EXPECT_EQ(std::get<0>(receive(server, q)), result::ok);

  const unsigned int a = client(server, "p", ACCESS_SELECT), b = client(server, "q", ACCESS_SELECT);
  auto replies = begun([&] { return select(server, &MainServer::select_replay_port, {a, b}); });
  server.packet_replay(b, wire("r"), 0);
  EXPECT_EQ(replies.get(), std::pair(result::ok, b));
  EXPECT_EQ(reply(server, b).first, result::ok);

  replies = begun([&] { return select(server, &MainServer::select_replay_port, {a, b}); });
  for (const unsigned int handle : {a, b}) server.disconnect_port(handle);
  EXPECT_EQ(replies.get().first, result::nothing_selected);

  packets = begun([&] { return select(server, &MainServer::select_event_port, {p, q}); });
  const int before = clock.tests;
  server.delete_port("q");
  EXPECT_TRUE(eventually([&] { return clock.tests > before; })) << "one last look";
  EXPECT_EQ(send(server, client(server, "p"), "x", 5), result::ok);
  EXPECT_EQ(packets.get(), std::pair(result::ok, p)) << "the deleted one is watched to the end";

  const unsigned int again = q_again();
  packets = begun([&] { return select(server, &MainServer::select_event_port, {again}); });
  const auto cleared = server.get_port("q");
  const int looked = clock.tests;
  server.clearAll();
  EXPECT_TRUE(eventually([&] { return clock.tests > looked; })) << "one last look";
  cleared->disconnect(again);
  EXPECT_EQ(packets.get().first, result::nothing_selected);

  packets = begun([&] { return select(server, &MainServer::select_event_port, {q_again()}); });
  server.disconnect_port(id_of(server, "q"));
  EXPECT_EQ(packets.get().first, result::nothing_selected);
}

// Many at once: everything is taken exactly once, and no call outlives its time.
TEST_F(EarlyWaits, LoseNothingAndHangNowhereUnderStress) {
  constexpr int threads = 4;
  constexpr int per_thread = 150;
  MainServer server;
  create(server, {"work", "seen"}, PORT_MASTER, 100000);
  create(server, {"box"}, PORT_EVENTBOX, 100000);
  const unsigned int work = owner(server, "work"), box = owner(server, "box");
  const unsigned int seen = owner(server, "seen", ACCESS_SELECT);

  std::mutex lock;
  std::multiset<std::string> sent, taken;  // guarded by lock
  std::atomic<int> sending{2 * threads};
  const auto in_time = [](int seconds, auto call) {
    const auto start = Steady::now();
    const auto answer = call();
    EXPECT_LT(Steady::now() - start, std::chrono::seconds(seconds) + 3s);
    return answer;
  };
  const auto note = [&](std::multiset<std::string>& where, const std::string& text) {
    const std::lock_guard<std::mutex> guard(lock);
    where.insert(text);
  };
  const auto take = [&](unsigned int id) {
    const auto [code, source, text] = in_time(1, [&] { return receive(server, id, 1); });
    if (code != result::ok) return false;
    note(taken, text);
    if (source != 0) server.packet_replay(source, wire(text), 0);
    return true;
  };
  std::vector<std::function<void(int)>> roles = {
      [&](int i) {  // clients that are answered
        const unsigned int handle = client(server, i % 2 ? "work" : "seen");
        for (int n = 0; n < per_thread; ++n) {
          const std::string text = fmt::format("{}.{}", i, n);
          if (in_time(1, [&] { return send(server, handle, text, 1); }) != 0) continue;
          note(sent, text);
          EXPECT_EQ(in_time(5, [&] { return reply(server, handle, 5); }).second, text);
        }
        --sending;
      },
      [&](int i) {
        for (int n = 0; n < per_thread; ++n) {
          const std::string text = fmt::format("event {}.{}", i, n);
          note(sent, text);
          server.send_event("box", wire(text));
        }
        --sending;
      },
      [&](int i) {
        const unsigned int id = i % 2 ? work : box;
        while (take(id) || sending > 0) {
        }
      },
      [&](int) {  // an owner that selects
        for (;;) {
          const auto [code, ready] =
              in_time(1, [&] { return select(server, &MainServer::select_event_port, {seen}, 1); });
          if (code != 0 && sending == 0) return;
          take(ready);
        }
      },
      [&](int i) {  // ports and connections that come and go under those who wait
        const std::string name = fmt::format("gone{}", i);
        while (sending > 0) {
          server.create_port(name.c_str(), PORT_MASTER, 5);
          const unsigned int id = owner(server, name.c_str());
          const unsigned int handle = client(server, name.c_str());
          auto blocked = started([&] { return receive(server, id, 1); });
          server.disconnect_port(handle);
          server.delete_port(name.c_str());
          in_time(1, [&] { return blocked.get(); });
        }
      },
  };
  in_parallel(static_cast<int>(roles.size()) * threads, [&](int i) {
    roles[static_cast<std::size_t>(i / threads)](i % threads + 10 * (i / threads));
  });
  EXPECT_GE(sent.size(), static_cast<std::size_t>(2 * threads * per_thread * 9 / 10));
  EXPECT_EQ(taken, sent);
}

}  // namespace
}  // namespace portsvc
