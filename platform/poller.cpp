#include "platform/poller.h"

#include <thread>
#include <utility>

#include "platform/time_value.h"

namespace portsvc {
namespace {

const std::chrono::microseconds period = length_of(polling_pause);
// Turns that are due within this time are taken together, so that many waits that began at
// different moments do not keep the thread busy with waking up.
constexpr std::chrono::microseconds tolerance(500);

/// Offers a sleeping thread's test to others as long as it waits.
class Offer {
 public:
  Offer(Sleeper& sleeper, Sleeper::Test* test) : sleeper_(sleeper) { set(test); }
  ~Offer() { set(nullptr); }
  Offer(const Offer&) = delete;
  Offer& operator=(const Offer&) = delete;

 private:
  void set(Sleeper::Test* test) {
    const std::lock_guard<std::mutex> guard(sleeper_.lock());
    sleeper_.offer(test);
  }

  Sleeper& sleeper_;
};

}  // namespace

Poller& Poller::instance() {
  static auto* const poller = new Poller;  // never destroyed, see above
  return *poller;
}

Poller::Poller() {
  std::thread([this] { run(); }).detach();
}

bool Poller::Wait::take_turn(Turn turn) {
  if (over) return true;
  try {
    if (turn == Turn::woken) places.take_again();
    over = step(turn);
  } catch (...) {
    failure = std::current_exception();
    over = true;
  }
  return over;
}

bool Poller::Wait::ended() const {
  if (failure) std::rethrow_exception(failure);
  return over;
}

void Poller::wait(const Waited_On& what, const Step& step) {
  const bool early = waits_end_early() && what.topic_count > 0;
  Places places(what.topics, early ? what.topic_count : 0);
  if (early && step(Turn::woken)) return;  // what came before this wait stood in its queues

  const auto wait = std::make_shared<Wait>(step, places);
  Sleeper& sleeper = *wait->sleeper;
  const auto turn = [&](Turn why) {
    const std::lock_guard<std::mutex> guard(sleeper.lock());
    wait->take_turn(why);
    return wait->ended();
  };
  const Offer offer(sleeper, early && !what.long_test ? wait.get() : nullptr);
  if (early || what.long_test) {
    do {
      const Time::time_point due = Time::now() + period;
      while (sleeper.sleep_until(due)) {
        if (turn(Turn::woken)) return;
      }
      if (turn(Turn::pause_over)) return;
    } while (what.long_test);
  }
  wait_long(wait);
}

void Poller::wait_long(const std::shared_ptr<Wait>& wait) {
  std::list<Turn_At> turn{{Time::now() + period, wait}};
  {
    const std::lock_guard<std::mutex> guard(lock_);
    turns_.splice(turns_.end(), turn);
    if (turns_.size() == 1) arrived_.notify_one();
  }
  for (;;) {
    wait->sleeper->sleep();
    const std::lock_guard<std::mutex> guard(wait->sleeper->lock());
    wait->take_turn(Turn::woken);
    if (wait->ended()) return;
  }
}

void Poller::run() {
  std::list<Turn_At> batch;
  std::unique_lock<std::mutex> guard(lock_);
  for (;;) {
    arrived_.wait(guard, [this] { return !turns_.empty(); });
    const Time::time_point due = turns_.front().due;
    guard.unlock();
    std::this_thread::sleep_until(due);  // whoever arrives meanwhile comes later
    guard.lock();

    const Time::time_point until = Time::now() + tolerance;
    while (!turns_.empty() && turns_.front().due <= until) {
      batch.splice(batch.end(), turns_, turns_.begin());
    }
    guard.unlock();
    batch.remove_if([](const Turn_At& turn) { return end_of(*turn.wait); });
    guard.lock();
    const Time::time_point next = Time::now() + period;
    for (Turn_At& turn : batch) turn.due = next;
    turns_.splice(turns_.end(), batch);
  }
}

// Tests for a wait whose pause is over; true when it is not to be tested again.
bool Poller::end_of(Wait& wait) {
  const std::unique_lock<std::mutex> guard(wait.sleeper->lock(), std::try_to_lock);
  if (!guard.owns_lock()) return false;  // it is being tested
  const bool was_over = wait.over;
  if (!wait.take_turn(Turn::pause_over)) return false;
  if (!was_over) wait.sleeper->wake();
  return true;
}

}  // namespace portsvc
