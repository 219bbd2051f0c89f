#include "server/service_manager.h"

#include <fmt/format.h>
#include <systemd/sd-daemon.h>

namespace portsvc::server {
namespace {

void notify(const std::string& state) { (void)::sd_notify(0, state.c_str()); }

}  // namespace

void report_ready(const std::string& status) { notify(fmt::format("READY=1\nSTATUS={}", status)); }

void report_status(const std::string& status) { notify("STATUS=" + status); }

void report_alive() { notify("WATCHDOG=1"); }

void report_stopping() { notify("STOPPING=1\nSTATUS=stopping"); }

std::chrono::microseconds watchdog_time() {
  std::uint64_t time = 0;
  return std::chrono::microseconds(::sd_watchdog_enabled(0, &time) > 0 ? time : 0);
}

}  // namespace portsvc::server
