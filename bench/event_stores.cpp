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
  in_threads(producers + 1, [&](unsigned int thread) {
    if (thread < producers) {
      produce(thread);
    } else {
      consume();
    }
  });
  return static_cast<double>(consumed) / seconds;
}

/// Sends events that the store keeps, then takes them in full batches, over and over: microseconds
/// per event sent and per batch taken.
std::vector<double> keep_and_drain(Side& store, std::size_t size, std::chrono::milliseconds slice) {
  constexpr unsigned int batch = 64;
  constexpr unsigned int batches = 4;
  store.begin_events(size, 1, std::size_t{batch} * batches);
  double sending = 0;
  double taking = 0;
  unsigned int times = 0;
  for (const auto end = Clock::now() + slice; Clock::now() < end; ++times) {
    const auto start = Clock::now();
    for (unsigned int i = 0; i < batch * batches; ++i) store.produce(0);
    const auto middle = Clock::now();
    for (unsigned int i = 0; i < batches; ++i) {
      if (store.consume(batch) != batch) throw std::runtime_error("not a full batch of events");
    }
    sending += std::chrono::duration<double>(middle - start).count();
    taking += seconds_since(middle);
  }
  return {sending / times / batch / batches * 1e6, taking / times / batches * 1e6};
}

/// The box, and what is set beside it as far as it is installed.
std::vector<Contender> start_stores(const Bench& bench) {
  std::vector<Contender> stores;
  stores.push_back(start_product(bench, server_waits[0]));
  stores.push_back(start_waking_servant(bench));
  stores.push_back(start_redis(bench));
  if (stores.back().sides.empty()) stores.pop_back();
  return stores;
}

std::vector<const Contender*> all_of(const std::vector<Contender>& contenders) {
  std::vector<const Contender*> all;
  for (const Contender& contender : contenders) all.push_back(&contender);
  return all;
}

}  // namespace

void measure_event_stores(const Bench& bench) {
  const std::vector<Contender> stores = start_stores(bench);
  const auto all = all_of(stores);
  const auto slice = std::chrono::milliseconds(bench.amount(400, 100));
  for (const std::size_t size :
       {std::size_t{100}, std::size_t{4} << 10, std::size_t{64} << 10, std::size_t{1} << 20}) {
    for (const unsigned int producers : {1U, 2U, 8U}) {
      std::unique_ptr<Pinned> pinned;
      if (producers == 1) pinned = std::make_unique<Pinned>(processes_of(all));
      const unsigned int rounds = bench.amount(size <= (4U << 10) ? 12U : 6U, 1U);
      const auto rates = compare(all, rounds, [&](Side& side, const Contender&) {
        return std::vector<double>{transfer_rate(side, size, producers, slice)};
      });
      for (std::size_t i = 1; i < all.size(); ++i) {
        Row row;
        row.what = "events through a box to a consumer";
        row.payload = size_text(size);
        row.connections = producers;
        if (pinned) row.processors = pinned->processors();
        row.against = all[i]->name;
        row.reference = rates[i][0];
        row.value = rates[0][0];
        row.unit = "1/s";
        if (all[i]->name != waking_servant || size == 100) row.target = Target{1.0, true};
        bench.table.add(row);
      }
    }
  }
}

void measure_keeping(const Bench& bench) {
  const std::vector<Contender> stores = start_stores(bench);
  const auto all = all_of(stores);
  for (const std::size_t size : {std::size_t{100}, std::size_t{4} << 10, std::size_t{64} << 10}) {
    pinned_and_free(all, [&](Row row) {
      const auto times = compare(all, bench.amount(12U, 1U), [&](Side& side, const Contender&) {
        return keep_and_drain(side, size, std::chrono::milliseconds(bench.amount(300, 50)));
      });
      row.payload = size_text(size);
      row.connections = 1;
      row.unit = "us";
      for (std::size_t k = 0; k < 2; ++k) {
        for (std::size_t i = 1; i < all.size(); ++i) {
          row.what = k == 0 ? "send_event that is kept" : "packet_receive_n, 64 at once";
          row.against = all[i]->name;
          row.reference = times[i][k];
          row.value = times[0][k];
          if (all[i]->name == redis) row.target = Target{1.0};
          bench.table.add(row);
          row.target.reset();
        }
      }
    });
  }
}

}  // namespace portsvc::bench
