#include "server/options.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <utility>

#include "platform/decimal_options.h"

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

void add_watching(CLI::App& command, Options& options) {
  command
      .add_option("--log-level", options.log.level,
                  "The least that is logged: debug, info, warning or error")
      ->capture_default_str()
      ->check(CLI::IsMember({"debug", "info", "warning", "error"}));
  command.add_option("--log-file", options.log.file,
                     "File for the log, rotated at 10 MiB, five old ones kept (default: standard "
                     "error)");
  command.add_option("--log-format", options.log.format, "'text', or 'json': an object per line")
      ->capture_default_str()
      ->check(CLI::IsMember({"text", "json"}));
  command.add_option("--metrics", options.metrics,
                     "Serve metrics, health and a live board at HOST:PORT, over HTTP, without "
                     "authentication (default: not at all)");
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
          "NAME=HOST:PORT: where another server serves its own, for the board; repeatable")
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
          "BOX=COMMAND: put each line that the shell command prints into the event box, with "
          "copies "
          "to the sub servers; repeatable")
      ->allow_extra_args(false);
}

void add_options(CLI::App& command, Options& options) {
  const auto not_empty = CLI::Validator(
      [](const std::string& text) { return text.empty() ? "it is empty" : std::string(); }, "");
  command.add_option("--name", options.name, "The server's name in the directory")
      ->required()
      ->check(not_empty);
  command.add_option("--interface", options.interface_name,
                     "Interface name, the server's name towards other servers (default: its name)");
  command.add_option("--realm", options.realm, "Realm of the server and its peers (default: none)");
  command
      .add_option(
          "--endpoint", options.endpoint,
          "Where to listen, giop:tcp:HOST:PORT, or with TLS giop:ssl:HOST:PORT; port 0 takes "
          "any free one, no host all interfaces")
      ->capture_default_str();
  command.add_option("--ior-file", options.ior_file,
                     "File that receives the reference once the server is serving");
  auto* directory = command.add_option("--directory", options.directory,
                                       "Directory of servers: a file in which they are listed");
  command
      .add_option("--naming", options.naming,
                  "Directory of servers: a naming service, corbaloc::HOST:2809/NameService")
      ->excludes(directory);
  command.add_option("--state-dir", options.state_dir,
                     "Folder in which SnapShot/portsnap.snp lies (default: the executable's)");
  command.add_flag("--restore", options.restore, "Load the snapshot of the previous run");
  command.add_flag("--restore-damaged", options.restore_damaged,
                   "As --restore; of damaged snapshots take what is whole");
  command
      .add_option("--snapshot-every", options.snapshot_every,
                  "Seconds between snapshots, with one more at the stop (default: none are made "
                  "unasked)")
      ->check(CLI::Range(1U, 31'536'000U));
  command.add_option("--max-message", options.max_message, "Largest message, in bytes")
      ->capture_default_str()
      ->check(CLI::Range(std::uint64_t{8192}, std::uint64_t{0x7fffffff}));
  command
      .add_option("--call-timeout", options.call_timeout,
                  "Seconds after which a call to another server, that is no wait, has failed")
      ->capture_default_str()
      ->check(CLI::Range(1U, 3600U));
  command
      .add_option("--message-timeout", options.message_timeout,
                  "Seconds after which a request that has stopped half-way, or a reply that nobody "
                  "takes, gives up its connection")
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
  auto* const authorities =
      command.add_option("--tls-ca", options.tls_authorities,
                         "TLS: the certificates of the authorities that are trusted, PEM");
  auto* const key = command.add_option(
      "--tls-key", options.tls_key, "TLS: this server's own certificate and its private key, PEM");
  authorities->needs(key);
  key->needs(authorities);
  command.add_option("--trace", options.trace, "Trace level of the broker, on standard error")
      ->check(CLI::Range(0U, 40U));
}

}  // namespace

const char* role_name(Role role) { return role == Role::main ? "main" : "sub"; }

std::optional<int> parse(int argc, char** argv, Options& options) {
  CLI::App app("port_server, a server of the port service");
  app.require_subcommand(1);
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
      "certificates\nand log level again. Exit status: 0 stopped, 1 it could not start, "
      "2 bad usage.");

  CLI::App* const main = app.add_subcommand("main", "Serve as a main server");
  add_options(*main, options);
  add_feeds(*main, options);
  CLI::App* const sub = app.add_subcommand("sub", "Serve as a sub server of a main server");
  add_options(*sub, options);
  sub->add_option("--main", options.main_server, "The main server's name in the directory")
      ->required();
  sub->callback([&options] {
    if (options.main_server != options.name) return;
    throw CLI::ValidationError("--main", "a sub server cannot be its own main server");
  });

  make_numbers_decimal(app);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? status::success : status::bad_usage;
  }
  options.restore = options.restore || options.restore_damaged;
  options.role = sub->parsed() ? Role::sub : Role::main;
  if (options.interface_name.empty()) options.interface_name = options.name;
  return std::nullopt;
}

}  // namespace portsvc::server
