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

TEST(Countdown, CountsOffWhatHasElapsed) {
  TestClock clock;
  ACE_Time_Value remaining(1);
  Countdown countdown(&remaining);
  const struct {
    double move;
    bool expired;
    int left_ms;
  } steps[] = {
      {0.4, false, 600},    {0, false, 600},
      {-5, false, 600},  // a clock that steps back counts as no time
      {0.5, false, 100},    {-0.1, false, 100},
      {0.099999, false, 1}, {0.000001, true, 0},  // what is left is used up, not only passed
      {-100, true, 0},                            // and stays so
      {0, true, 0},
  };
  for (const auto& step : steps) {
    clock.advance(step.move);
    countdown.update();
    EXPECT_EQ(countdown.expired(), step.expired) << "after " << step.move;
    EXPECT_NEAR(static_cast<double>(remaining.msec()), step.left_ms, 1);
  }
}

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
  std::vector<std::atomic<bool>> may_end(waits);
  std::thread ending([&] {
    // Every second one; the others are still tested meanwhile.
    for (std::size_t i = 0; i < waits; i += 2) may_end[i] = true;
    EXPECT_TRUE(eventually([&] { return ended == waits / 2; }));
    for (std::size_t i = 1; i < waits; i += 2) may_end[i] = true;
  });
  in_parallel(waits, [&](int i) {
    const auto own = static_cast<std::size_t>(i);
    Poller::instance().wait({}, [&](Turn) { return may_end[own].load(); });
    EXPECT_TRUE(may_end[own]);
    ++ended;
  });
  ending.join();
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
