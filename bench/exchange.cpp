// Requests and replies, and events handed to who waits for them: the service beside a condition
// variable on the same broker, and NATS.
#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <optional>
#include <random>
#include <thread>
#include <utility>

#include "bench/contender.h"
#include "bench/sections.h"
#include "tests/support/threads.h"

namespace portsvc::bench {
namespace {

/// A figure of a measurement, and what it is held to.
struct Figure {
  const char* name;
  const char* unit;
  std::optional<Target> beside_servant;  ///< the waking servant
  std::optional<Target> beside_nats;
};
using Figures = std::vector<Figure>;

const Target near{1.15};
const Figures exchange_figures{{"p50", "us", near, {}},
                               {"p99", "us", Target{1.3}, {}},
                               {"rate", "1/s", Target{1 / 1.15, true}, {}}};
const Figures hand_over_figures{{"p50", "us", near, Target{1}}};

/// For a slice each client sends one request after the other: the figures. The first fifth, in
/// which threads and connections come up, does not count.
std::vector<double> exchange(Side& side, unsigned int owners, unsigned int clients,
                             std::chrono::milliseconds slice) {
  side.begin_requests(owners, clients);
  std::vector<std::vector<double>> times(clients);
  const auto begin = Clock::now() + slice / 5;
  const auto end = Clock::now() + slice;
  in_parallel(static_cast<int>(owners + clients), [&](int number) {
    const auto thread = static_cast<unsigned int>(number);
    if (thread < owners) {
      for (unsigned int left = clients / owners; left != 0;) left -= side.serve(thread) ? 1 : 0;
      return;
    }
    const unsigned int client = thread - owners;
    for (bool last = false; !last;) {
      const auto sent = Clock::now();
      last = sent >= end;
      side.request(client, last);
      const auto replied = Clock::now();
      if (replied < begin || replied >= end) continue;
      times[client].push_back(std::chrono::duration<double>(replied - sent).count());
    }
  });
  std::vector<double> all;
  for (const auto& some : times) all.insert(all.end(), some.begin(), some.end());
  if (all.empty()) return exchange(side, owners, clients, slice * 2);  // a busy machine
  return {percentile(all, 0.50) * 1e6, percentile(all, 0.99) * 1e6,
          static_cast<double>(all.size()) / std::chrono::duration<double>(end - begin).count()};
}

/// Microseconds from the sending of an event until a consumer that waits for it has it, in a slice.
std::vector<double> hand_over(Side& side, unsigned int events) {
  side.begin_events(small_payload, 1, events);
  std::atomic<Clock::rep> sent{0};
  std::atomic<unsigned int> taken{0};
  std::vector<double> times;
  in_parallel(2, [&](int thread) {
    if (thread == 0) {
      while (taken < events) {
        side.await_event();
        times.push_back(seconds_since(Clock::time_point(Clock::duration(sent.load()))));
        ++taken;
      }
      return;
    }
    std::mt19937 random(1);
    // Once the consumer certainly waits.
    std::uniform_int_distribution<int> phase(300, 1300);
    for (unsigned int i = 0; i < events; ++i) {
      while (taken < i) std::this_thread::sleep_for(std::chrono::microseconds(50));
      std::this_thread::sleep_for(std::chrono::microseconds(phase(random)));
      sent = Clock::now().time_since_epoch().count();
      side.produce(0);
    }
  });
  return {percentile(times, 0.50) * 1e6};
}

/// The first contender beside each other one, pinned and free, a row for each figure.
template <class Measure>
void report(const Bench& bench, const Figures& figures, const Contenders& contenders,
            const std::string& what, unsigned int connections, bool targets, Measure&& measure) {
  pinned_and_free(contenders, [&](Row row) {
    const auto medians = compare(contenders, bench.amount(9U, 1U), measure);
    row.payload = size_text(small_payload);
    row.connections = connections;
    for (std::size_t k = 0; k < figures.size(); ++k) {
      for (std::size_t i = 1; i < contenders.size(); ++i) {
        row.what = fmt::format("{}, {}", what, figures[k].name);
        row.against = contenders[i].name;
        row.reference = medians[i][k];
        row.value = medians[0][k];
        row.unit = figures[k].unit;
        row.target.reset();
        if (targets && row.against == waking_servant) row.target = figures[k].beside_servant;
        if (targets && row.against == nats) row.target = figures[k].beside_nats;
        bench.table.add(row);
      }
    }
  });
}

}  // namespace

void measure_hand_overs(const Bench& bench) {
  Contenders contenders = start_both(bench);
  add_nats(bench, contenders);
  report(bench, hand_over_figures, contenders, "event to a waiting consumer", 1, true,
         [&](Side& side) { return hand_over(side, bench.amount(400U, 20U)); });
}

void measure_exchanges(const Bench& bench) {
  Contenders contenders = start_both(bench);
  add_nats(bench, contenders);
  const std::chrono::milliseconds slice(bench.amount(300, 50));
  const auto exchanges = [&](const std::string& what, unsigned int owners, unsigned int clients,
                             bool targets) {
    report(bench, exchange_figures, contenders, what, clients, targets,
           [&](Side& side) { return exchange(side, owners, clients, slice); });
  };
  const unsigned int many = bench.amount(64U, 8U);
  for (const unsigned int pairs : {1U, bench.amount(8U, 4U), many}) {
    exchanges("request and reply", pairs, pairs, true);
  }
  // More clients on one port could lose replies: it keeps no more until they are taken.
  const unsigned int clients = std::min(many, reply_limit);
  exchanges(fmt::format("request and reply, {} clients of one owner", clients), 1, clients, false);

  Contender directly = std::move(contenders[0]);
  directly.name = "directly";
  contenders.clear();
  contenders.push_back(start_proxy(bench));
  contenders.push_back(std::move(directly));
  exchanges("request and reply through a sub server", 1, 1, false);
}

}  // namespace portsvc::bench
