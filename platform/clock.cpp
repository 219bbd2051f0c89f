#include "platform/clock.h"

#include <atomic>
#include <chrono>
#include <thread>

#include "platform/poller.h"
#include "platform/time_value.h"

namespace portsvc {
namespace {

class SystemClock final : public Clock {
 public:
  ACE_Time_Value now() const override {
    using namespace std::chrono;
    return time_value(duration_cast<microseconds>(system_clock::now().time_since_epoch()));
  }

  void pause(const ACE_Time_Value& length, const void*) override {
    if (length == ACE_Time_Value::zero) {
      std::this_thread::yield();
    } else {
      std::this_thread::sleep_for(length_of(length));
    }
  }

  void rest(const ACE_Time_Value& length, const Waited_On& what,
            const std::function<bool()>& ready) override {
    if (!waits_end_early()) {
      pause(length, what.object);
      return;
    }
    const auto due = Sleeper::Time::now() + length_of(length);
    Places places(what.topics, what.topic_count);
    while (!ready() && Sleeper::of_this_thread()->sleep_until(due)) places.take_again();
  }

  void poll(const Waited_On& what, const std::function<bool(Turn)>& step) override {
    Poller::instance().wait(what, step);
  }
};

SystemClock system_clock;
std::atomic<Clock*> current{&system_clock};

}  // namespace

Clock& clock() { return *current.load(std::memory_order_acquire); }

void replace_clock(Clock* replacement) {
  current.store(replacement ? replacement : &system_clock, std::memory_order_release);
}

std::int64_t calendar_seconds() { return clock().now().sec(); }

}  // namespace portsvc
