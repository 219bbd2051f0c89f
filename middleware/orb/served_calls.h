// The remote calls that this process has served, by operation.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <string_view>
#include <vector>

#include "platform/counters.h"

namespace portsvc::orb {

/// One operation's calls, and how long they took in the server, their waits included.
struct Operation_Calls {
  /// The upper bounds of all groups but the last, in seconds.
  static constexpr std::array<double, 12> bounds{1e-5, 2.5e-5, 5e-5, 1e-4, 2.5e-4, 1e-3,
                                                 5e-3, 2.5e-2, 0.1,  1,    10,     60};

  const char* operation = "";
  std::uint64_t calls = 0;
  double seconds = 0;                                     ///< of all of them together
  std::array<std::uint64_t, bounds.size() + 1> groups{};  ///< calls by how long they took
};

/// Counts the calls. Any thread may use it; no lock is taken.
class Served_Calls {
 public:
  /// The number of an operation of the interface, or of all others together.
  static std::size_t number_of(std::string_view operation);
  /// Whether a call of it may wait for something in the server.
  static bool may_wait(std::size_t operation);

  void count(std::size_t operation, std::chrono::nanoseconds took);
  /// Every operation, also those that nobody has called. Calls that end meanwhile may be missing.
  std::vector<Operation_Calls> read() const;

  /// With "other" as the last.
  static constexpr std::size_t operations = 39;

 private:
  // Two cache lines of its own for each operation and shard.
  struct alignas(128) Tally {
    std::array<std::atomic<std::uint64_t>, Operation_Calls::bounds.size() + 1> groups{};
    std::atomic<std::uint64_t> nanoseconds{0};
  };
  std::array<std::array<Tally, operations>, counter_shards> tallies_;
};

/// Those of the process.
Served_Calls& served_calls();

/// Counts a call of an operation, by its number, when it goes.
class Timed_Call {
 public:
  explicit Timed_Call(std::size_t operation)
      : operation_(operation), start_(std::chrono::steady_clock::now()) {}
  ~Timed_Call() { served_calls().count(operation_, std::chrono::steady_clock::now() - start_); }
  Timed_Call(const Timed_Call&) = delete;
  Timed_Call& operator=(const Timed_Call&) = delete;

 private:
  const std::size_t operation_;
  const std::chrono::steady_clock::time_point start_;
};

}  // namespace portsvc::orb
