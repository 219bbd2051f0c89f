#include "tools/interrupt.h"

#include "platform/signals.h"
#include "tools/errors.h"

namespace portsvc::tools {

void catch_interrupts() {
  mark_signals();
  ignore_broken_pipes();
}

int interrupted() { return marked_signal(); }

int interrupt_fd() { return marked_signal_file(); }

void throw_if_interrupted() {
  if (interrupted() != 0) throw Interrupted();
}

}  // namespace portsvc::tools
