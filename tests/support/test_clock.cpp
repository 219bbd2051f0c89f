#include "tests/support/test_clock.h"

#include <chrono>

#include "platform/wait.h"
#include "tests/support/threads.h"

namespace portsvc {
namespace {

constexpr std::int64_t second = 1000000;
constexpr std::int64_t start = 1700000000 * second;

}  // namespace

TestClock::TestClock() : microseconds_(start) { replace_clock(this); }

TestClock::~TestClock() { replace_clock(nullptr); }

ACE_Time_Value TestClock::now() const {
  const std::int64_t now = microseconds_;
  return ACE_Time_Value(now / second, static_cast<suseconds_t>(now % second));
}

void TestClock::advance(double seconds) {
  microseconds_ += static_cast<std::int64_t>(seconds * static_cast<double>(second));
}

double TestClock::elapsed() const {
  return static_cast<double>(microseconds_ - start) / static_cast<double>(second);
}

void TestClock::pause(const ACE_Time_Value& length, const void* waited_on) {
  if (std::this_thread::get_id() == own_thread_) {
    microseconds_ += length.sec() * second + length.usec();
    ++pauses_;
    if (on_pause) on_pause(length);
    return;
  }
  {
    const std::lock_guard<std::mutex> guard(lock_);
    if (length == polling_pause) {
      ++polls_[waited_on];
      ++polls_[nullptr];
    } else if (length > polling_pause) {
      ++rounds_;
    }
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(length == ACE_Time_Value::zero ? 0 : 1));
}

bool TestClock::await(const std::function<int()>& count, int times) const {
  const auto read = [&] {
    const std::lock_guard<std::mutex> guard(lock_);
    return count();
  };
  const int before = read();
  return eventually([&] { return read() >= before + times; });
}

bool TestClock::await_poll(const void* object, int times) const {
  return await(
      [&] {
        const auto found = polls_.find(object);
        return found == polls_.end() ? 0 : found->second;
      },
      times);
}

bool TestClock::await_round(int times) const {
  return await([&] { return rounds_; }, times);
}

}  // namespace portsvc
