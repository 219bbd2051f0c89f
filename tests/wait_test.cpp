// Waits, and the thread that tests for them.
#include "platform/wait.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <new>

#include "platform/poller.h"
#include "tests/support/test_clock.h"
#include "tests/support/threads.h"

namespace portsvc {
namespace {

using Answer = std::optional<unsigned int>;

constexpr unsigned int done = 1;
constexpr unsigned int given_up = 2;
constexpr unsigned int refused = 3;

Answer no() { return std::nullopt; }
Answer not_yet(const Caller*) { return std::nullopt; }

TEST(Wait, TestsBeforeItPausesAndBeforeItGivesUp) {
  TestClock clock;
  EXPECT_EQ(wait(
                1, given_up, {}, [](const Caller*) { return Answer(done); }, no),
            done);
  EXPECT_EQ(clock.pauses(), 0);

  EXPECT_EQ(wait(1, given_up, {}, not_yet, no), given_up);
  EXPECT_EQ(clock.pauses(), 100);

  // What is there at the very last test is still taken.
  const double end = clock.elapsed() + 1;
  const auto at_the_end = [&](const Caller*) {
    return clock.elapsed() >= end ? Answer(done) : no();
  };
  EXPECT_EQ(wait(1, given_up, {}, at_the_end, no), done);
}

TEST(Wait, GoesOnForEverWithoutALimitAndEndsWhenTheModeSaysSo) {
  TestClock clock;
  const auto next_day = [&](const Caller*) {
    return clock.elapsed() > 86400 ? Answer(done) : no();
  };
  clock.on_pause = [&](const ACE_Time_Value&) { clock.advance(60); };
  EXPECT_EQ(wait(0, given_up, {}, next_day, no), done);
  EXPECT_EQ(wait(0, given_up, {}, not_yet, [] { return Answer(refused); }), refused);
}

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

}  // namespace
}  // namespace portsvc
