// What must not grow with the number of ports and client handles.
#include <fmt/format.h>

#include <string>
#include <vector>

#include "bench/sections.h"

namespace portsvc::bench {
namespace {

/// A server with so many ports, and so many clients on one of them.
class Crowd {
 public:
  Crowd(const Bench& bench, const std::string& name, unsigned int ports, unsigned int handles)
      : server_(bench, name, main_server(bench, name)) {
    for (unsigned int i = 2; i < ports; ++i) {  // the two below make up the number
      require_ok(server_->create_port(fmt::format("port{:06}", i).c_str(), PORT_MASTER, 8));
    }
    require_ok(server_->create_port("popular", PORT_MASTER, 8));
    require_ok(server_->create_port("popular box", PORT_EVENTBOX, 8));
    box_ = connect_owner(server_.get(), "popular box");
    owner_ = own_and_admit_always(server_.get(), "popular");
    for (unsigned int i = 0; i < handles; ++i) {
      handles_.push_back(connect_client(server_.get(), "popular"));
    }
  }

  const Process& process() const { return server_.process(); }

  /// The client's side: a packet sent, a reply taken.
  Work packet_foward() const {
    return {{}, [this, data = payload(small_payload)](unsigned int) {
              require_ok(server_->packet_foward(next_handle(), data, 1));
            }};
  }
  Work packet_replay_wait() const {
    return {[this, data = payload(small_payload)](unsigned int) {
              require_ok(server_->packet_replay(next_handle(), data, 0));
            },
            [this](unsigned int) {
              Varo::DATA_BUFFER_var reply;
              require_ok(server_->packet_replay_wait(handles_[handle_], reply.out(), 1));
            }};
  }

  /// The owner's side: a packet and an event taken, a client answered.
  Work packet_receive() const {
    return {[this, data = payload(small_payload)](unsigned int) {
              require_ok(server_->packet_foward(next_handle(), data, 1));
            },
            [this](unsigned int) {
              CORBA::ULong source = 0;
              Varo::DATA_BUFFER_var data;
              require_ok(server_->packet_receive(owner_, source, data.out(), 1));
            }};
  }
  Work packet_receive_n() const {
    return {[this, data = payload(small_payload)](unsigned int) {
              require_ok(server_->send_event("popular box", data));
            },
            [this](unsigned int) {
              Varo::DATA_BUFFER_SEQ_var events;
              require_ok(server_->packet_receive_n(box_, events.out(), 1, 0));
            }};
  }
  Work packet_replay() const {
    return {{}, [this, data = payload(small_payload)](unsigned int) {
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

}  // namespace

void measure_growth(const Bench& bench) {
  const Crowd small(bench, "crowd10", 10, 10);
  const Crowd middle(bench, "crowd1000", 1000, 10);
  const Crowd large(bench, "crowd100000", 100000, 10);
  const Crowd handles(bench, "crowd-handles", 10, 10000);
  const Pinned pinned({&small.process(), &middle.process(), &large.process(), &handles.process()});
  const std::string with_data = size_text(small_payload);
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

}  // namespace portsvc::bench
