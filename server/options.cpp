#include "server/options.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <utility>

#include "cli/decimal_options.h"
#include "cli/help.h"
#include "platform/version.h"
#include "server/configuration.h"

namespace portsvc::server {
namespace {

constexpr std::uint64_t most = std::uint64_t{1} << 62;

/// What stands before and after the first equals sign.
std::pair<std::string, std::string> halves(const std::string& text, const char* option,
                                           const char* wanted) {
  const auto equals = text.find('=');
  if (equals == std::string::npos || equals == 0 || equals + 1 == text.size()) {
    throw CLI::ValidationError(option, "'" + text + "' is malformed, wanted: " + wanted);
  }
  return {text.substr(0, equals), text.substr(equals + 1)};
}

void add_limits(CLI::App& command, Options& options) {
  const auto add = [&](const char* name, std::uint64_t& value, const char* what) {
    return command.add_option(name, value, what)->check(CLI::Range(std::uint64_t{1}, most));
  };
  add("--max-connections", options.max_connections,
      "Largest number of connections (default: 16000, or what the open files leave room for)");
  add("--max-blocked-calls", options.max_blocked_calls,
      "Largest number of calls under way that may wait")
      ->capture_default_str();
  add("--max-ports", options.max_ports, "Largest number of ports")->capture_default_str();
  add("--max-clients-per-port", options.max_clients, "Largest number of clients of a port")
      ->capture_default_str();
  add("--max-queued-bytes", options.max_queued_bytes,
      "Largest sum of the packets, replies and events held, in bytes (default: half of the "
      "memory)");
}

void add_configuration(CLI::App& command, Options& options) {
  const auto read = [&](const std::string& path) {
    options.configuration = path;
    read_configuration(command, path);
    CLI::Option* const name = command.get_option("--name");
    if (name->count() != 0) return;
    name->add_result(std::filesystem::path(path).stem().string());
    name->run_callback();
  };
  command
      .add_option_function<std::string>(
          "--config", read,
          "File of lines KEY = VALUE, a KEY being an option without its dashes; what the command "
          "line says goes before it")
      ->type_name("FILE")
      ->configurable(false);
  command
      .add_flag("--check-config", options.check_only,
                "Look at the options and at the files they name, say what is wrong, and end")
      ->configurable(false);
}

void add_watching(CLI::App& command, Options& options) {
  command
      .add_option("--log-level", options.log.level,
                  "The least that is logged: debug, info, warning or error")
      ->capture_default_str()
      ->check(CLI::IsMember({"debug", "info", "warning", "error"}));
  command
      .add_option("--log-file", options.log.file,
                  "File for the log, rotated at 10 MiB, five old ones kept (default: standard "
                  "error)")
      ->option_text("FILE");
  command.add_option("--log-format", options.log.format, "'text', or 'json': an object per line")
      ->capture_default_str()
      ->check(CLI::IsMember({"text", "json"}));
  command
      .add_option("--metrics", options.metrics,
                  "Serve metrics, health and a live board there, over HTTP, without "
                  "authentication (default: not at all)")
      ->option_text("HOST:PORT");
  command
      .add_option_function<std::vector<std::string>>(
          "--metrics-of",
          [&options](const std::vector<std::string>& texts) {
            options.other_metrics.clear();
            for (const std::string& text : texts) {
              auto [name, address] = halves(text, "--metrics-of", "NAME=HOST:PORT");
              options.other_metrics[name] = address;
            }
          },
          "Where another server serves its own, for the board; repeatable")
      ->option_text("NAME=HOST:PORT")
      ->allow_extra_args(false);
}

void add_feeds(CLI::App& command, Options& options) {
  command
      .add_option_function<std::vector<std::string>>(
          "--feed",
          [&options](const std::vector<std::string>& texts) {
            options.feeds.clear();
            for (const std::string& text : texts) {
              auto [box, shell_command] = halves(text, "--feed", "BOX=COMMAND");
              options.feeds.push_back({box, shell_command});
            }
          },
          "Put each line that the shell command prints into the event box, with copies to the sub "
          "servers; repeatable")
      ->option_text("BOX=COMMAND")
      ->allow_extra_args(false);
}

void add_options(CLI::App& command, Options& options) {
  add_configuration(command, options);
  const auto not_empty = CLI::Validator(
      [](const std::string& text) { return text.empty() ? "it is empty" : std::string(); }, "");
  command
      .add_option("--name", options.name,
                  "The server's name in the directory (default: that of the configuration file, "
                  "without what follows its last dot)")
      ->option_text("NAME")
      ->required()
      ->check(not_empty);
  command
      .add_option("--interface", options.interface_name,
                  "Interface name, the server's name towards other servers (default: its name)")
      ->option_text("NAME");
  command
      .add_option(
          "--endpoint", options.endpoint,
          "Where to listen, giop:tcp:HOST:PORT, or with TLS giop:ssl:HOST:PORT; port 0 takes "
          "any free one, no host all interfaces")
      ->option_text("ENDPOINT")
      ->capture_default_str();
  command
      .add_option("--ior-file", options.ior_file,
                  "File that receives the reference once the server is serving")
      ->option_text("FILE");
  command
      .add_option("--state-dir", options.state_dir,
                  "Folder in which SnapShot/portsnap.snp lies (default: $STATE_DIRECTORY, which "
                  "systemd sets, or else the executable's)")
      ->option_text("FOLDER");
  command.add_flag("--restore", options.restore, "Load the snapshot of the previous run");
  command.add_flag("--restore-damaged", options.restore_damaged,
                   "As --restore; of damaged snapshots take what is whole");
  command
      .add_option("--snapshot-every", options.snapshot_every,
                  "Seconds between snapshots, with one more at the stop (default: none are made "
                  "unasked)")
      ->option_text("SECONDS")
      ->check(CLI::Range(1U, 31'536'000U));
  command
      .add_option("--message-timeout", options.message_timeout,
                  "Seconds after which a request that has stopped half-way, or a reply that nobody "
                  "takes, gives up its connection")
      ->option_text("SECONDS")
      ->capture_default_str()
      ->check(CLI::Range(1U, 86400U));
  command
      .add_option("--waits", options.waits,
                  "How blocked calls wait: 'early' ends a wait as soon as there is something to "
                  "take, 'paused' looks every 10 ms")
      ->capture_default_str()
      ->check(CLI::IsMember({"early", "paused"}));
  add_limits(command, options);
  add_watching(command, options);
  cli::describe_peer_options(command, options);
}

}  // namespace

const char* role_name(Role role) { return role == Role::main ? "main" : "sub"; }

void describe(CLI::App& app, Options& options) {
  app.name("port_server");
  app.description("port_server, a server of the port service");
  app.formatter(std::make_shared<cli::HelpFormatter>());
  app.require_subcommand(1);
  app.set_version_flag("--version", std::string("port_server ") + version());
  app.failure_message([](const CLI::App* failed, const CLI::Error& error) {
    const auto unknown = failed->remaining();
    const bool no_role = error.get_name() == "RequiredError" && !unknown.empty();
    return "port_server: " +
           (no_role ? "there is no role '" + unknown.front() + "', wanted: main or sub"
                    : std::string(error.what())) +
           "\n";
  });
  app.footer(
      "SIGTERM or SIGINT stops the server, SIGHUP makes it open its log and read its directory, "
      "certificates and log level again. Exit status: 0 stopped, 1 it could not start, 2 bad usage "
      "or "
      "configuration.");

  CLI::App* const main = app.add_subcommand("main", "Serve as a main server");
  add_options(*main, options);
  add_feeds(*main, options);
  main->add_option(
          "--sub-timeout", options.sub_timeout,
          "Seconds of silence after which what a sub server has open here is closed, 0 for "
          "never")
      ->capture_default_str()
      ->check(CLI::Range(0U, 86400U));
  CLI::App* const sub = app.add_subcommand("sub", "Serve as a sub server of a main server");
  add_options(*sub, options);
  sub->add_option("--main", options.main_server, "The main server's name in the directory")
      ->option_text("NAME")
      ->required();
  sub->callback([&options] {
    options.role = Role::sub;
    if (options.main_server != options.name) return;
    throw CLI::ValidationError("--main", "a sub server cannot be its own main server");
  });
  make_numbers_decimal(app);
}

std::optional<int> parse(int argc, char** argv, Options& options) {
  CLI::App app;
  describe(app, options);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? status::success : status::bad_usage;
  }
  options.restore = options.restore || options.restore_damaged;
  if (options.interface_name.empty()) options.interface_name = options.name;
  if (options.state_dir.empty()) {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): nobody changes the environment
    if (const char* const folder = std::getenv("STATE_DIRECTORY")) options.state_dir = folder;
  }
  return std::nullopt;
}

}  // namespace portsvc::server
