#include "roles/event_forwarding.h"

#include <gtest/gtest.h>

#include "tests/support/peers.h"
#include "tests/support/threads.h"

namespace portsvc {
namespace {

// The requests that are alive, and those that were executed, by number.
int alive = 0;
std::vector<int> executed;

class FakeRequest : public SendEventRequest {
 public:
  FakeRequest(int number, unsigned int answer, std::function<void()> action = {})
      : SendEventRequest("box", "sub", nullptr, vrBuffer(), 0, false),
        number_(number),
        answer_(answer),
        action_(std::move(action)) {
    ++alive;
  }
  ~FakeRequest() override { --alive; }
  unsigned int execute() override {
    executed.push_back(number_);
    if (action_) action_();
    return answer_;
  }

 private:
  const int number_;
  const unsigned int answer_;
  const std::function<void()> action_;
};

class EventForwarding : public ::testing::Test {
 protected:
  EventForwarding() {
    alive = 0;
    executed.clear();
  }
  void push(int number, unsigned int answer = result::ok, std::function<void()> action = {}) {
    task->push_request(new FakeRequest(number, answer, std::move(action)));
  }
  // The thread's work, done by this thread until nothing is left.
  void run() {
    clock.on_pause = [&](const ACE_Time_Value& length) {
      if (length == ACE_Time_Value(4, 0)) task->stop();
    };
    EXPECT_EQ(task->svc(), 0);
  }

  TestClock clock;
  std::unique_ptr<EventSendTask> task = std::make_unique<EventSendTask>();
};

TEST_F(EventForwarding, SendsInTheOrderOfArrival) {
  for (int i = 1; i <= 5; ++i) push(i);
  task->push_request(nullptr);
  run();
  EXPECT_EQ(executed, (std::vector<int>{1, 2, 3, 4, 5}));
  EXPECT_EQ(alive, 0);
  EXPECT_EQ(clock.elapsed(), 4) << "one idle pause, at the end";
}

TEST_F(EventForwarding, StartsAgainFromEmptyBeyond3001Pending) {
  for (int i = 1; i <= 3001; ++i) push(i);
  EXPECT_EQ(alive, 3001);
  push(3002);
  EXPECT_EQ(alive, 0);
  push(3003);
  EXPECT_EQ(alive, 1);
  run();
  EXPECT_EQ(executed, (std::vector<int>{3003}));
}

TEST_F(EventForwarding, DropsTheRestOfABatchAfterAFailedDelivery) {
  const struct {
    unsigned int answer;
    bool fails;
  } cases[] = {{0, false},   {98, false},   {99, true},   {112, true},   {199, true},
               {200, false}, {2000, false}, {2001, true}, {2007, false}, {result::failed, false}};
  for (const auto& c : cases) {
    task = std::make_unique<EventSendTask>();
    executed.clear();
    push(1);
    // What arrives while the batch is worked off belongs to the next one.
    push(2, c.answer, [&] { push(6); });
    for (int i = 3; i <= 5; ++i) push(i);
    run();
    EXPECT_EQ(executed,
              c.fails ? (std::vector<int>{1, 2, 6}) : (std::vector<int>{1, 2, 3, 4, 5, 6}))
        << c.answer;
    EXPECT_EQ(alive, 0);
  }
}

TEST_F(EventForwarding, EndsItsThreadWithRequestsPending) {
  for (int i = 1; i <= 5; ++i) push(i, result::ok, [&] { task->stop(); });
  task->activate(0, 1, 0, 0, -1);
  task->wait();
  EXPECT_EQ(executed, (std::vector<int>{1}));
  push(7);
  task.reset();
  EXPECT_EQ(alive, 0);
}

class EventRequest : public WithPeers {
 protected:
  unsigned int execute(bool front, const char* realm = nullptr) {
    SendEventRequest request("box", "sub", realm, buffer("data"), 0xFFFFFFFF, front);
    return request.execute();
  }
};

TEST_F(EventRequest, CallsTheSubServer) {
  EXPECT_EQ(execute(false), result::no_peer);
  Active<FakePeer> sub;
  directory->enter("sub", sub.object());
  sub->answer("update_port", {result::ok, result::failed, result::unknown_name});
  EXPECT_EQ(execute(false), result::ok);
  EXPECT_EQ(execute(false), result::failed);
  EXPECT_EQ(execute(false), result::unknown_name);
  EXPECT_EQ(execute(true), result::ok);
  EXPECT_EQ(sub->calls(),
            (Texts{"update_port box 4294967295 data", "update_port box 4294967295 data",
                   "update_port box 4294967295 data", "update_port_front box 4294967295 data"}));
  EXPECT_EQ(directory->asked("sub@"), 2) << "once in vain, then the reference is kept";
  EXPECT_EQ(execute(false, "north"), result::unknown_name);
  EXPECT_EQ(directory->asked("sub@north"), 1);
}

TEST_F(EventRequest, LooksTheSubServerUpAfreshAfterAnException) {
  Active<FakePeer> sub;
  directory->enter("sub", sub.object());
  sub->fail("update_port");
  EXPECT_EQ(execute(false, "north"), result::peer_forward);
  EXPECT_EQ(execute(true, "north"), result::ok);
  EXPECT_EQ(directory->asked("sub@north"), 2);
  sub.stop();
  for (const int asked : {2, 3}) {
    EXPECT_EQ(execute(true, "north"), result::peer_forward);
    EXPECT_EQ(directory->asked("sub@north"), asked);
  }
}

}  // namespace
}  // namespace portsvc
