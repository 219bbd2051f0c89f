#include "server/feed.h"

#include <fmt/format.h>

#include <algorithm>
#include <exception>
#include <utility>

#include "idl/port_codes.h"
#include "platform/child_process.h"
#include "platform/counters.h"
#include "platform/log.h"

namespace portsvc::server {
namespace {

constexpr std::size_t longest_line = 1U << 20;
constexpr std::chrono::seconds first_pause(1);
constexpr std::chrono::seconds longest_pause(60);
constexpr std::chrono::milliseconds between_looks(100);

const char* why_not(unsigned int code) {
  return code == result::unknown_name ? "there is no such box" : "the limit of queued bytes is met";
}

}  // namespace

Feed::Feed(Feed_Option option, Port_Factory_Main* servant)
    : option_(std::move(option)), servant_(servant), thread_([this] { run(); }) {}

Feed::~Feed() {
  ask_to_stop();
  thread_.join();
}

void Feed::ask_to_stop() {
  {
    const std::lock_guard<std::mutex> guard(lock_);
    stop_ = true;
  }
  asked_.notify_all();
}

observe::Feed_Figures Feed::figures() const { return {option_.box, running_, starts_, lines_}; }

bool Feed::stopped_within(std::chrono::seconds time) {
  std::unique_lock<std::mutex> guard(lock_);
  return asked_.wait_for(guard, time, [this] { return stop_; });
}

void Feed::run() {
  using std::chrono::steady_clock;
  auto pause = first_pause;
  for (;;) {
    const auto start = steady_clock::now();
    try {
      run_once();
    } catch (const std::exception& failure) {
      log(Log_Level::error, "feed", fmt::format("{}: {}", option_.box, failure.what()));
    }
    running_ = false;
    if (steady_clock::now() - start >= longest_pause) pause = first_pause;
    if (stopped_within(pause)) return;
    pause = std::min(pause * 2, longest_pause);
  }
}

void Feed::run_once() {
  if (stopped_within(std::chrono::seconds(0))) return;
  Child_Process command(option_.command);
  running_ = true;
  count(starts_);
  log(Log_Level::info, "feed", fmt::format("{}: started '{}'", option_.box, option_.command));
  std::string line;
  while (!stopped_within(std::chrono::seconds(0))) {
    switch (command.read_line(line, longest_line, between_looks)) {
      case Child_Process::Read::line:
        hand_over(line);
        break;
      case Child_Process::Read::nothing_yet:
        break;
      case Child_Process::Read::end:
        // It may have closed its output and go on; what it says no longer comes here.
        command.stop();
        log(Log_Level::warning, "feed",
            fmt::format("{}: the command has ended, {}", option_.box, command.wait()));
        return;
    }
  }
}

void Feed::hand_over(const std::string& line) {
  bool told = false;
  for (;;) {
    const unsigned int code = servant_->forward_event(option_.box.c_str(), line);
    if (code == result::ok) break;
    if (!told) {
      log(Log_Level::warning, "feed",
          fmt::format("{}: {}; the command waits", option_.box, why_not(code)));
    }
    told = true;
    if (stopped_within(std::chrono::seconds(1))) return;
  }
  count(lines_);
  if (told) log(Log_Level::info, "feed", fmt::format("{}: goes on", option_.box));
}

}  // namespace portsvc::server
