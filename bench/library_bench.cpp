// What the library costs without a broker: Google Benchmark, in one process.
//
//   library_bench [--benchmark_filter=REGEX] [--benchmark_format=json] ...
//
// One servant serves all benchmarks; each brings it to the number of ports it needs.
#include <benchmark/benchmark.h>
#include <fmt/format.h>
#include <malloc.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "bench/calls.h"
#include "bench/measure.h"
#include "idl/port_codes.h"
#include "platform/memory.h"
#include "platform/process.h"
#include "ports/buffer_queue.h"
#include "roles/port_factory_main.h"
#include "tests/support/folder.h"

namespace portsvc::bench {
namespace {

template <class Action>
double seconds_of(Action&& action) {
  const auto start = Clock::now();
  action();
  return seconds_since(start);
}

/// Bytes that the program has allocated and not freed.
double allocated_bytes() {
  const auto info = ::mallinfo2();
  return static_cast<double>(info.uordblks) + static_cast<double>(info.hblkhd);
}

/// A main server's servant without a broker, in a state folder of its own.
class Servant : public Port_Factory_Main {
 public:
  Servant() : Port_Factory_Main("bench") {}

  static std::string name(std::size_t index) { return fmt::format("port{:06}", index); }

  /// Creates or deletes packet ports until there are `count`.
  void set_ports(std::size_t count) {
    for (; ports_ < count; ++ports_) {
      require_ok(create_port(name(ports_).c_str(), PORT_MASTER, 8));
    }
    for (; ports_ > count; --ports_) require_ok(delete_port(name(ports_ - 1).c_str()));
  }

 private:
  std::size_t ports_ = 0;
};

std::unique_ptr<PortableServer::Servant_var<Servant>> the_servant;

Servant& servant() {
  if (!the_servant) {
    the_servant = std::make_unique<PortableServer::Servant_var<Servant>>(new Servant);
  }
  return *the_servant->in();
}

/// A port of the servant for as long as one benchmark runs.
class Port {
 public:
  Port(std::string name, unsigned int kind, unsigned int limit) : name_(std::move(name)) {
    require_ok(servant().create_port(name_.c_str(), kind, limit));
  }
  ~Port() { servant().delete_port(name_.c_str()); }
  Port(const Port&) = delete;
  Port& operator=(const Port&) = delete;

  const char* name() const { return name_.c_str(); }

 private:
  const std::string name_;
};

// --- events

/// declare_event to N boxes, each call beside one to a single box. `ratio` compares the two,
/// `ns_per_further_box` is what each box beyond the first adds.
void declare_event(benchmark::State& state) {
  constexpr CORBA::ULong to_one = 1;
  constexpr CORBA::ULong to_all = 2;
  std::vector<std::unique_ptr<Port>> boxes;
  for (std::int64_t i = 0; i < state.range(0); ++i) {
    boxes.push_back(std::make_unique<Port>(fmt::format("box{}", i), PORT_EVENTBOX, 16));
    require_ok(servant().add_event(boxes.back()->name(), to_all));
  }
  require_ok(servant().add_event(boxes.front()->name(), to_one));
  const DATA_BUFFER data = payload(100);
  std::vector<double> singles;
  std::vector<double> alls;
  for (auto _ : state) {
    singles.push_back(seconds_of([&] { require_ok(servant().declare_event(to_one, data, 0)); }));
    alls.push_back(seconds_of([&] { require_ok(servant().declare_event(to_all, data, 0)); }));
    state.SetIterationTime(alls.back());
  }
  const double single = median(singles);
  const double all = median(alls);
  const auto further = static_cast<double>(std::max<std::int64_t>(state.range(0) - 1, 1));
  state.counters["single_ns"] = single * 1e9;
  state.counters["ratio"] = all / single;
  state.counters["ns_per_further_box"] = (all - single) / further * 1e9;
}
BENCHMARK(declare_event)->Arg(1)->Arg(10)->Arg(100)->Arg(1000)->UseManualTime();

// --- registry

/// From no port to N, and back to none.
void create_all_delete_all(benchmark::State& state) {
  const auto total = static_cast<std::size_t>(state.range(0));
  double create = 0;
  double erase = 0;
  servant().set_ports(0);
  for (auto _ : state) {
    create += seconds_of([&] { servant().set_ports(total); });
    erase += seconds_of([&] { servant().set_ports(0); });
  }
  const double ports = static_cast<double>(state.iterations()) * static_cast<double>(total);
  state.counters["create_ns_per_port"] = create / ports * 1e9;
  state.counters["delete_ns_per_port"] = erase / ports * 1e9;
}
BENCHMARK(create_all_delete_all)->Arg(100)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

// --- memory: one round each, the figures are the counters

void memory_of_idle_ports(benchmark::State& state) {
  const auto total = static_cast<std::size_t>(state.range(0));
  for (auto _ : state) {
    servant().set_ports(0);
    return_freed_memory();
    const double resident = static_cast<double>(resident_memory());
    const double allocated = allocated_bytes();
    servant().set_ports(total);
    const auto ports = static_cast<double>(total);
    state.counters["resident_per_port"] =
        (static_cast<double>(resident_memory()) - resident) / ports;
    state.counters["allocated_per_port"] = (allocated_bytes() - allocated) / ports;
    servant().set_ports(0);
  }
}
BENCHMARK(memory_of_idle_ports)->Arg(100000)->Iterations(1)->Unit(benchmark::kMillisecond);

void memory_of_events(benchmark::State& state) {
  const auto total = static_cast<unsigned int>(state.range(0));
  const DATA_BUFFER data = payload(100);
  for (auto _ : state) {
    const Port box("box", PORT_EVENTBOX, total);
    return_freed_memory();
    const double resident = static_cast<double>(resident_memory());
    const double allocated = allocated_bytes();
    for (unsigned int i = 0; i < total; ++i) require_ok(servant().send_event(box.name(), data));
    const double full = static_cast<double>(resident_memory());
    state.counters["resident_per_event"] = (full - resident) / total;
    state.counters["allocated_per_event"] = (allocated_bytes() - allocated) / total;
    require_ok(servant().clear_event(box.name()));
    state.counters["still_allocated"] = allocated_bytes() - allocated;
    state.counters["returned_share"] =
        (full - static_cast<double>(resident_memory())) / (full - resident);
  }
}
BENCHMARK(memory_of_events)->Arg(1000000)->Iterations(1)->Unit(benchmark::kMillisecond);

/// Packets that clients have sent and their owner has not taken.
void memory_of_packets(benchmark::State& state) {
  const auto total = static_cast<unsigned int>(state.range(0));
  const DATA_BUFFER data = payload(100);
  for (auto _ : state) {
    vrPort_Buffer_Queue queue;
    queue.set_limit(total);
    return_freed_memory();
    const double resident = static_cast<double>(resident_memory());
    const double allocated = allocated_bytes();
    for (unsigned int i = 0; i < total; ++i) {
      queue.push(1, vrBuffer(data.length(), data.get_buffer()));
    }
    state.counters["resident_per_packet"] =
        (static_cast<double>(resident_memory()) - resident) / total;
    state.counters["allocated_per_packet"] = (allocated_bytes() - allocated) / total;
  }
}
BENCHMARK(memory_of_packets)->Arg(1000000)->Iterations(1)->Unit(benchmark::kMillisecond);

// --- snapshots

/// Calls exist() without a pause while it lives and keeps the longest time that one took.
class Bystander {
 public:
  Bystander() : thread_([this] { run(); }) {}
  ~Bystander() {
    stop_ = true;
    thread_.join();
  }
  Bystander(const Bystander&) = delete;
  Bystander& operator=(const Bystander&) = delete;

