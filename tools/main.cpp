// portctl: the port service from the command line.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>

#include "platform/decimal_options.h"
#include "tools/arguments.h"
#include "tools/commands.h"
#include "tools/errors.h"
#include "tools/interrupt.h"
#include "tools/output.h"
#include "tools/waiting.h"

namespace {

using namespace portsvc::tools;

void describe_options(CLI::App& app, GlobalOptions& options) {
  app.add_option(
         "--server", options.server,
         "The server: a corbaloc, corbaname or IOR, HOST:PORT, or its name in the directory")
      ->envname("PORTSVC_SERVER")
      ->capture_default_str();
  auto* directory =
      app.add_option("--directory", options.directory, "Directory of servers: a file");
  app.add_option("--naming", options.naming,
                 "Directory of servers: a naming service, corbaloc::HOST:2809/NameService")
      ->excludes(directory);
  app.add_option("--realm", options.realm, "The realm in which servers are looked up");
  app.add_flag("--json", options.json, "Print results as JSON");
  app.add_option("--max-message", options.max_message, "Largest message, in bytes")
      ->capture_default_str()
      ->check(CLI::Range(std::uint64_t{8192}, std::uint64_t{1} << 31));
  auto* const authorities =
      app.add_option("--tls-ca", options.tls.authorities,
                     "TLS: the certificates of the authorities that are trusted, PEM")
          ->envname("PORTSVC_TLS_CA");
  auto* const key = app.add_option("--tls-key", options.tls.key,
                                   "TLS: your own certificate and its private key, PEM")
                        ->envname("PORTSVC_TLS_KEY");
  authorities->needs(key);
  key->needs(authorities);
  // A little more than a sub server gives its main server, so that what the sub server makes of
  // a silent main server still arrives here.
  app.add_option("--timeout-call", options.call_timeout,
                 "Seconds after which a call that is no wait has failed")
      ->capture_default_str()
      ->check(CLI::Range(1U, 3600U));
}

int run(Session& session, const Commands& commands) {
  try {
    commands.chosen(session);
    flush_output();
    return status::success;
  } catch (const Interrupted&) {
    std::fflush(stdout);
    return status::interrupted + interrupted();
  } catch (const ReaderGone&) {
    return status::failed;
  } catch (const UsageError& error) {
    warn(error.what());
    return status::bad_usage;
  } catch (const Unreachable& error) {
    warn(error.what());
    return status::unreachable;
  } catch (const CORBA::Exception& exception) {
    warn(session.explain(exception));
    return status::unreachable;
  } catch (const std::exception& error) {
    warn(error.what());
    return status::failed;
  }
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("portctl, the port service from the command line", "portctl");
  app.require_subcommand(1);
  app.fallthrough();
  app.failure_message([](const CLI::App* failed, const CLI::Error& error) {
    const auto unknown = failed->remaining();
    const bool no_command = error.get_name() == "RequiredError" && !unknown.empty();
    return no_command ? "portctl: there is no command '" + unknown.front() + "'\n"
                      : std::string("portctl: ") + error.what() + "\n";
  });
  app.footer(
      "Exit status: 0 success, 1 a result code other than 0 (or a local file that failed), 2 bad "
      "usage,\n3 the server could not be reached, 128 + signal number when interrupted.");
  GlobalOptions options;
  describe_options(app, options);
  Commands commands{app, {}};
  add_listing_commands(commands);
  add_registry_commands(commands);
  add_packet_commands(commands);
  add_event_commands(commands);
  add_cluster_commands(commands);
  add_snapshot_commands(commands);
  add_top_command(commands);
  portsvc::make_numbers_decimal(app);
  try {
    app.parse(shielded_arguments(argc, argv));
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? status::success : status::bad_usage;
  }

  catch_interrupts();
  int result = status::success;
  {
    Session session(options);
    result = run(session, commands);
    // A thread that waits in a remote call would keep the broker from ending.
    if (left_a_call_behind()) std::_Exit(result);
  }
  return result;
}
