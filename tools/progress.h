// How far a long transfer has come, on standard error while that is a terminal.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace portsvc::tools {

/// "12.3 MiB of 40.0 MiB  30 %  5.1 MiB/s  0:06 left"; without a total how much and how fast.
/// `unit` is "bytes", which are counted in KiB and MiB, or what else is counted.
std::string progress_text(std::uint64_t done, std::optional<std::uint64_t> total,
                          std::chrono::duration<double> taken, const std::string& unit);

/// Shows nothing for a transfer of less than a second, nor while standard output is the terminal
/// that it would disturb (`prints`). The line goes when this does.
class Progress {
 public:
  Progress(std::string unit, std::optional<std::uint64_t> total, bool prints);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  /// Tells how much has been transferred in all. Cheap: the line is written five times a second.
  void reached(std::uint64_t done);

 private:
  using steady_clock = std::chrono::steady_clock;
  const std::string unit_;
  const std::optional<std::uint64_t> total_;
  const bool visible_;
  const steady_clock::time_point start_ = steady_clock::now();
  steady_clock::time_point next_ = start_ + std::chrono::seconds(1);
  bool shown_ = false;
};

}  // namespace portsvc::tools
