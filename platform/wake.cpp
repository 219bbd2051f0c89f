#include "platform/wake.h"

#include <time.h>

#include <array>
#include <atomic>
#include <boost/container/small_vector.hpp>
#include <cerrno>
#include <limits>
#include <mutex>
#include <new>

namespace portsvc {

/// The waits on all topics that fall together here, the longest first.
struct alignas(64) Queue {
  using Place = Places::Place;

  std::mutex lock;  // guards places and writes of length; a leaf
  // Read without the lock. A wait enters before it tests, and tests under the lock of what it waits
  // for; so whoever makes a change after that test, under that lock, sees the wait counted here.
  std::atomic<unsigned int> length{0};
  boost::intrusive::list<Place, boost::intrusive::constant_time_size<false>> places;

  static Queue& of(const Topic& topic);

  // The caller holds the lock.
  void enter(Place& place) {
    auto next = places.end();
    while (next != places.begin() && std::prev(next)->since > place.since) --next;
    places.insert(next, place);
    count(place);
  }
  void enter_again(Place& place) {
    auto next = places.begin();
    while (next != places.end() && next->since < place.since) ++next;
    places.insert(next, place);
    count(place);
  }
  void leave(Place& place) {
    places.erase(places.iterator_to(place));
    place.taken = false;
    length.store(length.load(std::memory_order_relaxed) - 1, std::memory_order_relaxed);
  }

 private:
  void count(Place& place) {
    place.taken = true;
    length.store(length.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
  }
};

namespace {

constexpr std::size_t queue_count = 1024;

std::atomic<bool> early{false};
std::atomic<std::uint64_t> waits_begun{0};

void wake(const Topic& topic, unsigned int things, void (Sleeper::*how)() = &Sleeper::wake) {
  Queue& queue = Queue::of(topic);
  if (queue.length.load(std::memory_order_relaxed) == 0) return;
  boost::container::small_vector<std::shared_ptr<Sleeper>, 4> sleepers;  // woken after the lock
  {
    const std::lock_guard<std::mutex> guard(queue.lock);
    for (auto next = queue.places.begin(); next != queue.places.end() && things > 0;) {
      auto& place = *next++;
      if (!(place.topic == topic)) continue;
      try {
        sleepers.push_back(place.sleeper);
      } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        break;  // the others look when their pauses are over
      }
      queue.leave(place);
      --things;
    }
  }
  for (const auto& sleeper : sleepers) ((*sleeper).*how)();
}

}  // namespace

Queue& Queue::of(const Topic& topic) {
  static auto* const queues = new std::array<Queue, queue_count>;  // threads wait to the very end
  constexpr std::uint64_t mix = 0x9e3779b97f4a7c15ULL;
  const auto object = reinterpret_cast<std::uintptr_t>(topic.object);
  const std::uint64_t hash = (object * mix) ^ (topic.side * mix << 1);
  return (*queues)[(hash * mix) >> 54];
}

void wake_waits_early(bool is_early) { early.store(is_early, std::memory_order_relaxed); }

bool waits_end_early() { return early.load(std::memory_order_relaxed); }

void something_changed(const Topic& topic, unsigned int things) { wake(topic, things); }

void everything_changed(const Topic& topic) {
  wake(topic, std::numeric_limits<unsigned int>::max());
}

void something_changed_for_me(const Topic& topic) { wake(topic, 1, &Sleeper::test_or_wake); }

Sleeper::Sleeper() { ::sem_init(&wakes_, 0, 0); }

Sleeper::~Sleeper() { ::sem_destroy(&wakes_); }

const std::shared_ptr<Sleeper>& Sleeper::of_this_thread() {
  thread_local const auto sleeper = std::make_shared<Sleeper>();
  return sleeper;
}

void Sleeper::wake() { ::sem_post(&wakes_); }

void Sleeper::sleep() {
  while (::sem_wait(&wakes_) != 0 && errno == EINTR) {
  }
}

bool Sleeper::sleep_until(Time::time_point due) {
  const auto since_start = std::chrono::nanoseconds(due.time_since_epoch()).count();
  timespec until{};
  until.tv_sec = static_cast<time_t>(since_start / 1000000000);
  until.tv_nsec = static_cast<long>(since_start % 1000000000);
  for (;;) {
    if (::sem_clockwait(&wakes_, CLOCK_MONOTONIC, &until) == 0) return true;
    if (errno != EINTR) return false;
  }
}

void Sleeper::forget() {
  while (::sem_trywait(&wakes_) == 0) {
  }
}

void Sleeper::test_or_wake() {
  {
    const std::unique_lock<std::mutex> guard(lock_, std::try_to_lock);
    if (guard.owns_lock() && test_ && !test_->run()) return;
  }
  wake();
}

Places::Places(const Topic* topics, std::size_t count) : more_(count > 1 ? count - 1 : 0) {
  const auto& sleeper = Sleeper::of_this_thread();
  sleeper->forget();
  const std::uint64_t since = waits_begun.fetch_add(1, std::memory_order_relaxed);
  for (; count_ < count; ++count_) {
    Place& place = count_ == 0 ? first_ : more_[count_ - 1];
    place.topic = topics[count_];
    place.since = since;
    place.sleeper = sleeper;
    Queue& queue = Queue::of(place.topic);
    const std::lock_guard<std::mutex> guard(queue.lock);
    queue.enter(place);
  }
}

void Places::take(Place& place) {
  Queue& queue = Queue::of(place.topic);
  const std::lock_guard<std::mutex> guard(queue.lock);
  if (!place.taken) queue.enter_again(place);
}

void Places::take_again() {
  if (count_ > 0) take(first_);
  for (Place& place : more_) take(place);
}

Places::~Places() {
  const auto leave = [](Place& place) {
    {
      Queue& queue = Queue::of(place.topic);
      const std::lock_guard<std::mutex> guard(queue.lock);
      if (place.taken) {
        queue.leave(place);
        return;
      }
    }
    something_changed(place.topic);
  };
  if (count_ > 0) leave(first_);
  for (Place& place : more_) leave(place);
}

}  // namespace portsvc
