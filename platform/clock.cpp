#include "platform/clock.h"

#include <sched.h>
#include <time.h>

#include <atomic>

#include "platform/poller.h"

namespace portsvc {
namespace {

class SystemClock final : public Clock {
 public:
  ACE_Time_Value now() const override {
    timespec t{};
    ::clock_gettime(CLOCK_REALTIME, &t);
    return ACE_Time_Value(t.tv_sec, static_cast<suseconds_t>(t.tv_nsec / 1000));
  }

  void pause(const ACE_Time_Value& length, const void*) override {
    if (length == ACE_Time_Value::zero) {
      ::sched_yield();
      return;
    }
    timespec t{};
    t.tv_sec = length.sec();
    t.tv_nsec = static_cast<long>(length.usec()) * 1000;
    ::nanosleep(&t, nullptr);
  }

  void rest(const ACE_Time_Value& length, const Waited_On& what,
            const std::function<bool()>& ready) override {
    if (!waits_end_early()) {
      pause(length, what.object);
      return;
    }
    const auto due = Sleeper::Time::now() + std::chrono::seconds(length.sec()) +
                     std::chrono::microseconds(length.usec());
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
