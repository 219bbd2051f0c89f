// What a server has only so much of.
#pragma once

#include <atomic>
#include <cstdint>
#include <utility>

namespace portsvc {

/// How many of something there may be. Without a limit until the host sets one. Reaching it is
/// logged once, and once more when there is room again: when less than nine tenths are in use.
/// Any thread may use it; no lock is needed or taken.
class alignas(64) Limit {
 public:
  explicit Limit(const char* what) : what_(what) {}

  void set(std::uint64_t most) { most_.store(most, std::memory_order_relaxed); }
  std::uint64_t most() const { return most_.load(std::memory_order_relaxed); }
  /// What take() and count() have counted and give_back() has not.
  std::uint64_t used() const { return used_.load(std::memory_order_relaxed); }
  std::uint64_t refused() const { return refused_.load(std::memory_order_relaxed); }

  /// Counts `count` more, or answers false and counts nothing when that is above the limit.
  bool take(std::uint64_t count = 1) {
    const std::uint64_t used = used_.fetch_add(count, std::memory_order_relaxed) + count;
    if (used <= most()) return true;
    used_.fetch_sub(count, std::memory_order_relaxed);
    refuse(reached_, nullptr);
    return false;
  }
  /// Counts what cannot be refused any more.
  void count(std::uint64_t count) { used_.fetch_add(count, std::memory_order_relaxed); }
  void give_back(std::uint64_t count = 1) {
    const std::uint64_t left = used_.fetch_sub(count, std::memory_order_relaxed) - count;
    if (reached_.load(std::memory_order_relaxed)) relieve(left, reached_, nullptr);
  }

  /// For what is counted elsewhere: whether there may be one more than `used`.
  bool allows(std::uint64_t used) { return allows(used, reached_, nullptr); }
  /// The same where each of several has the limit to itself: `reached` is the state of this one,
  /// `whose` its name.
  bool allows(std::uint64_t used, std::atomic<bool>& reached, const char* whose);

 private:
  void refuse(std::atomic<bool>& reached, const char* whose);
  void relieve(std::uint64_t used, std::atomic<bool>& reached, const char* whose);

  std::atomic<std::uint64_t> used_{0};
  std::atomic<std::uint64_t> most_{UINT64_MAX};
  std::atomic<bool> reached_{false};
  std::atomic<std::uint64_t> refused_{0};
  const char* const what_;
};

struct Limits {
  Limit connections{"connections"};
  Limit blocked_calls{"blocked calls"};
  Limit ports{"ports"};
  Limit clients{"clients"};  ///< of one port
  Limit queued_bytes{"queued bytes"};
};

/// The limits of the process.
Limits& limits();

/// While it lives, what payloads that go on this thread give back is collected, and given back at
/// once when it goes: the count is one word, on which all connections meet. Not for a wait.
class Together {
 public:
  Together() { of_this_thread() = this; }
  ~Together() {
    of_this_thread() = nullptr;
    if (bytes_ != 0) limits().queued_bytes.give_back(bytes_);
  }
  Together(const Together&) = delete;
  Together& operator=(const Together&) = delete;

 private:
  friend class Queued_Bytes;
  static Together*& of_this_thread() {
    thread_local Together* together = nullptr;
    return together;
  }

  std::uint64_t bytes_ = 0;
};

/// A payload's share of the queued bytes, for as long as this lives. Each counts a little more than
/// its bytes, for what surrounds them.
class Queued_Bytes {
 public:
  Queued_Bytes() noexcept = default;
  /// Counts a payload that is already here.
  explicit Queued_Bytes(unsigned int payload) : bytes_(payload + extra) {
    limits().queued_bytes.count(bytes_);
  }
  Queued_Bytes(Queued_Bytes&& other) noexcept : bytes_(std::exchange(other.bytes_, 0)) {}
  Queued_Bytes& operator=(Queued_Bytes&& other) noexcept {
    std::swap(bytes_, other.bytes_);
    return *this;
  }
  ~Queued_Bytes() {
    if (Together* const together = Together::of_this_thread()) {
      together->bytes_ += bytes_;
    } else if (bytes_ != 0) {
      limits().queued_bytes.give_back(bytes_);
    }
  }

  /// Counts a payload that has just come; false when it must be refused.
  bool take(unsigned int payload) {
    if (!limits().queued_bytes.take(payload + extra)) return false;
    bytes_ = payload + extra;
    return true;
  }

  /// The payload's size.
  unsigned int payload() const { return bytes_ == 0 ? 0 : bytes_ - extra; }

 private:
  static constexpr unsigned int extra = 64;

  unsigned int bytes_ = 0;
};

}  // namespace portsvc
