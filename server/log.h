// The server's log.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace portsvc::server {

struct Log_Options {
  std::string level = "info";             ///< debug, info, warning or error
  std::string file;                       ///< empty: standard error
  std::string format = "text";            ///< or "json": one object per line
  std::uint64_t file_size = 10ULL << 20;  ///< beyond it the file becomes FILE.1 (before its suffix)
  std::size_t files = 5;                  ///< so many old ones are kept
};

/// Takes the lines that the process logs while it lives. Text for people has time, level and
/// subject; the time is left out when standard error is the journal's, which has its own, and which
/// is told the level. Control characters are escaped: a name cannot forge a line.
class Log {
 public:
  /// Throws std::runtime_error when the file cannot be opened.
  explicit Log(const Log_Options& options);
  ~Log();
  Log(const Log&) = delete;
  Log& operator=(const Log&) = delete;

  /// Opens the file anew, as after somebody has moved it, and takes the level of `options`. A
  /// failure is logged to where the lines went before.
  void reopen(const Log_Options& options);

 private:
  void open(const Log_Options& options);
};

}  // namespace portsvc::server
