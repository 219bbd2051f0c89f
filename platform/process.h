// Facts about the running process and the few file-system calls the system makes.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace portsvc {

/// The process id.
unsigned int process_id();

/// The name under which the platform's tools show this thread, at most 15 letters.
void name_this_thread(const char* name);

/// How many files this process may have open, nothing when the system does not tell; and as many as
/// the system lets it have, from here on.
std::optional<std::uint64_t> most_open_files();
void raise_most_open_files();

/// When a process was started, in clock ticks after boot; 0 when there is none.
unsigned long long process_start(unsigned int process);

/// The name of the running program, one word.
std::string program_name();

/// The name of this host, one word.
std::string host_name();

/// The folder of the running executable, without a trailing separator; "." when the platform does
/// not tell.
std::string executable_folder();

/// The folder beside which the snapshot lives: the executable's, unless the hosting program has
/// put another in its place. Set it before the first servant is made.
std::string state_folder();
void set_state_folder(const std::string& path);

/// Creates one folder (not its parents). An existing folder and a failure are not told apart; the
/// caller meets a failure when it opens a file in it.
void make_folder(const std::string& path);

/// Deletes a file, ignoring whether that succeeds.
void remove_file(const std::string& path);

}  // namespace portsvc
