// systemd, where it has started this process.
#pragma once

#include <chrono>
#include <string>

namespace portsvc::server {

/// Tells the service manager that the server serves, or what it does now, in words. Nothing happens
/// without one; a failure is nobody's to mend. Any thread may call them.
void report_ready(const std::string& status);
void report_status(const std::string& status);
/// The server still works: the service manager ends a server that does not say so in time.
void report_alive();
void report_stopping();

/// Within what time it wants to hear report_alive(); zero when it does not.
std::chrono::microseconds watchdog_time();

}  // namespace portsvc::server
