// The waits: what blocked callers cost the server and everybody else, and how soon each wait of a
// request and its reply ends.
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "bench/sections.h"
#include "platform/wait.h"

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
      std::vector<std::string> command{own_path(), "blocked-callers", server_.reference()};
      for (unsigned int i = 0; i < callers; ++i) {
        const std::string port = fmt::format("waited{}", i);
        require_ok(server_->create_port(port.c_str(), PORT_MASTER, 8));
        command.push_back(std::to_string(connect_owner(server_.get(), port)));
      }
      holder_ = std::make_unique<Child>(command,
                                        bench.folder.file(fmt::format("callers{}.log", callers)));
      // A blocked call holds a thread of the server.
      wait_until(
          [&] {
            holder_->require_alive();
            return server_.process().threads() > callers;
          },
          std::chrono::seconds(120), "the callers block");
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    freeze();
  }

  void freeze() const {
    if (holder_) holder_->freeze();
    server_.process().freeze();
  }
  void thaw() const {
    server_.process().thaw();
    if (holder_) holder_->thaw();
  }

  unsigned int callers() const { return callers_; }
  const Server& server() const { return server_; }

  std::vector<double> cores;  ///< processors that the server used in each round
  std::vector<double> p50;    ///< of another client's calls in each round, in seconds
  std::vector<double> p99;

 private:
  const unsigned int callers_;
  const Server server_;
  std::unique_ptr<Child> holder_;
};

/// Processors that a child uses while nobody else does anything.
double cores_of(const Child& child, std::chrono::milliseconds period) {
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

/// Hands the number of the exchange from the client to the owner, and back.
class Turn {
 public:
  void pass() {
    const std::lock_guard<std::mutex> guard(lock_);
    ++turn_;
    changed_.notify_all();
  }
  void await(unsigned int turn) {
    std::unique_lock<std::mutex> guard(lock_);
    changed_.wait(guard, [&] { return turn_ >= turn; });
  }

 private:
  std::mutex lock_;  ///< guards turn_
  std::condition_variable changed_;
  unsigned int turn_ = 0;
};

}  // namespace

void measure_blocked_callers(const Bench& bench) {
  std::vector<std::unique_ptr<Waited>> crowds;
  for (const unsigned int callers : {0U, 100U, compared_callers, 3000U}) {
    crowds.push_back(std::make_unique<Waited>(bench, callers));
  }
  const Child bare({own_path(), "bare-threads", std::to_string(compared_callers)},
                   bench.folder.file("bare.log"));
  wait_until([&] { return bare.threads() > compared_callers; }, std::chrono::seconds(20),
             "the bare threads start");
  bare.freeze();

  const auto period = std::chrono::milliseconds(bench.amount(1500, 500));
  constexpr std::chrono::milliseconds settling(200);
  std::vector<double> bare_cores;
  for (unsigned int round = 0; round < bench.amount(5U, 1U); ++round) {
    for (const auto& crowd : crowds) {
      crowd->thaw();
      std::this_thread::sleep_for(settling);
      crowd->cores.push_back(cores_of(crowd->server().process(), period));
      measure_another_client(*crowd, period);
      crowd->freeze();
    }
    bare.thaw();
    std::this_thread::sleep_for(settling);
    bare_cores.push_back(cores_of(bare, period));
    bare.freeze();
  }

  for (const auto& crowd : crowds) {
    Row row;
    row.what = fmt::format("processors used for {} blocked callers", crowd->callers());
    row.value = median(crowd->cores);
    row.unit = "cores";
    if (crowd->callers() == compared_callers) {
      row.against = "1000 bare threads";
      row.reference = median(bare_cores);
      row.target = Target{1.3};
    }
    bench.table.add(row);
  }
  const auto report = [&](const char* rank, std::vector<double> Waited::*times) {
    const double alone = median(crowds.front().get()->*times) * 1e6;
    for (const auto& crowd : crowds) {
      Row row;
      row.what = fmt::format("exist beside {} blocked callers, {}", crowd->callers(), rank);
      row.connections = 1;
      row.value = median(crowd.get()->*times) * 1e6;
      row.unit = "us";
      if (crowd->callers() != 0) {
        row.against = "beside none";
        row.reference = alone;
      }
      if (crowd->callers() == compared_callers && times == &Waited::p99) row.target = Target{3};
      bench.table.add(row);
    }
  };
  report("p50", &Waited::p50);
  report("p99", &Waited::p99);
}

