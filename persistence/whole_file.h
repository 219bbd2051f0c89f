// Files that are either the old one or the new one, whatever happens while they are written.
#pragma once

#include <string>
#include <string_view>

namespace portsvc {

/// Empty when `path` is free or a plain file; else what it is, as "X is a symbolic link".
std::string not_a_plain_file(const std::string& path);

/// Added to a path: the file that takes its place once it is written.
constexpr const char* unfinished = ".new";

/// Writes `bytes` to `path`.new, flushes them to the disk and renames that file to `path`. In a
/// folder that takes no second file `path` itself is rewritten. Empty on success, else the reason;
/// what was at `path` is then untouched unless it was being rewritten. One writer at a time.
std::string write_whole_file(const std::string& path, std::string_view bytes);

}  // namespace portsvc
