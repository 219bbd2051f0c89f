// Ctrl-C, SIGTERM and the end of the terminal: a command that is asked to end finishes the slice of
// the wait it is in and disconnects from its ports.
#pragma once

namespace portsvc::tools {

/// From now on SIGINT, SIGTERM and SIGHUP only leave a mark; a second one of the same kind ends
/// the process at once. SIGPIPE is ignored: a closed pipe shows as a failed write.
void catch_interrupts();

/// The signal that arrived, 0 while none has.
int interrupted();

/// The file that can be read from the moment a signal has arrived (platform/streams.h).
int interrupt_fd();

/// Throws Interrupted when a signal has arrived.
void throw_if_interrupted();

}  // namespace portsvc::tools
