// What the library costs without a broker: Google Benchmark, in one process.
//
//   library_bench [--benchmark_filter=REGEX] [--benchmark_format=json] ...
//
// One servant serves all benchmarks; each brings it to the number of ports it needs.
#include <benchmark/benchmark.h>
#include <fmt/format.h>
#include <malloc.h>
#include <stdlib.h>

#include <algorithm>
#include <atomic>
#include <boost/make_shared.hpp>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "bench/calls.h"
#include "bench/measure.h"
#include "idl/port_codes.h"
#include "persistence/snapshot_file.h"
#include "platform/memory.h"
#include "platform/process.h"
#include "ports/buffer.h"
#include "ports/buffer_queue.h"
#include "ports/event_box.h"
#include "roles/port_factory_main.h"

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

  using Port_Factory_i::find_port;
  using Port_Factory_i::get_port;

  static std::string name(std::size_t index) { return fmt::format("port{:06}", index); }

  /// Creates or deletes packet ports until there are `count`.
  void set_ports(std::size_t count) {
    for (; ports_ < count; ++ports_) {
      require_ok(create_port(name(ports_).c_str(), PORT_MASTER, 8));
    }
    for (; ports_ > count; --ports_) require_ok(delete_port(name(ports_ - 1).c_str()));
  }

  /// A new client of a port.
  CORBA::ULong connect_client(const std::string& port) {
    CORBA::ULong handle = 0;
    CORBA::ULong owner = 0;
    require_ok(connect_port(port.c_str(), handle, CONNECT_CLIENT, ACCESS_WAIT, owner));
    return handle;
  }

  /// The owner of a port; the id by which it takes.
  CORBA::ULong connect_owner(const std::string& port) {
    CORBA::ULong id = 0;
    CORBA::ULong owner = 0;
    require_ok(connect_port(port.c_str(), id, CONNECT_OWNER, ACCESS_WAIT, owner));
    return id;
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

const std::vector<std::int64_t> payload_sizes{100, 4 << 10, 64 << 10, 1 << 20};
const std::vector<std::int64_t> port_counts{10, 1000, 100000};

// --- buffers and queues

void buffer_copy(benchmark::State& state) {
  const std::vector<unsigned char> bytes(static_cast<std::size_t>(state.range(0)), 'x');
  const vrBuffer source(static_cast<unsigned int>(bytes.size()), bytes.data());
  for (auto _ : state) {
    vrBuffer copy(source);
    benchmark::DoNotOptimize(copy.data());
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(buffer_copy)->ArgsProduct({payload_sizes});

/// A packet goes into the queue and out again, moved both ways, behind others that stay in it.
void queue_push_pop(benchmark::State& state) {
  vrPort_Buffer_Queue queue;
  queue.set_limit(1000);
  const auto others = static_cast<unsigned int>(state.range(0));
  for (unsigned int i = 0; i < others; ++i) queue.push_back(vrPort_Buffer(i + 1, 1, "x"));
  vrPort_Buffer packet(1000, 100, std::string(100, 'x').data());
  for (auto _ : state) {
    queue.push_back(std::move(packet));
    require_ok(queue.pop(1000, packet));
  }
}
BENCHMARK(queue_push_pop)->Arg(0)->Arg(31);

// --- events

void box_push_take(benchmark::State& state) {
  const Port box("box", PORT_EVENTBOX, 1000);
  const auto port = servant().get_port(box.name());
  auto& events = dynamic_cast<vrEventBox&>(*port);
  const auto batch = static_cast<unsigned int>(state.range(0));
  const auto event = boost::make_shared<vrPort_Buffer>(0, 100, std::string(100, 'x').data());
  std::vector<Event_ptr> taken;
  for (auto _ : state) {
    for (unsigned int i = 0; i < batch; ++i) events.push_event(event);
    taken.clear();
    require_ok(events.take_events(taken, batch, 0));
  }
  state.SetItemsProcessed(state.iterations() * batch);
}
BENCHMARK(box_push_take)->Arg(1)->Arg(64);

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
  const auto median = [](std::vector<double>& values) {
    std::nth_element(values.begin(), values.begin() + values.size() / 2, values.end());
    return values[values.size() / 2];
  };
  const double single = median(singles);
  const double all = median(alls);
  const auto further = static_cast<double>(std::max<std::int64_t>(state.range(0) - 1, 1));
  state.counters["single_ns"] = single * 1e9;
  state.counters["ratio"] = all / single;
  state.counters["ns_per_further_box"] = (all - single) / further * 1e9;
}
BENCHMARK(declare_event)->Arg(1)->Arg(10)->Arg(100)->Arg(1000)->UseManualTime();

void box_fill_and_drain(benchmark::State& state) {
  const auto total = static_cast<unsigned int>(state.range(0));
  const Port box("box", PORT_EVENTBOX, total);
  const CORBA::ULong id = servant().connect_owner(box.name());
  const DATA_BUFFER data = payload(100);
  double fill = 0;
  double drain = 0;
  for (auto _ : state) {
    fill += seconds_of([&] {
      for (unsigned int i = 0; i < total; ++i) require_ok(servant().send_event(box.name(), data));
    });
    drain += seconds_of([&] {
      for (unsigned int left = total; left != 0;) {
        DATA_BUFFER_SEQ* out = nullptr;
        require_ok(servant().packet_receive_n(id, out, 64, 0));
        const std::unique_ptr<DATA_BUFFER_SEQ> list(out);
        left -= list->length();
      }
    });
  }
  const double events = static_cast<double>(state.iterations()) * total;
  state.counters["fill_ns_per_event"] = fill / events * 1e9;
  state.counters["drain_ns_per_event"] = drain / events * 1e9;
}
BENCHMARK(box_fill_and_drain)->Arg(1000)->Arg(1000000)->Unit(benchmark::kMillisecond);

// --- lookups and registry

void find_port_by_name(benchmark::State& state) {
  servant().set_ports(static_cast<std::size_t>(state.range(0)));
  const std::string name = Servant::name(static_cast<std::size_t>(state.range(0)) / 2);
  for (auto _ : state) require_ok(static_cast<CORBA::ULong>(servant().exist(name.c_str())));
}
BENCHMARK(find_port_by_name)->ArgsProduct({port_counts});

void find_port_by_client(benchmark::State& state) {
  servant().set_ports(static_cast<std::size_t>(state.range(0)));
  const std::string name = Servant::name(static_cast<std::size_t>(state.range(0)) / 2);
  const CORBA::ULong handle = servant().connect_client(name);
  for (auto _ : state) benchmark::DoNotOptimize(servant().find_port(handle));
  require_ok(servant().disconnect_port(handle));
}
BENCHMARK(find_port_by_client)->ArgsProduct({port_counts});

/// A reply to one of many clients of a port, and its taking.
void reply_among_handles(benchmark::State& state) {
  servant().set_ports(10);
  const Port port("popular", PORT_MASTER, 8);
  std::vector<CORBA::ULong> handles;
  for (std::int64_t i = 0; i < state.range(0); ++i) {
    handles.push_back(servant().connect_client(port.name()));
  }
  const DATA_BUFFER data = payload(100);
  std::size_t next = 0;
  for (auto _ : state) {
    const CORBA::ULong handle = handles[next];
    next = (next + 7919) % handles.size();
    require_ok(servant().packet_replay(handle, data, 0));
    DATA_BUFFER* out = nullptr;
    require_ok(servant().packet_replay_wait(handle, out, 1));
    delete out;
  }
}
BENCHMARK(reply_among_handles)->Arg(10)->Arg(10000);

/// One more port beside N: the pair of calls that makes it and takes it away.
void create_and_delete(benchmark::State& state) {
  servant().set_ports(static_cast<std::size_t>(state.range(0)));
  const std::string name = Servant::name(static_cast<std::size_t>(state.range(0)) / 2) + "+";
  for (auto _ : state) {
    require_ok(servant().create_port(name.c_str(), PORT_MASTER, 8));
    require_ok(servant().delete_port(name.c_str()));
  }
}
BENCHMARK(create_and_delete)->Arg(100)->Arg(10000)->Arg(100000);

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

double plain_write(const std::string& path, const std::string& bytes) {
  return seconds_of([&] {
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "w+b"),
                                                               &std::fclose);
    if (!file || std::fwrite(bytes.data(), 1, bytes.size(), file.get()) != bytes.size()) {
      throw std::runtime_error("cannot write " + path);
    }
  });
}

