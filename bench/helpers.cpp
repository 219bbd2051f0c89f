// What port_bench does in processes of its own.
#include <fmt/format.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "bench/sections.h"
#include "bench/waking_servant.h"
#include "tests/support/threads.h"

namespace portsvc::bench {
namespace {

/// Gives back as much as a real server would: fresh sequences of the size that the handle says,
/// their bytes allocated and left as they are. No servant could do less.
class SizedServant : public EmptyServant {
 public:
  CORBA::ULong packet_receive_n(CORBA::ULong id, Varo::DATA_BUFFER_SEQ_out list, CORBA::ULong count,
                                CORBA::ULong) override {
    list = new DATA_BUFFER_SEQ;
    list->length(count);
    for (CORBA::ULong i = 0; i < count; ++i) (*list)[i].length(id);
    return result::ok;
  }

  CORBA::ULong packet_replay_wait(CORBA::ULong handle, Varo::DATA_BUFFER_out data,
                                  CORBA::ULong) override {
    data = new DATA_BUFFER;
    data->length(handle);
    return result::ok;
  }
};

[[noreturn]] void serve(EmptyServant* servant, const std::string& ior_file) {
  allow_many_connections();
  orb::Options options;
  options.endpoint = "giop:tcp:127.0.0.1:0";
  orb::Broker broker(options);
  const PortableServer::Servant_var<EmptyServant> owned(servant);
  const Port_Factory_var reference = broker.serve(servant);
  write_all(ior_file + ".new", broker.to_text(reference.in()) + "\n");
  std::filesystem::rename(ior_file + ".new", ior_file);  // it appears with its whole content
  for (;;) ::pause();
}

}  // namespace

int serve_empty(const std::string& ior_file) { serve(new SizedServant, ior_file); }

int serve_waking(const std::string& ior_file) { serve(new WakingServant, ior_file); }

int hold_callers(const std::string& reference, unsigned int count) {
  allow_many_connections();
  orb::Broker broker(orb::Options{});
  const CORBA::Object_var object = broker.from_text(reference);
  const Port_Factory_var server = Varo::DT_PORT_SVC::Port_Factory::_narrow(object.in());
  in_parallel(static_cast<int>(count), [&](int thread) {
    // All at once would overrun the server's backlog, and most would try again after seconds only.
    std::this_thread::sleep_for(std::chrono::milliseconds(thread));
    Varo::DT_PORT_SVC::PORT_INFO port;
    require_ok(server->get_port_info(fmt::format("waited{}", thread).c_str(), port));
    CORBA::ULong source = 0;
    Varo::DATA_BUFFER_var data;
    server->packet_receive(port.port_id, source, data.out(), 0);  // without a limit
  });
  throw std::runtime_error("a blocked call ended");
}

int run_bare_threads(unsigned int count) {
  in_parallel(static_cast<int>(count), [](int) {
    std::mutex free;
    const timespec pause{0, 10'000'000};
    for (;;) {
      { const std::lock_guard<std::mutex> guard(free); }
      ::nanosleep(&pause, nullptr);
    }
  });
  return 1;
}

}  // namespace portsvc::bench
