// What a program of the command line asks of its streams: whether there is something to read, room
// to write, somebody who reads. Files are given by number; one below 0 is passed over.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <system_error>

namespace portsvc {

/// A wait without a limit.
constexpr std::chrono::milliseconds for_ever(-1);

/// Waits until one of the files can be read or has ended, for at most `patience`. False when that
/// is over, or a signal came.
bool wait_readable(std::initializer_list<int> files, std::chrono::milliseconds patience = for_ever);

/// Waits until `file` can be written, or `or_readable` be read. False when nobody reads `file`.
bool wait_writable(int file, int or_readable);

/// True when nobody reads what is written to `file`, a pipe or a terminal.
bool reader_gone(int file);

/// Waits until nobody reads what is written to `file`. False when `stop` could be read before.
bool wait_until_reader_gone(int file, int stop);

/// Why a write would fail that needs no room, as to a pipe that nobody reads; nothing when it would
/// not. Nothing is written.
std::error_code would_fail(int file);

bool is_terminal(int file);
bool is_regular_file(int file);

/// What is left of a regular file to read, nothing for another.
std::optional<std::uint64_t> bytes_left(int file);
/// How many bytes lie in a pipe, read by nobody yet; also when its reader has gone.
std::size_t unread_in_pipe(int file);
/// The room on the disk that a file lies on, nothing when the system does not tell.
std::optional<std::uint64_t> free_disk_space(int file);

/// "DEVICE:INODE", which tells one file from another; empty for one that is not open.
std::string file_identity(int file);

}  // namespace portsvc
