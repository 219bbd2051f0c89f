// What blocked callers cost the server and everybody else.
#include <fmt/format.h>
#include <signal.h>

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
  Waited(const Bench& bench, unsigned int callers)
      : callers_(callers),
        server_(bench, fmt::format("waited{}", callers),
                main_server(bench, fmt::format("waited{}", callers))) {
    require_ok(server_->create_port("free", PORT_MASTER, 8));
    if (callers != 0) {
      for (unsigned int i = 0; i < callers; ++i) {
        const std::string port = fmt::format("waited{}", i);
        require_ok(server_->create_port(port.c_str(), PORT_MASTER, 8));
        connect_owner(server_.get(), port);
      }
      holder_ = std::make_unique<Process>(
          Words{own_path(), "blocked-callers", server_.reference(), std::to_string(callers)},
          bench.folder.path(fmt::format("callers{}", callers)));
      // A blocked call holds a thread of the server. Ten thousand take their time on a busy
      // machine: with each connection that comes the broker looks at all it has.
      await(
          *holder_, [&] { return server_.process().threads() > static_cast<int>(callers); },
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
  std::vector<double> p99;    ///< of another client's calls in each round, in seconds

 private:
  const unsigned int callers_;
  const Server server_;
  std::unique_ptr<Process> holder_;
};

/// Processors that a process uses while nobody else does anything.
double cores_of(const Process& process, std::chrono::milliseconds period) {
  const double before = process.cpu_seconds();
  const auto start = Clock::now();
  std::this_thread::sleep_for(period);
  const double used = process.cpu_seconds() - before;  // takes a while beside thousands of threads
  return used / seconds_since(start);
}

double p99_of_another_client(const Server& server, std::chrono::milliseconds period) {
  std::vector<double> times;
  const auto end = Clock::now() + period;
  while (Clock::now() < end) {
    const auto start = Clock::now();
    require_ok(static_cast<CORBA::ULong>(server->exist("free")));
    times.push_back(seconds_since(start));
  }
  return percentile(times, 0.99);
}

}  // namespace

void measure_blocked_callers(const Bench& bench) {
  std::vector<std::unique_ptr<Waited>> crowds;
  for (const unsigned int callers : {0U, compared_callers, 10 * compared_callers}) {
    if (bench.quick && callers > compared_callers) continue;
    crowds.push_back(std::make_unique<Waited>(bench, callers));
  }
  const Process bare({own_path(), "bare-threads", std::to_string(compared_callers)},
                     bench.folder.path("bare"));
  await(
      bare, [&] { return bare.threads() > static_cast<int>(compared_callers); },
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
      crowd->p99.push_back(p99_of_another_client(crowd->server(), period));
      crowd->freeze();
    }
    bare.signal(SIGCONT);
    std::this_thread::sleep_for(settling);
    bare_cores.push_back(cores_of(bare, period));
    bare.signal(SIGSTOP);
  }

  for (std::size_t i = 1; i < crowds.size(); ++i) {
    Row row;
    row.what = fmt::format("processors used for {} blocked callers", crowds[i]->callers());
    row.value = median(crowds[i]->cores);
    row.unit = "cores";
    row.against = i == 1 ? "bare threads" : "1000 of them";
    row.reference = median(i == 1 ? bare_cores : crowds[1]->cores);
    row.target = Target{i == 1 ? 0.12 : 10};
    bench.table.add(row);
  }
  Row row;
  row.what = fmt::format("exist beside {} blocked callers, p99", compared_callers);
  row.connections = 1;
  row.against = "beside none";
  row.reference = median(crowds[0]->p99) * 1e6;
  row.value = median(crowds[1]->p99) * 1e6;
  row.unit = "us";
  row.target = Target{2};
  bench.table.add(row);
}

}  // namespace portsvc::bench
