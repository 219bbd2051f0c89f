// Sub servers: the cloning of a main server's ports, and the copies of a main server's events.
#include <fmt/format.h>

#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bench/sections.h"
#include "middleware/directory.h"
#include "platform/process.h"
#include "roles/port_factory_main.h"
#include "roles/port_factory_sub.h"

namespace portsvc::bench {
namespace {

/// A directory file with one entry per server.
class DirectoryFile {
 public:
  DirectoryFile(const Bench& bench, const std::string& name) : path_(bench.folder.path(name)) {}

  void add(const std::string& server, const char* role, const std::string& reference) {
    std::ofstream(path_, std::ios::app)
        << fmt::format("[{}]\nrole = {}\nreference = {}\n", server, role, reference);
  }
  const std::string& path() const { return path_; }

 private:
  const std::string path_;
};

/// Puts a directory in use for the servants of this process.
class UseOfDirectory {
 public:
  UseOfDirectory(const Bench& bench, const DirectoryFile& file) {
    use_directory(open_file_directory(bench.broker, file.path()), "");
  }
  ~UseOfDirectory() { use_directory(nullptr, ""); }
  UseOfDirectory(const UseOfDirectory&) = delete;
  UseOfDirectory& operator=(const UseOfDirectory&) = delete;
};

void measure_cloning(const Bench& bench) {
  const unsigned int ports = 10000;
  const Server main(bench, "cloned", main_server(bench, "cloned"));
  for (unsigned int i = 0; i < ports; ++i) {
    require_ok(main->create_port(fmt::format("port{:06}", i).c_str(), PORT_MASTER, 8));
  }
  const Server empty(bench, "empty-cloned", empty_server());
  DirectoryFile file(bench, "cloned.ini");
  file.add("main", role_main, main.reference());
  const UseOfDirectory use(bench, file);
  set_state_folder(bench.folder.path("state"));

  const Pinned pinned({&main.process(), &empty.process()});
  const Work empty_call{{}, [&](unsigned int) {
                          Varo::DT_PORT_SVC::PORT_INFO info;
                          require_ok(empty->get_port_info("port000000", info));
                        }};
  const auto clone = [&] {
    const auto start = Clock::now();
    const PortableServer::Servant_var<Port_Factory_Sub> servant(new Port_Factory_Sub(
        "main", "bench-sub", nullptr, CORBA::ORB_var(CORBA::ORB::_duplicate(bench.broker.orb()))));
    const double seconds = seconds_since(start);
    if (servant->exist("port009999") != result::ok) throw std::runtime_error("nothing was cloned");
    return seconds / ports;
  };
  const std::vector<double> seconds =
      alternate({[&] { return seconds_per_call(empty_call, 1, bench.effort.slice); }, clone},
                bench.amount(5U, 1U));
  Row row;
  row.what = "cloning 10,000 ports at the start, each";
  row.connections = 1;
  row.processors = pinned.processors();
  row.against = "empty call";
  row.reference = seconds[0] * 1e6;
  row.value = seconds[1] * 1e6;
  row.unit = "us";
  bench.table.add(row);
}

/// A main server's servant in this process: packets reach an event box's forward only through the
/// servant itself.
class Copier : public Port_Factory_Main {
 public:
  Copier() : Port_Factory_Main("copier") {
    require_ok(create_port("box", PORT_EVENTBOX, 1));
    box_ = get_port("box");
  }

  void send(const vrBuffer& data) { process_event_data(box_.get(), 0, data, false); }

 private:
  boost::shared_ptr<Port_impl> box_;
};

/// Copies a second that arrive at so many sub servers together.
double copy_rate(const Bench& bench, unsigned int count, double& empty_seconds) {
  constexpr CORBA::ULong never_full = 10'000'000;
  DirectoryFile nobody(bench, fmt::format("nobody{}.ini", count));
  const Server empty(bench, fmt::format("empty-copies{}", count), empty_server());
  nobody.add("main", role_main, empty.reference());  // a main server that has no ports
  DirectoryFile file(bench, fmt::format("copies{}.ini", count));
  std::vector<std::unique_ptr<Server>> subs;
  std::vector<const Process*> processes{&empty.process()};
  for (unsigned int i = 0; i < count; ++i) {
    const std::string name = fmt::format("copies{}-{}", count, i);
    subs.push_back(
        std::make_unique<Server>(bench, name, sub_server(bench, name, "main", nobody.path())));
    require_ok(subs.back()->get()->create_port("box", PORT_EVENTBOX, never_full));
    file.add(name, role_sub, subs.back()->reference());
    processes.push_back(&subs.back()->process());
  }
  const UseOfDirectory use(bench, file);
  set_state_folder(bench.folder.path("state"));
  const PortableServer::Servant_var<Copier> servant(new Copier);

  const auto arrived = [&] {
    CORBA::ULong least = never_full;
    for (const auto& sub : subs) {
      CORBA::ULong events = 0;
      require_ok(sub->get()->event_count("box", events));
      least = std::min(least, events);
    }
    return least;
  };
  const Pinned pinned(processes);
  const DATA_BUFFER wire = payload(small_payload);
  const Work empty_call{{}, [&](unsigned int) { require_ok(empty->update_port("box", 0, wire)); }};
  empty_seconds = seconds_per_call(empty_call, 1, std::chrono::milliseconds(300));

  // More copies than wait for a sub server's answer are discarded: keep below that, yet never let
  // the sender run dry.
  const CORBA::ULong most_pending = 2400 / count;
  const vrBuffer data(wire.length(), wire.get_buffer());
  CORBA::ULong sent = 0;
  const auto feed = [&](CORBA::ULong received) {
    for (; sent < received + most_pending; ++sent) servant->send(data);
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  };
  CORBA::ULong received = 0;
  const auto patience = Clock::now() + std::chrono::seconds(20);
  while ((received = arrived()) < most_pending / 2) {
    if (Clock::now() > patience) throw std::runtime_error("the copies do not arrive");
    feed(received);
  }
  const CORBA::ULong first = received;
  const auto start = Clock::now();
  const auto end = start + std::chrono::milliseconds(bench.amount(3000, 500));
  while (Clock::now() < end) feed(received = arrived());
  return static_cast<double>((arrived() - first) * count) / seconds_since(start);
}

void measure_copies(const Bench& bench) {
  for (const unsigned int count : {1U, 3U}) {
    double empty_seconds = 0;
    Row row;
    row.value = copy_rate(bench, count, empty_seconds);
    row.what = fmt::format("copies of events to {} sub server{}", count, count == 1 ? "" : "s");
    row.payload = size_text(small_payload);
    row.connections = count;
    row.processors = "one";
    row.against = "empty calls";
    row.reference = 1 / empty_seconds;
    row.unit = "1/s";
    bench.table.add(row);
  }
}

}  // namespace

void measure_sub_servers(const Bench& bench) {
  measure_cloning(bench);
  measure_copies(bench);
}

}  // namespace portsvc::bench
