// port_server: hosts the servant of a main or a sub server.
#include <fmt/core.h>

#include <chrono>
#include <exception>
#include <optional>

#include "middleware/orb/orb.h"
#include "platform/memory.h"
#include "platform/process.h"
#include "platform/signals.h"
#include "server/messages.h"
#include "server/options.h"
#include "server/server.h"
#include "server/stop_signal.h"

namespace {

int check_only(const portsvc::server::Options& options) {
  using namespace portsvc::server;
  try {
    check(options);
    fmt::print("port_server: the options of {} {} are good\n", role_name(options.role),
               options.name);
    return status::success;
  } catch (const std::exception& error) {
    tell(error.what());
  }
  return status::bad_usage;
}

}  // namespace

int main(int argc, char** argv) {
  using namespace portsvc::server;
  portsvc::keep_freed_memory();
  Options options;
  if (const auto status = parse(argc, argv, options)) return *status;

  if (options.check_only) return check_only(options);

  portsvc::ignore_broken_pipes();
  portsvc::raise_most_open_files();  // a connection per caller
  StopSignal stop(std::chrono::seconds(9));
  try {
    run(options, stop, [&]() -> std::optional<Options> {
      Options again;
      if (parse(argc, argv, again)) return std::nullopt;
      return again;
    });
    return status::success;
  } catch (const std::exception& error) {
    tell(error.what());
  } catch (const CORBA::Exception& exception) {
    tell(portsvc::orb::describe(exception));
  }
  return status::failed;
}