  double longest_ms() const { return longest_.load() * 1e3; }

 private:
  void run() {
    while (!stop_) {
      const double seconds = seconds_of([] { servant().exist("port000000"); });
      if (seconds > longest_) longest_ = seconds;
    }
  }

  std::atomic<bool> stop_{false};
  std::atomic<double> longest_{0};
  std::thread thread_;
};

/// make_snapshot beside a plain write of the same bytes, load_snapshot beside a read: alternating,
/// with another thread calling exist() during each snapshot call. `load` starts without any port.
void snapshot_write_and_load(benchmark::State& state) {
  const auto total = static_cast<std::size_t>(state.range(0));
  const std::string path = servant().get_snap_path();
  const std::string copy = path + ".copy";
  double write = 0;
  double plain_write = 0;
  double load = 0;
  double plain_read = 0;
  double write_stall = 0;
  double load_stall = 0;
  servant().set_ports(total);
  for (auto _ : state) {
    {
      const Bystander bystander;
      write += seconds_of([] { require_ok(servant().make_snapshot()); });
      write_stall = std::max(write_stall, bystander.longest_ms());
    }
    std::string bytes = read_all(path);
    plain_write += seconds_of([&] { write_all(copy, bytes); });
    plain_read += seconds_of([&] { bytes = read_all(copy); });
    servant().set_ports(0);
    {
      const Bystander bystander;
      load += seconds_of([] { require_ok(servant().load_snapshot()); });
      load_stall = std::max(load_stall, bystander.longest_ms());
    }
    servant().set_ports(total);  // they are there: this only brings the count into step
  }
  const auto rounds = static_cast<double>(state.iterations());
  state.counters["write_ms"] = write / rounds * 1e3;
  state.counters["write_to_plain"] = write / plain_write;
  state.counters["write_stall_ms"] = write_stall;
  state.counters["load_ms"] = load / rounds * 1e3;
  state.counters["load_to_plain"] = load / plain_read;
  state.counters["load_stall_ms"] = load_stall;
  std::filesystem::remove(copy);
}
BENCHMARK(snapshot_write_and_load)
    ->Arg(10000)
    ->Arg(100000)
    ->Iterations(5)
    ->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace portsvc::bench

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;

  const portsvc::TemporaryFolder folder;
  portsvc::set_state_folder(folder.path());
  int status = 0;
  try {
    benchmark::RunSpecifiedBenchmarks();
  } catch (const std::exception& error) {
    fmt::print(stderr, "library_bench: {}\n", error.what());
    status = 1;
  }
  portsvc::bench::the_servant.reset();
  benchmark::Shutdown();
  return status;
}
