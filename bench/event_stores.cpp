// Events from producers through a store to one consumer: an event box, beside the same in the
// waking servant and a Redis list.
#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <thread>

#include "bench/contender.h"
#include "bench/sections.h"
#include "tests/support/threads.h"

namespace portsvc::bench {
namespace {

constexpr std::size_t most_pending_bytes = 64U << 20;
constexpr std::size_t most_batch_bytes = 16U << 20;
constexpr std::chrono::seconds patience(10);

/// Lets the producers run for the slice and the consumer until it has everything: events a second.
double transfer_rate(Side& store, std::size_t size, unsigned int producers,
                     std::chrono::milliseconds slice) {
  const std::size_t pending = std::clamp<std::size_t>(most_pending_bytes / size, 16, 8192);
  const std::size_t batch = std::clamp<std::size_t>(most_batch_bytes / size, 1, 64);
  // The producers pass the limit by what each has under way.
  store.begin_events(size, producers, pending + producers);
  std::atomic<std::int64_t> produced{0};
  std::atomic<std::int64_t> consumed{0};
  std::atomic<unsigned int> producing{producers};
  double seconds = 0;
  const auto start = Clock::now();

  const auto produce = [&](unsigned int producer) {
    while (Clock::now() - start < slice) {
      if (produced - consumed < static_cast<std::int64_t>(pending)) {
        store.produce(producer);
        ++produced;
      } else {
        std::this_thread::sleep_for(std::chrono::microseconds(200));
      }
    }
    --producing;
  };
  const auto consume = [&] {
    auto last = start;
    while (producing != 0 || consumed < produced) {
      const std::size_t taken = store.consume(batch);
      if (taken != 0) {
        consumed += static_cast<std::int64_t>(taken);
        last = Clock::now();
      } else if (Clock::now() - last > patience) {
        throw std::runtime_error(
            fmt::format("{} of {} events are missing", produced - consumed, produced.load()));
      }
      // A batch that was not full has emptied the store: let the next one fill.
      if (taken < batch) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    seconds = std::chrono::duration<double>(last - start).count();
  };
  const auto consumer = static_cast<int>(producers);
  in_parallel(consumer + 1, [&](int thread) {
    if (thread == consumer) return consume();
    produce(static_cast<unsigned int>(thread));
  });
  return static_cast<double>(consumed) / seconds;
}

}  // namespace

void measure_event_stores(const Bench& bench) {
  Contenders stores = start_both(bench);
  add_redis(bench, stores);
  const auto slice = std::chrono::milliseconds(bench.amount(400, 100));
  for (const std::size_t size : {small_payload, std::size_t{1} << 20}) {
    for (const unsigned int producers : {1U, 8U}) {
      std::unique_ptr<Pinned> pinned;
      if (producers == 1) pinned = std::make_unique<Pinned>(processes_of(stores));
      const unsigned int rounds = bench.amount(size == small_payload ? 12U : 6U, 1U);
      const auto rates = compare(stores, rounds, [&](Side& side) {
        return std::vector<double>{transfer_rate(side, size, producers, slice)};
      });
      for (std::size_t i = 1; i < stores.size(); ++i) {
        Row row;
        row.what = "events to a consumer, rate";
        row.payload = size_text(size);
        row.connections = producers;
        if (pinned) row.processors = Pinned::processors;
        row.against = stores[i].name;
        row.reference = rates[i][0];
        row.value = rates[0][0];
        row.unit = "1/s";
        if (row.against != waking_servant || size == small_payload) row.target = Target{1.0, true};
        bench.table.add(row);
      }
    }
  }
}

}  // namespace portsvc::bench
