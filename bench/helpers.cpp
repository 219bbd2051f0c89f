// What port_bench does in processes of its own.
#include <fmt/format.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <fstream>
#include <mutex>
#include <thread>

#include "bench/sections.h"
#include "tests/empty_servant.h"

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

/// A file appears with its whole content.
void announce(const std::string& path, const std::string& text) {
  const std::string unfinished = path + ".new";
  std::ofstream(unfinished) << text << "\n";
  if (std::rename(unfinished.c_str(), path.c_str()) != 0) {
    throw std::runtime_error("cannot write " + path);
  }
}

[[noreturn]] void wait_to_be_killed() {
  for (;;) ::pause();
}

}  // namespace

int serve_empty(const std::string& ior_file) {
  allow_many_connections();
  orb::Options options;
  options.endpoint = "giop:tcp:127.0.0.1:0";
  orb::Broker broker(options);
  const PortableServer::Servant_var<SizedServant> servant(new SizedServant);
  const Port_Factory_var reference = broker.serve(servant.in());
  announce(ior_file, broker.to_text(reference.in()));
  wait_to_be_killed();
}

int hold_callers(const std::string& reference, unsigned int count, const std::string& ready) {
  allow_many_connections();
  orb::Broker broker(orb::Options{});
  const CORBA::Object_var object = broker.from_text(reference);
  const Port_Factory_var server = Varo::DT_PORT_SVC::Port_Factory::_narrow(object.in());
  std::atomic<unsigned int> blocked{0};
  std::thread([&] {
    in_threads(count, [&](unsigned int thread) {
      const CORBA::ULong id = connect_owner(server.in(), fmt::format("waited{}", thread));
      ++blocked;
      CORBA::ULong source = 0;
      Varo::DATA_BUFFER_var data;
      server->packet_receive(id, source, data.out(), 0);  // without a limit
    });
  }).detach();
  wait_until([&] { return blocked == count; }, std::chrono::seconds(60), "the callers block");
  announce(ready, "ready");
  wait_to_be_killed();
}

int run_bare_threads(unsigned int count, const std::string& ready) {
  std::thread([count] {
    in_threads(count, [](unsigned int) {
      std::mutex free;
      const timespec pause{0, 10'000'000};
      for (;;) {
        { const std::lock_guard<std::mutex> guard(free); }
        ::nanosleep(&pause, nullptr);
      }
    });
  }).detach();
  announce(ready, "ready");
  wait_to_be_killed();
}

}  // namespace portsvc::bench
