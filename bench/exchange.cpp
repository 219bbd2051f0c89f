// Requests and replies, and events handed to who waits for them: the service beside a condition
// variable on the same broker, Redis and NATS.
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <memory>
#include <optional>
#include <random>
#include <thread>

#include "bench/contender.h"
#include "bench/sections.h"

namespace portsvc::bench {
namespace {

/// A figure of a measurement, and what it is held to.
struct Figure {
  const char* name;
  const char* unit;
  std::optional<Target> beside_servant;  ///< the waking servant
  std::optional<Target> beside_nats;
};

const Target near{1.15};
const std::array<Figure, 4> exchange_figures{{{"p50", "us", near, {}},
                                              {"p99", "us", Target{1.3}, {}},
                                              {"p99.9", "us", {}, {}},
                                              {"rate", "1/s", Target{1 / 1.15, true}, {}}}};
const std::array<Figure, 2> hand_over_figures{
    {{"p50", "us", near, Target{1}}, {"p99", "us", {}, {}}}};

/// For a slice each client sends one request after the other: the figures. The first fifth, in
/// which threads and connections come up, does not count.
std::vector<double> exchange(Side& side, unsigned int owners, unsigned int clients, Taking taking,
                             std::chrono::milliseconds slice) {
  side.begin_requests(owners, clients, taking);
  std::vector<std::vector<double>> times(clients);
  const auto begin = Clock::now() + slice / 5;
  const auto end = Clock::now() + slice;
  in_threads(owners + clients, [&](unsigned int thread) {
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
  if (all.empty()) return exchange(side, owners, clients, taking, slice * 2);  // a busy machine
  return {percentile(all, 0.50) * 1e6, percentile(all, 0.99) * 1e6, percentile(all, 0.999) * 1e6,
          static_cast<double>(all.size()) / std::chrono::duration<double>(end - begin).count()};
}

/// Seconds from the sending of an event until a consumer that waits for it has it, in a slice.
std::vector<double> hand_over(Side& side, bool paused, unsigned int events) {
  side.begin_events(small_payload, 1, events);
  std::atomic<Clock::rep> sent{0};
  std::atomic<unsigned int> taken{0};
  std::vector<double> times;
  in_threads(2, [&](unsigned int thread) {
    if (thread == 0) {
      while (taken < events) {
        side.await_event();
        times.push_back(seconds_since(Clock::time_point(Clock::duration(sent.load()))));
        ++taken;
      }
      return;
    }
    std::mt19937 random(1);
    // Once the consumer certainly waits, and at any moment of a pause if it takes pauses.
    std::uniform_int_distribution<int> phase(300, paused ? 10300 : 1300);
    for (unsigned int i = 0; i < events; ++i) {
      while (taken < i) std::this_thread::sleep_for(std::chrono::microseconds(50));
      std::this_thread::sleep_for(std::chrono::microseconds(phase(random)));
      sent = Clock::now().time_since_epoch().count();
      side.produce(0);
    }
  });
  return {percentile(times, 0.50) * 1e6, percentile(times, 0.99) * 1e6};
}

/// The first contender beside each other one, a row for each figure.
template <class Figures>
void report(const Bench& bench, const Figures& figures,
            const std::vector<const Contender*>& contenders,
            const std::vector<std::vector<double>>& medians, Row row, bool targets) {
  const std::string what = row.what;
  row.payload = size_text(small_payload);
  for (std::size_t k = 0; k < figures.size(); ++k) {
    for (std::size_t i = 1; i < contenders.size(); ++i) {
      const std::string& other = contenders[i]->name;
      row.what = fmt::format("{}, {}", what, figures[k].name);
      row.against = other;
      row.reference = medians[i][k];
      row.value = medians[0][k];
      row.unit = figures[k].unit;
      row.target.reset();
      if (targets && other == waking_servant) row.target = figures[k].beside_servant;
      if (targets && other == nats) row.target = figures[k].beside_nats;
      bench.table.add(row);
    }
  }
}

/// The service early and paused, and what stands beside it. What is not installed is left out.
struct Contenders {
  explicit Contenders(const Bench& bench) {
    for (const char* const waits : server_waits) started.push_back(start_product(bench, waits));
    started.push_back(start_waking_servant(bench));
    const std::size_t of_the_broker = started.size();
    started.push_back(start_redis(bench));
    started.push_back(start_nats(bench));
    for (std::size_t i = 0; i < started.size(); ++i) {
      if (started[i].sides.empty()) continue;
      if (i < of_the_broker) ours.push_back(&started[i]);
      all.push_back(&started[i]);
    }
  }

  std::vector<Contender> started;
  std::vector<const Contender*> ours;  // those that can select
  std::vector<const Contender*> all;
};

}  // namespace

void measure_hand_overs(const Bench& bench) {
  const Contenders contenders(bench);
  pinned_and_free(contenders.all, [&](Row row) {
    row.what = "event to a waiting consumer";
    row.connections = 1;
    const auto medians =
        compare(contenders.all, bench.amount(9U, 1U), [&](Side& side, const Contender& contender) {
          return hand_over(side, contender.paused,
                           bench.amount(contender.paused ? 100U : 400U, 20U));
        });
    report(bench, hand_over_figures, contenders.all, medians, row, true);
  });
}

void measure_exchanges(const Bench& bench) {
  const Contenders contenders(bench);
  const unsigned int rounds = bench.amount(9U, 1U);
  const std::chrono::milliseconds slice(bench.amount(300, 50));

  const auto exchanges = [&](const std::string& what, const std::vector<const Contender*>& sides,
                             unsigned int owners, unsigned int clients, Taking taking,
                             bool targets) {
    pinned_and_free(sides, [&](Row row) {
      row.what = what;
      row.connections = clients;
      const auto medians = compare(sides, rounds, [&](Side& side, const Contender& contender) {
        return exchange(side, owners, clients, taking, contender.paused ? slice * 3 : slice);
      });
      report(bench, exchange_figures, sides, medians, row, targets);
    });
  };
  const unsigned int many = bench.amount(64U, 8U);
  for (const unsigned int pairs : {1U, bench.amount(8U, 4U), many}) {
    exchanges("request and reply", contenders.all, pairs, pairs, Taking::waiting, true);
  }
  // More clients on one port could lose replies: it keeps no more until they are taken.
  exchanges("request and reply, one owner", contenders.all, 1, std::min(many, reply_limit),
            Taking::waiting, false);
  for (const unsigned int pairs : {1U, bench.amount(8U, 4U), many}) {
    exchanges("request and reply, selecting owners", contenders.ours, pairs, pairs,
              Taking::selecting, false);
  }

  std::vector<Contender> proxies;
  for (const char* const waits : server_waits) proxies.push_back(start_proxy(bench, waits));
  std::vector<const Contender*> ways;
  for (const Contender& proxy : proxies) ways.push_back(&proxy);
  ways.push_back(&contenders.started[0]);
  exchanges("request and reply through a sub server", ways, 1, 1, Taking::waiting, false);
}

}  // namespace portsvc::bench
