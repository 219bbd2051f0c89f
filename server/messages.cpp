#include "server/messages.h"

#include <cstdio>

namespace portsvc::server {

void tell(const std::string& message) {
  const std::string line = "port_server: " + message + "\n";
  std::fputs(line.c_str(), stderr);
}

}  // namespace portsvc::server
