// A server of one's own: a program that serves ports itself and feeds a box of its own without a
// call over the network. Clients find it as they find any other server.
//
//     own_server ENDPOINT STATE_FOLDER EVENTS
//
// ENDPOINT is giop:tcp:HOST:PORT. It puts EVENTS readings into the box "readings" and serves until
// its standard input ends.
#include <idl/port_codes.h>
#include <middleware/orb/orb.h>
#include <persistence/background_tasks.h>
#include <platform/process.h>
#include <platform/wake.h>
#include <roles/port_factory_main.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <stdexcept>
#include <string>

int main(int argc, char** argv) try {
  if (argc != 4) {
    std::cerr << "usage: own_server ENDPOINT STATE_FOLDER EVENTS\n";
    return 2;
  }
  // The broker first, with its endpoint: calls are held back until the servant serves.
  portsvc::orb::Options options;
  options.endpoint = argv[1];
  portsvc::orb::Broker broker(options);
  portsvc::set_state_folder(argv[2]);  // where its snapshot lives
  portsvc::wake_waits_early(true);

  // The broker counts the references to a servant: this is the program's own.
  const PortableServer::Servant_var<Port_Factory_Main> servant(new Port_Factory_Main("own"));
  servant->create_port("readings", PORT_EVENTBOX, 1000);
  SnapSaveTask snapshots(servant.in());
  snapshots.set_period(60);
  if (snapshots.activate() != 0) throw std::runtime_error("no thread for the snapshots");

  const auto reference = broker.serve(servant.in());
  std::cout << "serving at " << broker.corbaloc(reference.in()) << std::endl;

  // A servant's operations can be called as they are, from any thread. The answer is the same code.
  for (int i = 0; i < std::stoi(argv[3]); ++i) {
    const std::string reading = "reading " + std::to_string(i);
    Varo::DATA_BUFFER event;
    event.length(static_cast<CORBA::ULong>(reading.size()));
    std::copy(reading.begin(), reading.end(), event.get_buffer());
    if (servant->send_event("readings", event) != portsvc::result::ok) return 1;
  }

  std::string line;
  while (std::getline(std::cin, line)) {
  }
  snapshots.ShutDown();
  snapshots.wait();
  // What a blocked call still uses must not go: a program with one under way ends at once.
  if (!broker.shutdown(std::chrono::seconds(3))) std::_Exit(0);
  return 0;
} catch (const std::exception& error) {
  std::cerr << "own_server: " << error.what() << "\n";
  return 1;
}
