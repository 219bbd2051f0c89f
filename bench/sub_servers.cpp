// Sub servers: requests that pass through one, the cloning of a main server's ports, and the copies
// of a main server's events.
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

constexpr std::size_t payload_size = 100;

/// A directory file with one entry per server.
class DirectoryFile {
 public:
  DirectoryFile(const Bench& bench, const std::string& name) : path_(bench.folder.file(name)) {}

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

/// Request and reply by a client, without any wait: the owner, on the main server, is served
/// between the timed calls.
class Exchange {
 public:
  Exchange(Port_Factory_ptr main, const std::string& port, CORBA::ULong owner, Port_Factory_ptr way)
      : main_(main), owner_(owner), way_(way), client_(connect_client(way, port)) {}

  /// Seconds that the client's two calls took.
  double run(const DATA_BUFFER& data) const {
    auto start = Clock::now();
    require_ok(way_->packet_foward(client_, data, 1));
    double seconds = seconds_since(start);
    CORBA::ULong source = 0;
    Varo::DATA_BUFFER_var packet;
    require_ok(main_->packet_receive(owner_, source, packet.out(), 1));
    require_ok(main_->packet_replay(source, packet.in(), 0));
    Varo::DATA_BUFFER_var reply;
    start = Clock::now();
    require_ok(way_->packet_replay_wait(client_, reply.out(), 1));
    return seconds + seconds_since(start);
  }

 private:
  const Port_Factory_ptr main_;  // not owned, nor way_
  const CORBA::ULong owner_;
  const Port_Factory_ptr way_;
  const CORBA::ULong client_;
};

void measure_proxied_requests(const Bench& bench) {
  const Server main(bench, "main", main_server(bench, "main"));
  require_ok(main->create_port("p", PORT_MASTER, 8));
  DirectoryFile directory(bench, "proxied.ini");
  directory.add("main", role_main, main.reference());
  const Server sub(bench, "sub", sub_server(bench, "sub", "main", directory.path()));
  const CORBA::ULong owner = own_and_admit_always(main.get(), "p");
  const Exchange direct(main.get(), "p", owner, main.get());
  const Exchange proxied(main.get(), "p", owner, sub.get());

  const Pinned pinned({&main.process(), &sub.process()});
  const DATA_BUFFER data = payload(payload_size);
  std::vector<double> direct_times;
  std::vector<double> proxied_times;
  for (unsigned int i = 0; i < bench.amount(5000U, 500U); ++i) {
    direct_times.push_back(direct.run(data));
    proxied_times.push_back(proxied.run(data));
  }
  Row row;
  row.what = "request and reply through a sub server";
  row.payload = size_text(payload_size);
  row.connections = 1;
  row.processors = pinned.processors();
  row.against = "to the main server";
  row.reference = median(direct_times) * 1e6;
  row.value = median(proxied_times) * 1e6;
  row.unit = "us";
  row.note = "6 calls against 2";
  bench.table.add(row);
}

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
  set_state_folder(bench.folder.file("state"));

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
  std::vector<const Child*> processes{&empty.process()};
  for (unsigned int i = 0; i < count; ++i) {
    const std::string name = fmt::format("copies{}-{}", count, i);
    subs.push_back(
        std::make_unique<Server>(bench, name, sub_server(bench, name, "main", nobody.path())));
    require_ok(subs.back()->get()->create_port("box", PORT_EVENTBOX, never_full));
    file.add(name, role_sub, subs.back()->reference());
    processes.push_back(&subs.back()->process());
  }
  const UseOfDirectory use(bench, file);
  set_state_folder(bench.folder.file("state"));
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
  const DATA_BUFFER wire = payload(payload_size);
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
    row.payload = size_text(payload_size);
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
  measure_proxied_requests(bench);
  measure_cloning(bench);
  measure_copies(bench);
}

}  // namespace portsvc::bench