double plain_read(const std::string& path) {
  return seconds_of([&] {
    std::string bytes;
    if (!snapshot::read_file(path.c_str(), "rb", bytes)) {
      throw std::runtime_error("cannot read " + path);
    }
    benchmark::DoNotOptimize(bytes.data());
  });
}

/// make_snapshot beside an fwrite of the same bytes, load_snapshot beside an fread: alternating,
/// with another thread calling exist() during each snapshot call. `load` starts without any port.
void snapshot_write_and_load(benchmark::State& state) {
  const auto total = static_cast<std::size_t>(state.range(0));
  const std::string path = servant().get_snap_path();
  const std::string copy = path + ".copy";
  double write = 0;
  double fwrite = 0;
  double load = 0;
  double fread = 0;
  double write_stall = 0;
  double load_stall = 0;
  servant().set_ports(total);
  for (auto _ : state) {
    {
      const Bystander bystander;
      write += seconds_of([] { require_ok(servant().make_snapshot()); });
      write_stall = std::max(write_stall, bystander.longest_ms());
    }
    std::string bytes;
    if (!snapshot::read_file(path.c_str(), "rb", bytes)) throw std::runtime_error("no snapshot");
    fwrite += plain_write(copy, bytes);
    fread += plain_read(copy);
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
  state.counters["write_to_fwrite"] = write / fwrite;
  state.counters["write_stall_ms"] = write_stall;
  state.counters["load_ms"] = load / rounds * 1e3;
  state.counters["load_to_fread"] = load / fread;
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

  std::string folder = (std::filesystem::temp_directory_path() / "library_bench.XXXXXX").string();
  if (!::mkdtemp(folder.data())) {
    std::perror("library_bench: cannot make a temporary folder");
    return 1;
  }
  portsvc::set_state_folder(folder);
  int status = 0;
  try {
    benchmark::RunSpecifiedBenchmarks();
  } catch (const std::exception& error) {
    fmt::print(stderr, "library_bench: {}\n", error.what());
    status = 1;
  }
  portsvc::bench::the_servant.reset();
  std::filesystem::remove_all(folder);
  benchmark::Shutdown();
  return status;
}
