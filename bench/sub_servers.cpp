// Sub servers: the cloning of a main server's ports, and the copies of a main server's events.
#include <fmt/format.h>

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

/// Puts a directory file in use for the servants of this process.
class UseOfDirectory {
 public:
  UseOfDirectory(const Bench& bench, const std::string& file) {
    set_state_folder(bench.folder.path("state"));
    use_directory(open_file_directory(bench.broker, file), "");
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
  const Server empty(bench, "empty-cloned", servant_server(bench, empty_server, "empty-cloned"));
  const std::string file = bench.folder.path("cloned.ini");
  enter(file, "main", role_main, main.reference());
  const UseOfDirectory use(bench, file);

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
  row.processors = Pinned::processors;
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

/// Copies a second that arrive at three sub servers together.
void measure_copies(const Bench& bench) {
  constexpr CORBA::ULong never_full = 10'000'000;
  constexpr unsigned int count = 3;
  const std::string nobody = bench.folder.path("nobody.ini");
  const Server empty(bench, "empty-copies", servant_server(bench, empty_server, "empty-copies"));
  enter(nobody, "main", role_main, empty.reference());  // a main server that has no ports
  const std::string file = bench.folder.path("copies.ini");
  std::vector<std::unique_ptr<Server>> subs;
  std::vector<const Process*> processes{&empty.process()};
  for (unsigned int i = 0; i < count; ++i) {
    const std::string name = fmt::format("copies{}", i);
    subs.push_back(std::make_unique<Server>(bench, name, sub_server(bench, name, "main", nobody)));
    require_ok(subs.back()->get()->create_port("box", PORT_EVENTBOX, never_full));
    enter(file, name, role_sub, subs.back()->reference());
    processes.push_back(&subs.back()->process());
  }
  const UseOfDirectory use(bench, file);
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
  const double empty_seconds = seconds_per_call(empty_call, 1, std::chrono::milliseconds(300));

  // More copies than wait for a sub server's answer are discarded: keep below that, yet never let
  // the sender run dry.
  constexpr CORBA::ULong most_pending = 2400 / count;
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
  Row row;
  row.what = "copies of events to 3 sub servers";
  row.payload = size_text(small_payload);
  row.connections = count;
  row.processors = Pinned::processors;
  row.against = "empty calls";
  row.reference = 1 / empty_seconds;
  row.value = static_cast<double>((arrived() - first) * count) / seconds_since(start);
  row.unit = "1/s";
  bench.table.add(row);
}

}  // namespace

void measure_sub_servers(const Bench& bench) {
  measure_cloning(bench);
  measure_copies(bench);
}

}  // namespace portsvc::bench
