#include "tools/interrupt_watch.h"

#include <utility>

#include "platform/streams.h"
#include "tools/interrupt.h"

namespace portsvc::tools {

void pause_for(std::chrono::milliseconds time) {
  (void)wait_readable({interrupt_fd()}, time);
  throw_if_interrupted();
}

InterruptWatch::InterruptWatch(std::function<void()> on_interrupt)
    : thread_([this, on_interrupt = std::move(on_interrupt)] {
        (void)wait_readable({interrupt_fd(), stop_.fd()});
        if (interrupted() != 0) on_interrupt();
      }) {}

InterruptWatch::~InterruptWatch() {
  stop_.set();
  thread_.join();
}

}  // namespace portsvc::tools
