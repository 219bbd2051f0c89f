#include "tools/command_line.h"

#include <memory>
#include <string>

#include "cli/decimal_options.h"
#include "cli/help.h"
#include "platform/version.h"

namespace portsvc::tools {

void describe_global_options(CLI::App& app, GlobalOptions& options) {
  app.add_option(
         "--server", options.server,
         "The server: a corbaloc, corbaname or IOR, HOST:PORT, or its name in the directory")
      ->option_text("SERVER")
      ->envname("PORTSVC_SERVER")
      ->capture_default_str();
  app.add_flag("--json", options.json, "Print results as JSON");
  cli::describe_peer_options(app, options);
  app.get_option("--tls-ca")->envname("PORTSVC_TLS_CA");
  app.get_option("--tls-key")->envname("PORTSVC_TLS_KEY");
}

void describe_portctl(Commands& commands, GlobalOptions& options) {
  CLI::App& app = commands.app;
  app.name("portctl");
  app.description("portctl, the port service from the command line");
  app.formatter(std::make_shared<cli::HelpFormatter>());
  app.require_subcommand(1);
  app.fallthrough();
  app.failure_message([](const CLI::App* failed, const CLI::Error& error) {
    const auto unknown = failed->remaining();
    const bool no_command = error.get_name() == "RequiredError" && !unknown.empty();
    return no_command ? "portctl: there is no command '" + unknown.front() + "'\n"
                      : std::string("portctl: ") + error.what() + "\n";
  });
  app.footer(
      "COMMAND --help tells about a command. Exit status: 0 success, 1 a result code other than 0 "
      "(or a local file that failed), 2 bad usage, 3 the server could not be reached, 128 + signal "
      "number when interrupted.");
  app.set_version_flag("--version", std::string("portctl ") + version());
  describe_global_options(app, options);
  add_listing_commands(commands);
  add_registry_commands(commands);
  add_packet_commands(commands);
  add_event_commands(commands);
  add_cluster_commands(commands);
  add_snapshot_commands(commands);
  add_top_command(commands);
  make_numbers_decimal(app);
}

}  // namespace portsvc::tools
