// Writes seed files for the fuzz target into the folder given.

#include <cstdio>
#include <fstream>
#include <string>

#include "idl/port_codes.h"
#include "persistence/snapshot_file.h"

namespace {

using namespace portsvc;

std::string snapshot_of(unsigned int ports, unsigned int subscriptions) {
  snapshot::Section_Writer port_section(snapshot::ports_marker);
  for (unsigned int i = 0; i < ports; ++i) {
    const unsigned int kinds[] = {PORT_MASTER, PORT_EVENTBOX, PORT_SLAVE};
    port_section.add_port("port" + std::to_string(i), kinds[i % 3], i * 8, i % 2 == 0);
  }
  snapshot::Section_Writer subscription_section(snapshot::subscriptions_marker);
  for (unsigned int i = 0; i < subscriptions; ++i) {
    subscription_section.add_subscription(i * 0x40000000U, "port" + std::to_string(i % 4));
  }
  return port_section.finish() + subscription_section.finish();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: snapshot_seeds FOLDER\n");
    return 2;
  }
  const std::string folder = argv[1];
  const std::string whole = snapshot_of(4, 5);
  const std::string seeds[] = {snapshot_of(0, 0), snapshot_of(1, 0), whole, whole.substr(0, 600),
                               whole.substr(0, whole.size() - 1)};
  int number = 0;
  for (const std::string& seed : seeds) {
    std::ofstream(folder + "/seed" + std::to_string(number++), std::ios::binary) << seed;
  }
}
