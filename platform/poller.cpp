#include "platform/poller.h"

#include <thread>
#include <utility>

namespace portsvc {
namespace {

const std::chrono::microseconds period(polling_pause.sec() * 1000000 + polling_pause.usec());
// Turns that are due within this time are taken together, so that many waits that began at
// different moments do not keep the thread busy with waking up.
constexpr std::chrono::microseconds tolerance(500);

}  // namespace

Poller& Poller::instance() {
  static auto* const poller = new Poller;  // never destroyed, see above
  return *poller;
}

Poller::Poller() {
  std::thread([this] { run(); }).detach();
}

void Poller::wait(const Waited_On& what, const Step& step) {
  const bool early = waits_end_early() && what.topic_count > 0;
  Places places(what.topics, early ? what.topic_count : 0);
  if (early && step(Turn::woken)) return;  // what came before this wait stood in its queues
  if (early || what.long_test) {
    Sleeper& sleeper = *Sleeper::of_this_thread();
    do {
      const Time::time_point due = Time::now() + period;
      while (sleeper.sleep_until(due)) {
        places.take_again();
        if (step(Turn::woken)) return;
      }
      if (step(Turn::pause_over)) return;
    } while (what.long_test);
  }
  wait_long(places, step);
}

void Poller::wait_long(Places& places, const Step& step) {
  const auto wait = std::make_shared<Long_Wait>(step);
  std::list<Turn_At> turn{{Time::now() + period, wait}};
  {
    const std::lock_guard<std::mutex> guard(lock_);
    turns_.splice(turns_.end(), turn);
    if (turns_.size() == 1) arrived_.notify_one();
  }
  for (;;) {
    wait->sleeper->sleep();
    const std::lock_guard<std::mutex> guard(wait->lock);
    if (wait->failure) std::rethrow_exception(wait->failure);
    if (wait->over) return;
    places.take_again();
    wait->over = true;  // also when the step throws
    if (step(Turn::woken)) return;
    wait->over = false;
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
bool Poller::end_of(Long_Wait& wait) {
  const std::unique_lock<std::mutex> guard(wait.lock, std::try_to_lock);
  if (!guard.owns_lock()) return false;  // its own thread is testing
  if (wait.over) return true;
  try {
    wait.over = wait.step(Turn::pause_over);
  } catch (...) {
    wait.failure = std::current_exception();
    wait.over = true;
  }
  if (wait.over) wait.sleeper->wake();
  return wait.over;
}

}  // namespace portsvc
