// Waking a wait before its pause is over.
#pragma once

#include <semaphore.h>

#include <boost/intrusive/list.hpp>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

namespace portsvc {

/// What can be waited on: one side of an object (the packets of a port, the replies to one of its
/// clients). The object is never dereferenced.
struct Topic {
  const void* object = nullptr;
  std::uint64_t side = 0;

  bool operator==(const Topic& o) const { return object == o.object && side == o.side; }
};

/// Lets the pauses of blocking waits end as soon as what they wait for has changed. Off unless the
/// host of the servants asks for it, once, before it serves: without it every wait looks again when
/// its pause of 10 ms is over, and nobody is woken. Answers, orders and the lower bounds of waits
/// that give up after one pass are the same either way.
void wake_waits_early(bool early);
bool waits_end_early();

/// There is something new for `things` waits on `topic`: wakes so many, those first that have
/// waited longest. Costs one relaxed load when nobody waits. Whoever calls it has made the change
/// under the lock under which the waits test for it, and has given that lock back. Never throws: a
/// wake-up missed for lack of memory costs a pause.
void something_changed(const Topic& topic, unsigned int things = 1);

/// As something_changed, for a change that concerns every wait on the topic.
void everything_changed(const Topic& topic);

/// As something_changed for one wait, whose test runs on the calling thread if it can: what that
/// test does is done when this returns. For one who needs it done and would only wait for it, which
/// takes two switches of threads. The caller holds no lock.
void something_changed_for_me(const Topic& topic);

/// Where a thread sleeps. Each thread has one for its life; whoever wakes it shares it, so a
/// wake-up that comes too late meets no dead object. A thread may wake without a cause and tests
/// again.
class Sleeper {
 public:
  using Time = std::chrono::steady_clock;

  Sleeper();
  ~Sleeper();
  Sleeper(const Sleeper&) = delete;
  Sleeper& operator=(const Sleeper&) = delete;

  /// The calling thread's own.
  static const std::shared_ptr<Sleeper>& of_this_thread();

  void wake();
  void sleep();
  /// False when `due` came first.
  bool sleep_until(Time::time_point due);
  /// Forgets the wake-ups of an earlier wait.
  void forget();

  /// What the thread tests while it sleeps, for others to run in its place.
  class Test {
   public:
    /// Runs the test unless the wait is over; true when it is over now. Under lock().
    virtual bool run() = 0;

   protected:
    ~Test() = default;
  };
  /// Guards the test and what it uses; held while a test runs, which takes ports' locks.
  std::mutex& lock() { return lock_; }
  /// Offers a test, or none. Under lock().
  void offer(Test* test) { test_ = test; }
  /// Runs the test, and wakes the thread if that ends its wait; only wakes it if it has no test to
  /// offer or is being tested.
  void test_or_wake();

 private:
  sem_t wakes_;
  std::mutex lock_;
  Test* test_ = nullptr;
};

/// One wait's places in the queues of its topics, from its construction to its end. Belongs to the
/// thread that sleeps, or to whoever tests in its place.
class Places {
 public:
  Places(const Topic* topics, std::size_t count);
  /// A wake-up that was meant for this wait and not used goes to the one that has waited longest.
  ~Places();
  Places(const Places&) = delete;
  Places& operator=(const Places&) = delete;

  /// Takes the places again that wake-ups have ended, each where it was. Before the test, so that
  /// what changes during it wakes again.
  void take_again();

 private:
  friend struct Queue;

  struct Place : boost::intrusive::list_base_hook<> {
    Topic topic;
    std::uint64_t since = 0;
    std::shared_ptr<Sleeper> sleeper;
    bool taken = false;  // guarded by its queue's lock
  };

  void take(Place& place);

  Place first_;              // most waits have one topic
  std::vector<Place> more_;  // the others'
  std::size_t count_ = 0;
};

}  // namespace portsvc
