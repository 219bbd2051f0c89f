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
  FakeRequest(int number, unsigned int answer, std::function<void()> action)
      : SendEventRequest("box", "sub", nullptr, vrBuffer(), 0, false),
        execute_([=] { return executed.push_back(number), action ? action() : void(), answer; }) {
    ++alive;
  }
  ~FakeRequest() override { --alive; }
  unsigned int execute() override { return execute_(); }

 private:
  const std::function<unsigned int()> execute_;
};

class EventForwarding : public ::testing::Test {
 protected:
  EventForwarding() { alive = 0; }
  ~EventForwarding() override {
    task.reset();
    EXPECT_EQ(alive, 0);
  }
  void push(int from, int to, unsigned int answer = result::ok, std::function<void()> action = {}) {
    for (int i = from; i <= to; ++i) task->push_request(new FakeRequest(i, answer, action));
  }
  // The thread's work, done by this thread until nothing is left.
  void expect_run(const std::vector<int>& numbers) {
    executed.clear();
    clock.on_pause = [&](const ACE_Time_Value& length) {
      if (length == ACE_Time_Value(4, 0)) task->stop();
    };
    const double start = clock.elapsed();
    EXPECT_EQ(task->svc(), 0);
    EXPECT_EQ(executed, numbers);
    EXPECT_EQ(clock.elapsed(), start + 4) << "one idle pause, at the end";
    EXPECT_EQ(alive, 0);
    task = std::make_unique<EventSendTask>();
  }

  TestClock clock;
  std::unique_ptr<EventSendTask> task = std::make_unique<EventSendTask>();
};

TEST_F(EventForwarding, StartsAgainFromEmptyBeyond3001Pending) {
  push(1, 3001);
  EXPECT_EQ(alive, 3001);
  push(3002, 3002);
  EXPECT_EQ(alive, 0);
  task->push_request(nullptr);
  push(3003, 3004);
  expect_run({3003, 3004});
}

TEST_F(EventForwarding, DropsTheRestOfABatchAfterAFailedDelivery) {
  const std::vector<int> all{1, 2, 3, 4, 5, 6}, without_the_rest{1, 2, 6};
  const auto expect = [&](unsigned int answer, const std::vector<int>& numbers) {
    push(1, 1);
    // What arrives while the batch is worked off belongs to the next one.
    push(2, 2, answer, [&] { push(6, 6); });
    push(3, 5);
    expect_run(numbers);
  };
  for (const unsigned int goes_on : {0u, 98u, 200u, 2000u, 2007u, result::failed}) {
    expect(goes_on, all);
  }
  for (const unsigned int fails : {99u, 112u, 199u, 2001u}) expect(fails, without_the_rest);
}

TEST_F(EventForwarding, EndsItsThreadWithRequestsPending) {
  executed.clear();
  push(1, 5, result::ok, [&] { task->stop(); });
  task->activate(0, 1, 0, 0, -1);
  task->wait();
  EXPECT_EQ(executed, (std::vector<int>{1}));
  push(7, 7);
}

using EventRequest = WithPeers;

unsigned int execute(bool front, const char* realm = nullptr) {
  return SendEventRequest("box", "sub", realm, buffer("data"), 0xFFFFFFFF, front).execute();
}

TEST_F(EventRequest, CallsTheSubServerAndLooksItUpAfreshAfterAnException) {
  EXPECT_EQ(execute(false), result::no_peer);
  Active<FakePeer> sub;
  directory->enter("sub", sub.object());
  sub->answer("update_port", {result::failed, result::ok});
  EXPECT_EQ(execute(false), result::failed);
  EXPECT_EQ(execute(true), result::ok);
  EXPECT_EQ(sub->calls(),
            (Texts{"update_port box 4294967295 data", "update_port_front box 4294967295 data"}));
  EXPECT_EQ(directory->asked("sub@"), 2) << "once in vain, then the reference is kept";
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
