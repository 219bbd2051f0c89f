#include "persistence/background_tasks.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>

#include "tests/support/servers.h"
#include "tests/support/threads.h"

namespace portsvc {
namespace {

class BackgroundTasks : public ::testing::Test {
 protected:
  BackgroundTasks() {
    create(server, {"idle", "read", "kept"}, PORT_EVENTBOX);
    for (const char* name : {"idle", "read"}) server.setPersistent(name, 0);
    create(server, {"packets"});
    server.add_event("idle", 7);
  }
  bool exists(const char* name) { return portsvc::exists(server, name); }

  TestClock clock;
  MainServer server;
};

TEST_F(BackgroundTasks, AnExpiryPassTakesWhatNobodyHasReadForMoreThan120Seconds) {
  clock.advance(120);
  server.checkNoTransition();
  EXPECT_EQ(names(server), Names({"packets"}, {"idle", "read", "kept"}));
  drain(server, "read");
  clock.advance(1);
  server.checkNoTransition();
  EXPECT_EQ(names(server), Names({"packets"}, {"read", "kept"}));
  EXPECT_EQ(server.declare_event(7, wire("x"), 0), result::not_subscribed);
  for (int minute = 0; minute < 10; ++minute) {
    receive(server, id_of(server, "read"));
    clock.advance(120);
    server.checkNoTransition();
    ASSERT_TRUE(exists("read"));
  }
  server.setPersistent("read", 1);
  clock.advance(10000);
  server.checkNoTransition();
  EXPECT_EQ(names(server), Names({"packets"}, {"read", "kept"}));
}

TEST_F(BackgroundTasks, AServantChecksByItself) {
  clock.advance(120);
  for (const char* name : {"idle", "late"}) {  // the next pass comes as long after this one
    ASSERT_TRUE(clock.await_round(3));
    EXPECT_TRUE(exists(name));
    clock.advance(1);
    EXPECT_TRUE(eventually([&] { return !exists(name); }));
    create(server, {"late"}, PORT_EVENTBOX);
    server.setPersistent("late", 0);
    clock.advance(120);
  }
  EXPECT_TRUE(exists("kept"));
  EXPECT_TRUE(exists("packets"));
}

TEST_F(BackgroundTasks, SavesInTheFirstRoundMoreThan60SecondsAfterTheLast) {
  SnapSaveTask saver(&server);
  std::vector<double> saved;
  clock.on_pause = [&](const ACE_Time_Value& length) {
    EXPECT_EQ(length, ACE_Time_Value(3, 0));
    if (std::filesystem::remove(server.get_snap_path())) saved.push_back(clock.elapsed() - 3);
    if (clock.elapsed() >= 200) saver.ShutDown();
  };
  EXPECT_EQ(saver.svc(), 0);
  EXPECT_EQ(saved, (std::vector<double>{63, 126, 189}));
  EXPECT_EQ(clock.elapsed(), 201) << "one round after it was told to end";
}

TEST_F(BackgroundTasks, AServantGoesOnlyWhenItsCheckHasEnded) {
  // A pass that is slow: the role's lookup is still needed while the servant is being destroyed.
  class Slow : public MainServer {
   public:
    explicit Slow(std::atomic<int>& lookups) : lookups_(lookups) {}
    ~Slow() override { stop_housekeeping(); }
    using MainServer::get_port;
    boost::shared_ptr<Port_impl> get_port(const char* name) override {
      ++lookups_;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      return MainServer::get_port(name);
    }

   private:
    std::atomic<int>& lookups_;
  };
  std::atomic<int> lookups{0};
  auto slow = std::make_unique<Slow>(lookups);
  for (const char* name : {"a", "b", "c"}) slow->create_port(name, PORT_EVENTBOX, 5);
  clock.advance(121);
  ASSERT_TRUE(eventually([&] { return lookups == 1; }));
  slow.reset();
  EXPECT_EQ(lookups, 3);
}

}  // namespace
}  // namespace portsvc