void measure_request_and_reply(const Bench& bench) {
  const Server server(bench, "exchange", main_server(bench, "exchange"));
  require_ok(server->create_port("p", PORT_MASTER, 8));
  const CORBA::ULong id = connect_owner(server.get(), "p");
  const CORBA::ULong client = connect_client(server.get(), "p");
  const DATA_BUFFER data = payload(100);
  const unsigned int exchanges = bench.amount(400U, 40U);

  // What happened when, in the exchange under way. The client reads the owner's times after its
  // turn.
  Clock::time_point take_began;
  Clock::time_point taken;
  Clock::time_point replied;
  Turn owner_turn;
  Turn client_turn;
  std::vector<double> whole;
  std::vector<double> take;
  std::vector<double> reply;
  std::vector<double> admission;

  in_threads(2, [&](unsigned int thread) {
    if (thread == 0) {
      for (unsigned int i = 1; i <= exchanges; ++i) {
        owner_turn.await(i);
        CORBA::ULong source = 0;
        Varo::DATA_BUFFER_var packet;
        take_began = Clock::now();
        require_ok(server->packet_receive(id, source, packet.out(), 30));
        taken = Clock::now();
        require_ok(server->packet_replay(source, data, 0));
        replied = Clock::now();
        client_turn.pass();
      }
      return;
    }
    std::mt19937 random(1);
    // Microseconds: any moment of two pauses, once the other's call has certainly begun.
    std::uniform_int_distribution<int> phase(2000, 22000);
    for (unsigned int i = 1; i <= exchanges; ++i) {
      // Sometimes the owner takes first and sometimes the client sends first, at any moment of the
      // other's pause.
      const bool owner_first = i % 2 == 0;
      if (owner_first) {
        owner_turn.pass();
        std::this_thread::sleep_for(std::chrono::microseconds(phase(random)));
      }
      std::thread late_owner;
      if (!owner_first) {
        late_owner = std::thread([&, delay = phase(random)] {
          std::this_thread::sleep_for(std::chrono::microseconds(delay));
          owner_turn.pass();
        });
      }
      const auto sent = Clock::now();
      require_ok(server->packet_foward(client, data, 30));
      const auto admitted = Clock::now();
      Varo::DATA_BUFFER_var answer;
      require_ok(server->packet_replay_wait(client, answer.out(), 30));
      const auto end = Clock::now();
      if (late_owner.joinable()) late_owner.join();
      client_turn.await(i);

      const auto milliseconds = [](Clock::duration time) {
        return std::chrono::duration<double, std::milli>(time).count();
      };
      if (owner_first) whole.push_back(milliseconds(end - sent));
      admission.push_back(milliseconds(admitted - std::max(sent, take_began)));
      take.push_back(milliseconds(taken - admitted));
      reply.push_back(milliseconds(end - std::max(replied, admitted)));
    }
  });

  const double pause = polling_pause.msec();
  const auto report = [&](const std::string& what, std::vector<double>& times, double pauses) {
    for (const auto& [rank, name] : {std::pair{0.50, "p50"}, std::pair{0.99, "p99"}}) {
      Row row;
      row.what = what + ", " + name;
      row.payload = size_text(data.length());
      row.connections = 2;
      row.against = pauses == 1 ? "one pause" : fmt::format("{} pauses", pauses);
      row.reference = pause * pauses;
      row.value = percentile(times, rank);
      row.unit = "ms";
      if (rank > 0.9) row.target = Target{1.1};
      bench.table.add(row);
    }
  };
  report("packet_foward ends after the owner takes", admission, 1);
  report("packet_receive ends after the packet is in", take, 1);
  report("packet_replay_wait ends after the reply is in", reply, 1);
  report("request and reply to a taking owner", whole, 2);
}

}  // namespace portsvc::bench
