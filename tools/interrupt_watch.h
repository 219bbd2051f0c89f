// Tells a command that is blocked in a remote call of an interruption.
#pragma once

#include <chrono>
#include <functional>
#include <thread>

#include "platform/file.h"

namespace portsvc::tools {

/// Pauses; throws Interrupted.
void pause_for(std::chrono::milliseconds time);

/// Calls `on_interrupt` once, in a thread of its own, when a signal has arrived that
/// catch_interrupts() catches.
class InterruptWatch {
 public:
  explicit InterruptWatch(std::function<void()> on_interrupt);
  ~InterruptWatch();
  InterruptWatch(const InterruptWatch&) = delete;
  InterruptWatch& operator=(const InterruptWatch&) = delete;

 private:
  Event_File stop_;  // set when the watch is to end; before the thread, which looks at it
  std::thread thread_;
};

}  // namespace portsvc::tools
