// What grows with the number of ports, client handles, boxes and events, and what must not.
#include <fmt/format.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bench/sections.h"

namespace portsvc::bench {
namespace {

constexpr std::size_t payload_size = 100;

std::string port_name(unsigned int index) { return fmt::format("port{:06}", index); }

void create_ports(Port_Factory_ptr server, unsigned int from, unsigned int to) {
  for (unsigned int i = from; i < to; ++i) {
    require_ok(server->create_port(port_name(i).c_str(), PORT_MASTER, 8));
  }
}

void delete_ports(Port_Factory_ptr server, unsigned int from, unsigned int to) {
  for (unsigned int i = from; i < to; ++i) require_ok(server->delete_port(port_name(i).c_str()));
}

/// A server with so many ports, and so many clients on one of them.
class Crowd {
 public:
  Crowd(const Bench& bench, const std::string& name, unsigned int ports, unsigned int handles)
      : server_(bench, name, main_server(bench, name)) {
    create_ports(server_.get(), 2, ports);  // the two below make up the number
    require_ok(server_->create_port("popular", PORT_MASTER, 8));
    require_ok(server_->create_port("popular box", PORT_EVENTBOX, 8));
    box_ = connect_owner(server_.get(), "popular box");
    owner_ = own_and_admit_always(server_.get(), "popular");
    for (unsigned int i = 0; i < handles; ++i) {
      handles_.push_back(connect_client(server_.get(), "popular"));
    }
  }

  const Child& process() const { return server_.process(); }

  /// The client's side: a packet sent, a reply taken.
  Work packet_foward() const {
    return {{}, [this, data = payload(payload_size)](unsigned int) {
              require_ok(server_->packet_foward(next_handle(), data, 1));
            }};
  }
  Work packet_replay_wait() const {
    return {[this, data = payload(payload_size)](unsigned int) {
              require_ok(server_->packet_replay(next_handle(), data, 0));
            },
            [this](unsigned int) {
              Varo::DATA_BUFFER_var reply;
              require_ok(server_->packet_replay_wait(handles_[handle_], reply.out(), 1));
            }};
  }

  /// The owner's side: a packet and an event taken, a client answered.
  Work packet_receive() const {
    return {[this, data = payload(payload_size)](unsigned int) {
              require_ok(server_->packet_foward(next_handle(), data, 1));
            },
            [this](unsigned int) {
              CORBA::ULong source = 0;
              Varo::DATA_BUFFER_var data;
              require_ok(server_->packet_receive(owner_, source, data.out(), 1));
            }};
  }
  Work packet_receive_n() const {
    return {[this, data = payload(payload_size)](unsigned int) {
              require_ok(server_->send_event("popular box", data));
            },
            [this](unsigned int) {
              Varo::DATA_BUFFER_SEQ_var events;
              require_ok(server_->packet_receive_n(box_, events.out(), 1, 0));
            }};
  }
  Work packet_replay() const {
    return {{}, [this, data = payload(payload_size)](unsigned int) {
              require_ok(server_->packet_replay(next_handle(), data, 0));
            }};
  }

  /// By name.
  Work exist() const {
    return {{}, [this](unsigned int) {
              require_ok(static_cast<CORBA::ULong>(server_->exist("popular")));
            }};
  }

 private:
  // Far apart from each other, so that no cache flatters the result.
  CORBA::ULong next_handle() const {
    handle_ = (handle_ + 7919) % handles_.size();
    return handles_[handle_];
  }

  const Server server_;
  CORBA::ULong box_ = 0;
  CORBA::ULong owner_ = 0;
  std::vector<CORBA::ULong> handles_;
  mutable std::size_t handle_ = 0;
};

/// Times of creating and deleting ports, in seconds per port.
struct PortTimes {
  std::vector<double> create;
  std::vector<double> erase;

