// Numbers that the system counts while it works, for whoever reports them.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace portsvc {

/// Calls of different threads count in different places, so that no cache line travels between
/// processors for a count.
constexpr std::size_t counter_shards = 16;

inline std::size_t counter_shard() {
  static std::atomic<std::size_t> threads{0};
  thread_local const std::size_t shard =
      threads.fetch_add(1, std::memory_order_relaxed) % counter_shards;
  return shard;
}

/// Adds to a count that others read. Relaxed: a reader may see it a moment late.
inline void count(std::atomic<std::uint64_t>& counter, std::uint64_t more = 1) {
  counter.fetch_add(more, std::memory_order_relaxed);
}

/// A count that every call raises. Any thread may use it.
class Spread_Counter {
 public:
  void add(std::uint64_t more) { count(shards_[counter_shard()].value, more); }
  std::uint64_t sum() const {
    std::uint64_t sum = 0;
    for (const Shard& shard : shards_) sum += shard.value.load(std::memory_order_relaxed);
    return sum;
  }

 private:
  struct alignas(64) Shard {
    std::atomic<std::uint64_t> value{0};
  };
  std::array<Shard, counter_shards> shards_;
};

/// Payload bytes that calls have brought and taken away, in this process.
struct Traffic {
  Spread_Counter received;
  Spread_Counter sent;
};
inline Traffic& traffic() {
  static Traffic traffic;
  return traffic;
}

/// While it lives, one more waits.
class Waiting {
 public:
  explicit Waiting(std::atomic<unsigned int>& waiting) : waiting_(waiting) {
    waiting_.fetch_add(1, std::memory_order_relaxed);
  }
  ~Waiting() { waiting_.fetch_sub(1, std::memory_order_relaxed); }
  Waiting(const Waiting&) = delete;
  Waiting& operator=(const Waiting&) = delete;

 private:
  std::atomic<unsigned int>& waiting_;
};

}  // namespace portsvc
