#include "platform/log.h"

#include <memory>
#include <utility>

namespace portsvc {
namespace {

struct Log {
  std::mutex lock;  ///< guards sink; nothing is called under it
  std::shared_ptr<const Log_Sink> sink;
  std::atomic<bool> heard{false};
  std::atomic<Log_Level> least{Log_Level::info};
};

Log& the_log() {
  static Log log;
  return log;
}

}  // namespace

void set_log_sink(Log_Sink sink) {
  auto next = sink ? std::make_shared<const Log_Sink>(std::move(sink)) : nullptr;
  const std::lock_guard<std::mutex> guard(the_log().lock);
  the_log().heard = next != nullptr;
  the_log().sink.swap(next);
}

void set_log_level(Log_Level least) { the_log().least = least; }

bool log_heard(Log_Level level) { return the_log().heard && level >= the_log().least; }

void log(Log_Level level, const char* subject, const std::string& text) {
  if (!log_heard(level)) return;
  std::shared_ptr<const Log_Sink> sink;
  {
    const std::lock_guard<std::mutex> guard(the_log().lock);
    sink = the_log().sink;
  }
  if (sink) (*sink)(level, subject, text);
}

void Seldom_Log::log(Log_Level level, const char* subject, const std::string& text) {
  std::uint64_t unsaid = 0;
  {
    const std::lock_guard<std::mutex> guard(lock_);
    const auto now = std::chrono::steady_clock::now();
    if (now < last_ + std::chrono::seconds(1)) {
      ++unsaid_;
      return;
    }
    last_ = now;
    unsaid = std::exchange(unsaid_, 0);
  }
  portsvc::log(level, subject,
               unsaid == 0 ? text : text + "; " + std::to_string(unsaid) + " more since the last");
}

}  // namespace portsvc
