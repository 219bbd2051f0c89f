// Signals by which a process is asked for something. A program uses one of the two ways.
#pragma once

#include <chrono>

namespace portsvc {

/// A closed pipe or connection shows as a failed write and ends nobody.
void ignore_broken_pipes();

// --- for a program that looks now and then

/// From here on SIGINT, SIGTERM and SIGHUP only leave a mark; a second one of the same kind ends
/// the process at once. Under nohup SIGHUP stays ignored. Called once; throws std::system_error.
void mark_signals();

/// The signal that has left the mark last, 0 while none has.
int marked_signal();

/// Can be read from the moment a signal has left its mark; nobody reads it. -1 before
/// mark_signals().
int marked_signal_file();

// --- for a program with a thread that waits for them

/// SIGTERM, SIGINT and SIGHUP wait for next_held_signal(), for this thread and for those that it
/// starts from here on: so it is called before any is.
void hold_signals();

/// Waits for the next of the three.
int next_held_signal();

/// Waits for the next SIGTERM or SIGINT, for at most `patience`.
void wait_for_held_end(std::chrono::seconds patience);

/// True for SIGHUP, which asks a server to read its files again.
bool is_hang_up(int signal);

}  // namespace portsvc
