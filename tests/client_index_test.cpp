// Finding a client's port by the index answers what a walk over all ports in name order would.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>

#include "tests/support/servers.h"

namespace portsvc {
namespace {

std::string found_by_walk(MainServer& server, const std::set<std::string>& in_name_order,
                          unsigned int handle) {
  for (const std::string& name : in_name_order) {
    if (server.get_port(name.c_str())->has_client(handle) == result::ok) return name;
  }
  return "none";
}

std::string found(MainServer& server, unsigned int handle) {
  const auto port = server.find_port(handle);
  return port ? port->name() : "none";
}

TEST(ClientIndex, AnswersLikeAWalkInNameOrder) {
  // Few names and handles, so that they collide. Names are ordered by unsigned bytes, a prefix
  // first.
  const std::string names[] = {"a", "ab", "b", "Z", "\xff", "\x7f", "", "a\x80"};
  TestClock clock;
  MainServer server;
  std::set<std::string> present;
  std::mt19937 random(12345);  // NOLINT: repeatable on purpose
  const auto pick = [&](unsigned int below) { return static_cast<unsigned int>(random() % below); };

  for (int step = 0; step < 20000; ++step) {
    const std::string& name = names[pick(8)];
    const unsigned int handle = 700 + pick(5);
    const auto port = server.get_port(name.c_str());
    unsigned int owner = 0;
    switch (pick(100)) {
      case 0:
        server.clearAll();
        present.clear();
        break;
      case 1:
        server.delete_port(name.c_str());
        present.erase(name);
        if (port) port->connect(handle, CONNECT_CLIENT, ACCESS_WAIT, owner);  // too late to count
        break;
      case 2:
      case 3:
      case 4:
        server.create_port(name.c_str(), pick(2) ? PORT_MASTER : PORT_SLAVE, 3);
        present.insert(name);
        break;
      case 5:
        if (port) port->select_replay(handle, true);  // enters the handle
        break;
      default:
        if (port && pick(2)) port->connect(handle, CONNECT_CLIENT, ACCESS_WAIT, owner);
        if (port && pick(2)) port->disconnect(handle);
    }
    for (unsigned int h = 700; h < 705; ++h) {
      ASSERT_EQ(found(server, h), found_by_walk(server, present, h)) << "step " << step;
    }
  }
}

}  // namespace
}  // namespace portsvc
