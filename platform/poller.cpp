#include "platform/poller.h"

#include <thread>
#include <utility>

namespace portsvc {
namespace {

constexpr std::chrono::milliseconds period(10);
// Turns that are due within this time are taken together, so that many waits that began at
// different moments do not keep the thread busy with waking up.
constexpr std::chrono::microseconds early(500);

}  // namespace

Poller& Poller::instance() {
  static auto* const poller = new Poller;  // never destroyed, see above
  return *poller;
}

Poller::Poller() {
  std::thread([this] { run(); }).detach();
}

void Poller::wait(const std::function<bool()>& step) {
  Waiter waiter(step);
  std::unique_lock<std::mutex> guard(lock_);
  turns_.push_back({Time::now() + period, &waiter});
  if (turns_.size() == 1) arrived_.notify_one();
  waiter.ended.wait(guard, [&] { return waiter.done; });
  if (waiter.failure) std::rethrow_exception(waiter.failure);
}

void Poller::run() {
  std::vector<Waiter*> batch;
  std::unique_lock<std::mutex> guard(lock_);
  for (;;) {
    arrived_.wait(guard, [this] { return !turns_.empty(); });
    const Time::time_point due = turns_.front().due;
    guard.unlock();
    std::this_thread::sleep_until(due);  // whoever arrives meanwhile comes later
    guard.lock();

    const Time::time_point until = Time::now() + early;
    while (!turns_.empty() && turns_.front().due <= until) {
      batch.push_back(turns_.front().waiter);
      turns_.pop_front();
    }
    guard.unlock();
    std::vector<Waiter*> ended;
    for (Waiter*& waiter : batch) {
      if (test(*waiter)) ended.push_back(std::exchange(waiter, nullptr));
    }
    guard.lock();
    const Time::time_point next = Time::now() + period;
    for (Waiter* const waiter : batch) {
      if (waiter) turns_.push_back({next, waiter});
    }
    batch.clear();
    // Under the lock: once it sees the flag, a waiter is gone.
    for (Waiter* const waiter : ended) {
      waiter->done = true;
      waiter->ended.notify_one();
    }
  }
}

// True when the wait is over.
bool Poller::test(Waiter& waiter) {
  try {
    return waiter.step();
  } catch (...) {
    waiter.failure = std::current_exception();
    return true;
  }
}

}  // namespace portsvc
