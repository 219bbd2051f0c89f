// The pause between two tests of a wait, for all waits of the process.
#pragma once

#include <chrono>
#include <condition_variable>
#include <exception>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/clock.h"

namespace portsvc {

/// Pauses the waiting calls and has them tested once per pause.
///
/// The first pause of a wait that may end early passes on the caller's own thread: most such waits
/// are over before the pause is, and cost nobody else anything. A wait that goes on is tested once
/// per pause by one thread for all of them: a thousand waiting calls that sleep and test by
/// themselves wake a hundred thousand times a second, which costs most of a processor and delays
/// everybody else's calls; their tests alone cost next to nothing. A wake-up runs the test on the
/// caller's own thread, which it has woken anyway, or on that of who wakes it
/// (something_changed_for_me). A test that takes long always runs on the caller's own.
///
/// The test of another wait may take locks that are held for a moment, never one that is held
/// across a call or a pause: it would hold up all others.
class Poller {
 public:
  using Step = std::function<bool(Turn)>;

  /// The process's poller. It lives as long as the process: threads may wait until its very end.
  static Poller& instance();

  /// Blocks until step() has answered true; it is called for the first time a pause from now, or
  /// when something has changed. An exception ends the wait and is passed on. No lock may be held.
  void wait(const Waited_On& what, const Step& step);

 private:
  using Time = std::chrono::steady_clock;

  /// A wait. Shared by the thread that waits and those that test in its place; the step and the
  /// places, on the former's stack, are not used once the wait is over. All under the sleeper's
  /// lock.
  struct Wait final : Sleeper::Test {
    Wait(const Step& its_step, Places& its_places) : step(its_step), places(its_places) {}

    /// Tests, unless it is over; true when it is over now. What the step throws is kept.
    bool take_turn(Turn turn);
    /// After a wake-up.
    bool run() override { return take_turn(Turn::woken); }
    /// Passes on what the step has thrown; true when it is over.
    bool ended() const;

    const Step& step;
    Places& places;
    bool over = false;
    std::exception_ptr failure;
    const std::shared_ptr<Sleeper> sleeper = Sleeper::of_this_thread();
  };
  struct Turn_At {
    Time::time_point due;
    std::shared_ptr<Wait> wait;
  };

  Poller();
  void run();
  void wait_long(const std::shared_ptr<Wait>& wait);
  static bool end_of(Wait& wait);

  std::mutex lock_;  // guards turns_; no test runs under it
  std::condition_variable arrived_;
  // In order of time, since every turn is a pause away when it is added. The one thread of all
  // waits allocates nothing: it moves the nodes.
  std::list<Turn_At> turns_;
};

}  // namespace portsvc
