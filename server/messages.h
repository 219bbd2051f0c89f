// What port_server tells the people who run it.
#pragma once

#include <string>

namespace portsvc::server {

/// One line on standard error, "port_server: ...". Never fails.
void tell(const std::string& message);

}  // namespace portsvc::server
