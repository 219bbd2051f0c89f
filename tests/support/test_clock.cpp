#include "tests/support/test_clock.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <thread>

#include "platform/wait.h"
#include "tests/support/threads.h"

namespace portsvc {
namespace {

constexpr std::int64_t one_second = 1000000;
constexpr std::int64_t begin = 1700000000 * one_second;

// The clock that is in place while there is a TestClock. It outlives them all: a thread of the
// process that no test owns, like the one that closes idle file handles, may be reading it when a
// test ends.
class Hands final : public Clock {
 public:
  void reset(TestClock* owner) {
    microseconds = begin;
    const std::lock_guard<std::mutex> guard(lock_);
    owner_ = owner;
    own_thread_ = std::this_thread::get_id();
    pauses = 0;
    polls_.clear();
  }

  ACE_Time_Value now() const override {
    const std::int64_t time = microseconds;
    return ACE_Time_Value(time / one_second, static_cast<suseconds_t>(time % one_second));
  }

  void pause(const ACE_Time_Value& length, const void* waited_on) override {
    if (is_owners_pause(length, waited_on)) {
      microseconds += length.sec() * one_second + length.usec();
      ++pauses;
      if (owner_->on_pause) owner_->on_pause(length);
    } else if (length != ACE_Time_Value::zero) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }

  int polls(const void* object) {
    const std::lock_guard<std::mutex> guard(lock_);
    return polls_[object];
  }

  std::atomic<std::int64_t> microseconds{begin};
  int pauses = 0;  // of the owner's thread, which alone uses it

 private:
  bool is_owners_pause(const ACE_Time_Value& length, const void* waited_on) {
    const std::lock_guard<std::mutex> guard(lock_);
    if (std::this_thread::get_id() == own_thread_) return true;
    if (length == polling_pause) {
      ++polls_[waited_on];
      ++polls_[nullptr];
    } else if (length > polling_pause) {
      ++polls_[this];
    }
    return false;
  }

  std::mutex lock_;  // guards what follows
  TestClock* owner_ = nullptr;
  std::thread::id own_thread_;
  std::map<const void*, int> polls_;  // of an object; of any, under null; the longer, under this
};

Hands hands;

}  // namespace

TestClock::TestClock() {
  hands.reset(this);
  replace_clock(&hands);
}

TestClock::~TestClock() { replace_clock(nullptr); }

void TestClock::advance(double seconds) {
  hands.microseconds += static_cast<std::int64_t>(seconds * static_cast<double>(one_second));
}

double TestClock::elapsed() const {
  return static_cast<double>(hands.microseconds - begin) / static_cast<double>(one_second);
}

int TestClock::pauses() const { return hands.pauses; }

bool TestClock::await_poll(const void* object, int times) const {
  const int before = hands.polls(object);
  return eventually([&] { return hands.polls(object) >= before + times; });
}

bool TestClock::await_round(int times) const { return await_poll(&hands, times); }

}  // namespace portsvc
