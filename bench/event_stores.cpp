// Events a second from producers through a store to one consumer: an event box, beside a Redis list
// and an omniEvents push channel with the same payloads and connections.
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <thread>
#include <utility>

#include "bench/event_store.h"
#include "bench/sections.h"

namespace portsvc::bench {
namespace {

constexpr std::size_t most_pending_bytes = 64U << 20;
constexpr std::size_t most_batch_bytes = 16U << 20;
constexpr std::chrono::seconds patience(10);

/// An event box: send_event, and packet_receive_n without waiting.
class BoxStore : public EventStore {
 public:
  explicit BoxStore(const Bench& bench) : server_(bench, "store", main_server(bench, "store")) {}

  std::string name() const override { return "event box"; }
  const Child& process() const override { return server_.process(); }

  void begin(std::size_t size, unsigned int, std::size_t pending) override {
    data_ = payload(size);
    require_ok(server_->delete_port("box"));
    require_ok(server_->create_port("box", PORT_EVENTBOX, static_cast<CORBA::ULong>(pending)));
    id_ = connect_owner(server_.get(), "box");
  }

  void produce(unsigned int) override { require_ok(server_->send_event("box", data_)); }

  std::size_t consume(std::size_t batch) override {
    Varo::DATA_BUFFER_SEQ_var events;
    const CORBA::ULong code =
        server_->packet_receive_n(id_, events.out(), static_cast<CORBA::ULong>(batch), 0);
    if (code == result::timed_out) return 0;
    require_ok(code);
    return events->length();
  }

 private:
  const Server server_;
  DATA_BUFFER data_;
  CORBA::ULong id_ = 0;
};

/// Does something when its scope ends, however that happens.
template <class Action>
class ScopeEnd {
 public:
  explicit ScopeEnd(Action action) : action_(std::move(action)) {}
  ~ScopeEnd() { action_(); }
  ScopeEnd(const ScopeEnd&) = delete;
  ScopeEnd& operator=(const ScopeEnd&) = delete;

 private:
  Action action_;
};

/// Lets the producers run for the slice and the consumer until it has everything: events a second.
double transfer_rate(EventStore& store, std::size_t size, unsigned int producers,
                     std::chrono::milliseconds slice) {
  const std::size_t pending = std::clamp<std::size_t>(most_pending_bytes / size, 16, 8192);
  const std::size_t batch = std::clamp<std::size_t>(most_batch_bytes / size, 1, 64);
  // The producers pass the limit by what each has under way.
  store.begin(size, producers, pending + producers);
  std::atomic<std::int64_t> produced{0};
  std::atomic<std::int64_t> consumed{0};
  std::atomic<unsigned int> producing{producers};
  double seconds = 0;
  const auto start = Clock::now();

  const auto produce = [&](unsigned int producer) {
    const ScopeEnd end([&] { --producing; });
    while (Clock::now() - start < slice) {
      if (produced - consumed < static_cast<std::int64_t>(pending)) {
        store.produce(producer);
        ++produced;
      } else {
        std::this_thread::sleep_for(std::chrono::microseconds(200));
      }
    }
  };
  const auto consume = [&] {
    auto last = start;
    while (producing != 0 || consumed < produced) {
      const std::size_t taken = store.consume(batch);
      if (taken != 0) {
        consumed += static_cast<std::int64_t>(taken);
        last = Clock::now();
      } else if (Clock::now() - last > patience) {
        throw std::runtime_error(fmt::format("{}: {} of {} events are missing", store.name(),
                                             produced - consumed, produced.load()));
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

}  // namespace

void measure_event_stores(const Bench& bench) {
  BoxStore box(bench);
  struct Other {
    const char* name;
    std::unique_ptr<EventStore> store;
    double bound;
  };
  std::array<Other, 2> others{{{"Redis list", start_redis(bench), 1.0},
                               {"omniEvents channel", start_event_channel(bench), 1.0}}};
  const auto slice = std::chrono::milliseconds(bench.amount(400, 100));

  for (const std::size_t size :
       {std::size_t{100}, std::size_t{4} << 10, std::size_t{64} << 10, std::size_t{1} << 20}) {
    for (const unsigned int producers : {1U, 2U, 8U}) {
      std::vector<EventStore*> stores{&box};
      for (const Other& other : others) {
        if (other.store) stores.push_back(other.store.get());
      }
      std::vector<const Child*> processes;
      std::vector<std::function<double()>> measurements;
      for (EventStore* store : stores) {
        processes.push_back(&store->process());
        measurements.emplace_back([=] { return transfer_rate(*store, size, producers, slice); });
      }
      std::unique_ptr<Pinned> pinned;
      if (producers == 1) pinned = std::make_unique<Pinned>(processes);
      const unsigned int rounds = bench.amount(size <= (4U << 10) ? 11U : 5U, 1U);
      const std::vector<double> rates = alternate(measurements, rounds);

      Row row;
      row.what = "events through a box to a consumer";
      row.payload = size_text(size);
      row.connections = producers;
      if (pinned) row.processors = pinned->processors();
      row.value = rates[0];
      row.unit = "1/s";
      row.target = Target{1.0, true};
      std::size_t measured = 1;
      for (const Other& other : others) {
        row.against = other.name;
        row.reference.reset();
        row.note = "not installed";
        if (other.store) {
          row.reference = rates[measured++];
          row.note.clear();
        }
        bench.table.add(row);
      }
    }
  }
}

}  // namespace portsvc::bench
