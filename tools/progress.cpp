#include "tools/progress.h"

#include <fmt/core.h>

#include <cmath>
#include <cstdio>
#include <utility>

#include "platform/file.h"
#include "platform/streams.h"

namespace portsvc::tools {
namespace {

std::string amount(double value, const std::string& unit) {
  if (unit != "bytes") return fmt::format("{:.0f} {}", value, unit);
  if (value < 1024) return fmt::format("{:.0f} B", value);
  if (value < 1024 * 1024) return fmt::format("{:.1f} KiB", value / 1024);
  return fmt::format("{:.1f} MiB", value / (1024 * 1024));
}

std::string clock_text(double seconds) {
  const auto whole = std::llround(seconds);
  if (whole < 3600) return fmt::format("{}:{:02}", whole / 60, whole % 60);
  return fmt::format("{}:{:02}:{:02}", whole / 3600, whole / 60 % 60, whole % 60);
}

}  // namespace

std::string progress_text(std::uint64_t done, std::optional<std::uint64_t> total,
                          std::chrono::duration<double> taken, const std::string& unit) {
  const auto reached = static_cast<double>(done);
  const double rate = taken.count() > 0 ? reached / taken.count() : 0;
  const std::string speed = amount(rate, unit) + "/s";
  if (!total || *total < done) return fmt::format("{}  {}", amount(reached, unit), speed);
  const auto all = static_cast<double>(*total);
  std::string text = fmt::format("{} of {}  {:.0f} %  {}", amount(reached, unit), amount(all, unit),
                                 *total == 0 ? 100.0 : 100 * reached / all, speed);
  if (rate > 0) text += fmt::format("  {} left", clock_text((all - reached) / rate));
  return text;
}

Progress::Progress(std::string unit, std::optional<std::uint64_t> total, bool prints)
    : unit_(std::move(unit)),
      total_(total),
      visible_(is_terminal(standard_error) && !(prints && is_terminal(standard_output))) {}

Progress::~Progress() {
  if (shown_) std::fputs("\r\x1b[K", stderr);
}

void Progress::reached(std::uint64_t done) {
  if (!visible_) return;
  const auto now = steady_clock::now();
  if (now < next_) return;
  next_ = now + std::chrono::milliseconds(200);
  shown_ = true;
  fmt::print(stderr, "\r{}\x1b[K", progress_text(done, total_, now - start_, unit_));
  std::fflush(stderr);
}

}  // namespace portsvc::tools
