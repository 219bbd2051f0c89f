// What the system has to say to those who run it.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

namespace portsvc {

enum class Log_Level { debug, info, warning, error };

/// Takes one line. `subject` is a word that lines are sorted by: "server", "peer", "clone",
/// "snapshot", "directory", "limit", "tls", "client", "forwarding", "feed", "log". The text may
/// hold what others have chosen (names, addresses): a sink escapes it.
using Log_Sink = std::function<void(Log_Level level, const char* subject, const std::string& text)>;

/// Where the lines go; nowhere until the host says so, and nowhere again with an empty sink. The
/// sink is called from any thread, also under locks of the system: it calls nothing of the system.
void set_log_sink(Log_Sink sink);

/// Lines below are not handed to the sink. Info unless changed; any time.
void set_log_level(Log_Level least);

/// True when a line of that level would be heard: for texts that cost something to make.
bool log_heard(Log_Level level);

/// One line for people, without a full stop or a newline.
void log(Log_Level level, const char* subject, const std::string& text);

/// For what strangers can make happen as often as they like: says the first of a second, and with
/// the next line how many were left unsaid.
class Seldom_Log {
 public:
  void log(Log_Level level, const char* subject, const std::string& text);

 private:
  std::mutex lock_;  ///< guards the two below; a leaf
  std::chrono::steady_clock::time_point last_{};
  std::uint64_t unsaid_ = 0;
};

}  // namespace portsvc
