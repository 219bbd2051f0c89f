// What blocked callers cost the server and everybody else.
#include <fmt/format.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bench/sections.h"

namespace portsvc::bench {
namespace {

constexpr unsigned int compared_callers = 1000;

/// A server with a number of callers that are blocked in it, frozen whenever it is not measured.
class Waited {
 public:
  Waited(const Bench& bench, const std::string& waits, unsigned int callers)
      : callers_(callers),
        server_(bench, fmt::format("waited{}{}", waits, callers),
                main_server(bench, fmt::format("waited{}{}", waits, callers), waits)) {
    require_ok(server_->create_port("free", PORT_MASTER, 8));
    if (callers != 0) {
      std::vector<std::string> command{own_path(), "blocked-callers", server_.reference()};
      for (unsigned int i = 0; i < callers; ++i) {
        const std::string port = fmt::format("waited{}", i);
        require_ok(server_->create_port(port.c_str(), PORT_MASTER, 8));
        command.push_back(std::to_string(connect_owner(server_.get(), port)));
      }
      holder_ = std::make_unique<Process>(
          command, bench.folder.path(fmt::format("callers{}{}", waits, callers)));
      // A blocked call holds a thread of the server. Ten thousand take their time on a busy
      // machine: with each connection that comes the broker looks at all it has.
      wait_until(
          [&] {
            require_alive(*holder_);
            return server_.process().threads() > static_cast<int>(callers);
          },
          std::chrono::seconds(600), "the callers block");
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    freeze();
  }

  void freeze() const {
    if (holder_) holder_->signal(SIGSTOP);
    server_.process().signal(SIGSTOP);
  }
  void thaw() const {
    server_.process().signal(SIGCONT);
    if (holder_) holder_->signal(SIGCONT);
  }

  unsigned int callers() const { return callers_; }
  const Server& server() const { return server_; }

  std::vector<double> cores;  ///< processors that the server used in each round
  std::vector<double> p50;    ///< of another client's calls in each round, in seconds
  std::vector<double> p99;

 private:
  const unsigned int callers_;
  const Server server_;
  std::unique_ptr<Process> holder_;
};

/// Processors that a child uses while nobody else does anything.
double cores_of(const Process& child, std::chrono::milliseconds period) {
  const double before = child.cpu_seconds();
  const auto start = Clock::now();
  std::this_thread::sleep_for(period);
  const double used = child.cpu_seconds() - before;  // takes a while beside thousands of threads
  return used / seconds_since(start);
}

void measure_another_client(Waited& waited, std::chrono::milliseconds period) {
  std::vector<double> times;
  const auto end = Clock::now() + period;
  while (Clock::now() < end) {
    const auto start = Clock::now();
    require_ok(static_cast<CORBA::ULong>(waited.server()->exist("free")));
    times.push_back(seconds_since(start));
  }
  waited.p50.push_back(percentile(times, 0.50));
  waited.p99.push_back(percentile(times, 0.99));
}

void measure_crowds(const Bench& bench, const std::string& waits) {
  std::vector<std::unique_ptr<Waited>> crowds;
  for (const unsigned int callers : {0U, compared_callers, 10 * compared_callers}) {
    if (bench.quick && callers > compared_callers) continue;
    crowds.push_back(std::make_unique<Waited>(bench, waits, callers));
  }
  const Process bare({own_path(), "bare-threads", std::to_string(compared_callers)},
                     bench.folder.path("bare" + waits));
  wait_until([&] { return bare.threads() > static_cast<int>(compared_callers); },
             std::chrono::seconds(20), "the bare threads start");
  bare.signal(SIGSTOP);

  const auto period = std::chrono::milliseconds(bench.amount(1500, 500));
  constexpr std::chrono::milliseconds settling(500);
  std::vector<double> bare_cores;
  for (unsigned int round = 0; round < bench.amount(5U, 1U); ++round) {
    for (const auto& crowd : crowds) {
      crowd->thaw();
      std::this_thread::sleep_for(settling);
      crowd->cores.push_back(cores_of(crowd->server().process(), period));
      measure_another_client(*crowd, period);
      crowd->freeze();
    }
    bare.signal(SIGCONT);
    std::this_thread::sleep_for(settling);
    bare_cores.push_back(cores_of(bare, period));
    bare.signal(SIGSTOP);
  }

  const Waited* alone = nullptr;
  const Waited* compared = nullptr;
  for (const auto& crowd : crowds) {
    if (crowd->callers() == 0) alone = crowd.get();
    if (crowd->callers() == compared_callers) compared = crowd.get();
    const std::string callers = fmt::format("{} blocked callers", crowd->callers());
    Row row;
    row.note = waits;
    row.what = "processors used for " + callers;
    row.value = median(crowd->cores);
    row.unit = "cores";
    if (crowd.get() == compared) {
      row.against = "1000 bare threads";
      row.reference = median(bare_cores);
      row.target = Target{0.12};
    } else if (crowd.get() != alone) {
      row.against = "1000 blocked callers";
      row.reference = median(compared->cores);
      row.target = Target{10};
    }
    bench.table.add(row);
    if (crowd.get() == alone) continue;
    row.connections = 1;
    row.unit = "us";
    row.against = "beside none";
    const auto beside = [&](const char* rank, std::vector<double> Waited::*times) {
      row.what = fmt::format("exist beside {}, {}", callers, rank);
      row.reference = median(alone->*times) * 1e6;
      row.value = median(crowd.get()->*times) * 1e6;
      bench.table.add(row);
    };
    row.target.reset();
    beside("p50", &Waited::p50);
    if (crowd.get() == compared) row.target = Target{2};
    beside("p99", &Waited::p99);
  }
}

}  // namespace

void measure_blocked_callers(const Bench& bench) {
  // One after the other: a system has numbers for some thirty thousand threads.
  for (const char* const waits : server_waits) measure_crowds(bench, waits);
}

}  // namespace portsvc::bench
