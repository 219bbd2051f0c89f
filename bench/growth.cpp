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
    for (unsigned int i = 1; i < ports; ++i) {  // the one below makes up the number
      require_ok(server_->create_port(fmt::format("port{:06}", i).c_str(), PORT_MASTER, 8));
    }
    require_ok(server_->create_port("popular", PORT_MASTER, 8));
    // Clients may forward at any time: a selection that is refused for its second handle leaves the
    // first port marked as watched.
    Varo::PORT_HANDLE_SET watched;
    watched.length(2);
    watched[0] = connect_owner(server_.get(), "popular", ACCESS_SELECT);
    watched[1] = any_handle;
    CORBA::ULong ready = 0;
    if (server_->select_event_port(watched, ready, 1) != result::unknown_handle) {
      throw std::runtime_error("the selection was not refused");
    }
    for (unsigned int i = 0; i < handles; ++i) {
      handles_.push_back(connect_client(server_.get(), "popular"));
    }
  }

  const Process& process() const { return server_.process(); }

  Work exist() const {
    return {{}, [this](unsigned int) {
              require_ok(static_cast<CORBA::ULong>(server_->exist("popular")));
            }};
  }
  Work packet_foward() const {
    return {{}, [this, data = payload(small_payload)](unsigned int) {
              // Far apart from each other, so that no cache flatters the result.
              handle_ = (handle_ + 7919) % handles_.size();
              require_ok(server_->packet_foward(handles_[handle_], data, 1));
            }};
  }

 private:
  const Server server_;
  std::vector<CORBA::ULong> handles_;
  mutable std::size_t handle_ = 0;
};

}  // namespace

void measure_growth(const Bench& bench) {
  const Crowd small(bench, "crowd10", 10, 10);
  const Crowd ports(bench, "crowd100000", 100000, 10);
  const Crowd handles(bench, "crowd-handles", 10, 10000);
  const Pinned pinned({&small.process(), &ports.process(), &handles.process()});
  const auto compare = [&](const char* what, const char* against, const std::string& payload,
                           const Work& few, const Work& many) {
    const std::vector<double> seconds = alternate({few, many}, 1, bench.effort);
    Row row;
    row.what = what;
    row.payload = payload;
    row.connections = 1;
    row.processors = Pinned::processors;
    row.against = against;
    row.reference = seconds[0] * 1e6;
    row.value = seconds[1] * 1e6;
    row.unit = "us";
    row.target = Target{1.2};
    bench.table.add(row);
  };
  compare("exist, 100,000 ports", "10 ports", "", small.exist(), ports.exist());
  compare("packet_foward, 10,000 handles on the port", "10 handles", size_text(small_payload),
          small.packet_foward(), handles.packet_foward());
}

}  // namespace portsvc::bench
