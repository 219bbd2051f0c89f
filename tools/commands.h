// The commands of portctl, by subject. Each function adds its commands to the command line; a
// command that the user has chosen stands in Commands::chosen once the line has been parsed.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "tools/arguments.h"
#include "tools/session.h"

namespace portsvc::tools {

/// The command line and the command chosen on it.
struct Commands {
  CLI::App& app;
  std::function<void(Session&)> chosen;

  /// Adds the command `name` to `parent`: `describe` adds its options to the command line, `run`
  /// carries it out with them.
  template <class Options>
  void add(CLI::App& parent, const std::string& name, const std::string& description,
           const std::string& example, void (*describe)(CLI::App&, Options&),
           void (*run)(Session&, const Options&)) {
    CLI::App* command = parent.add_subcommand(name, description);
    command->footer("Example: portctl " + example);
    auto options = std::make_shared<Options>();
    describe(*command, *options);
    for (CLI::Option* option : command->get_options()) {
      if (option->get_positional()) option->transform(unshielded);
    }
    command->callback([this, options, run] {
      chosen = [options, run](Session& session) { run(session, *options); };
    });
  }
};

/// For commands without options.
struct NoOptions {};
inline void describe_nothing(CLI::App&, NoOptions&) {}

void add_listing_commands(Commands& commands);   ///< ls info connections
void add_registry_commands(Commands& commands);  ///< create rm exists release host ping clear codes
void add_packet_commands(Commands& commands);    ///< send receive serve select
void add_event_commands(Commands& commands);     ///< event ...
void add_cluster_commands(Commands& commands);   ///< master subs move refresh
void add_snapshot_commands(Commands& commands);  ///< snapshot ...
void add_top_command(Commands& commands);        ///< top

/// event subscriptions, which reads a snapshot.
void add_subscriptions_command(Commands& commands, CLI::App& event);

}  // namespace portsvc::tools