  /// Creates ports up to `to` beside those below `from`, and deletes them again.
  void measure(Port_Factory_ptr server, unsigned int from, unsigned int to) {
    const auto start = Clock::now();
    create_ports(server, from, to);
    const auto middle = Clock::now();
    delete_ports(server, from, to);
    const double ports = to - from;
    create.push_back(std::chrono::duration<double>(middle - start).count() / ports);
    erase.push_back(seconds_since(middle) / ports);
  }
};

void measure_creation(const Bench& bench) {
  constexpr unsigned int few = 100;
  constexpr unsigned int many = 10000;
  constexpr unsigned int crowd = 100000;
  const Server server(bench, "creation", main_server(bench, "creation"));
  const Server crowded(bench, "creation-crowded", main_server(bench, "creation-crowded"));
  const Pinned pinned({&server.process(), &crowded.process()});
  create_ports(crowded.get(), 0, crowd);
  PortTimes alone;
  PortTimes in_bulk;
  PortTimes beside;
  for (unsigned int round = 0; round < bench.amount(5U, 1U); ++round) {
    for (unsigned int i = 0; i < 20; ++i) {
      alone.measure(server.get(), 0, few);
      beside.measure(crowded.get(), crowd, crowd + few);
    }
    in_bulk.measure(server.get(), 0, many);
  }

  const auto report = [&](const std::string& what, const std::vector<double>& reference,
                          const std::vector<double>& value) {
    Row row;
    row.what = what;
    row.connections = 1;
    row.processors = pinned.processors();
    row.against = "100 ports, each";
    row.reference = median(reference) * 1e6;
    row.value = median(value) * 1e6;
    row.unit = "us";
    row.target = Target{2.0};
    bench.table.add(row);
  };
  report("create_port, 10,000 ports, each", alone.create, in_bulk.create);
  report("delete_port, 10,000 ports, each", alone.erase, in_bulk.erase);
  report("create_port beside 100,000 ports, each", alone.create, beside.create);
  report("delete_port beside 100,000 ports, each", alone.erase, beside.erase);
}

/// declare_event to many boxes.
void measure_fan_out(const Bench& bench) {
  constexpr unsigned int boxes = 1000;
  constexpr CORBA::ULong to_one = 1;
  constexpr CORBA::ULong to_all = 2;
  const Server server(bench, "fan-out", main_server(bench, "fan-out"));
  for (unsigned int i = 0; i < boxes; ++i) {
    require_ok(server->create_port(port_name(i).c_str(), PORT_EVENTBOX, 16));
    require_ok(server->add_event(port_name(i).c_str(), to_all));
  }
  require_ok(server->add_event(port_name(0).c_str(), to_one));
  const DATA_BUFFER data = payload(payload_size);
  const auto declare = [&](CORBA::ULong code) -> Work {
    return {{}, [&, code](unsigned int) { require_ok(server->declare_event(code, data, 0)); }};
  };
  const Pinned pinned({&server.process()});
  const auto seconds = alternate({declare(to_one), declare(to_all)}, 1, bench.effort);
  Row row;
  row.what = "declare_event to 1,000 boxes";
  row.payload = size_text(payload_size);
  row.connections = 1;
  row.processors = pinned.processors();
  row.against = "to 1 box";
  row.reference = seconds[0] * 1e6;
  row.value = seconds[1] * 1e6;
  row.unit = "us";
  bench.table.add(row);

  row.what = "declare_event, each box beyond the first";
  row.against.clear();
  row.reference.reset();
  row.value = (seconds[1] - seconds[0]) / (boxes - 1) * 1e9;
  row.unit = "ns";
  row.target = Target{200};
  bench.table.add(row);
}

/// A box that takes a million events and gives them away again, and the memory that it all costs.
void measure_large_box(const Bench& bench) {
  constexpr CORBA::ULong events = 1000000;
  constexpr CORBA::ULong per_call = 1000;
  constexpr CORBA::ULong code = 1;
  const Server server(bench, "large-box", main_server(bench, "large-box"));
  require_ok(server->create_port("box", PORT_EVENTBOX, events));
  require_ok(server->add_event("box", code));
  const CORBA::ULong id = connect_owner(server.get(), "box");
  DATA_BUFFER_SEQ some;
  some.length(per_call);
  for (CORBA::ULong i = 0; i < per_call; ++i) some[i] = payload(payload_size);
  const auto fill = [&] {
    for (CORBA::ULong i = 0; i < events; i += per_call) {
      require_ok(server->declare_event_n(code, some, 0));
    }
  };
  const auto drain = [&](CORBA::ULong count) {
    for (CORBA::ULong left = count; left != 0;) {
      Varo::DATA_BUFFER_SEQ_var taken;
      require_ok(server->packet_receive_n(id, taken.out(), per_call, 0));
      left -= taken->length();
    }
  };
  const Pinned pinned({&server.process()});

  Row row;
  row.payload = size_text(payload_size);
  row.connections = 1;
  row.processors = pinned.processors();
  row.unit = "ns";
  // The same calls on a box that never gets large show what the calls themselves cost.
  std::vector<double> small_fill;
  std::vector<double> small_drain;
  for (int i = 0; i < 200; ++i) {
    const auto start = Clock::now();
    require_ok(server->declare_event_n(code, some, 0));
    const auto middle = Clock::now();
    drain(per_call);
    small_fill.push_back(std::chrono::duration<double>(middle - start).count());
    small_drain.push_back(seconds_since(middle));
  }
  const double resident = server.process().resident_bytes();
  auto start = Clock::now();
  fill();
  row.what = "filling a box with 1,000,000 events, each";
  row.note = fmt::format("{} a call", per_call);
  row.against = "in and out again";
  row.reference = median(small_fill) / per_call * 1e9;
  row.value = seconds_since(start) / events * 1e9;
  bench.table.add(row);
  const double full = server.process().resident_bytes();

  start = Clock::now();
  drain(events);
  row.what = "draining a box of 1,000,000 events, each";
  row.reference = median(small_drain) / per_call * 1e9;
  row.value = seconds_since(start) / events * 1e9;
  bench.table.add(row);

  row = Row();
  row.what = "resident memory of a queued event";
  row.payload = size_text(payload_size);
  row.value = (full - resident) / events;
  row.unit = "B";
  row.target = Target{250};
  bench.table.add(row);

  // Filled one by one, as from many producers.
  const DATA_BUFFER data = payload(payload_size);
  for (CORBA::ULong i = 0; i < events / 10; ++i) require_ok(server->send_event("box", data));
  fill();
  const double full_again = server.process().resident_bytes();
  require_ok(server->clear_event("box"));
  std::this_thread::sleep_for(std::chrono::seconds(3));  // a server may do it in the background
  row.what = "memory given back by clear_event, 1,000,000 events";
  row.value = (full_again - server.process().resident_bytes()) / (full_again - resident) * 100;
  row.unit = "%";
  row.target = Target{90, true};
  row.note = "resident, 3 s later";
  bench.table.add(row);
}

void measure_memory_of_ports(const Bench& bench) {
  constexpr unsigned int ports = 100000;
  constexpr CORBA::ULong packets = 100000;
  const Server server(bench, "memory", main_server(bench, "memory"));
  const Pinned pinned({&server.process()});
  create_ports(server.get(), 0, 100);
  const double resident = server.process().resident_bytes();
  create_ports(server.get(), 100, 100 + ports);
  Row row;
  row.what = "resident memory of an idle port";
  row.value = (server.process().resident_bytes() - resident) / ports;
  row.unit = "B";
  row.target = Target{2560};
  bench.table.add(row);

  require_ok(server->create_port("queue", PORT_MASTER, packets));
  own_and_admit_always(server.get(), "queue");
  const CORBA::ULong client = connect_client(server.get(), "queue");
  const DATA_BUFFER data = payload(payload_size);
  const double before = server.process().resident_bytes();
  for (CORBA::ULong i = 0; i < packets; ++i) require_ok(server->packet_foward(client, data, 1));
  row.what = "resident memory of a queued packet";
  row.payload = size_text(payload_size);
  row.value = (server.process().resident_bytes() - before) / packets;
  row.target = Target{250};
  bench.table.add(row);
}

}  // namespace

void measure_growth(const Bench& bench) {
  const Crowd small(bench, "crowd10", 10, 10);
  const Crowd middle(bench, "crowd1000", 1000, 10);
  const Crowd large(bench, "crowd100000", 100000, 10);
  const Crowd handles(bench, "crowd-handles", 10, 10000);
  const Pinned pinned({&small.process(), &middle.process(), &large.process(), &handles.process()});
  const std::string with_data = size_text(payload_size);
  const auto compare = [&](const std::string& operation, const std::string& payload,
                           Work (Crowd::*work)() const) {
    const std::vector<double> seconds = alternate(
        {(small.*work)(), (middle.*work)(), (large.*work)(), (handles.*work)()}, 1, bench.effort);
    Row row;
    row.payload = payload;
    row.connections = 1;
    row.processors = pinned.processors();
    row.against = "10 ports, 10 handles";
    row.reference = seconds[0] * 1e6;
    row.unit = "us";
    row.target = Target{1.2};
    const char* const crowds[] = {"1,000 ports", "100,000 ports", "10,000 handles on the port"};
    for (std::size_t i = 0; i < 3; ++i) {
      row.what = operation + ", " + crowds[i];
      row.value = seconds[i + 1] * 1e6;
      bench.table.add(row);
    }
  };
  compare("exist", "", &Crowd::exist);
  compare("packet_foward", with_data, &Crowd::packet_foward);
  compare("packet_replay_wait", with_data, &Crowd::packet_replay_wait);
  compare("packet_receive", with_data, &Crowd::packet_receive);
  compare("packet_receive_n", with_data, &Crowd::packet_receive_n);
  compare("packet_replay", with_data, &Crowd::packet_replay);
}

void measure_large_numbers(const Bench& bench) {
  measure_creation(bench);
  measure_fan_out(bench);
  measure_large_box(bench);
  measure_memory_of_ports(bench);
}

}  // namespace portsvc::bench
