// The two periodic jobs of a servant, each a thread of its own that polls a stop flag.
#pragma once

#include <ace/Task.h>

#include <atomic>
#include <cstdint>

class Port_Factory_i;

/// Saves a snapshot of a servant in the first round, one every 3 seconds, that comes more than the
/// period after the last save. The hosting program makes it, activates it (`activate(...)`), and
/// before the servant goes calls ShutDown() and waits for the thread (`wait()`).
class SnapSaveTask : public ACE_Task_Base {
 public:
  /// `owner` is not owned and must outlive the thread. The clock starts now.
  explicit SnapSaveTask(Port_Factory_i* owner);
  ~SnapSaveTask() override = default;

  /// Seconds between saves, 60 unless changed before the thread starts.
  void set_period(unsigned int seconds) { period_ = seconds; }
  /// Asks the thread to end, which it does within 3 seconds. Returns at once.
  void ShutDown() { stop_ = true; }

  int svc() override;

 private:
  Port_Factory_i* const owner_;
  std::int64_t last_save_;  // calendar seconds
  std::atomic<bool> stop_{false};
  std::int64_t period_ = 60;
};

/// Removes a servant's expired event boxes, in the first round, one every 2 seconds, that comes
/// more than 120 seconds after the last pass. Part of every servant, from its construction to its
/// destruction.
class TransitionCheckTask : public ACE_Task_Base {
 public:
  /// `owner` contains the task. The clock starts now.
  explicit TransitionCheckTask(Port_Factory_i* owner);
  ~TransitionCheckTask() override = default;

  /// Asks the thread to end, which it does within 2 seconds; a pass under way finishes first.
  void stop() { stop_ = true; }

  int svc() override;

 private:
  std::atomic<bool> stop_{false};
  Port_Factory_i* const owner_;
  std::int64_t last_check_;  // calendar seconds
};
