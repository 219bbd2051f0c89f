#include "platform/poller.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <new>
#include <thread>
#include <vector>

namespace portsvc {
namespace {

TEST(Poller, EndsEachWaitWhenItsOwnTestSaysSoAndNoOther) {
  constexpr unsigned int waits = 100;
  std::vector<std::atomic<bool>> may_end(waits);
  std::vector<std::atomic<bool>> has_ended(waits);
  std::vector<std::thread> threads;
  for (unsigned int i = 0; i < waits; ++i) {
    threads.emplace_back([&, i] {
      Poller::instance().wait({}, [&, i](Turn) { return may_end[i].load(); });
      has_ended[i] = true;
    });
  }
  // Every second one; the others are still tested meanwhile.
  for (unsigned int i = 0; i < waits; i += 2) may_end[i] = true;
  for (unsigned int i = 0; i < waits; i += 2) threads[i].join();
  for (unsigned int i = 1; i < waits; i += 2) EXPECT_FALSE(has_ended[i]) << i;
  for (unsigned int i = 1; i < waits; i += 2) may_end[i] = true;
  for (unsigned int i = 1; i < waits; i += 2) threads[i].join();
}

TEST(Poller, PassesAnExceptionToItsWaitAndGoesOn) {
  EXPECT_THROW(Poller::instance().wait({}, [](Turn) -> bool { throw std::bad_alloc(); }),
               std::bad_alloc);
  int tests = 0;
  Poller::instance().wait({}, [&](Turn) { return ++tests == 3; });
  EXPECT_EQ(tests, 3);
}

TEST(Poller, PausesBetweenTests) {
  const auto start = std::chrono::steady_clock::now();
  int tests = 0;
  Poller::instance().wait({}, [&](Turn) { return ++tests == 5; });
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(45));
}

}  // namespace
}  // namespace portsvc
