// How the process handles memory that it has freed.
#pragma once

namespace portsvc {

/// Keeps freed memory for the next payload instead of handing every larger block back to the system
/// at once: getting it anew costs a page fault for each 4 KiB, which showed as a third of the cost
/// of taking 64 events of 4 KiB. For a program's start, before it has threads.
void keep_freed_memory();

/// Hands freed memory back to the system. Takes a millisecond for some tens of megabytes, during
/// which other threads may wait for memory.
void return_freed_memory();

/// The memory that this process may use in bytes: the machine's, or its control group's if that is
/// less.
unsigned long long available_memory();

/// The process's resident memory in bytes, 0 when the platform does not tell.
unsigned long long resident_memory();

}  // namespace portsvc
